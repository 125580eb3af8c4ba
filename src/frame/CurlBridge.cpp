// Runs libcurl's multi-socket interface on the frame's libuv loop: one poll
// handle per socket libcurl wants watched, the frame's one timer for libcurl's
// time-outs, and every event fed back through curl_multi_socket_action.
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <unistd.h>

#include "frame/CurlSocketRec.h"
#include "frame/HttpFrame.h"
#include "frame/NetLog.h"
#include "http/HttpHandle.h"

namespace netloop {
namespace {

struct MultiOption {
    CURLMoption option;
    long value;
    const char* failure;
};

bool SetMultiOption(CURLM* multi, CURLMoption option, void* value, const char* failure) {
    CURLMcode rc = curl_multi_setopt(multi, option, value);
    if (rc == CURLM_OK) return true;
    WriteNetLog(LOG_ERROR, failure, static_cast<int>(rc), curl_multi_strerror(rc));
    return false;
}

int PollEventsOf(int action) {
    switch (action) {
        case CURL_POLL_IN:
            return UV_READABLE;
        case CURL_POLL_OUT:
            return UV_WRITABLE;
        default:
            return UV_READABLE | UV_WRITABLE;
    }
}

// The scheme of the transfer's connection says whether it is a WebSocket
// (libcurl 8.14 reports it in upper case, later releases in lower). A transfer
// that ended before it had a connection of its own (one that waited for a free
// connection under the frame's limits past its connect time-out) has none;
// its URL tells instead.
bool IsWebSocketTransfer(CURL* easy) {
    char* scheme = nullptr;
    if (curl_easy_getinfo(easy, CURLINFO_SCHEME, &scheme) == CURLE_OK && scheme != nullptr)
        return strcasecmp(scheme, "ws") == 0 || strcasecmp(scheme, "wss") == 0;
    char* url = nullptr;
    if (curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &url) != CURLE_OK || url == nullptr) return false;
    return strncasecmp(url, "ws://", 5) == 0 || strncasecmp(url, "wss://", 6) == 0;
}

}  // namespace

bool CHttpFrame::SetupMulti(bool enablePipelining) {
    m_Multi = curl_multi_init();
    // A null handle makes the first option fail, which reports it.
    if (!SetMultiOption(m_Multi, CURLMOPT_SOCKETFUNCTION, reinterpret_cast<void*>(&CHttpFrame::HandleSocket),
                        "[NETLOOP]err[%d:%s]curl_multi_setopt CURLMOPT_SOCKETFUNCTION failed") ||
        !SetMultiOption(m_Multi, CURLMOPT_SOCKETDATA, this,
                        "[NETLOOP]err[%d:%s]curl_multi_setopt CURLMOPT_SOCKETDATA failed") ||
        !SetMultiOption(m_Multi, CURLMOPT_TIMERFUNCTION, reinterpret_cast<void*>(&CHttpFrame::StartTimeout),
                        "[NETLOOP]err[%d:%s]curl_multi_setopt CURLMOPT_TIMERFUNCTION failed") ||
        !SetMultiOption(m_Multi, CURLMOPT_TIMERDATA, this,
                        "[NETLOOP]err[%d:%s]curl_multi_setopt CURLMOPT_TIMERDATA failed")) {
        return false;
    }
    if (!enablePipelining) return true;

    // Multiplexing with tight connection limits; each limit that libcurl
    // refuses is only reported, the frame works on with libcurl's default.
    static const MultiOption kPipelining[] = {
        {CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX, "[NETLOOP]err[%d:%s]curl_multi_setopt CURLMOPT_PIPELINING failed"},
        {CURLMOPT_MAX_PIPELINE_LENGTH, kMaxStreamsPerConnection,
         "[NETLOOP]err[%d:%s]curl_multi_setopt CURLMOPT_MAX_PIPELINE_LENGTH failed"},
        {CURLMOPT_MAX_HOST_CONNECTIONS, kMaxHostConnections,
         "[NETLOOP]err[%d:%s]curl_multi_setopt CURLMOPT_MAX_HOST_CONNECTIONS failed"},
        {CURLMOPT_MAX_TOTAL_CONNECTIONS, kMaxTotalConnections,
         "[NETLOOP]err[%d:%s]curl_multi_setopt CURLMOPT_MAX_TOTAL_CONNECTIONS failed"},
        {CURLMOPT_MAXCONNECTS, kMaxKeptConnections, "[NETLOOP]err[%d:%s]curl_multi_setopt CURLMOPT_MAXCONNECTS failed"},
    };
    for (const MultiOption& opt : kPipelining) {
        CURLMcode rc = curl_multi_setopt(m_Multi, opt.option, opt.value);
        if (rc != CURLM_OK) WriteNetLog(LOG_ERROR, opt.failure, static_cast<int>(rc), curl_multi_strerror(rc));
    }
    return true;
}

