#include "frame/HttpFrame.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <typeinfo>
#ifndef _WIN32
#include <unistd.h>
#endif

#include "frame/NetLog.h"
#include "http/HttpHandle.h"
#include "timer/TimerHandle.h"
#include "udp/UdpHandle.h"

namespace netloop {
namespace {

constexpr auto kPollInterval = std::chrono::milliseconds(10);

// Closes a frame handle that libuv knows and is not closing yet. A handle that
// was never initialised still has the zeroed loop pointer and is left alone.
void CloseFrameHandle(uv_handle_t* handle) {
    if (handle->loop != nullptr && uv_is_closing(handle) == 0) uv_close(handle, nullptr);
}

// libuv 1.44 keeps its epoll descriptor when uv_loop_init fails after creating
// it (its failure path closes only the inotify descriptor). Later releases close
// it and leave -1, so this is a no-op there.
void ReleaseFailedLoop(uv_loop_t* loop) {
#ifndef _WIN32
    if (loop->backend_fd >= 0) {
        ::close(loop->backend_fd);
        loop->backend_fd = -1;
    }
#endif
}

// Every poll handle on a frame's loop belongs to a CurlSocketRec.
void CloseCurlSocketRec(uv_handle_t* handle, void*) {
    if (handle->type != UV_POLL || uv_is_closing(handle) != 0) return;
    uv_poll_stop(reinterpret_cast<uv_poll_t*>(handle));
    uv_close(handle, CHttpFrame::FreeCurlSocketRec);
}

// The implementation class behind each public handle interface.
// Exact() gives the queue side of a handle made by the library's own
// factories, recognised by its exact type, and null for any other class.
template <typename Handle>
struct ImplOfHandle;
template <>
struct ImplOfHandle<IHttpHandleInterface> {
    static IAsynOperInterface* Exact(IHttpHandleInterface* h) {
        return typeid(*h) == typeid(CHttpHandle) ? static_cast<CHttpHandle*>(h) : nullptr;
    }
};
template <>
struct ImplOfHandle<ITimerHandleInterface> {
    static IAsynOperInterface* Exact(ITimerHandleInterface* h) {
        const std::type_info& type = typeid(*h);
        if (type == typeid(CFunctionTimerHandle)) return static_cast<CFunctionTimerHandle*>(h);
        return type == typeid(CNoticeTimerHandle) ? static_cast<CNoticeTimerHandle*>(h) : nullptr;
    }
};
template <>
struct ImplOfHandle<IUdpHandleInterface> {
    static IAsynOperInterface* Exact(IUdpHandleInterface* h) {
        return typeid(*h) == typeid(CUdpHandle) ? static_cast<CUdpHandle*>(h) : nullptr;
    }
};

// `handle` as the library's own implementation class `Impl`, or empty when it
// is some other class. Handles from the library's factories, the usual case,
// are recognised by their exact type, without a cross cast through the
// run-time type information of the whole hierarchy.
template <typename Impl, typename Handle>
std::shared_ptr<Impl> ImplCast(const std::shared_ptr<Handle>& handle) {
    if (typeid(*handle) == typeid(Impl)) return std::static_pointer_cast<Impl>(handle);
    return std::dynamic_pointer_cast<Impl>(handle);
}

// The queue side of `handle`: its own implementation's, or that of any other
// class that offers one; empty when it offers none.
template <typename Handle>
std::shared_ptr<IAsynOperInterface> QueueSideOf(const std::shared_ptr<Handle>& handle) {
    if (IAsynOperInterface* side = ImplOfHandle<Handle>::Exact(handle.get()))
        return std::shared_ptr<IAsynOperInterface>(handle, side);
    return std::dynamic_pointer_cast<IAsynOperInterface>(handle);
}

}  // namespace

CHttpFrame::CHttpFrame() {
    std::memset(&m_StopAsync, 0, sizeof(m_StopAsync));
    std::memset(&m_Timer, 0, sizeof(m_Timer));
    std::memset(&m_ReqAsync, 0, sizeof(m_ReqAsync));
    std::memset(&m_WsTimer, 0, sizeof(m_WsTimer));
    std::memset(&m_Kick, 0, sizeof(m_Kick));
    std::memset(&m_SocketSweep, 0, sizeof(m_SocketSweep));
}

CHttpFrame::~CHttpFrame() {
    if (m_Thread.joinable()) {
        m_Thread.detach();
    } else if (m_State.load() == FrameReady) {
        // Set up but never run: nobody else will release the loop, the multi
        // handle and the share.
        ReleaseLoopResources();
    }
    m_AsynOperReqList.clear();
    m_Loop.reset();
    m_Notice.reset();
}

// ---------------------------------------------------------------------------
// Set-up

int CHttpFrame::Init(std::shared_ptr<IHttpFrameNotic> notice, bool enablePipelining, bool enableShare,
                     void* userData) {
    int32_t expected = FrameIdle;
    if (!m_State.compare_exchange_strong(expected, FrameIniting)) return -1;

    if (!InitLoopHandles() || !SetupMulti(enablePipelining) || (enableShare && !SetupShare())) {
        ReleaseLoopResources();
        m_State.exchange(FrameIdle);
        return -1;
    }
    if (enablePipelining) m_Gate.reset(new CConnectionGate());
    m_Notice = std::move(notice);
    m_UserData = userData;
    m_State.exchange(FrameReady);
    return 0;
}

bool CHttpFrame::InitLoopHandles() {
    // A frame that ran before still holds the old handles' bytes.
    std::memset(&m_StopAsync, 0, sizeof(m_StopAsync));
    std::memset(&m_Timer, 0, sizeof(m_Timer));
    std::memset(&m_ReqAsync, 0, sizeof(m_ReqAsync));
    std::memset(&m_WsTimer, 0, sizeof(m_WsTimer));
    std::memset(&m_Kick, 0, sizeof(m_Kick));
    std::memset(&m_SocketSweep, 0, sizeof(m_SocketSweep));

    m_Loop.reset(static_cast<uv_loop_t*>(std::malloc(sizeof(uv_loop_t))), std::free);
    int rc = m_Loop ? uv_loop_init(m_Loop.get()) : UV_ENOMEM;
    if (rc != 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]uv_loop_init failed", rc, uv_strerror(rc));
        if (m_Loop) ReleaseFailedLoop(m_Loop.get());
        m_Loop.reset();
        return false;
    }
    m_Timer.data = this;
    rc = uv_timer_init(m_Loop.get(), &m_Timer);
    if (rc != 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]uv_timer_init failed", rc, uv_strerror(rc));
        return false;
    }
    m_StopAsync.data = this;
    rc = uv_async_init(m_Loop.get(), &m_StopAsync, OnStop);
    if (rc != 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]Stop async init failed", rc, uv_strerror(rc));
        return false;
    }
    m_ReqAsync.data = this;
    rc = uv_async_init(m_Loop.get(), &m_ReqAsync, OnAsynOperReq);
    if (rc != 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]Req async init failed", rc, uv_strerror(rc));
        return false;
    }
    m_WsTimer.data = this;
    rc = uv_timer_init(m_Loop.get(), &m_WsTimer);
    if (rc != 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]uv_timer_init failed", rc, uv_strerror(rc));
        return false;
    }
    m_Kick.data = this;
    rc = uv_idle_init(m_Loop.get(), &m_Kick);
    if (rc != 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]uv_idle_init failed", rc, uv_strerror(rc));
        return false;
    }
    m_SocketSweep.data = this;
    rc = uv_prepare_init(m_Loop.get(), &m_SocketSweep);
    if (rc != 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]uv_prepare_init failed", rc, uv_strerror(rc));
        return false;
    }
    // It only tidies up: it never holds the loop up.
    uv_unref(reinterpret_cast<uv_handle_t*>(&m_SocketSweep));
    return true;
}

