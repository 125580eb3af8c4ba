// The frame on its own: lifecycle, the loop thread, the operation queue and
// the stop. Records are driven through a test handle that offers the queue side.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <fstream>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "frame/HttpFrame.h"
#include "support/CaptureLogger.h"
#include "loopback/ProcessStats.h"
#include "support/Wait.h"

using namespace netloop;
using testsupport::ScopedCaptureLogger;
using testsupport::WaitUntil;

namespace {

std::shared_ptr<CHttpFrame> AsFrame(const std::shared_ptr<IHttpInterface>& frame) {
    return std::static_pointer_cast<CHttpFrame>(frame);
}

std::string ThreadName(int32_t tid) {
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/comm");
    std::string name;
    std::getline(in, name);
    return name;
}

struct StopRecord {
    std::shared_ptr<IHttpInterface> frame;
    void* userData = nullptr;
    int32_t tid = 0;
    bool running = true;
    int32_t state = -1;
};

class StopNotice : public IHttpFrameNotic {
public:
    std::function<void(std::shared_ptr<IHttpInterface>)> onStop;
    int OnFrameStop(std::shared_ptr<IHttpInterface> frame, void* userData) override {
        std::lock_guard<std::mutex> lock(m_Mutex);
        auto impl = AsFrame(frame);
        m_Calls.push_back({frame, userData, sysutil::GetTid(), impl->m_Running.load(), impl->m_State.load()});
        if (onStop) onStop(frame);
        return 0;
    }
    std::vector<StopRecord> Calls() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Calls;
    }

private:
    std::mutex m_Mutex;
    std::vector<StopRecord> m_Calls;
};

struct OperCall {
    AsynOperType type;
    void* userData;
    int32_t tid;
};

// A handle for the queue alone: it records what it is asked to execute and
// answers like a timer handle does (done with the result; adds cancelled at stop).
class TestOper : public ITimerHandleInterface, public IAsynOperInterface, public std::enable_shared_from_this<TestOper> {
public:
    std::function<int(const std::shared_ptr<AsynOperReq>&, const std::shared_ptr<CHttpFrame>&)> onDo;

    int StopTimer(TimerDoneFunc, void*) override { return -1; }
    int AgainTimer(TimerDoneFunc, void*) override { return -1; }

    int DoAsynOper(std::shared_ptr<AsynOperReq> oper, std::shared_ptr<CHttpFrame> frame) override {
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Calls.push_back({oper->m_Type, oper->m_UserData, sysutil::GetTid()});
        }
        int rc = onDo ? onDo(oper, frame) : 0;
        auto* rec = static_cast<AsynTimerReq*>(oper.get());
        if (rec->m_Done) rec->m_Done(shared_from_this(), rec->m_UserData, rc);
        return rc;
    }
    bool CancelAsynOper(std::shared_ptr<AsynOperReq> oper) override {
        if (oper->m_Type != OperAddTimer) return false;
        auto* rec = static_cast<AsynTimerReq*>(oper.get());
        if (rec->m_Done) rec->m_Done(shared_from_this(), rec->m_UserData, -1);
        return true;
    }
    std::vector<OperCall> Calls() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Calls;
    }

private:
    std::mutex m_Mutex;
    std::vector<OperCall> m_Calls;
};

// An application's own timer class: the frame must refuse it, not trust it.
class ForeignTimer : public ITimerHandleInterface {
public:
    int StopTimer(TimerDoneFunc, void*) override { return 0; }
    int AgainTimer(TimerDoneFunc, void*) override { return 0; }
};

std::shared_ptr<IHttpInterface> StartedFrame(std::shared_ptr<IHttpFrameNotic> notice = nullptr, void* userData = nullptr) {
    auto frame = IHttpInterface::Create();
    EXPECT_EQ(frame->Init(notice, false, false, userData), 0);
    EXPECT_EQ(frame->Start(true), 0);
    return frame;
}

// Runs `fn` on the frame's loop thread through a queued record and returns its result.
template <typename Fn>
auto OnLoop(const std::shared_ptr<IHttpInterface>& frame, Fn fn) -> decltype(fn()) {
    using R = decltype(fn());
    auto oper = std::make_shared<TestOper>();
    std::promise<R> result;
    oper->onDo = [&](const std::shared_ptr<AsynOperReq>&, const std::shared_ptr<CHttpFrame>&) {
        result.set_value(fn());
        return 0;
    };
    auto future = result.get_future();
    EXPECT_EQ(frame->DelTimerReq(oper, true, nullptr, nullptr), 0);
    EXPECT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    return future.get();
}

