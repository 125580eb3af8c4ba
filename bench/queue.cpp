// Records through a frame's operation queue (CHttpFrame::PostAsynOper) from
// producer threads to the loop thread, against the plain equivalent.
//
//   --impl=netloop    a running CHttpFrame; each record is an AsynOperReq
//                     whose target counts it on the loop thread
//   --impl=baseline   a libuv loop thread fed through a mutex, a vector and
//                     uv_async_send; each record is a shared object with a
//                     target the loop thread calls
//   --producers=P (1)  --n=N records in all (1000000)
//   --min-seconds=S whole runs are repeated until they add up to S seconds (1)
// Figure: records per second, from the producers' start until the loop thread
// has run the last record. Built on Google Benchmark (manual time, one
// iteration per run) and printed as one JSON line.
#include <benchmark/benchmark.h>
#include <uv.h>

#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "common/BenchUtil.h"
#include "common/OneLineReporter.h"
#include "frame/AsynOperReq.h"
#include "frame/HttpFrame.h"

namespace {

// ---------------------------------------------------------------------------
// netloop: a test-only queue target

struct LoopCount {
    uint64_t count = 0;  // loop thread only
    bench::Countdown* done = nullptr;
};

class CountingTarget : public netloop::IAsynOperInterface {
public:
    explicit CountingTarget(LoopCount* count) : m_Count(count) {}
    int DoAsynOper(std::shared_ptr<netloop::AsynOperReq>, std::shared_ptr<netloop::CHttpFrame>) override {
        // One wake-up per record would make the countdown the bottleneck: the
        // waiter hears only about the last record.
        if (++m_Count->count == m_Target) m_Count->done->Add(1);
        return 0;
    }
    bool CancelAsynOper(std::shared_ptr<netloop::AsynOperReq>) override { return false; }
    uint64_t m_Target = 0;

private:
    LoopCount* m_Count;
};

double RunNetloop(int producers, uint64_t n) {
    auto frame = std::dynamic_pointer_cast<netloop::CHttpFrame>(netloop::IHttpInterface::Create());
    frame->Init(nullptr, false, false, nullptr);
    frame->Start(true);
    bench::Countdown done(1);
    LoopCount count;
    count.done = &done;
    // One target per producer, so producers do not fight over one reference count.
    std::vector<std::shared_ptr<CountingTarget>> targets;
    for (int p = 0; p < producers; ++p) {
        targets.push_back(std::make_shared<CountingTarget>(&count));
        targets.back()->m_Target = n;
    }
    const double t0 = bench::Now();
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        const uint64_t share = n / producers + (static_cast<uint64_t>(p) < n % producers ? 1 : 0);
        threads.emplace_back([&, p, share] {
            std::shared_ptr<netloop::IAsynOperInterface> target = targets[p];
            for (uint64_t i = 0; i < share; ++i) {
                auto oper = std::make_shared<netloop::AsynOperReq>();
                oper->m_Type = netloop::OperAddTimer;
                oper->m_Oper = target;
                frame->PostAsynOper(std::move(oper));
            }
        });
    }
    for (auto& t : threads) t.join();
    const bool finished = done.Wait(120);
    const double elapsed = bench::Now() - t0;
    frame->Stop(false);
    return finished ? elapsed : -1;
}

// ---------------------------------------------------------------------------
// Baseline: mutex + vector + uv_async_send

struct PlainRecord;

class PlainTarget {
public:
    virtual void Run(const std::shared_ptr<PlainRecord>& record) = 0;
    virtual ~PlainTarget() = default;
};

struct PlainRecord {
    int type = 0;
    std::shared_ptr<PlainTarget> target;
    void* userData = nullptr;
};

class PlainCounter : public PlainTarget {
public:
    explicit PlainCounter(LoopCount* count, uint64_t target) : m_Count(count), m_Target(target) {}
    void Run(const std::shared_ptr<PlainRecord>&) override {
        if (++m_Count->count == m_Target) m_Count->done->Add(1);
    }

private:
    LoopCount* m_Count;
    uint64_t m_Target;
};

struct PlainQueue {
    uv_loop_t loop;
    uv_async_t wake;
    uv_async_t stop;
    std::mutex mutex;
    std::vector<std::shared_ptr<PlainRecord>> pending;

    static void OnWake(uv_async_t* a) {
        auto* q = static_cast<PlainQueue*>(a->data);
        std::vector<std::shared_ptr<PlainRecord>> batch;
        {
            std::lock_guard<std::mutex> lock(q->mutex);
            batch.swap(q->pending);
        }
        for (auto& r : batch) r->target->Run(r);
    }
    static void OnStop(uv_async_t* a) {
        auto* q = static_cast<PlainQueue*>(a->data);
        uv_close(reinterpret_cast<uv_handle_t*>(&q->wake), nullptr);
        uv_close(reinterpret_cast<uv_handle_t*>(&q->stop), nullptr);
    }
    void Post(std::shared_ptr<PlainRecord> r) {
        std::lock_guard<std::mutex> lock(mutex);
        pending.push_back(std::move(r));
        uv_async_send(&wake);
    }
};

double RunBaseline(int producers, uint64_t n) {
    PlainQueue q;
    uv_loop_init(&q.loop);
    uv_async_init(&q.loop, &q.wake, &PlainQueue::OnWake);
    uv_async_init(&q.loop, &q.stop, &PlainQueue::OnStop);
    q.wake.data = q.stop.data = &q;
    std::thread loopThread([&] { uv_run(&q.loop, UV_RUN_DEFAULT); });
    bench::Countdown done(1);
    LoopCount count;
    count.done = &done;
    std::vector<std::shared_ptr<PlainTarget>> targets;
    for (int p = 0; p < producers; ++p) targets.push_back(std::make_shared<PlainCounter>(&count, n));
    const double t0 = bench::Now();
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        const uint64_t share = n / producers + (static_cast<uint64_t>(p) < n % producers ? 1 : 0);
        threads.emplace_back([&, p, share] {
            std::shared_ptr<PlainTarget> target = targets[p];
            for (uint64_t i = 0; i < share; ++i) {
                auto r = std::make_shared<PlainRecord>();
                r->type = 4;
                r->target = target;
                q.Post(std::move(r));
            }
        });
    }
    for (auto& t : threads) t.join();
    const bool finished = done.Wait(120);
    const double elapsed = bench::Now() - t0;
    uv_async_send(&q.stop);
    loopThread.join();
    uv_loop_close(&q.loop);
    return finished ? elapsed : -1;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    bench::Args args(argc, argv);
    const std::string impl = args.Str("impl", "netloop");
    const int producers = static_cast<int>(args.Int("producers", 1));
    const double minSeconds = args.Num("min-seconds", 1.0);
    const uint64_t n = static_cast<uint64_t>(args.Int("n", 1000000));
    bench::StartWatchdog("queue", impl, static_cast<int>(args.Int("timeout", 120)));
    bench::Result res("queue", impl);
    res.Param("producers", producers).Param("n", static_cast<int64_t>(n));
    if (impl != "netloop" && impl != "baseline") return res.Fail("unknown --impl (netloop, baseline)");
    if (producers < 1) return res.Fail("--producers must be at least 1");

    return bench::RunRateBenchmark(res, "queue/" + impl, minSeconds, n, "records/s",
                                   "records did not all arrive in time", [&] {
                                       return impl == "netloop" ? RunNetloop(producers, n)
                                                                : RunBaseline(producers, n);
                                   });
}
