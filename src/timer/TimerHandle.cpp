#include "timer/TimerHandle.h"

#include <cstring>

#include "frame/HttpFrame.h"
#include "frame/NetLog.h"

namespace netloop {

std::shared_ptr<ITimerHandleInterface> ITimerHandleInterface::Create(std::shared_ptr<ITimerHandleNotic> notice,
                                                                     uint64_t timeout, uint64_t repeat,
                                                                     void* userData) {
    return std::make_shared<CNoticeTimerHandle>(std::move(notice), timeout, repeat, userData);
}

std::shared_ptr<ITimerHandleInterface> ITimerHandleInterface::Create(TimerFunc on_timer, TimerFunc on_close,
                                                                     uint64_t timeout, uint64_t repeat,
                                                                     void* userData) {
    return std::make_shared<CFunctionTimerHandle>(std::move(on_timer), std::move(on_close), timeout, repeat, userData);
}

CTimerHandle::CTimerHandle(uint64_t timeout, uint64_t repeat, void* userData) {
    std::memset(&m_Timer, 0, sizeof(m_Timer));
    // libuv sees the timer first at the add, which takes the two values out
    // again before uv_timer_init overwrites them.
    m_Timer.timeout = timeout;
    m_Timer.repeat = repeat;
    m_Timer.data = userData;
}

CTimerHandle::~CTimerHandle() {
    // The self reference keeps the handle alive while libuv knows the timer, so
    // there is nothing of libuv's to release here.
    m_Frame.reset();
}

CNoticeTimerHandle::CNoticeTimerHandle(std::shared_ptr<ITimerHandleNotic> notice, uint64_t timeout,
                                       uint64_t repeat, void* userData)
    : CTimerHandle(timeout, repeat, userData), m_Notice(std::move(notice)) {}

void CNoticeTimerHandle::OnFired(const std::shared_ptr<CTimerHandle>& self) {
    if (m_Notice) m_Notice->OnTimer(self, UserData());
}

void CNoticeTimerHandle::OnClosed(const std::shared_ptr<CTimerHandle>& self) {
    if (m_Notice) m_Notice->OnClose(self, UserData());
    m_Notice.reset();
}

CFunctionTimerHandle::CFunctionTimerHandle(TimerFunc onTimer, TimerFunc onClose, uint64_t timeout, uint64_t repeat,
                                           void* userData)
    : CTimerHandle(timeout, repeat, userData), m_OnTimer(std::move(onTimer)), m_OnClose(std::move(onClose)) {}

void CFunctionTimerHandle::OnFired(const std::shared_ptr<CTimerHandle>& self) {
    if (m_OnTimer) m_OnTimer(self, UserData());
}

void CFunctionTimerHandle::OnClosed(const std::shared_ptr<CTimerHandle>& self) {
    if (m_OnClose) m_OnClose(self, UserData());
    // In the order the destructor would release them.
    m_OnClose = nullptr;
    m_OnTimer = nullptr;
}

// ---------------------------------------------------------------------------
// Application threads

int CTimerHandle::StopTimer(TimerDoneFunc done, void* userData) {
    return RequestOnLoop(OperStopTimer, std::move(done), userData);
}

int CTimerHandle::AgainTimer(TimerDoneFunc done, void* userData) {
    return RequestOnLoop(OperAgainTimer, std::move(done), userData);
}

int CTimerHandle::RequestOnLoop(AsynOperType type, TimerDoneFunc done, void* userData) {
    std::shared_ptr<CHttpFrame> frame = std::atomic_load(&m_Frame);
    if (!frame) return -1;
    if (!frame->m_Running.load()) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]Can not again timer req now");
        return -1;
    }
    if (frame->IsLoopThread()) {
        const bool stop = type == OperStopTimer;
        int rc = stop ? uv_timer_stop(&m_Timer) : (AgainIsNoOp() ? 0 : uv_timer_again(&m_Timer));
        if (rc != 0) {
            WriteNetLog(LOG_ERROR, stop ? "[NETLOOP]stop timer failed" : "[NETLOOP]again timer failed");
            return -1;
        }
        if (done) done(shared_from_this(), userData, 0);
        return 0;
    }
    auto oper = std::make_shared<AsynTimerReq>();
    oper->m_Type = type;
    oper->m_Oper = shared_from_this();
    oper->m_UserData = userData;
    oper->m_Done = std::move(done);
    return frame->PostAsynOper(std::move(oper)) ? 0 : -1;
}

// ---------------------------------------------------------------------------
// The loop thread

namespace {

// The handle as the record holds it, without another look-up of its own.
std::shared_ptr<ITimerHandleInterface> HandleOf(const AsynOperReq& oper, ITimerHandleInterface* handle) {
    return std::shared_ptr<ITimerHandleInterface>(oper.m_Oper, handle);
}

}  // namespace