TEST(FrameLifecycle, EveryStateAcceptsAndRefusesAsDocumented) {
    ScopedCaptureLogger log;
    auto notice = std::make_shared<StopNotice>();
    auto other = std::make_shared<StopNotice>();
    int tag = 0;
    auto frame = IHttpInterface::Create();
    auto impl = AsFrame(frame);
    auto oper = std::make_shared<TestOper>();

    // Created.
    EXPECT_EQ(frame->Start(true), -1);
    EXPECT_EQ(frame->Stop(false), -1);
    EXPECT_FALSE(frame->WaitRunning(0));
    EXPECT_EQ(frame->AddTimerReq(oper, false, nullptr, nullptr), -1);
    EXPECT_TRUE(log->Has("[NETLOOP]Can not add timer req now", 60));
    log->Clear();
    EXPECT_EQ(frame->DelTimerReq(oper, false, nullptr, nullptr), -1);
    EXPECT_EQ(frame->AddTimerReq(nullptr, false, nullptr, nullptr), -1);
    EXPECT_TRUE(log->Lines().empty());

    // Ready: a second Init is refused and keeps the first notice.
    ASSERT_EQ(frame->Init(notice, false, false, &tag), 0);
    EXPECT_EQ(impl->m_State.load(), FrameReady);
    EXPECT_EQ(frame->Init(other, false, false, nullptr), -1);
    EXPECT_EQ(frame->Stop(false), -1);
    EXPECT_EQ(frame->AddHttpReq(nullptr, false, nullptr, nullptr), -1);
    EXPECT_FALSE(frame->WaitRunning(30));

    // Running: one thread, named, publishing its id.
    ASSERT_EQ(frame->Start(true), 0);
    size_t threadsRunning = testsupport::ThreadCount();
    EXPECT_EQ(frame->Start(true), 0);
    EXPECT_EQ(testsupport::ThreadCount(), threadsRunning);
    EXPECT_TRUE(frame->WaitRunning(0));
    int32_t loopTid = impl->m_Tid.load();
    EXPECT_NE(loopTid, sysutil::GetTid());
    EXPECT_EQ(ThreadName(loopTid), "Http");
    EXPECT_EQ(OnLoop(frame, [] { return sysutil::GetTid(); }), loopTid);
    EXPECT_EQ(frame->Init(other, false, false, nullptr), -1);

    // Stopped from another thread: OnFrameStop has run when Stop returns.
    ASSERT_EQ(frame->Stop(false), 0);
    auto calls = notice->Calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].frame, frame);
    EXPECT_EQ(calls[0].userData, &tag);
    EXPECT_EQ(calls[0].tid, loopTid);
    EXPECT_FALSE(calls[0].running);
    EXPECT_EQ(calls[0].state, FrameReady);
    EXPECT_TRUE(other->Calls().empty());
    EXPECT_EQ(impl->m_State.load(), FrameIdle);
    EXPECT_FALSE(impl->m_Thread.joinable());
    EXPECT_EQ(impl->m_Notice, nullptr);
    EXPECT_EQ(frame->Stop(false), -1);
    EXPECT_EQ(frame->Start(true), -1);
    EXPECT_EQ(testsupport::ThreadCount(), threadsRunning - 1);

    const std::vector<std::pair<std::string, int>> expected = {
        {"[NETLOOP]FrameThread Start", 0},
        {"[NETLOOP]netloop::CHttpFrame::OnStop", 0},
        {"[NETLOOP]FrameThread Stop", 0},
        {"[NETLOOP]m_AsynOperReqList size[0]", 0},
    };
    int at = 0;
    for (const auto& [text, level] : expected) {
        EXPECT_EQ(log->Count(text, level), 1u) << text;
        int next = log->IndexOf(text);
        EXPECT_GE(next, at) << text << " out of order";
        at = next;
    }

    // Begins again with a new Init: a new thread, a new id, the new notice.
    ASSERT_EQ(frame->Init(other, true, true, nullptr), 0);
    ASSERT_EQ(frame->Start(false), 0);
    ASSERT_TRUE(frame->WaitRunning(5000));
    EXPECT_NE(impl->m_Tid.load(), loopTid);
    EXPECT_EQ(ThreadName(impl->m_Tid.load()), "Http");
    ASSERT_EQ(frame->Stop(false), 0);
    EXPECT_EQ(other->Calls().size(), 1u);
    EXPECT_EQ(notice->Calls().size(), 1u);
}