void CHttpFrame::ReleaseLoopResources() {
    // libcurl closes its connections below; their records go with them.
    SocketFrameScope scope(this);
    if (m_Share != nullptr) {
        curl_share_cleanup(m_Share);
        m_Share = nullptr;
    }
    if (m_Multi != nullptr) {
        curl_multi_cleanup(m_Multi);
        m_Multi = nullptr;
    }
    if (m_Loop) {
        // Sockets libcurl still watched when its multi handle went away would
        // otherwise keep their records (and the loop) for good.
        uv_walk(m_Loop.get(), CloseCurlSocketRec, nullptr);
        CloseFrameHandle(reinterpret_cast<uv_handle_t*>(&m_Timer));
        CloseFrameHandle(reinterpret_cast<uv_handle_t*>(&m_StopAsync));
        CloseFrameHandle(reinterpret_cast<uv_handle_t*>(&m_ReqAsync));
        CloseFrameHandle(reinterpret_cast<uv_handle_t*>(&m_WsTimer));
        CloseFrameHandle(reinterpret_cast<uv_handle_t*>(&m_Kick));
        CloseFrameHandle(reinterpret_cast<uv_handle_t*>(&m_SocketSweep));
        // One more pass completes the closes begun above and those that
        // curl_multi_cleanup began for its sockets, so no handle memory is left
        // behind when the loop goes.
        uv_run(m_Loop.get(), UV_RUN_NOWAIT);
        uv_loop_close(m_Loop.get());
        m_Loop.reset();
    }
    m_WsDue.clear();
    m_Gate.reset();
    m_StopDue = false;
    m_CurlClosesSocket.clear();
    m_KeptSocketRecs.clear();
    m_IdleSockets.clear();
}

