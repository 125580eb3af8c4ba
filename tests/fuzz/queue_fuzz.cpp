// Arbitrary schedules of adds, deletes, posts and stops, from the application
// thread and from the loop thread, against a real frame: a refused call never
// calls its done function, an accepted one calls it exactly once by the stop,
// a cancelled add is never executed, and one thread's records run in order.
#include <mutex>
#include <thread>
#include <vector>

#include "frame/HttpFrame.h"

using namespace netloop;

namespace {

struct Outcome {
    int calls = 0, result = 0;
    bool accepted = false, executed = false, fromApp = false;
};

std::mutex g_Mutex;
std::vector<Outcome> g_Outcomes;
std::vector<int> g_Order;  // sequence numbers, as DoAsynOper ran them

int NewSeq(bool fromApp) {
    std::lock_guard<std::mutex> lock(g_Mutex);
    g_Outcomes.push_back({});
    g_Outcomes.back().fromApp = fromApp;
    return static_cast<int>(g_Outcomes.size()) - 1;
}
void* Ptr(int seq) { return reinterpret_cast<void*>(static_cast<intptr_t>(seq)); }
int Seq(void* p) { return static_cast<int>(reinterpret_cast<intptr_t>(p)); }
TimerDoneFunc Done() {
    return [](std::shared_ptr<ITimerHandleInterface>, void* p, int rc) {
        std::lock_guard<std::mutex> lock(g_Mutex);
        ++g_Outcomes[Seq(p)].calls;
        g_Outcomes[Seq(p)].result = rc;
    };
}
void Accepted(int seq, bool accepted) {
    std::lock_guard<std::mutex> lock(g_Mutex);
    g_Outcomes[seq].accepted = accepted;
}

// Executes records by calling their done function, then an optional step.
struct FuzzOper : ITimerHandleInterface, IAsynOperInterface, std::enable_shared_from_this<FuzzOper> {
    std::function<void()> onLoop;
    int StopTimer(TimerDoneFunc, void*) override { return -1; }
    int AgainTimer(TimerDoneFunc, void*) override { return -1; }
    int DoAsynOper(std::shared_ptr<AsynOperReq> oper, std::shared_ptr<CHttpFrame>) override {
        {
            std::lock_guard<std::mutex> lock(g_Mutex);
            g_Outcomes[Seq(oper->m_UserData)].executed = true;
            g_Order.push_back(Seq(oper->m_UserData));
        }
        auto* rec = static_cast<AsynTimerReq*>(oper.get());
        if (rec->m_Done) rec->m_Done(shared_from_this(), oper->m_UserData, 0);
        if (auto step = std::move(onLoop)) step();
        return 0;
    }
    bool CancelAsynOper(std::shared_ptr<AsynOperReq> oper) override {
        if (oper->m_Type != OperAddTimer) return false;
        auto* rec = static_cast<AsynTimerReq*>(oper.get());
        if (rec->m_Done) rec->m_Done(shared_from_this(), oper->m_UserData, -1);
        return true;
    }
};

void Call(CHttpFrame& frame, const std::shared_ptr<FuzzOper>& oper, uint8_t op, bool fromLoop) {
    const bool forceAsyn = op & 0x10;
    const int seq = (op & 3) == 3 ? -1 : NewSeq(!fromLoop);
    switch (op & 3) {
        case 0:
            Accepted(seq, frame.AddTimerReq(oper, forceAsyn, Done(), Ptr(seq)) == 0 && (forceAsyn || !fromLoop));
            break;
        case 1:
            Accepted(seq, frame.DelTimerReq(oper, forceAsyn, Done(), Ptr(seq)) == 0 && (forceAsyn || !fromLoop));
            break;
        case 2: {
            auto rec = std::make_shared<AsynTimerReq>();
            rec->m_Type = OperStopTimer;
            rec->m_Oper = oper;
            rec->m_UserData = Ptr(seq);
            rec->m_Done = Done();
            // Only a post from the loop thread itself cannot race a stop.
            bool running = frame.m_Running.load();
            frame.PostAsynOper(rec);
            Accepted(seq, running && fromLoop);
            break;
        }
        default:
            if (fromLoop) frame.Stop(forceAsyn);  // Stop has one caller at a time
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sysutil::SetLogLevel(100);  // refusals are expected here
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 64) return 0;
    g_Outcomes.clear();
    g_Order.clear();
    auto iface = IHttpInterface::Create();
    auto& frame = static_cast<CHttpFrame&>(*iface);
    if (frame.Init(nullptr, false, false, nullptr) != 0 || frame.Start(true) != 0) std::abort();
    std::shared_ptr<FuzzOper> opers[2] = {std::make_shared<FuzzOper>(), std::make_shared<FuzzOper>()};
    for (size_t i = 0; i < size; ++i) {
        const uint8_t op = data[i];
        auto& oper = opers[(op >> 2) & 1];
        if (!(op & 0x20)) {
            Call(frame, oper, op, false);
            continue;
        }
        // This call and the next run on the loop thread, inside a gate record.
        const uint8_t next = i + 1 < size ? data[++i] : 0;
        auto gate = std::make_shared<FuzzOper>();
        gate->onLoop = [&frame, oper, op, next] {
            Call(frame, oper, op, true);
            Call(frame, oper, next, true);
        };
        int seq = NewSeq(true);
        Accepted(seq, frame.DelTimerReq(gate, false, Done(), Ptr(seq)) == 0);
    }
    // Let every gate run (a stop may be in one), then stop from here.
    std::atomic<bool> drained{false};
    int seq = NewSeq(false);
    if (frame.DelTimerReq(std::make_shared<FuzzOper>(), false, [&](auto, void*, int) { drained = true; }, Ptr(seq)) == 0)
        while (!drained && frame.m_Running) std::this_thread::yield();
    frame.Stop(false);
    while (frame.m_State.load() != FrameIdle) std::this_thread::yield();
    if (frame.m_Thread.joinable()) frame.m_Thread.join();
    for (const Outcome& o : g_Outcomes)
        if (o.calls > 1 || (o.accepted && o.calls != 1) || (o.result == -1 && o.executed)) std::abort();
    int last = -1;
    for (int s : g_Order) {
        if (!g_Outcomes[s].accepted || !g_Outcomes[s].fromApp) continue;
        if (s < last) std::abort();
        last = s;
    }
    return 0;
}
