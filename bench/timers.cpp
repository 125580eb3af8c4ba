// One-shot 0 ms timers requested by an application thread.
//
//   --mode=rate (default): N timers created and added, all fired, then all
//       deleted, from the application thread; figure: timers per second from
//       the first create to the last close.
//   --mode=rss: N timers of one hour armed, then the process's peak resident
//       memory above what it had before; figure: bytes per timer.
//   --impl=netloop    ITimerHandleInterface::Create + AddTimerReq / DelTimerReq
//   --impl=queued     plain libuv timers on a loop thread, asked for through a
//                     mutex + vector + uv_async_send queue (start and close)
//   --impl=direct     plain libuv timers armed and closed on the loop's own
//                     thread (rate only): what the loop itself costs
//   --n=N (100000)
//   --min-seconds=S rate mode: whole runs repeated until they add up to S (1)
// The rate mode runs under Google Benchmark (manual time, one iteration per run).
#include <benchmark/benchmark.h>
#include <uv.h>

#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "common/BenchUtil.h"
#include "common/NetloopFrame.h"
#include "common/OneLineReporter.h"
#include "netloop/IHttpInterface.h"

namespace {

using namespace netloop;

constexpr uint64_t kHourMs = 3600 * 1000;

// ---------------------------------------------------------------------------
// netloop

struct NetloopTimers {
    bench::FrameScope frame;
    bench::Countdown fired, added, closed;
    std::vector<std::shared_ptr<ITimerHandleInterface>> timers;

    bool Arm(uint64_t n, uint64_t timeoutMs) {
        fired.Reset(n);
        added.Reset(n);
        closed.Reset(n);
        timers.reserve(n);
        TimerFunc onTimer = [this](std::shared_ptr<ITimerHandleInterface>, void*) { fired.Add(1); };
        TimerFunc onClose = [this](std::shared_ptr<ITimerHandleInterface>, void*) { closed.Add(1); };
        TimerDoneFunc onAdded = [this](std::shared_ptr<ITimerHandleInterface>, void*, int rc) {
            if (rc == 0) added.Add(1);
        };
        for (uint64_t i = 0; i < n; ++i) {
            timers.push_back(ITimerHandleInterface::Create(onTimer, onClose, timeoutMs, 0, nullptr));
            if (frame->AddTimerReq(timers.back(), true, onAdded, nullptr) != 0) return false;
        }
        return true;
    }
    bool DeleteAll() {
        for (auto& t : timers)
            if (frame->DelTimerReq(t, true, nullptr, nullptr) != 0) return false;
        timers.clear();
        return true;
    }
};

// ---------------------------------------------------------------------------
// Plain libuv timers behind a request queue

struct PlainTimer {
    uv_timer_t timer;
    struct Owner* owner;
};

struct Owner {
    uv_loop_t loop;
    uv_async_t wake, stop;
    std::mutex mutex;
    struct Request {
        bool start;
        PlainTimer* timer;
    };
    std::vector<Request> pending;
    uint64_t timeoutMs = 0;
    bench::Countdown fired, added, closed;
    std::thread thread;

    Owner() {
        uv_loop_init(&loop);
        uv_async_init(&loop, &wake, &Owner::OnWake);
        uv_async_init(&loop, &stop, &Owner::OnStop);
        wake.data = stop.data = this;
        thread = std::thread([this] { uv_run(&loop, UV_RUN_DEFAULT); });
    }
    ~Owner() {
        uv_async_send(&stop);
        thread.join();
        uv_loop_close(&loop);
    }
    void Post(bool start, PlainTimer* t) {
        std::lock_guard<std::mutex> lock(mutex);
        pending.push_back(Request{start, t});
        uv_async_send(&wake);
    }
    static void OnWake(uv_async_t* a) {
        auto* self = static_cast<Owner*>(a->data);
        std::vector<Request> batch;
        {
            std::lock_guard<std::mutex> lock(self->mutex);
            batch.swap(self->pending);
        }
        for (const Request& r : batch) {
            if (r.start) {
                uv_timer_init(&self->loop, &r.timer->timer);
                r.timer->timer.data = r.timer;
                if (uv_timer_start(&r.timer->timer, &Owner::OnTimer, self->timeoutMs, 0) == 0) self->added.Add(1);
            } else {
                uv_timer_stop(&r.timer->timer);
                uv_close(reinterpret_cast<uv_handle_t*>(&r.timer->timer), &Owner::OnClosed);
            }
        }
    }
    static void OnTimer(uv_timer_t* t) { static_cast<PlainTimer*>(t->data)->owner->fired.Add(1); }
    static void OnClosed(uv_handle_t* h) {
        auto* t = static_cast<PlainTimer*>(h->data);
        t->owner->closed.Add(1);
        delete t;
    }
    static void OnStop(uv_async_t* a) {
        auto* self = static_cast<Owner*>(a->data);
        uv_close(reinterpret_cast<uv_handle_t*>(&self->wake), nullptr);
        uv_close(reinterpret_cast<uv_handle_t*>(&self->stop), nullptr);
    }
};

struct QueuedTimers {
    Owner owner;
    std::vector<PlainTimer*> timers;