TEST(FrameLifecycle, InitInsideOnFrameStopIsRefusedAndNullNoticeStopsQuietly) {
    auto notice = std::make_shared<StopNotice>();
    int initResult = 0;
    notice->onStop = [&](std::shared_ptr<IHttpInterface> frame) { initResult = frame->Init(nullptr, false, false, nullptr); };
    auto frame = StartedFrame(notice);
    ASSERT_EQ(frame->Stop(false), 0);
    EXPECT_EQ(initResult, -1);

    auto silent = StartedFrame(nullptr);
    EXPECT_EQ(silent->Stop(false), 0);
    EXPECT_EQ(AsFrame(silent)->m_State.load(), FrameIdle);
}

TEST(FrameLifecycle, StopOnTheLoopThreadDetachesAndEndsAfterTheCallback) {
    for (bool forceAsyn : {false, true}) {
        SCOPED_TRACE(forceAsyn ? "forceAsyn" : "direct");
        auto notice = std::make_shared<StopNotice>();
        auto frame = StartedFrame(notice);
        auto impl = AsFrame(frame);
        struct Seen {
            int result;
            bool runningAfter;
            bool joinable;
        };
        Seen seen = OnLoop(frame, [&] {
            int rc = frame->Stop(forceAsyn);
            return Seen{rc, impl->m_Running.load(), impl->m_Thread.joinable()};
        });
        EXPECT_EQ(seen.result, 0);
        EXPECT_EQ(seen.runningAfter, forceAsyn);  // direct: OnStop has already run
        EXPECT_FALSE(seen.joinable);
        ASSERT_TRUE(WaitUntil([&] { return impl->m_State.load() == FrameIdle && notice->Calls().size() == 1; }));
        EXPECT_EQ(frame->Stop(false), -1);
        // The detached thread may still be leaving; a new Init waits for state 0.
        ASSERT_TRUE(WaitUntil([&] { return frame->Init(nullptr, false, false, nullptr) == 0; }));
        ASSERT_EQ(frame->Start(true), 0);
        EXPECT_EQ(frame->Stop(false), 0);
    }
}

TEST(FrameQueue, DirectAndQueuedRoadsOnTheLoopThread) {
    auto frame = StartedFrame();
    auto impl = AsFrame(frame);
    auto oper = std::make_shared<TestOper>();
    oper->onDo = [](const std::shared_ptr<AsynOperReq>& r, const std::shared_ptr<CHttpFrame>&) {
        return r->m_UserData == reinterpret_cast<void*>(1) ? 7 : 0;
    };
    std::vector<std::string> order;
    auto note = [&order](const char* what) {
        return [&order, what](std::shared_ptr<ITimerHandleInterface>, void*, int rc) {
            order.push_back(std::string(what) + ":" + std::to_string(rc));
        };
    };
    auto seen = OnLoop(frame, [&] {
        std::vector<int> results;
        results.push_back(frame->DelTimerReq(oper, true, note("queued-first"), nullptr));
        // Direct: runs inside the call, done first, its result returned.
        results.push_back(frame->DelTimerReq(oper, false, note("direct"), reinterpret_cast<void*>(1)));
        order.push_back("returned");
        results.push_back(frame->AddTimerReq(oper, true, note("queued-second"), nullptr));
        return results;
    });
    EXPECT_EQ(seen, (std::vector<int>{0, 7, 0}));
    ASSERT_TRUE(WaitUntil([&] { return OnLoop(frame, [&] { return order.size(); }) == 4; }));
    EXPECT_EQ(OnLoop(frame, [&] { return order; }),
              (std::vector<std::string>{"direct:7", "returned", "queued-first:0", "queued-second:0"}));
    for (const auto& call : oper->Calls()) EXPECT_EQ(call.tid, impl->m_Tid.load());

    // A foreign handle is refused before anything is queued.
    EXPECT_EQ(frame->AddTimerReq(std::make_shared<ForeignTimer>(), false, nullptr, nullptr), -1);
    EXPECT_EQ(frame->Stop(false), 0);
}

TEST(FrameQueue, ProducersLoseNothingAndKeepTheirOrder) {
    constexpr int kThreads = 4;
    const int perThread = std::getenv("NETLOOP_SANITIZED") ? 20000 : 100000;
    auto frame = StartedFrame();
    auto oper = std::make_shared<TestOper>();
    std::vector<std::vector<int>> seen(kThreads);  // loop thread only
    std::atomic<int> executed{0};
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t)
        producers.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) {
                auto done = [&, t, i](std::shared_ptr<ITimerHandleInterface>, void*, int) {
                    seen[t].push_back(i);
                    executed.fetch_add(1, std::memory_order_release);
                };
                ASSERT_EQ(frame->DelTimerReq(oper, false, done, nullptr), 0);
            }
        });
    for (auto& p : producers) p.join();
    ASSERT_TRUE(WaitUntil([&] { return executed.load(std::memory_order_acquire) == kThreads * perThread; },
                          std::chrono::seconds(60)));
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(seen[t].size(), static_cast<size_t>(perThread));
        for (int i = 0; i < perThread; ++i) ASSERT_EQ(seen[t][i], i) << "thread " << t;
    }
    EXPECT_EQ(frame->Stop(false), 0);
}

