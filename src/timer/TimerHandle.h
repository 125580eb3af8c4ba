// CTimerHandle: one libuv timer on a frame's loop.
//
// There is no state word: a timer is "created" while m_Frame is empty, open
// while m_Self holds the self reference, and closing or closed once libuv says
// so. Every libuv call on the timer is made on the loop thread.
//
// Thousands of timers may be armed at once, so a timer is one allocation and
// keeps nothing that libuv's own timer can hold: the user pointer lives in the
// timer's data field, and until the add the time-out and the repeat interval
// wait in the timer's own fields, which libuv has not taken over yet.
#pragma once

#include <uv.h>

#include <cstdint>
#include <memory>

#include "frame/AsynOperReq.h"
#include "netloop/ITimerHandleInterface.h"

namespace netloop {

// The libuv timer as a base of its handle, so a libuv callback finds the
// handle from the timer it is given with a plain cast.
struct TimerSlot {
    uv_timer_t m_Timer;
};

class CTimerHandle : public std::enable_shared_from_this<CTimerHandle>,
                     public ITimerHandleInterface,
                     public IAsynOperInterface,
                     protected TimerSlot {
public:
    CTimerHandle(uint64_t timeout, uint64_t repeat, void* userData);
    ~CTimerHandle() override;

    int StopTimer(TimerDoneFunc done, void* userData) override;
    int AgainTimer(TimerDoneFunc done, void* userData) override;

    int DoAsynOper(std::shared_ptr<AsynOperReq> oper, std::shared_ptr<CHttpFrame> frame) override;
    bool CancelAsynOper(std::shared_ptr<AsynOperReq> oper) override;

    // libuv callbacks; both reach the handle through the timer they are given.
    static void TimerCallback(uv_timer_t* timer);
    static void TimerCloseCallback(uv_handle_t* handle);

protected:
    // The timer expired / has been closed: tell the application (loop thread).
    // OnClosed also lets go of what the application gave for the notices.
    virtual void OnFired(const std::shared_ptr<CTimerHandle>& self) = 0;
    virtual void OnClosed(const std::shared_ptr<CTimerHandle>& self) = 0;
    void* UserData() const { return m_Timer.data; }

private:
    static CTimerHandle* FromTimer(uv_handle_t* timer);
    int RequestOnLoop(AsynOperType type, TimerDoneFunc done, void* userData);
    int OperAdd(const std::shared_ptr<CHttpFrame>& frame, const AsynOperReq& oper);
    int OperDel();
    int InitTimer(const std::shared_ptr<CHttpFrame>& frame, const AsynOperReq& oper);
    int DoStopTimer();
    int DoAgainTimer();
    bool AgainIsNoOp() const;
    bool IsClosing() const;
    void CloseTimer();

    // Written once on the loop thread by the add, read by StopTimer/AgainTimer
    // on any thread: accessed atomically.
    std::shared_ptr<CHttpFrame> m_Frame;
    // Keeps the handle alive while libuv knows the timer, from the add to the
    // close callback (loop thread only).
    std::shared_ptr<CTimerHandle> m_Self;
};

// The handle of ITimerHandleInterface::Create with a notice object.
class CNoticeTimerHandle final : public CTimerHandle {
public:
    CNoticeTimerHandle(std::shared_ptr<ITimerHandleNotic> notice, uint64_t timeout, uint64_t repeat,
                       void* userData);

private:
    void OnFired(const std::shared_ptr<CTimerHandle>& self) override;
    void OnClosed(const std::shared_ptr<CTimerHandle>& self) override;

    std::shared_ptr<ITimerHandleNotic> m_Notice;  // loop thread only once added
};

// The handle of the function form of ITimerHandleInterface::Create. The close
// destroys the two functions (and what they captured) right after on_close;
// a handle that never closes takes them along when it goes.
class CFunctionTimerHandle final : public CTimerHandle {
public:
    CFunctionTimerHandle(TimerFunc onTimer, TimerFunc onClose, uint64_t timeout, uint64_t repeat, void* userData);

private:
    void OnFired(const std::shared_ptr<CTimerHandle>& self) override;
    void OnClosed(const std::shared_ptr<CTimerHandle>& self) override;

    TimerFunc m_OnTimer;
    TimerFunc m_OnClose;
};

}  // namespace netloop