    bool Arm(uint64_t n, uint64_t timeoutMs) {
        owner.fired.Reset(n);
        owner.added.Reset(n);
        owner.closed.Reset(n);
        owner.timeoutMs = timeoutMs;
        timers.reserve(n);
        for (uint64_t i = 0; i < n; ++i) {
            auto* t = new PlainTimer;
            t->owner = &owner;
            timers.push_back(t);
            owner.Post(true, t);
        }
        return true;
    }
    bool DeleteAll() {
        for (PlainTimer* t : timers) owner.Post(false, t);
        timers.clear();
        return true;
    }
};

// ---------------------------------------------------------------------------
// Plain libuv timers on the loop's own thread

double RunDirect(uint64_t n) {
    uv_loop_t loop;
    uv_loop_init(&loop);
    struct State {
        uint64_t fired = 0, closed = 0;
    } state;
    const double t0 = bench::Now();
    std::vector<uv_timer_t*> timers;
    timers.reserve(n);
    for (uint64_t i = 0; i < n; ++i) {
        auto* t = new uv_timer_t;
        uv_timer_init(&loop, t);
        t->data = &state;
        uv_timer_start(t, [](uv_timer_t* h) { ++static_cast<State*>(h->data)->fired; }, 0, 0);
        timers.push_back(t);
    }
    while (state.fired < n) uv_run(&loop, UV_RUN_ONCE);
    for (uv_timer_t* t : timers) {
        uv_timer_stop(t);
        uv_close(reinterpret_cast<uv_handle_t*>(t), [](uv_handle_t* h) {
            ++static_cast<State*>(h->data)->closed;
            delete reinterpret_cast<uv_timer_t*>(h);
        });
    }
    uv_run(&loop, UV_RUN_DEFAULT);
    const double elapsed = bench::Now() - t0;
    uv_loop_close(&loop);
    return state.closed == n ? elapsed : -1;
}

// Creates, fires and deletes `n` timers through `impl`; seconds, or -1.
template <typename Impl>
double RunRate(Impl& impl, bench::Countdown& fired, bench::Countdown& closed, uint64_t n, double limit) {
    const double t0 = bench::Now();
    if (!impl.Arm(n, 0) || !fired.Wait(limit)) return -1;
    if (!impl.DeleteAll() || !closed.Wait(limit)) return -1;
    return bench::Now() - t0;
}

template <typename Impl>
int RunRss(bench::Result& res, Impl& impl, bench::Countdown& added, bench::Countdown& closed, uint64_t n,
           double limit) {
    // One timer through the whole cycle first: one-time set-up is not a
    // per-timer cost. Then let the set-up settle and measure from here.
    if (!impl.Arm(1, 0) || !added.Wait(limit) || !impl.DeleteAll() || !closed.Wait(limit))
        return res.Fail("the first timer did not go through");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    bench::ResetPeakResident();
    const size_t before = bench::ResidentBytes();
    if (!impl.Arm(n, kHourMs) || !added.Wait(limit)) return res.Fail("timers were not all armed in time");
    const size_t peak = bench::PeakResidentBytes();
    if (!impl.DeleteAll() || !closed.Wait(limit)) return res.Fail("timers were not all closed in time");
    res.Extra("rss_before", static_cast<double>(before)).Extra("rss_peak", static_cast<double>(peak));
    return res.Print(static_cast<double>(peak - before) / static_cast<double>(n), "bytes/timer");
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    bench::Args args(argc, argv);
    const std::string impl = args.Str("impl", "netloop");
    const std::string mode = args.Str("mode", "rate");
    const double minSeconds = args.Num("min-seconds", 1.0);
    const uint64_t n = static_cast<uint64_t>(args.Int("n", 100000));
    const int timeout = static_cast<int>(args.Int("timeout", 120));
    bench::StartWatchdog("timers", impl, timeout);
    bench::Result res("timers", impl);
    res.Param("mode", mode).Param("n", static_cast<int64_t>(n));
    if (impl != "netloop" && impl != "queued" && impl != "direct")
        return res.Fail("unknown --impl (netloop, queued, direct)");

    if (mode == "rss") {
        if (impl == "netloop") {
            NetloopTimers timers;
            if (!timers.frame.ok()) return res.Fail("frame did not start");
            return RunRss(res, timers, timers.added, timers.closed, n, timeout);
        }
        if (impl == "queued") {
            QueuedTimers timers;
            return RunRss(res, timers, timers.owner.added, timers.owner.closed, n, timeout);
        }
        return res.Fail("--mode=rss takes --impl=netloop or queued");
    }
    if (mode != "rate") return res.Fail("unknown --mode (rate, rss)");

    return bench::RunRateBenchmark(res, "timers/" + impl, minSeconds, n, "timers/s",
                                   "timers did not all fire and close in time", [&]() -> double {
                                       if (impl == "netloop") {
                                           NetloopTimers timers;
                                           if (!timers.frame.ok()) return -1;
                                           return RunRate(timers, timers.fired, timers.closed, n, timeout);
                                       }
                                       if (impl == "queued") {
                                           QueuedTimers timers;
                                           return RunRate(timers, timers.owner.fired, timers.owner.closed, n,
                                                          timeout);
                                       }
                                       return RunDirect(n);
                                   });
}