// ---------------------------------------------------------------------------
// Sockets

int CHttpFrame::HandleSocket(CURL* easy, curl_socket_t socket, int action, void* userp, void* socketp) {
    auto* frame = static_cast<CHttpFrame*>(userp);
    if (frame == nullptr) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]HandleSocket get null userdata");
        return 0;
    }
    switch (action) {
        case CURL_POLL_IN:
        case CURL_POLL_OUT:
        case CURL_POLL_INOUT:
            return OnHandleSocket(frame, socket, action, socketp);
        case CURL_POLL_REMOVE: {
            if (socketp == nullptr) return 0;
            auto* rec = static_cast<CurlSocketRec*>(socketp);
            rec->m_Assigned = false;
            // libcurl removes a kept-alive connection's socket after every
            // transfer: its record stays for the next transfer on the same
            // connection, still watching (see CurlSocketRec), and goes when
            // libcurl closes the socket.
            uv_handle_t* handle = reinterpret_cast<uv_handle_t*>(&rec->m_Poll);
            if (uv_is_closing(handle) == 0) {
                if (frame->KeepSocketRec(rec)) {
                    // Unreferenced, it does not hold the loop up at a stop.
                    uv_unref(handle);
                    frame->m_IdleSockets.push_back(socket);
                    uv_handle_t* sweep = reinterpret_cast<uv_handle_t*>(&frame->m_SocketSweep);
                    if (sweep->loop != nullptr && uv_is_active(sweep) == 0 && uv_is_closing(sweep) == 0)
                        uv_prepare_start(&frame->m_SocketSweep, OnSocketSweep);
                } else {
                    uv_poll_stop(&rec->m_Poll);
                    uv_close(handle, FreeCurlSocketRec);
                }
            }
            curl_multi_assign(frame->m_Multi, socket, nullptr);
            return 0;
        }
        default:
            WriteNetLog(LOG_ERROR, "[NETLOOP]HandleSocket Get default Action[%d]", action);
            return 0;
    }
}

int CHttpFrame::OnHandleSocket(CHttpFrame* frame, curl_socket_t socket, int action, void* socketp) {
    auto* rec = static_cast<CurlSocketRec*>(socketp);
    const bool made = rec == nullptr;
    if (made) rec = frame->TakeSocketRec(socket);
    if (rec == nullptr) {
        std::shared_ptr<uv_loop_t> loop = frame->m_Loop;
        if (!loop) return 0;
        rec = static_cast<CurlSocketRec*>(std::malloc(sizeof(CurlSocketRec)));
        if (rec == nullptr) return 0;
        rec->m_Socket = socket;
        if (uv_poll_init_socket(loop.get(), &rec->m_Poll, socket) != 0) {
            // libuv cannot watch this descriptor: leave it unwatched rather
            // than poll a handle libuv never set up.
            std::free(rec);
            return 0;
        }
        rec->m_Poll.data = rec;
        rec->m_Frame = frame;
        rec->m_Events = 0;
    }
    uv_ref(reinterpret_cast<uv_handle_t*>(&rec->m_Poll));
    rec->m_Assigned = true;
    CURLMcode rc = curl_multi_assign(frame->m_Multi, socket, rec);
    if (rc != CURLM_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl_multi_assign failed while OnHandleSocket",
                    static_cast<int>(rc), curl_multi_strerror(rc));
        // A record made in this call is known to nobody now.
        if (made) uv_close(reinterpret_cast<uv_handle_t*>(&rec->m_Poll), FreeCurlSocketRec);
        return -1;
    }
    // libuv stops and re-registers the descriptor on every start, even for
    // the same events; a socket that already watches what libcurl asks for is
    // left alone.
    const int events = PollEventsOf(action);
    if (events != rec->m_Events) {
        uv_poll_start(&rec->m_Poll, events, CurlPerform);
        rec->m_Events = events;
    }
    return 0;
}