TEST(FrameQueue, StopCancelsQueuedAddsAndRunsEverythingElse) {
    ScopedCaptureLogger log;
    auto frame = StartedFrame();
    auto impl = AsFrame(frame);
    auto oper = std::make_shared<TestOper>();
    std::vector<std::string> events;  // loop thread only until the stop returns
    auto done = [&events](const char* what) {
        return [&events, what](std::shared_ptr<ITimerHandleInterface>, void*, int rc) {
            events.push_back(std::string(what) + ":" + std::to_string(rc));
        };
    };
    std::promise<void> entered, queued;
    auto gate = std::make_shared<TestOper>();
    gate->onDo = [&](const std::shared_ptr<AsynOperReq>&, const std::shared_ptr<CHttpFrame>&) {
        entered.set_value();
        queued.get_future().wait();
        return frame->Stop(false);  // on the loop thread: OnStop runs here
    };
    ASSERT_EQ(frame->DelTimerReq(gate, false, nullptr, nullptr), 0);
    ASSERT_EQ(entered.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    ASSERT_EQ(frame->AddTimerReq(oper, false, done("add1"), nullptr), 0);
    ASSERT_EQ(frame->DelTimerReq(oper, false, done("del1"), nullptr), 0);
    ASSERT_EQ(frame->AddTimerReq(oper, false, nullptr, nullptr), 0);  // cancelled without a sound
    auto post = std::make_shared<AsynTimerReq>();
    post->m_Type = OperStopTimer;
    post->m_Oper = oper;
    post->m_Done = done("post");
    impl->PostAsynOper(post);
    queued.set_value();

    ASSERT_TRUE(WaitUntil([&] { return impl->m_State.load() == FrameIdle; }));
    EXPECT_EQ(events, (std::vector<std::string>{"add1:-1", "del1:0", "post:0"}));
    auto calls = oper->Calls();
    ASSERT_EQ(calls.size(), 2u);  // no add reached DoAsynOper
    EXPECT_EQ(calls[0].type, OperDelTimer);
    EXPECT_EQ(calls[1].type, OperStopTimer);
    EXPECT_TRUE(log->Has("[NETLOOP]m_AsynOperReqList size[0]", 0));

    // Stopped: adds are refused with their message, deletes and null handles quietly.
    log->Clear();
    EXPECT_EQ(frame->AddTimerReq(oper, false, done("late"), nullptr), -1);
    EXPECT_EQ(frame->AddHttpReq(std::shared_ptr<IHttpHandleInterface>(), false, nullptr, nullptr), -1);
    EXPECT_EQ(frame->DelTimerReq(oper, false, done("late"), nullptr), -1);
    EXPECT_EQ(frame->DelUdpReq(nullptr, false, nullptr, nullptr), -1);
    impl->PostAsynOper(post);
    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "[NETLOOP]Can not add timer req now");
    EXPECT_EQ(lines[1].text, "[NETLOOP]Can not add timer req now");
    EXPECT_EQ(lines[1].level, 60);
    EXPECT_EQ(events.size(), 3u);
}

TEST(FrameQueue, StopInsideABatchTreatsTheRestOfTheBatchLikeTheQueue) {
    auto frame = StartedFrame();
    auto impl = AsFrame(frame);
    auto oper = std::make_shared<TestOper>();
    std::vector<std::string> events;
    auto done = [&events](const char* what) {
        return [&events, what](std::shared_ptr<ITimerHandleInterface>, void*, int rc) {
            events.push_back(std::string(what) + ":" + std::to_string(rc));
        };
    };
    // Hold the loop so the next four records are taken as one batch.
    std::promise<void> entered, release;
    auto blocker = std::make_shared<TestOper>();
    blocker->onDo = [&](const std::shared_ptr<AsynOperReq>&, const std::shared_ptr<CHttpFrame>&) {
        entered.set_value();
        release.get_future().wait();
        return 0;
    };
    ASSERT_EQ(frame->DelTimerReq(blocker, false, nullptr, nullptr), 0);
    ASSERT_EQ(entered.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    auto stopper = std::make_shared<TestOper>();
    stopper->onDo = [&](const std::shared_ptr<AsynOperReq>&, const std::shared_ptr<CHttpFrame>&) {
        return frame->Stop(false);
    };
    ASSERT_EQ(frame->DelTimerReq(stopper, false, done("stop"), nullptr), 0);
    ASSERT_EQ(frame->AddTimerReq(oper, false, done("add"), nullptr), 0);
    ASSERT_EQ(frame->DelTimerReq(oper, false, done("del"), nullptr), 0);
    ASSERT_EQ(frame->AddTimerReq(oper, false, done("add2"), nullptr), 0);
    release.set_value();
    ASSERT_TRUE(WaitUntil([&] { return impl->m_State.load() == FrameIdle; }));
    // The adds behind the stop are cancelled, the delete still runs; the
    // stopping record's own done function comes when it returns.
    EXPECT_EQ(events, (std::vector<std::string>{"add:-1", "add2:-1", "del:0", "stop:0"}));
    auto calls = oper->Calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].type, OperDelTimer);
}

