// Timers: one libuv timer on a frame's loop.
//
// A timer's time-out, repeat interval, notice and user pointer are fixed by
// Create. The application hands the timer to a frame with
// IHttpInterface::AddTimerReq, hears each expiry through ITimerHandleNotic::OnTimer,
// may StopTimer / AgainTimer it, and ends it with IHttpInterface::DelTimerReq,
// after which OnClose is the last call it ever makes.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "netloop/NetloopExport.h"

namespace netloop {

class ITimerHandleInterface;

// Done function of the timer operations: (handle, userData, result). `result` is
// 0 when the operation was carried out and -1 when it failed or was cancelled by
// a frame stop. Runs on the loop thread. May be empty.
using TimerDoneFunc = std::function<void(std::shared_ptr<ITimerHandleInterface>, void*, int)>;

// A timer notice in function form: (handle, userData).
using TimerFunc = std::function<void(std::shared_ptr<ITimerHandleInterface>, void*)>;

// Implemented by the application. Both calls run on the frame's loop thread.
class ITimerHandleNotic {
public:
    // The timer expired. `handle` is a valid reference for the call, also when the
    // application dropped its own; the timer may be stopped or deleted from here.
    virtual void OnTimer(std::shared_ptr<ITimerHandleInterface> handle, void* userData) = 0;
    // The timer has been closed by DelTimerReq. Nothing is called after this;
    // the handle releases its notice right after the call.
    virtual void OnClose(std::shared_ptr<ITimerHandleInterface> handle, void* userData) = 0;
    virtual ~ITimerHandleNotic() {}
};

class NETLOOP_EXPORT ITimerHandleInterface {
public:
    ITimerHandleInterface();
    ITimerHandleInterface(const ITimerHandleInterface&);
    ITimerHandleInterface& operator=(const ITimerHandleInterface&);

    // Stops the timer; it stays open and can be re-armed with AgainTimer.
    // On the loop thread: done now, `done` (if any) is called inside this call
    // with 0, and 0 is returned; if libuv refuses, -1 and `done` is dropped.
    // On another thread: the stop is queued, 0 is returned and `done` reports the
    // outcome later on the loop thread; OnTimer may still come until then.
    // Returns -1 without calling `done` when the timer's add has not run yet, and
    // -1 with the log line "Can not again timer req now" when the frame is not
    // running, and -1 (logged) when the frame begins to stop while the request
    // is on its way to the queue: nothing happens then and `done` is dropped.
    // Succeeds and changes nothing on a closed timer.
    virtual int StopTimer(TimerDoneFunc done, void* userData) = 0;

    // Re-arms a repeating timer for `repeat` milliseconds from now, whether it was
    // running or stopped. On a one-shot timer (repeat 0) it is a successful no-op.
    // Threads, results and `done` as for StopTimer.
    virtual int AgainTimer(TimerDoneFunc done, void* userData) = 0;

    virtual ~ITimerHandleInterface();

    // Makes a timer that expires `timeout` ms after it is added and then every
    // `repeat` ms (0: once). `notice` may be empty. No frame, no libuv call yet.
    // Any thread.
    static std::shared_ptr<ITimerHandleInterface> Create(std::shared_ptr<ITimerHandleNotic> notice,
                                                         uint64_t timeout, uint64_t repeat, void* userData);

    // The same with two functions instead of a notice; either may be empty.
    // The functions (and whatever they capture) are released on the loop thread
    // right after `on_close` has run, or with the handle if it was never added.
    static std::shared_ptr<ITimerHandleInterface> Create(TimerFunc on_timer, TimerFunc on_close,
                                                         uint64_t timeout, uint64_t repeat, void* userData);
};

}  // namespace netloop
