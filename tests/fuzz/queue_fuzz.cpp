// Arbitrary schedules of adds, deletes, posts and stops, from the application
// thread and from the loop thread, against a real frame. The queue must keep
// its promises: a refused call never calls its done function, an accepted one
// calls it exactly once by the time the frame has stopped, a cancelled add is
// told -1 and never executed, and the records of one thread run in call order.
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "frame/HttpFrame.h"

using namespace netloop;

namespace {

struct Outcome {
    int calls = 0;
    int result = 0;
    bool accepted = false;  // the call returned 0 on the queue road
    bool executed = false;  // DoAsynOper ran for it
    bool fromApp = false;   // made on the application thread
    AsynOperType type = OperStopTimer;
};

struct Schedule {
    std::mutex mutex;
    std::vector<Outcome> outcomes;
    std::vector<int> executionOrder;  // sequence numbers, as DoAsynOper ran them

    int NewSeq(AsynOperType type, bool fromApp) {
        std::lock_guard<std::mutex> lock(mutex);
        outcomes.push_back({});
        outcomes.back().type = type;
        outcomes.back().fromApp = fromApp;
        return static_cast<int>(outcomes.size()) - 1;
    }
    TimerDoneFunc DoneFor(int seq) {
        return [this, seq](std::shared_ptr<ITimerHandleInterface>, void*, int rc) {
            std::lock_guard<std::mutex> lock(mutex);
            ++outcomes[seq].calls;
            outcomes[seq].result = rc;
        };
    }
};

Schedule* g_Schedule = nullptr;

// A handle that executes records by running their done function; some
// records carry a follow-up step to run on the loop thread.
class FuzzOper : public ITimerHandleInterface, public IAsynOperInterface, public std::enable_shared_from_this<FuzzOper> {
public:
    int StopTimer(TimerDoneFunc, void*) override { return -1; }
    int AgainTimer(TimerDoneFunc, void*) override { return -1; }
    int DoAsynOper(std::shared_ptr<AsynOperReq> oper, std::shared_ptr<CHttpFrame>) override {
        int seq = static_cast<int>(reinterpret_cast<intptr_t>(oper->m_UserData));
        {
            std::lock_guard<std::mutex> lock(g_Schedule->mutex);
            g_Schedule->outcomes[seq].executed = true;
            g_Schedule->executionOrder.push_back(seq);
        }
        auto* rec = static_cast<AsynTimerReq*>(oper.get());
        if (rec->m_Done) rec->m_Done(shared_from_this(), oper->m_UserData, 0);
        if (onLoop) {
            auto step = std::move(onLoop);
            onLoop = nullptr;
            step();
        }
        return 0;
    }
    bool CancelAsynOper(std::shared_ptr<AsynOperReq> oper) override {
        if (oper->m_Type != OperAddTimer) return false;
        auto* rec = static_cast<AsynTimerReq*>(oper.get());
        if (rec->m_Done) rec->m_Done(shared_from_this(), oper->m_UserData, -1);
        return true;
    }
    std::function<void()> onLoop;  // loop thread only
};

void* SeqPtr(int seq) { return reinterpret_cast<void*>(static_cast<intptr_t>(seq)); }

// One call of the schedule; `fromLoop` marks calls made on the loop thread.
void Call(CHttpFrame& frame, const std::shared_ptr<FuzzOper>& oper, uint8_t op, bool fromLoop) {
    Schedule& s = *g_Schedule;
    const bool forceAsyn = op & 0x10;
    switch (op & 3) {
        case 0: {
            int seq = s.NewSeq(OperAddTimer, !fromLoop);
            int rc = frame.AddTimerReq(oper, forceAsyn, s.DoneFor(seq), SeqPtr(seq));
            std::lock_guard<std::mutex> lock(s.mutex);
            s.outcomes[seq].accepted = rc == 0 && (forceAsyn || !fromLoop);
            break;
        }
        case 1: {
            int seq = s.NewSeq(OperDelTimer, !fromLoop);
            int rc = frame.DelTimerReq(oper, forceAsyn, s.DoneFor(seq), SeqPtr(seq));
            std::lock_guard<std::mutex> lock(s.mutex);
            s.outcomes[seq].accepted = rc == 0 && (forceAsyn || !fromLoop);
            break;
        }
        case 2: {
            int seq = s.NewSeq(OperStopTimer, !fromLoop);
            auto rec = std::make_shared<AsynTimerReq>();
            rec->m_Type = OperStopTimer;
            rec->m_Oper = oper;
            rec->m_UserData = SeqPtr(seq);
            rec->m_Done = s.DoneFor(seq);
            bool running = frame.m_Running.load();
            frame.PostAsynOper(rec);
            std::lock_guard<std::mutex> lock(s.mutex);
            // Posted while the loop ran and from the loop thread itself: it
            // cannot have stopped in between.
            s.outcomes[seq].accepted = running && fromLoop;
            break;
        }
        case 3:
            // Stop has one caller at a time: the schedule stops from the loop
            // thread only, and the application thread stops at the very end.
            if (fromLoop) frame.Stop(forceAsyn);
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sysutil::SetLogLevel(100);  // refusals are expected here; keep them out of the output
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 64) return 0;
    Schedule schedule;
    g_Schedule = &schedule;
    auto iface = IHttpInterface::Create();
    auto& frame = static_cast<CHttpFrame&>(*iface);
    if (frame.Init(nullptr, false, false, nullptr) != 0 || frame.Start(false) != 0) std::abort();
    while (!frame.m_Running.load()) std::this_thread::yield();

    std::vector<std::shared_ptr<FuzzOper>> opers;
    for (int i = 0; i < 2; ++i) opers.push_back(std::make_shared<FuzzOper>());
    for (size_t i = 0; i < size; ++i) {
        uint8_t op = data[i];
        auto& oper = opers[(op >> 2) & 1 ? 1 : 0];
        if (op & 0x20) {
            // This call and the next are made on the loop thread, right after
            // the record below has run.
            uint8_t next = i + 1 < size ? data[++i] : 0;
            auto gate = std::make_shared<FuzzOper>();
            gate->onLoop = [&frame, oper, op, next] {
                Call(frame, oper, op, true);
                Call(frame, oper, next, true);
            };
            int seq = schedule.NewSeq(OperDelTimer, true);
            int rc = frame.DelTimerReq(gate, false, schedule.DoneFor(seq), SeqPtr(seq));
            std::lock_guard<std::mutex> lock(schedule.mutex);
            schedule.outcomes[seq].accepted = rc == 0;
        } else {
            Call(frame, oper, op, false);
        }
    }
    // End: let every gate run (a stop may still be in them), then stop from
    // here, which is a no-op if the schedule stopped already.
    std::atomic<bool> drained{false};
    if (frame.DelTimerReq(std::make_shared<FuzzOper>(), false, [&](std::shared_ptr<ITimerHandleInterface>, void*, int) { drained = true; },
                          SeqPtr(schedule.NewSeq(OperDelTimer, false))) == 0) {
        while (!drained.load() && frame.m_Running.load()) std::this_thread::yield();
    }
    frame.Stop(false);
    while (frame.m_State.load() != FrameIdle) std::this_thread::yield();
    if (frame.m_Thread.joinable()) frame.m_Thread.join();

    std::lock_guard<std::mutex> lock(schedule.mutex);
    for (const Outcome& o : schedule.outcomes) {
        if (o.calls > 1) std::abort();                // never twice
        if (o.accepted && o.calls != 1) std::abort();  // accepted: answered exactly once
        if (o.result == -1 && o.executed) std::abort();  // cancelled: never executed
    }
    // Records queued by the application thread run in call order.
    int last = -1;
    for (int seq : schedule.executionOrder) {
        const Outcome& o = schedule.outcomes[seq];
        if (!o.accepted || !o.fromApp) continue;
        if (seq < last) std::abort();
        last = seq;
    }
    g_Schedule = nullptr;
    return 0;
}
