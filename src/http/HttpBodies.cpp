// Where a transfer's bytes come from and go to: the POST body, the upload
// source, the output file, and the progress report.
#include <cerrno>
#include <cstring>

#include "frame/NetLog.h"
#include "http/HttpHandle.h"
#include "sysutil/sysutil.h"

namespace netloop {

int CHttpHandle::SetPostFields(const char* fields) {
    if (fields == nullptr || !IsReady() || m_Curl == nullptr || m_ReqType != HTTP_REQ_POST) return -1;
    Transfer().m_PostFields = fields;
    // libcurl keeps only the pointer: it reads the handle's own copy.
    CURLcode rc = curl_easy_setopt(m_Curl, CURLOPT_POSTFIELDS, Transfer().m_PostFields.c_str());
    if (rc == CURLE_OK) return 0;
    WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_POSTFIELDS[%s] failed", static_cast<int>(rc),
                curl_easy_strerror(rc), fields);
    return -1;
}

int CHttpHandle::SetUploadSize(curl_off_t size) {
    if (!IsReady() || m_ReqType != HTTP_REQ_UPLOAD) return -1;
    CURLcode rc = curl_easy_setopt(m_Curl, CURLOPT_READFUNCTION, &CurlReadCallback);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_READFUNCTION failed", static_cast<int>(rc),
                    curl_easy_strerror(rc));
        return -1;
    }
    rc = curl_easy_setopt(m_Curl, CURLOPT_INFILESIZE_LARGE, size);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_INFILESIZE_LARGE failed", static_cast<int>(rc),
                    curl_easy_strerror(rc));
        return -1;
    }
    return 0;
}

size_t CHttpHandle::CurlReadCallback(char* buffer, size_t size, size_t nitems, void* userp) {
    auto* self = static_cast<std::shared_ptr<CHttpHandle>*>(userp);
    std::shared_ptr<IHttpHandleNotic> notic = (*self)->m_Notic;
    if (!notic) return 0;  // no source: the body ends here
    return notic->OnUploadRead(*self, buffer, size, nitems, (*self)->m_UserData);
}

int CHttpHandle::SetOutputFile(const char* path) {
    if (!IsReady() || path == nullptr) return -1;
    if (Transfer().m_File != nullptr) {
        std::fclose(Transfer().m_File);
        Transfer().m_File = nullptr;
    }
    Transfer().m_File = sysutil::CPathUtil::OpenFile(path, "wb", -1);
    if (Transfer().m_File == nullptr) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]Open file[%s] failed", path);
        return -1;
    }
    // Unbuffered: libcurl hands over whole chunks, and a write that fails
    // (a full disk) must fail while the transfer can still report it, not in
    // the fclose of the teardown.
    std::setvbuf(Transfer().m_File, nullptr, _IONBF, 0);
    Transfer().m_FilePath = path;
    return 0;
}

size_t CHttpHandle::CurlWriteCallback(char* data, size_t size, size_t nmemb, void* userp) {
    CHttpHandle* handle = static_cast<std::shared_ptr<CHttpHandle>*>(userp)->get();
    const size_t len = size * nmemb;  // libcurl always passes a size of 1
    if (handle->Transfer().m_File != nullptr) return handle->WriteFile(data, len);
    if (handle->m_ReqType == HTTP_REQ_WEBSOCKET) {
        handle->OnWsChunk(data, len);
        return len;
    }
    return handle->KeepBody(data, len);
}

// How many of `len` new body bytes the cap lets through. When it lets through
// fewer, the callback returns less than it was given and libcurl ends the
// transfer with CURLE_WRITE_ERROR; this covers what libcurl's own size limit
// cannot see: a decoded body larger than its compressed form.
static size_t BodyRoom(curl_off_t cap, curl_off_t taken, size_t len) {
    if (cap <= 0) return len;
    const curl_off_t room = cap > taken ? cap - taken : 0;
    return static_cast<curl_off_t>(len) > room ? static_cast<size_t>(room) : len;
}

size_t CHttpHandle::KeepBody(const char* data, size_t len) {
    const size_t room = BodyRoom(Transfer().m_MaxBody, Transfer().m_BodyBytes, len);
    Transfer().m_Response.append(data, room);
    Transfer().m_BodyBytes += static_cast<curl_off_t>(room);
    if (room < len) RefuseOverCap();
    return room;
}

size_t CHttpHandle::WriteFile(const char* data, size_t len) {
    const size_t room = BodyRoom(Transfer().m_MaxBody, Transfer().m_BodyBytes, len);
    const size_t written = std::fwrite(data, 1, room, Transfer().m_File);
    Transfer().m_BodyBytes += static_cast<curl_off_t>(written);
    if (written < room) {
        // Losing the rest silently would report a truncated file as a success.
        const int err = errno;
        WriteNetLog(LOG_ERROR, "[NETLOOP]Write file[%s] failed[%d:%s]", Transfer().m_FilePath.c_str(), err, std::strerror(err));
        Transfer().m_ErrorText = std::string("writing ") + Transfer().m_FilePath + " failed: " + std::strerror(err);
    } else if (room < len) {
        RefuseOverCap();
    }
    return written;
}

void CHttpHandle::RefuseOverCap() {
    if (Transfer().m_BodyRefused) return;
    const long long cap = static_cast<long long>(Transfer().m_MaxBody);
    WriteNetLog(LOG_ERROR, "[NETLOOP]%s response body larger than [%lld] bytes", m_Url.c_str(), cap);
    Transfer().m_ErrorText = "response body larger than " + std::to_string(cap) + " bytes";
    Transfer().m_BodyRefused = true;
}

int CHttpHandle::EnableProgress(bool enable) {
    if (!IsReady() || m_Curl == nullptr) return -1;
    if (m_ReqType == HTTP_REQ_WEBSOCKET) {
        // A WebSocket transfer reports its progress rounds anyway (WsTransfer.cpp).
        m_WsProgress.store(enable);
        return 0;
    }
    CURLcode rc = curl_easy_setopt(m_Curl, CURLOPT_NOPROGRESS, enable ? 0L : 1L);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_NOPROGRESS[%d] failed", static_cast<int>(rc),
                    curl_easy_strerror(rc), enable ? 0 : 1);
        return -1;
    }
    if (!enable) return 0;  // the callback stays installed and is no longer called
    rc = curl_easy_setopt(m_Curl, CURLOPT_XFERINFOFUNCTION, &CurlXferInfoCallback);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_PROGRESSFUNCTION[%d] failed",
                    static_cast<int>(rc), curl_easy_strerror(rc), 0);
        return -1;
    }
    rc = curl_easy_setopt(m_Curl, CURLOPT_XFERINFODATA, &m_Self);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_PROGRESSDATA[%d] failed", static_cast<int>(rc),
                    curl_easy_strerror(rc), 0);
        return -1;
    }
    return 0;
}

int CHttpHandle::CurlXferInfoCallback(void* userp, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal,
                                      curl_off_t ulnow) {
    CHttpHandle* handle = static_cast<std::shared_ptr<CHttpHandle>*>(userp)->get();
    if (handle->m_ReqType == HTTP_REQ_WEBSOCKET) {
        handle->OnWsRound();
        if (!handle->m_WsProgress.load()) return 0;
    }
    std::shared_ptr<IHttpHandleNotic> notic = handle->m_Notic;
    if (notic)
        notic->OnProgress(handle->Transfer().m_Tag.c_str(), handle->m_Url.c_str(), dltotal, dlnow, ultotal, ulnow,
                          handle->m_UserData);
    return 0;
}

}  // namespace netloop
