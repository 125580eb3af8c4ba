// CHttpFrame: one libuv loop on a thread of its own, one libcurl multi handle
// and, on request, one libcurl share. Application threads reach the loop only
// through the operation queue; everything that touches libuv or libcurl runs on
// the loop thread.
#pragma once

#include <curl/curl.h>
#include <uv.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "frame/AsynOperReq.h"
#include "frame/ConnectionGate.h"
#include "netloop/IHttpInterface.h"
#include "sysutil/sysutil.h"

namespace netloop {

class CHttpHandle;
struct CurlSocketRec;

enum FrameState : int32_t {
    FrameIdle = 0,     // nothing set up; Init may run
    FrameIniting = 1,  // Init is at work
    FrameReady = 2,    // set up; stays so for the whole life of the loop thread
    FrameClosing = 3,  // Uninit is at work
};

// libcurl names at most this many kinds of shared data; one mutex serves each.
constexpr int kShareLockCount = CURL_LOCK_DATA_LAST;
static_assert(kShareLockCount >= 8, "libcurl headers older than expected");

class CHttpFrame : public std::enable_shared_from_this<CHttpFrame>, public IHttpInterface {
public:
    CHttpFrame();
    ~CHttpFrame() override;

    int Init(std::shared_ptr<IHttpFrameNotic> notice, bool enablePipelining, bool enableShare,
             void* userData) override;
    int Start(bool wait) override;
    bool WaitRunning(int32_t timeoutMs) override;
    int Stop(bool forceAsyn) override;

    int AddHttpReq(std::shared_ptr<IHttpHandleInterface> handle, bool forceAsyn, HttpDoneFunc done,
                   void* userData) override;
    int DelHttpReq(std::shared_ptr<IHttpHandleInterface> handle, bool forceAsyn, HttpDoneFunc done,
                   void* userData) override;
    int AddTimerReq(std::shared_ptr<ITimerHandleInterface> handle, bool forceAsyn, TimerDoneFunc done,
                    void* userData) override;
    int DelTimerReq(std::shared_ptr<ITimerHandleInterface> handle, bool forceAsyn, TimerDoneFunc done,
                    void* userData) override;
    int AddUdpReq(std::shared_ptr<IUdpHandleInterface> handle, bool forceAsyn, UdpDoneFunc done,
                  void* userData) override;
    int DelUdpReq(std::shared_ptr<IUdpHandleInterface> handle, bool forceAsyn, UdpDoneFunc done,
                  void* userData) override;

    // Queues a ready-made record from a handle. Always queues, also on the loop
    // thread; refused (logged, record dropped, false) once the loop is
    // stopping. A caller that checked m_Running before may still be refused
    // here: the stop can come in between, so the caller reports this result.
    bool PostAsynOper(std::shared_ptr<AsynOperReq> oper);

    // True on the frame's loop thread.
    bool IsLoopThread() const { return m_Tid.load(std::memory_order_acquire) == sysutil::GetTid(); }

    // True while the loop thread is inside a libcurl call that may call back
    // into the application (loop thread only). libcurl refuses re-entrant multi
    // calls, and an easy handle torn down there would be pulled from under it.
    bool InsideCurl() const { return m_CurlDepth > 0; }

    // libuv callbacks of the frame's own handles.
    static void OnPrepare(uv_prepare_t* handle);
    static void OnStop(uv_async_t* handle);
    static void OnAsynOperReq(uv_async_t* handle);

    // The libcurl multi bridge (CurlBridge.cpp).
    static int HandleSocket(CURL* easy, curl_socket_t socket, int action, void* userp, void* socketp);
    static int OnHandleSocket(CHttpFrame* frame, curl_socket_t socket, int action, void* socketp);
    static int StartTimeout(CURLM* multi, long timeoutMs, void* userp);
    static void OnTimeout(uv_timer_t* timer);
    static void OnKick(uv_idle_t* idle);
    static void CurlPerform(uv_poll_t* poll, int status, int events);
    static void FreeCurlSocketRec(uv_handle_t* handle);
    // Set on every easy handle when it is added: libcurl marks the sockets of
    // its connections through the first and closes them through the second,
    // so a record can outlive CURL_POLL_REMOVE until its socket really closes.
    static int OnCurlSockopt(void* clientp, curl_socket_t socket, curlsocktype purpose);
    static int OnCurlCloseSocket(void* clientp, curl_socket_t socket);
    void CheckMultiInfo();
    void FinishHttpReq(CURL* easy, CURLcode result);
    void EndWebSocket(CURL* easy, CURLcode result);

    // WebSocket connections that need the loop outside libcurl (loop thread
    // only): served as soon as the current libcurl call has returned, or by
    // m_WsTimer after `delayMs` when no libcurl call is under way.
    void ScheduleWs(const std::shared_ptr<CHttpHandle>& handle, uint64_t delayMs);
    void RunWsService();
    static void OnWsTimer(uv_timer_t* timer);