void CHttpFrame::CurlPerform(uv_poll_t* poll, int status, int events) {
    auto* rec = static_cast<CurlSocketRec*>(poll->data);
    // libcurl may remove the socket inside the call below; the record is not
    // touched after it.
    CHttpFrame* frame = rec->m_Frame;
    curl_socket_t socket = rec->m_Socket;
    if (!rec->m_Assigned) {
        // An idle kept-alive connection woke up (the server closed it, most
        // likely): libcurl finds out when it next looks at the connection.
        uv_poll_stop(poll);
        rec->m_Events = 0;
        return;
    }
    int mask = 0;
    if (events & UV_READABLE) mask |= CURL_CSELECT_IN;
    if (events & UV_WRITABLE) mask |= CURL_CSELECT_OUT;
    CURLMcode rc = frame->SocketAction(socket, mask);
    if (rc != CURLM_OK)
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl_multi_socket_action failed while CurlPerform",
                    static_cast<int>(rc), curl_multi_strerror(rc));
    frame->CheckMultiInfo();
    frame->RunWsService();
}

void CHttpFrame::FreeCurlSocketRec(uv_handle_t* handle) { std::free(handle->data); }

// ---------------------------------------------------------------------------
// Records kept across transfers on one connection

thread_local CHttpFrame* CHttpFrame::s_SocketFrame = nullptr;

namespace {

template <typename T>
T* SlotOf(std::vector<T>& table, curl_socket_t socket, bool grow) {
    if (socket < 0) return nullptr;
    const size_t index = static_cast<size_t>(socket);
    if (index >= table.size()) {
        if (!grow) return nullptr;
        table.resize(index + 1);
    }
    return &table[index];
}

}  // namespace

int CHttpFrame::OnCurlSockopt(void*, curl_socket_t socket, curlsocktype purpose) {
    // A connection's socket: libcurl closes it through OnCurlCloseSocket.
    CHttpFrame* frame = s_SocketFrame;
    if (frame != nullptr && purpose == CURLSOCKTYPE_IPCXN) {
        if (uint8_t* slot = SlotOf(frame->m_CurlClosesSocket, socket, true)) *slot = 1;
    }
    return CURL_SOCKOPT_OK;
}

int CHttpFrame::OnCurlCloseSocket(void*, curl_socket_t socket) {
    // The record goes first: libuv must not be left watching a closed
    // descriptor, whose number the next socket may take.
    if (CHttpFrame* frame = s_SocketFrame) frame->ForgetCurlSocket(socket);
    return ::close(socket);
}

bool CHttpFrame::KeepSocketRec(CurlSocketRec* rec) {
    // Only where the socket's close is sure to be heard: libcurl closes the
    // sockets of other things it watches (a resolver's, for one) itself.
    if (s_SocketFrame != this) return false;
    uint8_t* closes = SlotOf(m_CurlClosesSocket, rec->m_Socket, false);
    if (closes == nullptr || *closes == 0) return false;
    CurlSocketRec** kept = SlotOf(m_KeptSocketRecs, rec->m_Socket, true);
    if (*kept != nullptr) return false;
    *kept = rec;
    return true;
}

CurlSocketRec* CHttpFrame::TakeSocketRec(curl_socket_t socket) {
    CurlSocketRec** kept = SlotOf(m_KeptSocketRecs, socket, false);
    if (kept == nullptr || *kept == nullptr) return nullptr;
    CurlSocketRec* rec = *kept;
    *kept = nullptr;
    return rec;
}

void CHttpFrame::ForgetCurlSocket(curl_socket_t socket) {
    if (uint8_t* closes = SlotOf(m_CurlClosesSocket, socket, false)) *closes = 0;
    if (CurlSocketRec* rec = TakeSocketRec(socket))
        uv_close(reinterpret_cast<uv_handle_t*>(&rec->m_Poll), FreeCurlSocketRec);
}

