// WebSocket client connections: set-up, messages in through the write
// callback, messages out through curl_ws_send, and the connection's events.
//
// Everything here runs on the loop thread, except SendWsData's checks and the
// record it posts. Two things of libcurl shape the sending side: it must never
// be asked to send from inside one of its own callbacks (it would block there
// until the whole frame is out), and a frame it has begun must be finished
// before anything else goes out, or the connection is corrupt. So a message
// that cannot be written completely at once joins the handle's ordered
// outgoing queue, and the queue is flushed whenever the connection can take
// bytes: right after a libcurl call returns, or on a short timer while the
// socket is full, since libcurl does not report when it drains.
#include <algorithm>

#include "frame/HttpFrame.h"
#include "frame/NetLog.h"
#include "http/HttpHandle.h"

namespace netloop {
namespace {

constexpr uint32_t kWsRetryFirstMs = 1;
constexpr uint32_t kWsRetryMaxMs = 16;

// Written into curl_ws_frame::age, a field libcurl sets to 0 for every frame it
// decodes and never reads back, to mark a frame's metadata as already handled.
constexpr int kWsMetaHandled = 1;

// libcurl answers CURLE_SEND_ERROR for a transfer that has no connection left.
constexpr CURLcode kWsGone = CURLE_SEND_ERROR;

const char kNoBytes[1] = {0};

unsigned int WsFlagsOf(int type) {
    switch (type) {
        case WS_MSG_TEXT:
            return CURLWS_TEXT;
        case WS_MSG_BINARY:
            return CURLWS_BINARY;
        case WS_MSG_CLOSE:
            return CURLWS_CLOSE;
        default:
            return 0;
    }
}

int DataTypeOf(int flags) {
    if (flags & CURLWS_BINARY) return WS_MSG_BINARY;
    if (flags & CURLWS_TEXT) return WS_MSG_TEXT;
    return WS_MSG_OTHER;
}

void LogSendFailed(CURLcode rc) {
    WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl_ws_send failed", static_cast<int>(rc), curl_easy_strerror(rc));
}

void LogSendShort(size_t size, size_t sent) {
    WriteNetLog(LOG_UNEXPECTED, "[NETLOOP]Send len diff [%zu] != [%zu]", size, sent);
}

size_t SizeOf(const std::shared_ptr<std::vector<uint8_t>>& data) { return data ? data->size() : 0; }

}  // namespace

// ---------------------------------------------------------------------------
// Set-up

bool CHttpHandle::SetWsOptions() {
    Transfer().m_WsPhase = WS_PHASE_IDLE;
    Transfer().m_WsFailCode = 0;
    m_WsProgress.store(false);
    // The end of the 101 response is the only sign libcurl gives that the
    // upgrade has completed. The callback passes every header on unchanged.
    // Progress rounds stay on for the whole connection: the end of each round is
    // where a zero-length frame shows up (OnWsRound); EnableProgress only
    // decides whether OnProgress hears of them.
    struct Option {
        CURLoption option;
        void* value;
        const char* failure;
    };
    const Option options[] = {
        {CURLOPT_HEADERFUNCTION, reinterpret_cast<void*>(&CurlWsHeaderCallback),
         "[NETLOOP]err[%d:%s]curl set CURLOPT_HEADERFUNCTION failed"},
        {CURLOPT_HEADERDATA, &m_Self, "[NETLOOP]err[%d:%s]curl set CURLOPT_HEADERDATA failed"},
        {CURLOPT_XFERINFOFUNCTION, reinterpret_cast<void*>(&CurlXferInfoCallback),
         "[NETLOOP]err[%d:%s]curl set CURLOPT_XFERINFOFUNCTION failed"},
        {CURLOPT_XFERINFODATA, &m_Self, "[NETLOOP]err[%d:%s]curl set CURLOPT_XFERINFODATA failed"},
    };
    for (const Option& opt : options) {
        CURLcode rc = curl_easy_setopt(m_Curl, opt.option, opt.value);
        if (rc != CURLE_OK) {
            WriteNetLog(LOG_ERROR, opt.failure, static_cast<int>(rc), curl_easy_strerror(rc));
            return false;
        }
    }
    CURLcode rc = curl_easy_setopt(m_Curl, CURLOPT_NOPROGRESS, 0L);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_NOPROGRESS[%d] failed", static_cast<int>(rc),
                    curl_easy_strerror(rc), 0);
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// The connection's course

size_t CHttpHandle::CurlWsHeaderCallback(char* data, size_t size, size_t nitems, void* userp) {
    CHttpHandle* handle = static_cast<std::shared_ptr<CHttpHandle>*>(userp)->get();
    const size_t len = size * nitems;
    const bool blank = (len == 2 && data[0] == '\r' && data[1] == '\n') || (len == 1 && data[0] == '\n');
    if (blank && handle->Transfer().m_WsPhase == WS_PHASE_CONNECTING) {
        long code = 0;
        if (curl_easy_getinfo(handle->m_Curl, CURLINFO_RESPONSE_CODE, &code) == CURLE_OK && code == 101)
            handle->OnWsUpgraded();
    }
    return len;
}

void CHttpHandle::OnWsUpgraded() {
    // libcurl sets the connection up for WebSocket frames only after this
    // callback, so sending has to wait until the current libcurl call returns.
    Transfer().m_WsPhase = WS_PHASE_UPGRADED;
    ScheduleWs(0);
}

void CHttpHandle::OnWsAdded() {
    if (m_ReqType != HTTP_REQ_WEBSOCKET) return;
    // A fresh connection: nothing of an earlier one may leak into its first
    // message. Messages sent before this add stay queued for it.
    ++Transfer().m_WsGeneration;
    Transfer().m_WsPhase = WS_PHASE_CONNECTING;
    Transfer().m_WsRetryMs = 0;
    Transfer().m_WsDue = false;
    Transfer().m_WsFailCode = 0;
    ResetWsReceive();
}

void CHttpHandle::OnWsRemoved() {
    if (m_ReqType != HTTP_REQ_WEBSOCKET || Transfer().m_WsPhase == WS_PHASE_ENDED) return;
    Transfer().m_WsPhase = WS_PHASE_ENDED;
    DropWsQueue();
    ResetWsReceive();
}

void CHttpHandle::OnWsEnded(CURLcode) {
    if (m_ReqType != HTTP_REQ_WEBSOCKET) return;
    // Ended by the application already (Disconnect from inside a callback).
    if (Transfer().m_WsPhase == WS_PHASE_ENDED || Transfer().m_WsPhase == WS_PHASE_IDLE) return;
    const uint32_t generation = Transfer().m_WsGeneration;
    // An upgrade and an end in the same libcurl call: the open comes first.
    if (Transfer().m_WsPhase == WS_PHASE_UPGRADED && !OpenWs()) return;
    if (generation != Transfer().m_WsGeneration) return;
    const bool wasOpen = Transfer().m_WsPhase == WS_PHASE_OPEN;
    Transfer().m_WsPhase = WS_PHASE_ENDED;
    DropWsQueue();
    ResetWsReceive();
    NotifyWsState(Transfer().m_WsFailCode != 0 ? WS_STATE_ERROR : wasOpen ? WS_STATE_CLOSED : WS_STATE_FAILED);
}

void CHttpHandle::ServiceWs() {
    Transfer().m_WsDue = false;
    if (!IsReady() || m_Curl == nullptr) return;  // deleted meanwhile
    if (Transfer().m_WsPhase == WS_PHASE_UPGRADED && !OpenWs()) return;
    if (Transfer().m_WsPhase == WS_PHASE_OPEN) FlushWs();
    if (Transfer().m_WsFailCode != 0 && Transfer().m_WsPhase == WS_PHASE_OPEN && FailedWsDone()) EndFailedWs();
}

// Announces the open connection, then hands over the messages that arrived
// together with the upgrade. False when the application ended the connection
// from inside one of these notices.
bool CHttpHandle::OpenWs() {
    const uint32_t generation = Transfer().m_WsGeneration;
    Transfer().m_WsPhase = WS_PHASE_OPEN;
    NotifyWsState(WS_STATE_OPEN);
    std::vector<WsEarlyMessage> early;
    early.swap(Transfer().m_WsEarly);
    for (const WsEarlyMessage& msg : early) {
        if (generation != Transfer().m_WsGeneration || Transfer().m_WsPhase != WS_PHASE_OPEN) return false;
        DeliverWs(msg.bytes.data(), msg.bytes.size(), msg.type);
    }
    return generation == Transfer().m_WsGeneration && Transfer().m_WsPhase == WS_PHASE_OPEN;
}

void CHttpHandle::NotifyWsState(int state) {
    // The application has deleted the connection from inside libcurl: nothing
    // more is told of it.
    if (m_EndQueued) return;
    std::shared_ptr<IHttpHandleNotic> notic = m_Notic;
    if (notic) notic->OnWsState(shared_from_this(), state, m_UserData);
}

void CHttpHandle::ScheduleWs(uint64_t delayMs) {
    std::shared_ptr<CHttpFrame> frame = Frame();
    if (!frame || Transfer().m_WsDue) return;
    Transfer().m_WsDue = true;
    frame->ScheduleWs(shared_from_this(), delayMs);
}

// ---------------------------------------------------------------------------
// Receiving

void CHttpHandle::OnWsChunk(const char* data, size_t len) {
    const curl_ws_frame* meta = curl_ws_meta(m_Curl);
    if (meta == nullptr) {
        // Not a frame: an HTTP body, such as what a server says while refusing
        // the upgrade. It is kept as any response body would be.
        Transfer().m_Response.append(data, len);
        return;
    }
    const_cast<curl_ws_frame*>(meta)->age = kWsMetaHandled;
    if (Transfer().m_WsPhase == WS_PHASE_CONNECTING) OnWsUpgraded();
    if (Transfer().m_WsPhase == WS_PHASE_ENDED) return;  // the application has disconnected
    OnWsFrameBytes(data, len, meta->flags, meta->bytesleft);
}

// End of a libcurl progress round. libcurl 8.14 never passes a zero-length
// frame to the write callback, but it does leave the frame's metadata behind:
// a frame with no bytes that the write callback has not marked is such a frame
// (an empty message, the empty last frame of a fragmented one, a bare close).
// Only the last frame of a round can be seen this way.
void CHttpHandle::OnWsRound() {
    if (Transfer().m_File != nullptr || (Transfer().m_WsPhase != WS_PHASE_UPGRADED && Transfer().m_WsPhase != WS_PHASE_OPEN)) return;
    const curl_ws_frame* meta = curl_ws_meta(m_Curl);
    // flags 0: no frame decoded yet on this connection.
    if (meta == nullptr || meta->age == kWsMetaHandled || meta->flags == 0 || meta->len != 0 ||
        meta->bytesleft != 0)
        return;
    // Only rounds of the bridge's own libcurl calls: there a notice may queue
    // a delete safely.
    std::shared_ptr<CHttpFrame> frame = Frame();
    if (!frame || !frame->InsideCurl()) return;
    const_cast<curl_ws_frame*>(meta)->age = kWsMetaHandled;
    OnWsFrameBytes(kNoBytes, 0, meta->flags, 0);
}

void CHttpHandle::OnWsFrameBytes(const char* data, size_t len, int flags, curl_off_t bytesleft) {
    if (!AdmitWsChunk(data, len, flags, bytesleft)) return;
    if (flags & (CURLWS_CLOSE | CURLWS_PING | CURLWS_PONG)) {
        // Control frames may come between the frames of a fragmented message:
        // they are delivered alone, and its bytes stay where they are.
        if (bytesleft != 0) {
            Transfer().m_WsControl.append(data, len);
            return;
        }
        const int type = (flags & CURLWS_CLOSE) ? WS_MSG_CLOSE : WS_MSG_OTHER;
        if (Transfer().m_WsControl.empty()) {
            DeliverWs(data, len, type);
            return;
        }
        Transfer().m_WsControl.append(data, len);
        DeliverWs(Transfer().m_WsControl.data(), Transfer().m_WsControl.size(), type);
        Transfer().m_WsControl.clear();
        return;
    }
    if (!Transfer().m_WsInMessage) Transfer().m_WsMessageType = DataTypeOf(flags);
    if ((flags & CURLWS_CONT) || bytesleft != 0) {
        Transfer().m_WsInMessage = true;
        Transfer().m_Response.append(data, len);
        return;
    }
    Transfer().m_WsInMessage = false;
    // The last frame carries the message's type; older libcurl releases marked
    // it as a bare continuation, so the first frame's type stands in.
    int type = DataTypeOf(flags);
    if (type == WS_MSG_OTHER) type = Transfer().m_WsMessageType;
    if (Transfer().m_Response.empty()) {
        // The whole message in one chunk: straight from libcurl's buffer.
        DeliverWs(data, len, type);
        return;
    }
    Transfer().m_Response.append(data, len);
    DeliverWs(Transfer().m_Response.data(), Transfer().m_Response.size(), type);
    Transfer().m_Response.clear();  // keeps its storage for the next message
}

void CHttpHandle::DeliverWs(const char* data, size_t len, int type) {
    if (Transfer().m_WsPhase == WS_PHASE_UPGRADED) {
        // The open notice has to come first, and it cannot be given inside libcurl.
        Transfer().m_WsEarly.push_back({type, std::string(data, len)});
        return;
    }
    if (m_EndQueued) return;  // deleted from inside libcurl: see NotifyWsState
    std::shared_ptr<IHttpHandleNotic> notic = m_Notic;
    if (notic) notic->OnWsData(data, len, type, m_UserData);
}

void CHttpHandle::ResetWsReceive() {
    Transfer().m_Response.clear();
    Transfer().m_WsControl.clear();
    Transfer().m_WsEarly.clear();
    Transfer().m_WsInMessage = false;
    Transfer().m_WsFrameEnded = true;
    Transfer().m_WsUtf8.Reset();
}

// ---------------------------------------------------------------------------
// Sending

int CHttpHandle::SendWsData(std::shared_ptr<std::vector<uint8_t>> data, int type, size_t* sent) {
    if (!IsReady()) return -1;
    std::shared_ptr<CHttpFrame> frame = Frame();
    if (m_Curl == nullptr || m_ReqType != HTTP_REQ_WEBSOCKET || sent == nullptr || !frame) return -1;
    const unsigned int flags = WsFlagsOf(type);
    if (flags == 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]unknow websocket type[%d]", type);
        return -1;
    }
    if (!frame->m_Running.load()) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]Can not send ws data req now");
        return -1;
    }
    if (!ReserveWsSend(SizeOf(data))) return -1;
    if (frame->IsLoopThread()) {
        SendWsOnLoop(std::move(data), flags, sent, false, frame->InsideCurl());
        return 0;
    }
    const size_t size = SizeOf(data);
    auto oper = std::make_shared<AsynWSSendReq>();
    oper->m_Type = OperWSSend;
    oper->m_Oper = shared_from_this();
    oper->data = std::move(data);
    oper->flags = static_cast<int>(flags);
    // A frame that began to stop after the check above takes no record.
    if (!frame->PostAsynOper(std::move(oper))) {
        ReleaseWsSend(size);
        return -1;
    }
    *sent = size;
    return 0;
}