    // Hands waiting transfers of a limited frame to libcurl while the limits
    // leave room (loop thread, outside libcurl; nothing once the frame stops).
    void StartWaiting();
    // A transfer of a limited frame left libcurl: its slot is free.
    void LeaveGate(CURL* easy);

    // The libcurl share locks (ShareLocks.cpp).
    static void OnShareLock(CURL* handle, curl_lock_data data, curl_lock_access access, void* userptr);
    static void OnShareUnLock(CURL* handle, curl_lock_data data, void* userptr);

    // The fields below are read by the handle classes directly; all but the
    // atomics belong to the loop thread once the loop runs.
    std::atomic<int32_t> m_State{FrameIdle};
    std::thread m_Thread;
    std::atomic<int32_t> m_Tid{0};
    std::shared_ptr<IHttpFrameNotic> m_Notice;
    void* m_UserData = nullptr;
    std::shared_ptr<uv_loop_t> m_Loop;
    uv_async_t m_StopAsync;
    uv_timer_t m_Timer;
    uv_async_t m_ReqAsync;
    std::atomic<bool> m_Running{false};
    std::mutex m_Mutex;
    std::vector<std::shared_ptr<AsynOperReq>> m_AsynOperReqList;
    CURLM* m_Multi = nullptr;
    CURLSH* m_Share = nullptr;
    std::mutex m_ShareMutex[kShareLockCount];
    int m_CurlDepth = 0;  // loop thread only; see InsideCurl
    // Stop(false) was called inside libcurl: the stop runs as soon as the
    // libcurl call has returned (loop thread only).
    bool m_StopDue = false;
    uv_timer_t m_WsTimer;  // serves m_WsDue between libcurl calls
    // libcurl's "time-out 0" served on the next turn of the loop, without the
    // 1 ms wait of m_Timer (which stays armed as libcurl asked).
    uv_idle_t m_Kick;
    // Sockets whose kept record still watches after libcurl removed them; the
    // sweep stops those that no transfer took back during the loop's turn.
    uv_prepare_t m_SocketSweep;
    std::vector<curl_socket_t> m_IdleSockets;  // loop thread only
    static void OnSocketSweep(uv_prepare_t* prepare);
    std::vector<std::weak_ptr<CHttpHandle>> m_WsDue;  // loop thread only
    // Transfers waiting for a connection; frames with connection limits only.
    std::unique_ptr<CConnectionGate> m_Gate;

    // The frame whose libcurl calls this thread makes: the loop thread's own
    // frame, or the frame whose loop resources are being released here.
    // libcurl's socket callbacks above reach the frame through it.
    static thread_local CHttpFrame* s_SocketFrame;
    struct SocketFrameScope {
        explicit SocketFrameScope(CHttpFrame* frame) : m_Outer(s_SocketFrame) { s_SocketFrame = frame; }
        ~SocketFrameScope() { s_SocketFrame = m_Outer; }
        CHttpFrame* m_Outer;
    };

private:
    // The batch RunAsynOperReqs is working through (loop thread only), so a
    // stop made by one of its records can take the rest of it back.
    struct ActiveBatch {
        std::vector<std::shared_ptr<AsynOperReq>>* records;
        size_t next;
    };
    ActiveBatch* m_ActiveBatch = nullptr;

public:

private:
    void FrameThread(std::shared_ptr<CHttpFrame> self);
    void StopOnLoop(uv_async_t* handle);
    void EndWaitingAtStop();
    void RunAsynOperReqs();
    void Uninit();
    // Releases share, multi handle, the frame's libuv handles and the loop,
    // whichever of them exist. Used by Uninit, a failed Init and the destructor.
    void ReleaseLoopResources();
    bool InitLoopHandles();
    bool SetupMulti(bool enablePipelining);
    bool SetupShare();
    bool ReadRunning();

    // The common road of the six Add/Del operations: build the record, run it at
    // once on the loop thread or queue it.
    template <typename Req, typename Handle, typename Done>
    int SubmitHandleOper(AsynOperType type, const std::shared_ptr<Handle>& handle, bool forceAsyn, Done&& done,
                         void* userData);
    int SubmitOper(std::shared_ptr<AsynOperReq> oper, bool forceAsyn);
    // Adds need a running frame; a refused one is logged with its kind.
    bool AcceptsAdd(const char* kind) const;
    CURLMcode SocketAction(curl_socket_t socket, int mask);
    // Kept records (CurlBridge.cpp); loop thread, or the release of the loop.
    void WakeForRecord(std::shared_ptr<AsynOperReq> oper);
    bool KeepSocketRec(CurlSocketRec* rec);
    CurlSocketRec* TakeSocketRec(curl_socket_t socket);
    void ForgetCurlSocket(curl_socket_t socket);

    // By descriptor, for the sockets of libcurl's connections: whether libcurl
    // closes it through OnCurlCloseSocket, and the record kept for it after
    // CURL_POLL_REMOVE (poll stopped, handle open), if any.
    std::vector<uint8_t> m_CurlClosesSocket;
    std::vector<CurlSocketRec*> m_KeptSocketRecs;
    void RunTimeout();
};

}  // namespace netloop