// Runs just before the loop waits, after the turn's callbacks and the kick: a
// kept record that no transfer has taken back by now is idle for a while, and
// stops watching so that the idle connection costs nothing.
void CHttpFrame::OnSocketSweep(uv_prepare_t* prepare) {
    auto* frame = static_cast<CHttpFrame*>(prepare->data);
    for (curl_socket_t socket : frame->m_IdleSockets) {
        CurlSocketRec** kept = SlotOf(frame->m_KeptSocketRecs, socket, false);
        CurlSocketRec* rec = kept != nullptr ? *kept : nullptr;
        if (rec == nullptr || rec->m_Assigned || rec->m_Events == 0) continue;
        uv_poll_stop(&rec->m_Poll);
        rec->m_Events = 0;
    }
    frame->m_IdleSockets.clear();
    uv_prepare_stop(prepare);
}

// Every libcurl call that may reach the application's notices goes through
// here, so the frame knows when it is inside libcurl.
CURLMcode CHttpFrame::SocketAction(curl_socket_t socket, int mask) {
    int running = 0;
    ++m_CurlDepth;
    CURLMcode rc = curl_multi_socket_action(m_Multi, socket, mask, &running);
    --m_CurlDepth;
    if (m_StopDue && m_CurlDepth == 0) {
        m_StopDue = false;
        OnStop(&m_StopAsync);
    }
    return rc;
}

// ---------------------------------------------------------------------------
// Time-outs

int CHttpFrame::StartTimeout(CURLM*, long timeoutMs, void* userp) {
    auto* frame = static_cast<CHttpFrame*>(userp);
    if (frame == nullptr) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]StartTimeout get null userdata");
        return 0;
    }
    uv_idle_t* kick = &frame->m_Kick;
    // Every call replaces the wait before it, the kick's included.
    if (timeoutMs != 0 && uv_is_active(reinterpret_cast<uv_handle_t*>(kick)) != 0) uv_idle_stop(kick);
    if (timeoutMs < 0) {
        uv_timer_stop(&frame->m_Timer);
        return 0;
    }
    // libcurl's 0 means "as soon as possible"; a 1 ms timer keeps that off the
    // current call stack.
    uint64_t timeout = timeoutMs == 0 ? 1 : static_cast<uint64_t>(timeoutMs);
    uv_timer_start(&frame->m_Timer, OnTimeout, timeout, 0);
    // The kick runs the same time-out on the next turn of the loop instead of
    // a millisecond later; the loop does not sleep while it is pending. Once
    // the frame stops the kick is closing and stays off, like m_Timer, which
    // libuv no longer starts then (an idle handle it would take back).
    if (timeoutMs == 0 && kick->loop != nullptr && uv_is_closing(reinterpret_cast<uv_handle_t*>(kick)) == 0)
        uv_idle_start(kick, OnKick);
    return 0;
}

void CHttpFrame::OnTimeout(uv_timer_t* timer) { static_cast<CHttpFrame*>(timer->data)->RunTimeout(); }

void CHttpFrame::OnKick(uv_idle_t* idle) {
    uv_idle_stop(idle);
    static_cast<CHttpFrame*>(idle->data)->RunTimeout();
}

void CHttpFrame::RunTimeout() {
    CURLMcode rc = SocketAction(CURL_SOCKET_TIMEOUT, 0);
    if (rc != CURLM_OK)
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl_multi_socket_action failed while OnTimeout",
                    static_cast<int>(rc), curl_multi_strerror(rc));
    CheckMultiInfo();
    RunWsService();
}

// ---------------------------------------------------------------------------
// Finished transfers

void CHttpFrame::CheckMultiInfo() {
    int left = 0;
    while (CURLMsg* msg = curl_multi_info_read(m_Multi, &left)) {
        if (msg->msg != CURLMSG_DONE) {
            WriteNetLog(LOG_ERROR, "[NETLOOP]CheckMultiInfo get default message[%d]", static_cast<int>(msg->msg));
            continue;
        }
        CURL* easy = msg->easy_handle;
        CURLcode result = msg->data.result;
        CURLMcode rc = curl_multi_remove_handle(m_Multi, easy);
        if (rc != CURLM_OK)
            WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl_multi_remove_handle failed while CheckMultiInfo",
                        static_cast<int>(rc), curl_multi_strerror(rc));
        if (m_Gate) LeaveGate(easy);
        // A WebSocket's end is told by the handle, never as a finished transfer.
        if (IsWebSocketTransfer(easy)) {
            EndWebSocket(easy, result);
            continue;
        }
        FinishHttpReq(easy, result);
    }
    // The slots freed above go to the transfers waiting for them.
    StartWaiting();
}

