// A repeating timer that is stopped after three ticks and re-armed once.
#include <netloop/IHttpInterface.h>

#include <atomic>
#include <cstdio>
#include <future>
#include <thread>

using namespace netloop;

int main() {
    auto frame = IHttpInterface::Create();
    if (frame->Init(nullptr, false, false, nullptr) != 0 || frame->Start(true) != 0) return 1;

    std::atomic<int> ticks{0};
    std::promise<void> closed;
    // The function form needs no notice class. Both functions run on the loop thread.
    auto timer = ITimerHandleInterface::Create(
        [&](std::shared_ptr<ITimerHandleInterface> self, void*) {
            int n = ++ticks;
            std::printf("tick %d\n", n);
            // Inside a notice we are on the loop thread: done runs inside the call.
            if (n == 3) self->StopTimer([](std::shared_ptr<ITimerHandleInterface>, void*, int rc) {
                std::printf("stopped (%d)\n", rc);
            }, nullptr);
            if (n == 5) frame->DelTimerReq(self, false, nullptr, nullptr);
        },
        [&](std::shared_ptr<ITimerHandleInterface>, void*) { closed.set_value(); },
        /*timeout ms*/ 50, /*repeat ms*/ 100, nullptr);
    frame->AddTimerReq(timer, false, nullptr, nullptr);

    while (ticks < 3) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // nothing ticks while stopped
    // From this thread the re-arm is queued; it comes back `repeat` ms later.
    timer->AgainTimer([](std::shared_ptr<ITimerHandleInterface>, void*, int rc) { std::printf("again (%d)\n", rc); },
                      nullptr);

    closed.get_future().wait();  // OnClose: the timer is gone
    frame->Stop(false);
    return ticks == 5 ? 0 : 1;
}
