// Frame lifecycle, the operation queue and timers.
#include <pthread.h>

#include <atomic>

#include "Kit.h"
#include "sysutil/sysutil.h"

namespace {

using namespace kit;

struct StopNotice : IHttpFrameNotic {
    std::atomic<int> calls{0}, tid{0}, initResult{1};
    int OnFrameStop(std::shared_ptr<IHttpInterface> frame, void*) override {
        ++calls;
        tid = sysutil::GetTid();
        initResult = frame->Init(nullptr, false, false, nullptr);
        return 0;
    }
};

// A timer whose expiries run `fn` on the loop thread.
std::shared_ptr<ITimerHandleInterface> OnLoop(std::function<void(std::shared_ptr<ITimerHandleInterface>)> fn,
                                              uint64_t timeout = 0, uint64_t repeat = 0) {
    return ITimerHandleInterface::Create([fn](std::shared_ptr<ITimerHandleInterface> t, void*) { fn(t); }, nullptr,
                                         timeout, repeat, nullptr);
}

TEST(Frame, LifecycleRefusesWhatItsStateForbids) {
    ScopedCaptureLogger log;
    auto notice = std::make_shared<StopNotice>();
    auto frame = IHttpInterface::Create();
    auto timer = OnLoop([](auto) {});
    EXPECT_EQ(frame->Start(true), -1) << "Start before Init";
    EXPECT_EQ(frame->Stop(false), -1) << "Stop before Start";
    EXPECT_EQ(frame->AddTimerReq(timer, true, nullptr, nullptr), -1);
    EXPECT_TRUE(log->Has("[NETLOOP]Can not add timer req now", 60));
    for (int round = 1; round <= 2; ++round) {
        EXPECT_EQ(frame->Init(notice, false, round == 2, nullptr), 0) << "round " << round;
        EXPECT_EQ(frame->Init(notice, false, false, nullptr), -1) << "Init of a set-up frame";
        EXPECT_EQ(frame->Start(false), 0);
        EXPECT_TRUE(frame->WaitRunning(60000));
        EXPECT_EQ(frame->Start(true), 0) << "Start of a started frame";
        EXPECT_EQ(frame->Stop(false), 0);
        EXPECT_EQ(frame->Stop(false), -1) << "a second Stop";
        EXPECT_EQ(notice->calls, round);
        EXPECT_EQ(notice->initResult, -1) << "Init from OnFrameStop";
        EXPECT_NE(notice->tid, sysutil::GetTid());
    }
    EXPECT_EQ(log->Count("[NETLOOP]FrameThread Start", 0), 2u) << "one loop thread per Start";
    EXPECT_EQ(log->Count("[NETLOOP]FrameThread Stop", 0), 2u);
    EXPECT_EQ(log->Count("[NETLOOP]netloop::CHttpFrame::OnStop", 0), 2u);
    for (const char* kind : {"http", "udp"}) {
        auto h = IHttpHandleInterface::Create();
        auto u = IUdpHandleInterface::Create(nullptr, "127.0.0.1", 9, nullptr);
        EXPECT_EQ(kind[0] == 'h' ? frame->AddHttpReq(h, true, nullptr, nullptr)
                                 : frame->AddUdpReq(u, true, nullptr, nullptr),
                  -1);
        EXPECT_TRUE(log->Has(std::string("[NETLOOP]Can not add ") + kind + " req now", 60)) << kind;
    }
    EXPECT_EQ(frame->AddHttpReq(nullptr, true, nullptr, nullptr), -1);
}

TEST(Frame, QueueKeepsCallOrderRunsInlineOnTheLoopAndCancelsAddsAtStop) {
    Frame frame;
    // Operations queued by one thread run in call order, on the loop thread.
    std::mutex m;
    std::vector<intptr_t> order;
    std::vector<int> tids;
    std::vector<std::shared_ptr<ITimerHandleInterface>> timers;
    for (intptr_t i = 0; i < 20; ++i) {
        timers.push_back(ITimerHandleInterface::Create(nullptr, nullptr, 3600000, 0, nullptr));
        ASSERT_EQ(frame->AddTimerReq(timers.back(), true,
                                     [&](auto, void* user, int rc) {
                                         std::lock_guard<std::mutex> lock(m);
                                         order.push_back(rc == 0 ? reinterpret_cast<intptr_t>(user) : -1);
                                         tids.push_back(sysutil::GetTid());
                                     },
                                     reinterpret_cast<void*>(i)),
                  0);
    }
    ASSERT_TRUE(Await([&] { std::lock_guard<std::mutex> l(m); return order.size() == 20; }, "20 add done functions"));
    for (intptr_t i = 0; i < 20; ++i) EXPECT_EQ(order[i], i);
    EXPECT_NE(tids[0], sysutil::GetTid());

    // On the loop thread without forceAsyn the operation runs inside the call;
    // a stop made there cancels the adds still queued and runs the deletes.
    auto late = ITimerHandleInterface::Create(nullptr, nullptr, 3600000, 0, nullptr);
    Done inlineDel, queuedAdd, queuedDel;
    std::atomic<int> inlineResult{1};
    std::atomic<bool> inlineSeenFirst{false};
    char name[16] = {};
    auto driver = OnLoop([&](std::shared_ptr<ITimerHandleInterface> self) {
        pthread_getname_np(pthread_self(), name, sizeof name);
        inlineResult = frame->DelTimerReq(timers[0], false, inlineDel.Fn(), nullptr);
        inlineSeenFirst = inlineDel.Results().size() == 1;
        frame->AddTimerReq(late, true, queuedAdd.Fn(), nullptr);
        for (size_t i = 1; i < timers.size(); ++i) frame->DelTimerReq(timers[i], true, queuedDel.Fn(), nullptr);
        frame->DelTimerReq(self, true, nullptr, nullptr);
        frame->Stop(false);
    });
    ASSERT_EQ(frame->AddTimerReq(driver, true, nullptr, nullptr), 0);
    ASSERT_EQ(queuedAdd.Result("the cancelled add"), -1);
    EXPECT_EQ(inlineResult, 0);
    EXPECT_TRUE(inlineSeenFirst) << "the inline done function ran after the call returned";
    EXPECT_TRUE(Await([&] { return queuedDel.Results().size() == 19; }, "19 deletes run at the stop"));
    EXPECT_EQ(queuedDel.Results(), std::vector<int>(19, 0));
    EXPECT_EQ(frame.Stop(), -1) << "the loop stopped itself";
    EXPECT_STREQ(name, "Http") << "the loop thread's name";
}

struct TimerNotice : ITimerHandleNotic {
    std::atomic<int> fired{0}, closed{0}, firedAtClose{-1};
    void OnTimer(std::shared_ptr<ITimerHandleInterface>, void*) override { ++fired; }
    void OnClose(std::shared_ptr<ITimerHandleInterface>, void*) override {
        firedAtClose = fired.load();
        ++closed;
    }
};

TEST(Timer, ExpiresStopsRearmsAndClosesLast) {
    ScopedCaptureLogger log;
    Frame frame;
    struct Case {
        uint64_t repeat;
        bool stop, again;
    };
    for (Case c : {Case{0, false, false}, Case{1, true, false}, Case{1, true, true}}) {
        SCOPED_TRACE("repeat " + std::to_string(c.repeat) + (c.stop ? " stop" : "") + (c.again ? " again" : ""));
        auto n = std::make_shared<TimerNotice>();
        auto t = ITimerHandleInterface::Create(n, 1, c.repeat, nullptr);
        EXPECT_EQ(t->StopTimer(nullptr, nullptr), -1) << "stop before the add";
        ASSERT_EQ(frame->AddTimerReq(t, true, nullptr, nullptr), 0);
        ASSERT_TRUE(Await([&] { return n->fired >= (c.repeat ? 3 : 1); }, "expiries"));
        if (c.stop) {
            Done stopped;
            ASSERT_EQ(t->StopTimer(stopped.Fn(), nullptr), 0);
            ASSERT_EQ(stopped.Result("StopTimer's done"), 0);
            int atStop = n->fired;
            // A one-shot that outlasts several repeats shows the stopped timer stays quiet.
            Done probe;
            auto later = OnLoop([&](auto self) { frame->DelTimerReq(self, false, probe.Fn(), nullptr); }, 50);
            frame->AddTimerReq(later, true, nullptr, nullptr);
            ASSERT_EQ(probe.Result("the probe timer"), 0);
            EXPECT_EQ(n->fired, atStop) << "OnTimer after StopTimer's done";
            if (c.again) {
                Done again;
                ASSERT_EQ(t->AgainTimer(again.Fn(), nullptr), 0);
                EXPECT_EQ(again.Result("AgainTimer's done"), 0);
                EXPECT_TRUE(Await([&] { return n->fired > atStop + 2; }, "expiries after AgainTimer"));
            }
        } else {
            Done again;
            EXPECT_EQ(t->AgainTimer(again.Fn(), nullptr), 0) << "AgainTimer on a one-shot";
            EXPECT_EQ(again.Result(), 0);
        }
        Done del;
        ASSERT_EQ(frame->DelTimerReq(t, true, del.Fn(), nullptr), 0);
        ASSERT_EQ(del.Result("DelTimerReq's done"), 0);
        ASSERT_TRUE(Await([&] { return n->closed == 1; }, "OnClose"));
        EXPECT_EQ(n->firedAtClose, n->fired.load()) << "OnTimer after OnClose";
        if (!c.repeat) EXPECT_EQ(n->fired, 1);
    }
    auto stopped = std::make_shared<TimerNotice>();
    auto t = ITimerHandleInterface::Create(stopped, 3600000, 0, nullptr);
    frame->AddTimerReq(t, true, nullptr, nullptr);
    Done del;
    frame->DelTimerReq(t, true, del.Fn(), nullptr);
    ASSERT_EQ(del.Result(), 0);
    ASSERT_TRUE(Await([&] { return stopped->closed == 1; }, "OnClose"));
    frame.Stop();
    EXPECT_EQ(t->StopTimer(nullptr, nullptr), -1);
    EXPECT_TRUE(log->Has("[NETLOOP]Can not again timer req now", 60));
    EXPECT_EQ(stopped->fired, 0);
}

TEST(Timer, FunctionFormReleasesItsCapturesAfterOnClose) {
    Frame frame;
    auto token = std::make_shared<int>(0);
    std::weak_ptr<int> watch = token;
    std::atomic<int> fired{0}, closed{0};
    std::atomic<bool> aliveAtClose{false};
    auto t = ITimerHandleInterface::Create([token, &fired](auto, void*) { ++fired; },
                                           [token, &closed, &aliveAtClose, watch](auto, void*) {
                                               aliveAtClose = !watch.expired();
                                               ++closed;
                                           },
                                           1, 0, nullptr);
    token.reset();
    frame->AddTimerReq(t, true, nullptr, nullptr);
    ASSERT_TRUE(Await([&] { return fired == 1; }, "the function timer's expiry"));
    frame->DelTimerReq(t, true, nullptr, nullptr);
    ASSERT_TRUE(Await([&] { return closed == 1; }, "on_close"));
    EXPECT_TRUE(aliveAtClose);
    EXPECT_TRUE(Await([&] { return watch.expired(); }, "the release of the timer's functions"));
}

}  // namespace
