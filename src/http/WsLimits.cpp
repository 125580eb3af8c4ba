// Bounds of a WebSocket connection: the largest message it accepts, the bytes
// it lets wait to be sent, and the checks that make the library fail a
// connection whose peer breaks the protocol.
//
// A peer decides how much it sends, so every incoming message is measured as
// soon as its size is known: what is held already plus what the current frame
// still announces. A message past the limit is refused at its first chunk,
// before its bytes are kept. Failing a connection means: drop what is held of
// the message, queue a close frame with the status, discard whatever else
// arrives, and take the transfer out of the multi handle when the peer has not
// closed the connection itself within a second; then tell the application.
// Closing at once would close a socket with unread data, which resets the
// connection, and a peer busy writing may then never read the close frame.
#include <cinttypes>
#include <cstdio>
#include <string>

#include "frame/HttpFrame.h"
#include "frame/NetLog.h"
#include "http/HttpHandle.h"

namespace netloop {
namespace {

// RFC 6455 close statuses the library sends.
constexpr uint16_t kCloseProtocolError = 1002;
constexpr uint16_t kCloseInvalidData = 1007;
constexpr uint16_t kCloseTooBig = 1009;

constexpr uint64_t kControlMax = 125;  // payload limit of a control frame
// How long a failed connection waits for the peer to answer its close frame
// and close the connection (a peer that does not read never does).
constexpr uint64_t kFailCloseWaitMs = 1000;

int DataTypeOf(int flags) {
    if (flags & CURLWS_BINARY) return WS_MSG_BINARY;
    if (flags & CURLWS_TEXT) return WS_MSG_TEXT;
    return WS_MSG_OTHER;
}

// held + len + bytesleft without overflow: a frame may announce up to 2^63 bytes.
uint64_t AnnouncedSize(size_t held, size_t len, curl_off_t bytesleft) {
    const uint64_t left = bytesleft > 0 ? static_cast<uint64_t>(bytesleft) : 0;
    const uint64_t known = static_cast<uint64_t>(held) + len;
    return left > UINT64_MAX - known ? UINT64_MAX : known + left;
}

std::string SizeText(uint64_t bytes) {
    char text[48];
    if (bytes != 0 && bytes % (1u << 20) == 0)
        std::snprintf(text, sizeof(text), "%" PRIu64 " MiB", bytes >> 20);
    else if (bytes != 0 && bytes % 1024 == 0)
        std::snprintf(text, sizeof(text), "%" PRIu64 " KiB", bytes >> 10);
    else
        std::snprintf(text, sizeof(text), "%" PRIu64 " bytes", bytes);
    return text;
}

std::string TooBigText(size_t limit, uint64_t size) {
    return "message too big (limit " + SizeText(limit) + ", " + std::to_string(size) + " bytes seen)";
}

}  // namespace

// ---------------------------------------------------------------------------
// Settings

int CHttpHandle::SetWsMaxMessageSize(size_t bytes) {
    Transfer().m_WsMaxMessage = bytes;
    return 0;
}

int CHttpHandle::SetWsMaxSendBuffer(size_t bytes) {
    Transfer().m_WsMaxSend = bytes;
    return 0;
}

size_t CHttpHandle::GetWsBufferedAmount() {
    const TransferState* transfer = TransferIfAny();
    return transfer != nullptr ? transfer->m_WsBuffered.load() : 0;
}

// ---------------------------------------------------------------------------
// Sending

// Counts a message in before it is handed on; several threads may send at once.
bool CHttpHandle::ReserveWsSend(size_t size) {
    size_t waiting = Transfer().m_WsBuffered.load();
    do {
        if (Transfer().m_WsMaxSend != 0 && (size > Transfer().m_WsMaxSend || waiting > Transfer().m_WsMaxSend - size)) {
            WriteNetLog(LOG_ERROR, "[NETLOOP]ws send refused: %zu bytes waiting, %zu more would pass the limit %zu",
                        waiting, size, Transfer().m_WsMaxSend);
            return false;
        }
    } while (!Transfer().m_WsBuffered.compare_exchange_weak(waiting, waiting + size));
    return true;
}

// ---------------------------------------------------------------------------
// Receiving

// Decides whether a chunk may go on to be kept or delivered. False when the
// connection has failed, now or earlier: the chunk is then dropped.
bool CHttpHandle::AdmitWsChunk(const char* data, size_t len, int flags, curl_off_t bytesleft) {
    if (Transfer().m_WsFailCode != 0) return false;
    if (flags & (CURLWS_CLOSE | CURLWS_PING | CURLWS_PONG)) return AdmitWsControl(len, bytesleft);
    return AdmitWsData(data, len, flags, bytesleft);
}

bool CHttpHandle::AdmitWsControl(size_t len, curl_off_t bytesleft) {
    const uint64_t size = AnnouncedSize(Transfer().m_WsControl.size(), len, bytesleft);
    if (size > kControlMax)
        return FailWs(kCloseProtocolError, "protocol error",
                      "control frame too long (" + std::to_string(size) + " bytes, at most 125)");
    if (Transfer().m_WsMaxMessage != 0 && size > Transfer().m_WsMaxMessage)
        return FailWs(kCloseTooBig, "message too big", TooBigText(Transfer().m_WsMaxMessage, size));
    return true;
}

bool CHttpHandle::AdmitWsData(const char* data, size_t len, int flags, curl_off_t bytesleft) {
    // A new message cannot begin while a fragmented one is open, so a frame of
    // another data type ends the open one, whose last frame libcurl did not pass
    // on (it passes no empty frame).
    const int frameType = DataTypeOf(flags);
    if (Transfer().m_WsInMessage && Transfer().m_WsFrameEnded && frameType != WS_MSG_OTHER && frameType != Transfer().m_WsMessageType &&
        !EndWsMessageEarly())
        return false;
    Transfer().m_WsFrameEnded = bytesleft == 0;
    size_t held = Transfer().m_Response.size();
    // Before the open notice finished messages are held too, and count with it.
    if (Transfer().m_WsPhase == WS_PHASE_UPGRADED)
        for (const WsEarlyMessage& msg : Transfer().m_WsEarly) held += msg.bytes.size();
    const uint64_t size = AnnouncedSize(held, len, bytesleft);
    if (Transfer().m_WsMaxMessage != 0 && size > Transfer().m_WsMaxMessage)
        return FailWs(kCloseTooBig, "message too big", TooBigText(Transfer().m_WsMaxMessage, size));
    const int type = Transfer().m_WsInMessage ? Transfer().m_WsMessageType : frameType;
    const bool ends = !(flags & CURLWS_CONT) && bytesleft == 0;
    if (type == WS_MSG_TEXT && (!Transfer().m_WsUtf8.Feed(data, len) || (ends && !Transfer().m_WsUtf8.Complete())))
        return FailWs(kCloseInvalidData, "invalid UTF-8", "text message is not valid UTF-8");
    if (ends) Transfer().m_WsUtf8.Reset();
    return true;
}

// Delivers the open fragmented message as it stands. False when it cannot be
// delivered (text cut inside a character) or the application ended the
// connection from its notice.
bool CHttpHandle::EndWsMessageEarly() {
    if (Transfer().m_WsMessageType == WS_MSG_TEXT && !Transfer().m_WsUtf8.Complete())
        return FailWs(kCloseInvalidData, "invalid UTF-8", "text message is not valid UTF-8");
    Transfer().m_WsInMessage = false;
    Transfer().m_WsUtf8.Reset();
    const uint32_t generation = Transfer().m_WsGeneration;
    DeliverWs(Transfer().m_Response.data(), Transfer().m_Response.size(), Transfer().m_WsMessageType);
    Transfer().m_Response.clear();
    return generation == Transfer().m_WsGeneration && Transfer().m_WsPhase != WS_PHASE_ENDED;
}

// ---------------------------------------------------------------------------
// Failing a connection

// Runs inside libcurl's write callback: nothing here may call libcurl's
// sending or removal functions, so the rest waits for ServiceWs. Returns false
// for the caller to pass on.
bool CHttpHandle::FailWs(uint16_t code, const char* reason, const std::string& why) {
    Transfer().m_WsFailCode = code;
    Transfer().m_ErrorText = why;
    WriteNetLog(LOG_ERROR, "[NETLOOP]%s WS FAIL [%u] %s", m_Url.c_str(), static_cast<unsigned>(code), why.c_str());
    // Nothing of the refused message is delivered, and its storage goes.
    std::string().swap(Transfer().m_Response);
    Transfer().m_WsControl.clear();
    Transfer().m_WsInMessage = false;
    Transfer().m_WsUtf8.Reset();
    QueueWsClose(code, reason);
    std::shared_ptr<CHttpFrame> frame = Frame();
    Transfer().m_WsFailDeadlineMs = frame ? uv_now(frame->m_Loop.get()) + kFailCloseWaitMs : 0;
    ScheduleWs(0);
    return false;
}

// The close frame goes right after the message libcurl has begun, if any:
// messages still waiting behind it are dropped, each logged.
void CHttpHandle::QueueWsClose(uint16_t code, const char* reason) {
    std::unique_ptr<std::deque<WsOutMessage>> waiting = Transfer().m_WsOut.TakeAll();
    if (waiting) {
        for (WsOutMessage& msg : *waiting) {
            const size_t size = msg.data ? msg.data->size() : 0;
            if (msg.done != 0 && Transfer().m_WsOut.empty()) {
                Transfer().m_WsOut.push_back(std::move(msg));
                continue;
            }
            WriteNetLog(LOG_UNEXPECTED, "[NETLOOP]ws message of %zu bytes not sent: the connection failed", size);
            ReleaseWsSend(size - msg.done);
        }
    }
    auto close = std::make_shared<std::vector<uint8_t>>();
    close->push_back(static_cast<uint8_t>(code >> 8));
    close->push_back(static_cast<uint8_t>(code & 0xff));
    for (const char* c = reason; *c != '\0'; ++c) close->push_back(static_cast<uint8_t>(*c));
    Transfer().m_WsBuffered.fetch_add(close->size());
    Transfer().m_WsOut.push_back({std::move(close), CURLWS_CLOSE, 0});
}

// True once a failed connection is to be dropped: the peer had its time to
// close it. Until then libcurl reads on, the chunks are discarded, and the
// peer's close ends the transfer through OnWsEnded.
bool CHttpHandle::FailedWsDone() {
    std::shared_ptr<CHttpFrame> frame = Frame();
    if (!frame) return true;
    const uint64_t now = uv_now(frame->m_Loop.get());
    if (now >= Transfer().m_WsFailDeadlineMs) return true;
    if (Transfer().m_WsOut.empty()) ScheduleWs(Transfer().m_WsFailDeadlineMs - now);  // else a send retry is due
    return false;
}

// Outside libcurl: the failed connection leaves the multi handle, which closes
// it, and the application hears of it.
void CHttpHandle::EndFailedWs() {
    std::shared_ptr<CHttpFrame> frame = Frame();
    if (!frame) return;
    RemoveFromMulti(frame, "[NETLOOP]err[%d:%s]curl_multi_remove_handle failed while failing a web socket");
    NotifyWsState(WS_STATE_ERROR);
}

}  // namespace netloop
