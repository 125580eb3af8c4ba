// WebSocket connections: messages in through the write callback, out through
// curl_ws_send on the loop thread.
#include "frame/HttpFrame.h"
#include "frame/NetLog.h"
#include "http/HttpHandle.h"

namespace netloop {
namespace {

int WsFlagsOf(int type) {
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

int MessageTypeOf(int flags) {
    if (flags & CURLWS_CLOSE) return WS_MSG_CLOSE;
    if (flags & CURLWS_BINARY) return WS_MSG_BINARY;
    if (flags & CURLWS_TEXT) return WS_MSG_TEXT;
    return WS_MSG_OTHER;
}

}  // namespace

void CHttpHandle::OnWsChunk(char* data, size_t len) {
    const curl_ws_frame* meta = curl_ws_meta(m_Curl);
    if (meta == nullptr) {
        // Not a frame: what a server said while refusing the upgrade.
        m_Response.append(data, len);
        return;
    }
    if ((meta->flags & CURLWS_CONT) || meta->bytesleft != 0) {
        m_Response.append(data, len);
        return;
    }
    const int type = MessageTypeOf(meta->flags);
    std::shared_ptr<IHttpHandleNotic> notic = m_Notic;
    if (m_Response.empty()) {
        if (notic) notic->OnWsData(data, len, type, m_UserData);
        return;
    }
    m_Response.append(data, len);
    if (notic) notic->OnWsData(m_Response.data(), m_Response.size(), type, m_UserData);
    m_Response.clear();
}

int CHttpHandle::SendWsData(std::shared_ptr<std::vector<uint8_t>> data, int type, size_t* sent) {
    if (!IsReady()) return -1;
    std::shared_ptr<CHttpFrame> frame = Frame();
    if (m_Curl == nullptr || m_ReqType != HTTP_REQ_WEBSOCKET || sent == nullptr || !frame) return -1;
    const int flags = WsFlagsOf(type);
    if (flags == 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]unknow websocket type[%d]", type);
        return -1;
    }
    if (!frame->m_Running.load()) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]Can not send ws data req now");
        return -1;
    }
    if (frame->IsLoopThread()) {
        SendWsMessage(data, flags, sent);
        return 0;
    }
    auto oper = std::make_shared<AsynWSSendReq>();
    oper->m_Type = OperWSSend;
    oper->m_Oper = shared_from_this();
    oper->data = data;
    oper->flags = flags;
    *sent = data ? data->size() : 0;
    frame->PostAsynOper(std::move(oper));
    return 0;
}

void CHttpHandle::SendWsMessage(const std::shared_ptr<std::vector<uint8_t>>& data, int flags, size_t* sent) {
    const uint8_t* bytes = data && !data->empty() ? data->data() : nullptr;
    const size_t size = data ? data->size() : 0;
    CURLcode rc = curl_ws_send(m_Curl, bytes, size, sent, 0, static_cast<unsigned int>(flags));
    if (rc != CURLE_OK)
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl_ws_send failed", static_cast<int>(rc), curl_easy_strerror(rc));
}

void CHttpHandle::OperWsSend(const AsynWSSendReq& oper) {
    size_t sent = 0;
    SendWsMessage(oper.data, oper.flags, &sent);
    if (oper.data && sent != oper.data->size())
        WriteNetLog(LOG_UNEXPECTED, "[NETLOOP]Send len diff [%zu] != [%zu]", oper.data->size(), sent);
}

}  // namespace netloop
