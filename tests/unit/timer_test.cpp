// Timer handles on a running frame: expiry, stop and re-arm, the threads that
// calls and notices run on, ownership, misuse, and a stress run.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "FrameTestKit.h"
#include "frame/HttpFrame.h"
#include "support/CaptureLogger.h"
#include "support/EventList.h"
#include "support/Wait.h"
#include "timer/TimerHandle.h"

using namespace netloop;
using namespace std::chrono_literals;
using testsupport::ScopedCaptureLogger;
using testsupport::WaitUntil;
using Clock = std::chrono::steady_clock;

using frametest::LoopTid;
using frametest::StartFrame;

namespace {

struct Event {
    std::string what;
    int32_t tid;
    Clock::time_point at;
};

// Records every notice and done function, in order, with its thread.
class Recorder : public ITimerHandleNotic, public testsupport::EventList<Event> {
public:
    std::function<void(std::shared_ptr<ITimerHandleInterface>)> onTimer;

    void OnTimer(std::shared_ptr<ITimerHandleInterface> handle, void*) override {
        Add("timer");
        if (onTimer) onTimer(handle);
    }
    void OnClose(std::shared_ptr<ITimerHandleInterface>, void*) override { Add("close"); }

    TimerDoneFunc Done(std::string what) {
        return [this, what](std::shared_ptr<ITimerHandleInterface>, void*, int rc) {
            Add(what + ":" + std::to_string(rc));
        };
    }
    void Add(std::string what) { Push({std::move(what), sysutil::GetTid(), Clock::now()}); }
};

// Adds and waits for the add's done function, as an application must before
// it stops or re-arms the timer.
void AddAndWait(const std::shared_ptr<IHttpInterface>& frame, const std::shared_ptr<ITimerHandleInterface>& timer) {
    std::promise<int> added;
    ASSERT_EQ(frame->AddTimerReq(timer, false, [&](std::shared_ptr<ITimerHandleInterface>, void*, int rc) {
        added.set_value(rc);
    }, nullptr), 0);
    auto f = added.get_future();
    ASSERT_EQ(f.wait_for(10s), std::future_status::ready);
    ASSERT_EQ(f.get(), 0);
}

void DeleteAndWaitClose(const std::shared_ptr<IHttpInterface>& frame, const std::shared_ptr<ITimerHandleInterface>& timer,
                        Recorder& rec) {
    ASSERT_EQ(frame->DelTimerReq(timer, false, rec.Done("del"), nullptr), 0);
    ASSERT_TRUE(rec.WaitCount("close", 1));
}

long Ms(Clock::duration d) { return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(d).count()); }

TEST(Timer, ExpiresStopsAndRearmsAsConfigured) {
    ScopedCaptureLogger log;
    auto frame = StartFrame();
    struct Case {
        const char* name;
        uint64_t timeout, repeat;
    };
    const Case cases[] = {{"immediate", 0, 0}, {"oneshot", 30, 0}, {"repeating", 20, 100}};
    std::vector<std::shared_ptr<Recorder>> recs;
    std::vector<std::shared_ptr<ITimerHandleInterface>> timers;
    auto addedAt = Clock::now();
    for (const Case& c : cases) {
        recs.push_back(std::make_shared<Recorder>());
        timers.push_back(ITimerHandleInterface::Create(recs.back(), c.timeout, c.repeat, nullptr));
        AddAndWait(frame, timers.back());
    }
    ASSERT_TRUE(recs[2]->WaitCount("timer", 4));
    std::this_thread::sleep_for(100ms);
    // One-shot timers fire once and stay open; the repeating one keeps its pace.
    EXPECT_EQ(recs[0]->Count("timer"), 1u);
    EXPECT_EQ(recs[1]->Count("timer"), 1u);
    EXPECT_GE(Ms(recs[1]->Events()[0].at - addedAt), 25);
    auto beats = recs[2]->Events();
    for (size_t i = 1; i < beats.size(); ++i) EXPECT_GE(Ms(beats[i].at - beats[i - 1].at), 80) << i;

    // Stop holds the repeating timer; Again brings it back after `repeat`.
    ASSERT_EQ(timers[2]->StopTimer(recs[2]->Done("stop"), nullptr), 0);
    ASSERT_TRUE(recs[2]->WaitCount("stop:0", 1));
    size_t firedBeforeStop = recs[2]->Count("timer");
    std::this_thread::sleep_for(250ms);
    EXPECT_EQ(recs[2]->Count("timer"), firedBeforeStop);
    auto againAt = Clock::now();
    ASSERT_EQ(timers[2]->AgainTimer(recs[2]->Done("again"), nullptr), 0);
    ASSERT_TRUE(recs[2]->WaitCount("timer", firedBeforeStop + 1));
    EXPECT_GE(Ms(recs[2]->Events().back().at - againAt), 85);

    // On an expired one-shot timer, Stop succeeds and Again is a successful no-op.
    ASSERT_EQ(timers[1]->StopTimer(recs[1]->Done("stop"), nullptr), 0);
    ASSERT_EQ(timers[1]->AgainTimer(recs[1]->Done("again"), nullptr), 0);
    ASSERT_TRUE(recs[1]->WaitCount("again:0", 1));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(recs[1]->Names(), (std::vector<std::string>{"timer", "stop:0", "again:0"}));

    for (size_t i = 0; i < timers.size(); ++i) DeleteAndWaitClose(frame, timers[i], *recs[i]);
    // The delete's done comes before OnClose, and OnClose is the last word.
    std::this_thread::sleep_for(150ms);
    for (auto& rec : recs) {
        auto names = rec->Names();
        ASSERT_GE(names.size(), 2u);
        EXPECT_EQ(names[names.size() - 2], "del:0");
        EXPECT_EQ(names.back(), "close");
    }
    EXPECT_EQ(frame->Stop(false), 0);
    for (const auto& line : log->Lines()) EXPECT_LT(line.level, 60) << line.text;
}