// A send on the loop thread, by the application (`record` false: `sent` is the
// caller's) or from a posted record. On an open connection with nothing
// waiting, outside libcurl, libcurl gets the message at once; otherwise it
// joins the queue behind everything sent before it.
void CHttpHandle::SendWsOnLoop(std::shared_ptr<std::vector<uint8_t>> data, unsigned int flags, size_t* sent,
                               bool record, bool insideCurl) {
    const size_t size = SizeOf(data);
    // A connection the library is failing has its close frame queued: nothing
    // may follow it.
    if (Transfer().m_WsPhase == WS_PHASE_ENDED || Transfer().m_WsFailCode != 0) {
        ReleaseWsSend(size);
        *sent = 0;
        LogSendFailed(kWsGone);
        if (record && size != 0) LogSendShort(size, 0);
        return;
    }
    if (Transfer().m_WsPhase != WS_PHASE_OPEN || !Transfer().m_WsOut.empty() || insideCurl) {
        *sent = size;
        Transfer().m_WsOut.push_back({std::move(data), flags, 0});
        // A queue that nobody is going to flush yet: inside libcurl the flush
        // comes right after the call; otherwise now. Before the open and while
        // a retry is due, the open or the retry flushes it.
        if (Transfer().m_WsPhase == WS_PHASE_OPEN && !Transfer().m_WsDue) {
            if (insideCurl)
                ScheduleWs(0);
            else
                FlushWs();
        }
        return;
    }
    *sent = 0;
    const uint8_t* bytes = size != 0 ? data->data() : nullptr;
    CURLcode rc = curl_ws_send(m_Curl, bytes, size, sent, 0, flags);
    ReleaseWsSend(*sent);
    if (rc == CURLE_OK && *sent == size) return;
    if (rc == CURLE_OK || rc == CURLE_AGAIN) {
        // libcurl has begun the frame: the rest goes first once the socket drains.
        Transfer().m_WsOut.push_back({std::move(data), flags, *sent});
        Transfer().m_WsRetryMs = kWsRetryFirstMs;
        ScheduleWs(Transfer().m_WsRetryMs);
        return;
    }
    ReleaseWsSend(size - *sent);
    LogSendFailed(rc);
    if (record && size != 0 && *sent != size) LogSendShort(size, *sent);
}

