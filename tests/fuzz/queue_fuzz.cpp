// Arbitrary schedules of adds, deletes, posts and stops, from the application
// thread and from the loop thread, against a real frame: a refused call never
// calls its done function, an accepted one calls it exactly once by the stop,
// a cancelled add is never executed, and one thread's records run in order.
#include <mutex>
#include <thread>

#include "frame/HttpFrame.h"

using namespace netloop;

namespace {

struct Call { int calls = 0, result = 0; bool accepted = false, executed = false, fromApp = false; };
std::mutex g_Mutex;
std::vector<Call> g_Calls;
std::vector<size_t> g_Order;  // calls, as their records ran

void* NewCall(bool fromApp) {
    std::lock_guard<std::mutex> lock(g_Mutex);
    g_Calls.push_back({});
    g_Calls.back().fromApp = fromApp;
    return reinterpret_cast<void*>(g_Calls.size() - 1);
}
Call& Of(void* p) { return g_Calls[reinterpret_cast<size_t>(p)]; }
void Set(void* p, bool accepted) {
    std::lock_guard<std::mutex> lock(g_Mutex);
    Of(p).accepted = accepted;
}
TimerDoneFunc Done() {
    return [](std::shared_ptr<ITimerHandleInterface>, void* p, int rc) {
        std::lock_guard<std::mutex> lock(g_Mutex);
        ++Of(p).calls;
        Of(p).result = rc;
    };
}

// Runs a record by calling its done function, then an optional step.
struct FuzzOper : ITimerHandleInterface, IAsynOperInterface, std::enable_shared_from_this<FuzzOper> {
    std::function<void()> onLoop;
    int StopTimer(TimerDoneFunc, void*) override { return -1; }
    int AgainTimer(TimerDoneFunc, void*) override { return -1; }
    int DoAsynOper(std::shared_ptr<AsynOperReq> oper, std::shared_ptr<CHttpFrame>) override {
        {
            std::lock_guard<std::mutex> lock(g_Mutex);
            Of(oper->m_UserData).executed = true;
            g_Order.push_back(reinterpret_cast<size_t>(oper->m_UserData));
        }
        auto* rec = static_cast<AsynTimerReq*>(oper.get());
        if (rec->m_Done) rec->m_Done(shared_from_this(), oper->m_UserData, 0);
        if (auto step = std::move(onLoop)) step();
        return 0;
    }
    bool CancelAsynOper(std::shared_ptr<AsynOperReq> oper) override {
        auto* rec = static_cast<AsynTimerReq*>(oper.get());
        if (oper->m_Type == OperAddTimer && rec->m_Done) rec->m_Done(shared_from_this(), oper->m_UserData, -1);
        return oper->m_Type == OperAddTimer;
    }
};

// Bits 0-1: add, delete, post or stop (stops from the loop thread only: Stop
// has one caller at a time); bit 4: forceAsyn.
void Perform(CHttpFrame& frame, const std::shared_ptr<FuzzOper>& oper, uint8_t op, bool fromLoop) {
    const bool forceAsyn = op & 0x10, queued = forceAsyn || !fromLoop;  // inline calls answer at once
    void* call = (op & 3) == 3 ? nullptr : NewCall(!fromLoop);
    if ((op & 3) == 0) Set(call, frame.AddTimerReq(oper, forceAsyn, Done(), call) == 0 && queued);
    if ((op & 3) == 1) Set(call, frame.DelTimerReq(oper, forceAsyn, Done(), call) == 0 && queued);
    if ((op & 3) == 2) {
        auto rec = std::make_shared<AsynTimerReq>();
        rec->m_Type = OperStopTimer;
        rec->m_Oper = oper;
        rec->m_UserData = call;
        rec->m_Done = Done();
        const bool running = frame.m_Running.load();  // only a post from the loop itself cannot race a stop
        frame.PostAsynOper(rec);
        Set(call, running && fromLoop);
    }
    if ((op & 3) == 3 && fromLoop) frame.Stop(forceAsyn);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sysutil::SetLogLevel(100);  // refusals are expected here
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 64) return 0;
    g_Calls.clear();
    g_Order.clear();
    auto iface = IHttpInterface::Create();
    auto& frame = static_cast<CHttpFrame&>(*iface);
    if (frame.Init(nullptr, false, false, nullptr) != 0 || frame.Start(true) != 0) std::abort();
    std::shared_ptr<FuzzOper> opers[2] = {std::make_shared<FuzzOper>(), std::make_shared<FuzzOper>()};
    for (size_t i = 0; i < size; ++i) {
        const uint8_t op = data[i];
        auto& oper = opers[(op >> 2) & 1];
        if (!(op & 0x20)) {
            Perform(frame, oper, op, false);
            continue;
        }
        // Bit 5: this call and the next run on the loop thread, inside a gate record.
        const uint8_t next = i + 1 < size ? data[++i] : 0;
        auto gate = std::make_shared<FuzzOper>();
        gate->onLoop = [&frame, oper, op, next] {
            Perform(frame, oper, op, true);
            Perform(frame, oper, next, true);
        };
        void* call = NewCall(true);
        Set(call, frame.DelTimerReq(gate, false, Done(), call) == 0);
    }
    // Let every gate run (a stop may be in one), then stop from here.
    std::atomic<bool> drained{false};
    if (frame.DelTimerReq(std::make_shared<FuzzOper>(), false, [&](auto, void*, int) { drained = true; },
                          NewCall(false)) == 0)
        while (!drained && frame.m_Running) std::this_thread::yield();
    frame.Stop(false);
    while (frame.m_State.load() != FrameIdle) std::this_thread::yield();
    if (frame.m_Thread.joinable()) frame.m_Thread.join();
    size_t last = 0;
    for (size_t c : g_Order) {
        if (!g_Calls[c].accepted || !g_Calls[c].fromApp) continue;
        if (c < last) std::abort();
        last = c;
    }
    for (const Call& c : g_Calls)
        if (c.calls > 1 || (c.accepted && c.calls != 1) || (c.result == -1 && c.executed)) std::abort();
    return 0;
}