TEST(Timer, CallsOnTheLoopThreadRunDoneInsideTheCall) {
    auto frame = StartFrame();
    const int32_t loopTid = LoopTid(frame);
    auto rec = std::make_shared<Recorder>();
    auto timer = ITimerHandleInterface::Create(rec, 0, 50, nullptr);
    rec->onTimer = [&](std::shared_ptr<ITimerHandleInterface> self) {
        if (rec->Count("timer") != 2) return;
        // Second expiry: stop, re-arm and delete from inside the notice.
        EXPECT_EQ(self->StopTimer(rec->Done("stop"), nullptr), 0);
        rec->Add("after-stop");
        EXPECT_EQ(self->AgainTimer(rec->Done("again"), nullptr), 0);
        rec->Add("after-again");
        EXPECT_EQ(frame->DelTimerReq(self, false, rec->Done("del"), nullptr), 0);
        rec->Add("after-del");
    };
    AddAndWait(frame, timer);
    // From this thread the stop is queued: its done comes later, on the loop.
    ASSERT_EQ(timer->StopTimer(rec->Done("foreign-stop"), nullptr), 0);
    ASSERT_TRUE(rec->WaitCount("foreign-stop:0", 1));
    ASSERT_EQ(timer->AgainTimer(rec->Done("foreign-again"), nullptr), 0);
    ASSERT_TRUE(rec->WaitCount("close", 1));
    std::this_thread::sleep_for(120ms);

    auto names = rec->Names();
    std::vector<std::string> tail(names.end() - 8, names.end());
    EXPECT_EQ(tail, (std::vector<std::string>{"timer", "stop:0", "after-stop", "again:0", "after-again", "del:0",
                                              "after-del", "close"}));
    for (const auto& e : rec->Events()) EXPECT_EQ(e.tid, loopTid) << e.what;
    // A closed timer accepts stop and re-arm as no-ops while the frame runs.
    EXPECT_EQ(timer->StopTimer(nullptr, nullptr), 0);
    EXPECT_EQ(timer->AgainTimer(rec->Done("closed-again"), nullptr), 0);
    ASSERT_TRUE(rec->WaitCount("closed-again:0", 1));
    EXPECT_EQ(rec->Count("close"), 1u);
    EXPECT_EQ(frame->Stop(false), 0);
}

TEST(Timer, HandlesLiveUntilClosedAndNoLonger) {
    auto frame = StartFrame();
    std::weak_ptr<ITimerHandleInterface> dropped, selfCapturing;
    auto rec = std::make_shared<Recorder>();
    {
        // Dropped right after the add; it deletes itself from its own notice.
        auto timer = ITimerHandleInterface::Create(rec, 10, 0, nullptr);
        rec->onTimer = [&](std::shared_ptr<ITimerHandleInterface> self) {
            EXPECT_EQ(frame->DelTimerReq(self, false, rec->Done("del"), nullptr), 0);
        };
        dropped = timer;
        ASSERT_EQ(frame->AddTimerReq(timer, false, nullptr, nullptr), 0);
    }
    std::atomic<int> closes{0}, fires{0};
    {
        // A function timer whose lambda holds the handle itself: a cycle that
        // only the close may break.
        auto box = std::make_shared<std::shared_ptr<ITimerHandleInterface>>();
        auto timer = ITimerHandleInterface::Create(
            [box, &fires, &frame](std::shared_ptr<ITimerHandleInterface> self, void*) {
                ++fires;
                EXPECT_EQ(self, *box);
                frame->DelTimerReq(self, false, nullptr, nullptr);
            },
            [&closes](std::shared_ptr<ITimerHandleInterface>, void*) { ++closes; }, 0, 0, nullptr);
        *box = timer;
        selfCapturing = timer;
        ASSERT_EQ(frame->AddTimerReq(timer, false, nullptr, nullptr), 0);
    }
    ASSERT_TRUE(rec->WaitCount("close", 1));
    ASSERT_TRUE(WaitUntil([&] { return closes.load() == 1; }));
    EXPECT_TRUE(WaitUntil([&] { return dropped.expired() && selfCapturing.expired(); }));
    EXPECT_EQ(rec->Names(), (std::vector<std::string>{"timer", "del:0", "close"}));
    EXPECT_EQ(fires.load(), 1);
    EXPECT_EQ(frame->Stop(false), 0);
}