void CHttpFrame::EndWebSocket(CURL* easy, CURLcode result) {
    char* url = nullptr;
    curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &url);
    // Every end that libcurl reports is an end the application did not ask for:
    // a closed or failed connection is an error, a completed close handshake is not.
    WriteNetLog(result == CURLE_OK ? LOG_NOTABLE : LOG_ERROR, "[NETLOOP]%s WS END result[%d:%s]",
                url != nullptr ? url : "", static_cast<int>(result), curl_easy_strerror(result));
    void* holder = nullptr;
    if (curl_easy_getinfo(easy, CURLINFO_PRIVATE, &holder) != CURLE_OK || holder == nullptr) return;
    auto* self = static_cast<std::shared_ptr<CHttpHandle>*>(holder);
    if (!*self) return;
    // The local reference outlives whatever the application does in the notice.
    std::shared_ptr<CHttpHandle> handle = *self;
    handle->OnTransferEnded(result);
    handle->OnWsEnded(result);
}

// ---------------------------------------------------------------------------
// WebSocket service

void CHttpFrame::ScheduleWs(const std::shared_ptr<CHttpHandle>& handle, uint64_t delayMs) {
    m_WsDue.push_back(handle);
    // Inside libcurl the bridge serves the list as soon as the call returns.
    if (InsideCurl()) return;
    uv_handle_t* timer = reinterpret_cast<uv_handle_t*>(&m_WsTimer);
    if (uv_is_active(timer) != 0 && uv_timer_get_due_in(&m_WsTimer) <= delayMs) return;
    uv_timer_start(&m_WsTimer, OnWsTimer, delayMs, 0);
}

void CHttpFrame::RunWsService() {
    if (m_WsDue.empty()) return;
    std::vector<std::weak_ptr<CHttpHandle>> due;
    due.swap(m_WsDue);
    for (const std::weak_ptr<CHttpHandle>& weak : due) {
        if (std::shared_ptr<CHttpHandle> handle = weak.lock()) handle->ServiceWs();
    }
    // Keep the grown storage for the next round.
    due.clear();
    if (m_WsDue.empty()) m_WsDue.swap(due);
}

void CHttpFrame::OnWsTimer(uv_timer_t* timer) { static_cast<CHttpFrame*>(timer->data)->RunWsService(); }

void CHttpFrame::FinishHttpReq(CURL* easy, CURLcode result) {
    char* url = nullptr;
    CURLcode rc = curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &url);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl_easy_getinfo CURLINFO_EFFECTIVE_URL failed while FinishHttpReq",
                    static_cast<int>(rc), curl_easy_strerror(rc));
    } else {
        WriteNetLog(result == CURLE_OK ? LOG_ROUTINE : LOG_ERROR, "[NETLOOP]%s DONE result[%d:%s]",
                    url != nullptr ? url : "", static_cast<int>(result), curl_easy_strerror(result));
    }
    void* holder = nullptr;
    rc = curl_easy_getinfo(easy, CURLINFO_PRIVATE, &holder);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl_easy_getinfo CURLINFO_PRIVATE failed while FinishHttpReq",
                    static_cast<int>(rc), curl_easy_strerror(rc));
        return;
    }
    auto* self = static_cast<std::shared_ptr<CHttpHandle>*>(holder);
    if (self == nullptr || !*self) return;
    // Local references keep the handle alive through the notice, even if the
    // application deletes it and drops its own references there.
    std::shared_ptr<CHttpHandle> handle = *self;
    std::shared_ptr<CHttpHandle> keep = handle;
    handle->OnTransferEnded(result);
    std::shared_ptr<IHttpHandleNotic> notic = handle->EndQueued() ? nullptr : handle->Notice();
    if (notic) notic->OnFinish(keep, result == CURLE_OK ? 0 : -2, handle->GetUserData());
}

}  // namespace netloop
