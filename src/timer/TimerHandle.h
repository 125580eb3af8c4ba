// CTimerHandle: one libuv timer on a frame's loop.
//
// There is no state word: a timer is "created" while m_Frame is empty, open
// while m_Timer.data holds the self reference, and closing or closed once libuv
// says so. Every libuv call on m_Timer is made on the loop thread.
#pragma once

#include <uv.h>

#include <cstdint>
#include <memory>

#include "frame/AsynOperReq.h"
#include "netloop/ITimerHandleInterface.h"
#include "timer/FunctionTimerNotic.h"

namespace netloop {

class CTimerHandle : public std::enable_shared_from_this<CTimerHandle>,
                     public ITimerHandleInterface,
                     public IAsynOperInterface {
public:
    CTimerHandle(std::shared_ptr<ITimerHandleNotic> notice, uint64_t timeout, uint64_t repeat, void* userData);
    ~CTimerHandle() override;

    int StopTimer(TimerDoneFunc done, void* userData) override;
    int AgainTimer(TimerDoneFunc done, void* userData) override;

    int DoAsynOper(std::shared_ptr<AsynOperReq> oper, std::shared_ptr<CHttpFrame> frame) override;
    bool CancelAsynOper(std::shared_ptr<AsynOperReq> oper) override;

    // libuv callbacks; both reach the handle through the self reference in data.
    static void TimerCallback(uv_timer_t* timer);
    static void TimerCloseCallback(uv_handle_t* handle);

protected:
    // For a handle that carries its notice within itself (CFunctionTimerHandle):
    // m_Notice does not own it, and the close releases its functions instead.
    void UseOwnNotice(CFunctionTimerNotic* notice);

private:
    int RequestOnLoop(AsynOperType type, TimerDoneFunc done, void* userData);
    int OperAdd(const std::shared_ptr<CHttpFrame>& frame);
    int OperDel();
    int InitTimer(const std::shared_ptr<uv_loop_t>& loop, const std::shared_ptr<CHttpFrame>& frame);
    int DoStopTimer();
    int DoAgainTimer();
    bool AgainIsNoOp() const;
    bool IsClosing() const;
    void CloseTimer();

    // Written once on the loop thread by the add, read by StopTimer/AgainTimer
    // on any thread: accessed atomically.
    std::shared_ptr<CHttpFrame> m_Frame;
    uv_timer_t m_Timer;
    const uint64_t m_Timeout;
    const uint64_t m_Repeat;
    std::shared_ptr<ITimerHandleNotic> m_Notice;  // loop thread only once added
    void* const m_UserData;
    CFunctionTimerNotic* m_OwnNotice = nullptr;   // see UseOwnNotice
};

// The handle of the function form of ITimerHandleInterface::Create: the
// function notice is built in the same allocation as the handle. m_Notice
// refers to it without owning it; the close callback destroys the two
// functions (and what they captured) right after OnClose, where clearing an
// owning m_Notice would have destroyed them, and a handle that never closes
// takes them along when it goes.
class CFunctionTimerHandle final : public CTimerHandle {
public:
    CFunctionTimerHandle(TimerFunc onTimer, TimerFunc onClose, uint64_t timeout, uint64_t repeat, void* userData);

private:
    CFunctionTimerNotic m_FunctionNotice;
};

}  // namespace netloop