// What a function timer's functions captured goes right after OnClose, on the
// loop thread, or with the handle when it was never added.
TEST(Timer, FunctionsAndTheirCapturesGoAtTheClose) {
    struct Sentinel {
        std::function<void()> onGone;
        ~Sentinel() { onGone(); }
    };
    auto frame = StartFrame();
    std::mutex mutex;
    std::vector<std::string> events;
    auto add = [&](std::string what) {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(std::move(what));
    };
    std::atomic<int32_t> goneTid{0};
    std::weak_ptr<ITimerHandleInterface> weak;
    {
        auto onTimerGone = std::make_shared<Sentinel>();
        onTimerGone->onGone = [&] { add("timer function gone"); };
        auto onCloseGone = std::make_shared<Sentinel>();
        onCloseGone->onGone = [&] {
            add("close function gone");
            goneTid = sysutil::GetTid();
        };
        auto timer = ITimerHandleInterface::Create(
            [onTimerGone, &add](std::shared_ptr<ITimerHandleInterface>, void*) { add("timer"); },
            [onCloseGone, &add](std::shared_ptr<ITimerHandleInterface>, void*) { add("close"); }, 0, 0, nullptr);
        weak = timer;
        onTimerGone.reset();
        onCloseGone.reset();
        AddAndWait(frame, timer);
        ASSERT_TRUE(WaitUntil([&] {
            std::lock_guard<std::mutex> lock(mutex);
            return !events.empty();
        }));
        ASSERT_EQ(frame->DelTimerReq(timer, false, nullptr, nullptr), 0);
        // The application still holds the handle: the functions go all the same.
        ASSERT_TRUE(WaitUntil([&] { return goneTid.load() != 0; }));
        EXPECT_FALSE(weak.expired());
    }
    EXPECT_TRUE(WaitUntil([&] { return weak.expired(); }));
    EXPECT_EQ(goneTid.load(), LoopTid(frame));
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(events, (std::vector<std::string>{"timer", "close", "close function gone", "timer function gone"}));
        events.clear();
    }
    // Never added: the functions go with the handle, on the dropping thread.
    {
        auto gone = std::make_shared<Sentinel>();
        gone->onGone = [&] { add("never added gone"); };
        auto timer = ITimerHandleInterface::Create([gone](std::shared_ptr<ITimerHandleInterface>, void*) {}, nullptr,
                                                   1000, 0, nullptr);
        gone.reset();
        {
            std::lock_guard<std::mutex> lock(mutex);
            EXPECT_TRUE(events.empty());
        }
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(events, (std::vector<std::string>{"never added gone"}));
    }
    EXPECT_EQ(frame->Stop(false), 0);
}