// Lets the next `allowed` descriptors open and refuses the rest.
class FdLimit {
public:
    explicit FdLimit(int allowed) {
        ::getrlimit(RLIMIT_NOFILE, &m_Saved);
        auto used = testsupport::OpenFds();
        int fd = 0;
        for (int free = 0;; ++fd)
            if (!used.count(fd) && free++ == allowed) break;
        struct rlimit lim = m_Saved;
        lim.rlim_cur = static_cast<rlim_t>(fd);
        ::setrlimit(RLIMIT_NOFILE, &lim);
    }
    ~FdLimit() { ::setrlimit(RLIMIT_NOFILE, &m_Saved); }

private:
    struct rlimit m_Saved;
};

// libuv and libcurl keep a few process-wide descriptors from their first use on.
void WarmUpProcessWideState() {
    auto frame = IHttpInterface::Create();
    ASSERT_EQ(frame->Init(nullptr, false, true, nullptr), 0);
}

TEST(FrameLifecycle, FailedInitReleasesWhatItBuiltAndLogsTheStep) {
    WarmUpProcessWideState();
    auto frame = IHttpInterface::Create();
    auto impl = AsFrame(frame);
    size_t fdsBefore = testsupport::OpenFdCount();
    bool sawSuccess = false;
    for (int allowed = 0; allowed < 8 && !sawSuccess; ++allowed) {
        SCOPED_TRACE(allowed);
        ScopedCaptureLogger log;
        int rc;
        {
            FdLimit limit(allowed);
            rc = frame->Init(nullptr, false, true, nullptr);
        }
        if (rc == 0) {
            sawSuccess = true;
            ASSERT_EQ(frame->Start(true), 0);
            EXPECT_EQ(frame->Stop(false), 0);
        } else {
            EXPECT_EQ(impl->m_State.load(), FrameIdle);
            EXPECT_EQ(impl->m_Loop, nullptr);
            EXPECT_EQ(impl->m_Multi, nullptr);
            EXPECT_EQ(impl->m_Share, nullptr);
            auto lines = log->Lines();
            ASSERT_EQ(lines.size(), 1u);
            EXPECT_EQ(lines[0].level, 60);
            EXPECT_EQ(lines[0].text.rfind("[NETLOOP]err[", 0), 0u) << lines[0].text;
        }
        EXPECT_EQ(testsupport::OpenFdCount(), fdsBefore);
    }
    EXPECT_TRUE(sawSuccess);
}

TEST(FrameLifecycle, DroppedWhileSetUpOrRunningLeavesNothingBehind) {
    WarmUpProcessWideState();
    size_t fds = testsupport::OpenFdCount();
    size_t threads = testsupport::ThreadCount();
    {
        auto frame = IHttpInterface::Create();
        ASSERT_EQ(frame->Init(nullptr, true, true, nullptr), 0);
    }  // never started: the destructor releases loop, multi and share
    EXPECT_EQ(testsupport::OpenFdCount(), fds);

    const int cycles = std::getenv("NETLOOP_SANITIZED") ? 200 : 1000;
    for (int i = 0; i < cycles; ++i) {
        auto frame = IHttpInterface::Create();
        ASSERT_EQ(frame->Init(nullptr, i % 2 == 0, i % 3 == 0, nullptr), 0);
        ASSERT_EQ(frame->Start(i % 2 == 0), 0);
        ASSERT_TRUE(frame->WaitRunning(10000));
        ASSERT_EQ(frame->Stop(false), 0);
    }
    EXPECT_EQ(testsupport::OpenFdCount(), fds);
    EXPECT_EQ(testsupport::ThreadCount(), threads);
}

}  // namespace