void CHttpFrame::Uninit() {
    int32_t expected = FrameReady;
    if (!m_State.compare_exchange_strong(expected, FrameClosing)) return;
    ReleaseLoopResources();
    m_State.exchange(FrameIdle);
}

// ---------------------------------------------------------------------------
// The loop thread

int CHttpFrame::Start(bool wait) {
    if (m_State.load() != FrameReady) return -1;
    if (m_Thread.joinable()) return 0;
    // The thread gets its own strong reference before it exists, so the frame
    // outlives it even if the caller drops the frame right after Start.
    m_Thread = std::thread(&CHttpFrame::FrameThread, this, shared_from_this());
    if (!wait) return 0;
    while (!ReadRunning()) std::this_thread::sleep_for(kPollInterval);
    return 0;
}

bool CHttpFrame::ReadRunning() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Running.load();
}

bool CHttpFrame::WaitRunning(int32_t timeoutMs) {
    for (;;) {
        if (ReadRunning()) return true;
        std::this_thread::sleep_for(kPollInterval);
        timeoutMs -= 10;
        if (timeoutMs <= 0) return false;
    }
}

void CHttpFrame::FrameThread(std::shared_ptr<CHttpFrame> self) {
    WriteNetLog(LOG_ROUTINE, "[NETLOOP]FrameThread Start");
    SocketFrameScope scope(this);
    sysutil::SetThreadName("Http");
    m_Tid.store(sysutil::GetTid(), std::memory_order_release);

    uv_prepare_t prepare;
    uv_prepare_init(m_Loop.get(), &prepare);
    prepare.data = this;
    uv_prepare_start(&prepare, OnPrepare);

    int rc = uv_run(m_Loop.get(), UV_RUN_DEFAULT);
    if (rc != 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]uv_run failed", rc, uv_strerror(rc));
        return;
    }
    WriteNetLog(LOG_ROUTINE, "[NETLOOP]FrameThread Stop");
    WriteNetLog(LOG_ROUTINE, "[NETLOOP]m_AsynOperReqList size[%zu]", m_AsynOperReqList.size());
    if (m_Notice) {
        m_Notice->OnFrameStop(self, m_UserData);
        m_Notice.reset();
        m_UserData = nullptr;
    }
    // The kernel gives this thread's id to a later thread once it has ended:
    // from here on no caller is the loop thread. Cleared before Uninit makes
    // the frame idle, so a new Start cannot be overwritten.
    m_Tid.store(0, std::memory_order_release);
    Uninit();
}

void CHttpFrame::OnPrepare(uv_prepare_t* handle) {
    auto* frame = static_cast<CHttpFrame*>(handle->data);
    {
        std::lock_guard<std::mutex> lock(frame->m_Mutex);
        frame->m_Running.store(true);
    }
    uv_prepare_stop(handle);
    // The handle lives on the loop thread's stack for the whole uv_run; closing
    // it now leaves nothing of it for the loop to hold at the end.
    uv_close(reinterpret_cast<uv_handle_t*>(handle), nullptr);
}

// ---------------------------------------------------------------------------
// Stop

int CHttpFrame::Stop(bool forceAsyn) {
    if (m_State.load() != FrameReady || !m_Running.load()) return -1;
    const bool onLoop = IsLoopThread();
    if (onLoop && !forceAsyn && InsideCurl()) {
        // The queued deletes that the stop runs cannot take a transfer out of
        // libcurl while libcurl's call is on the stack: the stop waits for it
        // to return, as those deletes would.
        if (m_StopDue) return -1;
        m_StopDue = true;
    } else if (onLoop && !forceAsyn) {
        OnStop(&m_StopAsync);
    } else {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (m_Running.load()) {
            int rc = uv_async_send(&m_StopAsync);
            if (rc != 0) {
                WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]uv_async_send failed while stop HttpFrame", rc,
                            uv_strerror(rc));
                return -1;
            }
        }
    }
    if (!m_Thread.joinable()) return 0;
    if (onLoop) {
        m_Thread.detach();
    } else {
        m_Thread.join();
    }
    return 0;
}