int CTimerHandle::DoAsynOper(std::shared_ptr<AsynOperReq> oper, std::shared_ptr<CHttpFrame> frame) {
    int result = 0;
    int returned = 0;
    switch (oper->m_Type) {
        case OperAddTimer:
            returned = result = OperAdd(frame, *oper);
            break;
        case OperDelTimer:
            result = OperDel();
            break;
        case OperStopTimer:
            result = DoStopTimer();
            if (result != 0) WriteNetLog(LOG_ERROR, "[NETLOOP]stop timer failed");
            break;
        case OperAgainTimer:
            result = DoAgainTimer();
            if (result != 0) WriteNetLog(LOG_ERROR, "[NETLOOP]again timer failed");
            break;
        default:
            return 0;
    }
    auto* rec = static_cast<AsynTimerReq*>(oper.get());
    if (rec->m_Done) rec->m_Done(HandleOf(*rec, this), rec->m_UserData, result);
    return returned;
}

bool CTimerHandle::CancelAsynOper(std::shared_ptr<AsynOperReq> oper) {
    if (oper->m_Type != OperAddTimer) return false;
    auto* rec = static_cast<AsynTimerReq*>(oper.get());
    if (rec->m_Done) rec->m_Done(HandleOf(*rec, this), rec->m_UserData, -1);
    return true;
}

int CTimerHandle::OperAdd(const std::shared_ptr<CHttpFrame>& frame, const AsynOperReq& oper) {
    const uint64_t timeout = m_Timer.timeout;
    const uint64_t repeat = m_Timer.repeat;
    if (InitTimer(frame, oper) != 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]Init timer failed");
        return -1;
    }
    int rc = uv_timer_start(&m_Timer, TimerCallback, timeout, repeat);
    if (rc == 0) return 0;
    WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]uv_timer_start[%d:%d] failed", rc, uv_strerror(rc),
                static_cast<int>(timeout), static_cast<int>(repeat));
    WriteNetLog(LOG_ERROR, "[NETLOOP]Start timer failed");
    // A later again has the interval to go by, as before the add.
    m_Timer.repeat = repeat;
    CloseTimer();
    return -1;
}

int CTimerHandle::InitTimer(const std::shared_ptr<CHttpFrame>& frame, const AsynOperReq& oper) {
    if (!frame || !frame->m_Loop) return -1;
    // A timer is added once: a second uv_timer_init on a timer libuv knows
    // would corrupt the loop's handle list. The loop thread is the only one
    // that writes m_Frame, so it reads the field without the atomic access.
    if (m_Frame) return -1;
    void* userData = m_Timer.data;
    if (uv_timer_init(frame->m_Loop.get(), &m_Timer) != 0) return -1;
    m_Timer.data = userData;
    m_Self = std::shared_ptr<CTimerHandle>(oper.m_Oper, this);
    std::atomic_store(&m_Frame, frame);
    return 0;
}

int CTimerHandle::OperDel() {
    // Never added: libuv has never seen m_Timer, so there is nothing to close.
    // (Loop thread, the only writer of m_Frame: a plain read.)
    if (!m_Frame) return -1;
    if (DoStopTimer() != 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]stop timer failed");
        return -1;
    }
    CloseTimer();
    return 0;
}

int CTimerHandle::DoStopTimer() {
    int rc = uv_timer_stop(&m_Timer);
    if (rc == 0) return 0;
    WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]uv_timer_stop[%d] failed", rc, uv_strerror(rc),
                static_cast<int>(uv_timer_get_repeat(&m_Timer)));
    return -1;
}

// A one-shot timer has nothing to re-arm, and a closing or closed one must stay
// as it is; libuv's own answer for both differs between releases.
bool CTimerHandle::AgainIsNoOp() const { return IsClosing() || uv_timer_get_repeat(&m_Timer) == 0; }

int CTimerHandle::DoAgainTimer() {
    if (AgainIsNoOp()) return 0;
    int rc = uv_timer_again(&m_Timer);
    if (rc == 0) return 0;
    WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]uv_timer_again[%d] failed", rc, uv_strerror(rc),
                static_cast<int>(uv_timer_get_repeat(&m_Timer)));
    return -1;
}

bool CTimerHandle::IsClosing() const { return uv_is_closing(reinterpret_cast<const uv_handle_t*>(&m_Timer)) != 0; }

void CTimerHandle::CloseTimer() {
    if (!IsClosing()) uv_close(reinterpret_cast<uv_handle_t*>(&m_Timer), TimerCloseCallback);
}

CTimerHandle* CTimerHandle::FromTimer(uv_handle_t* timer) {
    return static_cast<CTimerHandle*>(reinterpret_cast<TimerSlot*>(timer));
}

void CTimerHandle::TimerCallback(uv_timer_t* timer) {
    CTimerHandle* handle = FromTimer(reinterpret_cast<uv_handle_t*>(timer));
    // The close callback is the only one to drop m_Self, and it cannot run
    // while this call is under way.
    handle->OnFired(handle->m_Self);
}

void CTimerHandle::TimerCloseCallback(uv_handle_t* timer) {
    CTimerHandle* handle = FromTimer(timer);
    std::shared_ptr<CTimerHandle> self = std::move(handle->m_Self);
    if (!self) return;
    handle->OnClosed(self);
    // Dropping `self` may destroy the timer here, on the loop thread.
}

}  // namespace netloop