void CHttpHandle::OperWsSend(const AsynWSSendReq& oper) {
    size_t sent = 0;
    // Records run from the queue, never inside libcurl.
    SendWsOnLoop(oper.data, static_cast<unsigned int>(oper.flags), &sent, true, false);
}

// Writes queued messages in order until libcurl takes no more. The rest of a
// message libcurl has begun always goes first.
void CHttpHandle::FlushWs() {
    while (!Transfer().m_WsOut.empty()) {
        WsOutMessage& msg = Transfer().m_WsOut.front();
        const size_t size = SizeOf(msg.data);
        const uint8_t* bytes = size != 0 ? msg.data->data() + msg.done : nullptr;
        size_t taken = 0;
        CURLcode rc = curl_ws_send(m_Curl, bytes, size - msg.done, &taken, 0, msg.flags);
        if (rc == CURLE_OK) {
            msg.done += taken;
            ReleaseWsSend(taken);
        }
        if (rc == CURLE_OK && msg.done == size) {
            Transfer().m_WsOut.pop_front();
            Transfer().m_WsRetryMs = 0;
            continue;
        }
        if (rc == CURLE_OK || rc == CURLE_AGAIN) {
            // The socket is full and libcurl will not say when it drains: try
            // again shortly, backing off while nothing moves.
            Transfer().m_WsRetryMs = taken != 0 ? kWsRetryFirstMs : std::min(std::max(kWsRetryFirstMs, Transfer().m_WsRetryMs * 2), kWsRetryMaxMs);
            ScheduleWs(Transfer().m_WsRetryMs);
            return;
        }
        LogSendFailed(rc);
        if (msg.done != 0) LogSendShort(size, msg.done);
        ReleaseWsSend(size - msg.done);
        Transfer().m_WsOut.pop_front();
    }
}

// The connection is gone: what is still queued cannot go anywhere.
void CHttpHandle::DropWsQueue() {
    if (Transfer().m_WsOut.empty()) return;
    std::unique_ptr<std::deque<WsOutMessage>> dropped = Transfer().m_WsOut.TakeAll();
    for (const WsOutMessage& msg : *dropped) {
        ReleaseWsSend(SizeOf(msg.data) - msg.done);
        if (msg.done != 0)
            LogSendShort(SizeOf(msg.data), msg.done);
        else
            LogSendFailed(kWsGone);
    }
}

}  // namespace netloop