void CHttpFrame::OnStop(uv_async_t* handle) {
    WriteNetLog(LOG_ROUTINE, "[NETLOOP]%s", "netloop::CHttpFrame::OnStop");
    if (handle == nullptr || handle->data == nullptr) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]OnStop Get NULL rAsync or data");
        return;
    }
    static_cast<CHttpFrame*>(handle->data)->StopOnLoop(handle);
}

void CHttpFrame::StopOnLoop(uv_async_t*) {
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Running.store(false);
        // A stop made by a record leaves the rest of that record's batch
        // unexecuted; it was queued before anything in the list and goes back
        // in front, so it is cancelled or run in order like the rest.
        if (m_ActiveBatch != nullptr && m_ActiveBatch->next < m_ActiveBatch->records->size()) {
            auto& rest = *m_ActiveBatch->records;
            m_AsynOperReqList.insert(m_AsynOperReqList.begin(), std::make_move_iterator(rest.begin() + m_ActiveBatch->next),
                                     std::make_move_iterator(rest.end()));
            rest.resize(m_ActiveBatch->next);
        }
        // Queued adds are answered with -1 and dropped; everything else stays
        // and runs below, so deletes still reach their handles.
        auto cancelled = [](const std::shared_ptr<AsynOperReq>& oper) { return oper->m_Oper->CancelAsynOper(oper); };
        m_AsynOperReqList.erase(std::remove_if(m_AsynOperReqList.begin(), m_AsynOperReqList.end(), cancelled),
                                m_AsynOperReqList.end());
    }
    RunAsynOperReqs();
    EndWaitingAtStop();
    CloseFrameHandle(reinterpret_cast<uv_handle_t*>(&m_Timer));
    CloseFrameHandle(reinterpret_cast<uv_handle_t*>(&m_StopAsync));
    CloseFrameHandle(reinterpret_cast<uv_handle_t*>(&m_ReqAsync));
    CloseFrameHandle(reinterpret_cast<uv_handle_t*>(&m_WsTimer));
    CloseFrameHandle(reinterpret_cast<uv_handle_t*>(&m_Kick));
    CloseFrameHandle(reinterpret_cast<uv_handle_t*>(&m_SocketSweep));
}

// ---------------------------------------------------------------------------
// The operation queue

void CHttpFrame::OnAsynOperReq(uv_async_t* handle) { static_cast<CHttpFrame*>(handle->data)->RunAsynOperReqs(); }

void CHttpFrame::RunAsynOperReqs() {
    std::vector<std::shared_ptr<AsynOperReq>> batch;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        batch.swap(m_AsynOperReqList);
    }
    if (batch.empty()) return;
    std::shared_ptr<CHttpFrame> self = shared_from_this();
    ActiveBatch active{&batch, 0};
    ActiveBatch* outer = m_ActiveBatch;
    m_ActiveBatch = &active;
    while (active.next < batch.size()) {
        // The record leaves the batch for the handle, which owns it from here;
        // a stop inside DoAsynOper takes back only what follows it.
        std::shared_ptr<AsynOperReq> oper = std::move(batch[active.next++]);
        IAsynOperInterface* target = oper->m_Oper.get();
        target->DoAsynOper(std::move(oper), self);
    }
    m_ActiveBatch = outer;
    // Hand the grown storage back so producers do not regrow it every wake-up.
    batch.clear();
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (m_AsynOperReqList.empty()) m_AsynOperReqList.swap(batch);
}

// Called with m_Mutex held. The loop takes the whole list in one go, so only
// the record that finds it empty needs to wake the loop: any later one rides
// on that wake-up.
void CHttpFrame::WakeForRecord(std::shared_ptr<AsynOperReq> oper) {
    const bool wake = m_AsynOperReqList.empty();
    m_AsynOperReqList.push_back(std::move(oper));
    if (wake) uv_async_send(&m_ReqAsync);
}

bool CHttpFrame::PostAsynOper(std::shared_ptr<AsynOperReq> oper) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (!m_Running.load()) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]Can not add timer req now");
        return false;
    }
    WakeForRecord(std::move(oper));
    return true;
}

