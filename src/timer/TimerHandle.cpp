#include "timer/TimerHandle.h"

#include <cstring>

#include "frame/HttpFrame.h"
#include "frame/NetLog.h"
#include "timer/FunctionTimerNotic.h"

namespace netloop {

std::shared_ptr<ITimerHandleInterface> ITimerHandleInterface::Create(std::shared_ptr<ITimerHandleNotic> notice,
                                                                     uint64_t timeout, uint64_t repeat,
                                                                     void* userData) {
    return std::make_shared<CTimerHandle>(std::move(notice), timeout, repeat, userData);
}

std::shared_ptr<ITimerHandleInterface> ITimerHandleInterface::Create(TimerFunc on_timer, TimerFunc on_close,
                                                                     uint64_t timeout, uint64_t repeat,
                                                                     void* userData) {
    return std::make_shared<CFunctionTimerHandle>(std::move(on_timer), std::move(on_close), timeout, repeat, userData);
}

CTimerHandle::CTimerHandle(std::shared_ptr<ITimerHandleNotic> notice, uint64_t timeout, uint64_t repeat,
                           void* userData)
    : m_Timeout(timeout), m_Repeat(repeat), m_Notice(std::move(notice)), m_UserData(userData) {
    std::memset(&m_Timer, 0, sizeof(m_Timer));
}

CFunctionTimerHandle::CFunctionTimerHandle(TimerFunc onTimer, TimerFunc onClose, uint64_t timeout, uint64_t repeat,
                                           void* userData)
    : CTimerHandle(nullptr, timeout, repeat, userData), m_FunctionNotice(std::move(onTimer), std::move(onClose)) {
    UseOwnNotice(&m_FunctionNotice);
}

void CTimerHandle::UseOwnNotice(CFunctionTimerNotic* notice) {
    // No owner: the notice lives and dies with the handle.
    m_Notice = std::shared_ptr<ITimerHandleNotic>(std::shared_ptr<ITimerHandleNotic>(), notice);
    m_OwnNotice = notice;
}

CTimerHandle::~CTimerHandle() {
    // The self reference keeps the handle alive while libuv knows the timer, so
    // there is nothing of libuv's to release here.
    m_Notice.reset();
    m_Frame.reset();
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

int CTimerHandle::DoAsynOper(std::shared_ptr<AsynOperReq> oper, std::shared_ptr<CHttpFrame> frame) {
    int result = 0;
    int returned = 0;
    switch (oper->m_Type) {
        case OperAddTimer:
            returned = result = OperAdd(frame);
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
    if (rec->m_Done) rec->m_Done(shared_from_this(), rec->m_UserData, result);
    return returned;
}

bool CTimerHandle::CancelAsynOper(std::shared_ptr<AsynOperReq> oper) {
    if (oper->m_Type != OperAddTimer) return false;
    auto* rec = static_cast<AsynTimerReq*>(oper.get());
    if (rec->m_Done) rec->m_Done(shared_from_this(), rec->m_UserData, -1);
    return true;
}

int CTimerHandle::OperAdd(const std::shared_ptr<CHttpFrame>& frame) {
    std::shared_ptr<uv_loop_t> loop = frame ? frame->m_Loop : nullptr;
    if (InitTimer(loop, frame) != 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]Init timer failed");
        return -1;
    }
    int rc = uv_timer_start(&m_Timer, TimerCallback, m_Timeout, m_Repeat);
    if (rc == 0) return 0;
    WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]uv_timer_start[%d:%d] failed", rc, uv_strerror(rc),
                static_cast<int>(m_Timeout), static_cast<int>(m_Repeat));
    WriteNetLog(LOG_ERROR, "[NETLOOP]Start timer failed");
    CloseTimer();
    return -1;
}

int CTimerHandle::InitTimer(const std::shared_ptr<uv_loop_t>& loop, const std::shared_ptr<CHttpFrame>& frame) {
    if (!loop || !frame) return -1;
    // A timer is added once: a second uv_timer_init on a timer libuv knows
    // would corrupt the loop's handle list. The loop thread is the only one
    // that writes m_Frame, so it reads the field without the atomic access.
    if (m_Frame) return -1;
    if (uv_timer_init(loop.get(), &m_Timer) != 0) return -1;
    m_Timer.data = new std::shared_ptr<CTimerHandle>(shared_from_this());
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
    WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]uv_timer_stop[%d:%d] failed", rc, uv_strerror(rc),
                static_cast<int>(m_Timeout), static_cast<int>(m_Repeat));
    return -1;
}

// A one-shot timer has nothing to re-arm, and a closing or closed one must stay
// as it is; libuv's own answer for both differs between releases.
bool CTimerHandle::AgainIsNoOp() const { return m_Repeat == 0 || IsClosing(); }

int CTimerHandle::DoAgainTimer() {
    if (AgainIsNoOp()) return 0;
    int rc = uv_timer_again(&m_Timer);
    if (rc == 0) return 0;
    WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]uv_timer_again[%d:%d] failed", rc, uv_strerror(rc),
                static_cast<int>(m_Timeout), static_cast<int>(m_Repeat));
    return -1;
}

bool CTimerHandle::IsClosing() const { return uv_is_closing(reinterpret_cast<const uv_handle_t*>(&m_Timer)) != 0; }

void CTimerHandle::CloseTimer() {
    if (!IsClosing()) uv_close(reinterpret_cast<uv_handle_t*>(&m_Timer), TimerCloseCallback);
}

void CTimerHandle::TimerCallback(uv_timer_t* timer) {
    auto* self = static_cast<std::shared_ptr<CTimerHandle>*>(timer->data);
    CTimerHandle* handle = self->get();
    std::shared_ptr<ITimerHandleNotic> notice = handle->m_Notice;
    if (notice) notice->OnTimer(*self, handle->m_UserData);
}

void CTimerHandle::TimerCloseCallback(uv_handle_t* timer) {
    auto* self = static_cast<std::shared_ptr<CTimerHandle>*>(timer->data);
    if (self == nullptr) return;
    std::shared_ptr<CTimerHandle> handle = *self;
    if (handle->m_Notice) handle->m_Notice->OnClose(handle, handle->m_UserData);
    handle->m_Notice.reset();
    if (handle->m_OwnNotice != nullptr) handle->m_OwnNotice->Release();
    delete self;
    timer->data = nullptr;
    // Dropping `handle` may destroy the timer here, on the loop thread.
}

}  // namespace netloop