TEST(Timer, MisuseAndStoppedFramesAreRefused) {
    ScopedCaptureLogger log;
    auto frame = StartFrame();
    log->Clear();
    auto rec = std::make_shared<Recorder>();
    auto fresh = ITimerHandleInterface::Create(rec, 0, 0, nullptr);
    // Not added yet: stop and re-arm are refused without a word, a delete is
    // answered -1 and touches nothing.
    EXPECT_EQ(fresh->StopTimer(rec->Done("stop"), nullptr), -1);
    EXPECT_EQ(fresh->AgainTimer(rec->Done("again"), nullptr), -1);
    ASSERT_EQ(frame->DelTimerReq(fresh, false, rec->Done("del-unadded"), nullptr), 0);
    ASSERT_TRUE(rec->WaitCount("del-unadded:-1", 1));
    EXPECT_TRUE(log->Lines().empty());

    // A second add never reaches libuv.
    AddAndWait(frame, fresh);
    ASSERT_EQ(frame->AddTimerReq(fresh, false, rec->Done("add-again"), nullptr), 0);
    ASSERT_TRUE(rec->WaitCount("add-again:-1", 1));
    EXPECT_EQ(log->Count("[NETLOOP]Init timer failed", 60), 1u);
    DeleteAndWaitClose(frame, fresh, *rec);
    ASSERT_EQ(frame->DelTimerReq(fresh, false, rec->Done("del-closed"), nullptr), 0);
    ASSERT_TRUE(rec->WaitCount("del-closed:0", 1));

    // A stop with an add still queued: its done gets -1 and the timer never fires.
    auto late = std::make_shared<Recorder>();
    auto lateTimer = ITimerHandleInterface::Create(late, 0, 0, nullptr);
    auto trigger = std::make_shared<Recorder>();
    trigger->onTimer = [&](std::shared_ptr<ITimerHandleInterface> self) {
        EXPECT_EQ(frame->AddTimerReq(lateTimer, true, late->Done("add"), nullptr), 0);
        EXPECT_EQ(frame->DelTimerReq(self, false, nullptr, nullptr), 0);
        EXPECT_EQ(frame->Stop(false), 0);
    };
    ASSERT_EQ(frame->AddTimerReq(ITimerHandleInterface::Create(trigger, 0, 0, nullptr), false, nullptr, nullptr), 0);
    auto impl = std::static_pointer_cast<CHttpFrame>(frame);
    ASSERT_TRUE(WaitUntil([&] { return impl->m_State.load() == FrameIdle; }));
    EXPECT_EQ(late->Names(), (std::vector<std::string>{"add:-1"}));

    // The frame has stopped.
    log->Clear();
    EXPECT_EQ(fresh->StopTimer(rec->Done("stop"), nullptr), -1);
    EXPECT_EQ(fresh->AgainTimer(rec->Done("again"), nullptr), -1);
    EXPECT_EQ(frame->AddTimerReq(lateTimer, false, late->Done("add"), nullptr), -1);
    std::vector<std::string> lines;
    for (const auto& l : log->Lines()) lines.push_back(l.text + "@" + std::to_string(l.level));
    EXPECT_EQ(lines, (std::vector<std::string>{"[NETLOOP]Can not again timer req now@60",
                                               "[NETLOOP]Can not again timer req now@60",
                                               "[NETLOOP]Can not add timer req now@60"}));
}

TEST(Timer, ManyThreadsChurningTimersCloseEachExactlyOnce) {
    constexpr int kThreads = 4;
    const int perThread = std::getenv("NETLOOP_SANITIZED") ? 2000 : 10000;
    const int total = kThreads * perThread;
    auto frame = StartFrame();
    std::vector<std::atomic<int>> closes(total), adds(total), dels(total);
    std::vector<std::atomic<bool>> closed(total);
    std::atomic<int> firedAfterClose{0};
    std::vector<std::weak_ptr<ITimerHandleInterface>> weak(total);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) {
                const int id = t * perThread + i;
                auto timer = ITimerHandleInterface::Create(
                    [&, id](std::shared_ptr<ITimerHandleInterface>, void*) { firedAfterClose += closed[id].load(); },
                    [&, id](std::shared_ptr<ITimerHandleInterface>, void*) {
                        closed[id] = true;
                        ++closes[id];
                    },
                    id % 3, id % 4, nullptr);
                weak[id] = timer;
                ASSERT_EQ(frame->AddTimerReq(timer, false, [&, id](std::shared_ptr<ITimerHandleInterface>, void*, int rc) {
                    adds[id] += rc == 0 ? 1 : 100;
                }, nullptr), 0);
                // Stop and re-arm race the add on purpose: before it they are refused.
                timer->StopTimer(nullptr, nullptr);
                timer->AgainTimer(nullptr, nullptr);
                ASSERT_EQ(frame->DelTimerReq(timer, false, [&, id](std::shared_ptr<ITimerHandleInterface>, void*, int rc) {
                    dels[id] += rc == 0 ? 1 : 100;
                }, nullptr), 0);
            }
        });
    for (auto& th : threads) th.join();
    ASSERT_TRUE(WaitUntil([&] {
        for (auto& c : closes)
            if (c.load() == 0) return false;
        return true;
    }, 60s));
    std::this_thread::sleep_for(50ms);
    for (int id = 0; id < total; ++id) {
        ASSERT_EQ(adds[id].load(), 1) << id;
        ASSERT_EQ(dels[id].load(), 1) << id;
        ASSERT_EQ(closes[id].load(), 1) << id;
    }
    EXPECT_EQ(firedAfterClose.load(), 0);
    EXPECT_TRUE(WaitUntil([&] {
        for (auto& w : weak)
            if (!w.expired()) return false;
        return true;
    }));
    EXPECT_EQ(frame->Stop(false), 0);
}

}  // namespace