int CHttpFrame::SubmitOper(std::shared_ptr<AsynOperReq> oper, bool forceAsyn) {
    // Transfers cannot be added or torn down from inside libcurl: such calls
    // wait for the queue even on the loop thread.
    const bool transferOper = oper->m_Type == OperAddHttp || oper->m_Type == OperDelHttp;
    if (!forceAsyn && IsLoopThread() && !(transferOper && InsideCurl())) {
        IAsynOperInterface* target = oper->m_Oper.get();
        return target->DoAsynOper(std::move(oper), shared_from_this());
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (!m_Running.load()) return -1;
    WakeForRecord(std::move(oper));
    return 0;
}

template <typename Req, typename Handle, typename Done>
int CHttpFrame::SubmitHandleOper(AsynOperType type, const std::shared_ptr<Handle>& handle, bool forceAsyn,
                                 Done&& done, void* userData) {
    // Only handles made by the library's own factories carry the queue side;
    // anything else is refused rather than trusted.
    std::shared_ptr<IAsynOperInterface> target = QueueSideOf(handle);
    if (!target) return -1;
    auto oper = std::make_shared<Req>();
    oper->m_Type = type;
    oper->m_Oper = std::move(target);
    oper->m_UserData = userData;
    oper->m_Done = std::forward<Done>(done);
    return SubmitOper(std::move(oper), forceAsyn);
}

bool CHttpFrame::AcceptsAdd(const char* kind) const {
    if (m_Running.load()) return true;
    WriteNetLog(LOG_ERROR, "[NETLOOP]Can not add %s req now", kind);
    return false;
}

int CHttpFrame::AddHttpReq(std::shared_ptr<IHttpHandleInterface> handle, bool forceAsyn, HttpDoneFunc done,
                           void* userData) {
    if (!handle) return -1;
    if (!AcceptsAdd("http")) return -1;
    WriteNetLog(LOG_ROUTINE, "[NETLOOP]add http handle[%p] [%d]", static_cast<void*>(handle.get()),
                static_cast<int>(forceAsyn));
    std::shared_ptr<CHttpHandle> impl = ImplCast<CHttpHandle>(handle);
    if (!impl) return -1;
    impl->SetFrame(shared_from_this());
    return SubmitHandleOper<AsynHttpReq>(OperAddHttp, handle, forceAsyn, std::move(done), userData);
}

int CHttpFrame::DelHttpReq(std::shared_ptr<IHttpHandleInterface> handle, bool forceAsyn, HttpDoneFunc done,
                           void* userData) {
    if (!handle) return -1;
    // Made inside libcurl, the delete has to wait for the queue, but for the
    // application the transfer ends here: what libcurl reports of it before
    // the record runs is not passed on. A delete queued from anywhere else is
    // a delete from outside, whatever comes before it is told.
    const bool queuedInsideCurl = IsLoopThread() && InsideCurl();
    int rc = SubmitHandleOper<AsynHttpReq>(OperDelHttp, handle, forceAsyn, std::move(done), userData);
    if (rc == 0 && queuedInsideCurl) {
        if (auto impl = ImplCast<CHttpHandle>(handle)) impl->SetEndQueued(true);
    }
    return rc;
}

int CHttpFrame::AddTimerReq(std::shared_ptr<ITimerHandleInterface> handle, bool forceAsyn, TimerDoneFunc done,
                            void* userData) {
    if (!handle) return -1;
    if (!AcceptsAdd("timer")) return -1;
    return SubmitHandleOper<AsynTimerReq>(OperAddTimer, handle, forceAsyn, std::move(done), userData);
}

int CHttpFrame::DelTimerReq(std::shared_ptr<ITimerHandleInterface> handle, bool forceAsyn, TimerDoneFunc done,
                            void* userData) {
    if (!handle) return -1;
    return SubmitHandleOper<AsynTimerReq>(OperDelTimer, handle, forceAsyn, std::move(done), userData);
}

int CHttpFrame::AddUdpReq(std::shared_ptr<IUdpHandleInterface> handle, bool forceAsyn, UdpDoneFunc done,
                          void* userData) {
    if (!handle) return -1;
    if (!AcceptsAdd("udp")) return -1;
    return SubmitHandleOper<AsynUdpReq>(OperAddUdp, handle, forceAsyn, std::move(done), userData);
}

int CHttpFrame::DelUdpReq(std::shared_ptr<IUdpHandleInterface> handle, bool forceAsyn, UdpDoneFunc done,
                          void* userData) {
    if (!handle) return -1;
    return SubmitHandleOper<AsynUdpReq>(OperDelUdp, handle, forceAsyn, std::move(done), userData);
}

}  // namespace netloop
