// Where a transfer's bytes come from and go to: the POST body, the upload
// source, the output file, and the progress report.
#include "frame/NetLog.h"
#include "http/HttpHandle.h"
#include "sysutil/sysutil.h"

namespace netloop {

int CHttpHandle::SetPostFields(const char* fields) {
    if (fields == nullptr || !IsReady() || m_Curl == nullptr || m_ReqType != HTTP_REQ_POST) return -1;
    m_PostFields = fields;
    // libcurl keeps only the pointer: it reads the handle's own copy.
    CURLcode rc = curl_easy_setopt(m_Curl, CURLOPT_POSTFIELDS, m_PostFields.c_str());
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
    if (m_File != nullptr) {
        std::fclose(m_File);
        m_File = nullptr;
    }
    m_File = sysutil::CPathUtil::OpenFile(path, "wb", -1);
    if (m_File == nullptr) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]Open file[%s] failed", path);
        return -1;
    }
    m_FilePath = path;
    return 0;
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
    rc = curl_easy_setopt(m_Curl, CURLOPT_XFERINFODATA, m_Self);
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
        notic->OnProgress(handle->m_Tag.c_str(), handle->m_Url.c_str(), dltotal, dlnow, ultotal, ulnow,
                          handle->m_UserData);
    return 0;
}

}  // namespace netloop
