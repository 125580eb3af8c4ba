// Server verification, request headers and libcurl's trace.
#include <sys/stat.h>

#include "frame/NetLog.h"
#include "http/HttpHandle.h"

namespace netloop {

int CHttpHandle::SetCaPath(const char* caPath) {
    if (!IsReady() || m_Curl == nullptr) return -1;
    // A folder goes to CURLOPT_CAPATH and a file to CURLOPT_CAINFO; the other
    // option is cleared so that only what the caller named is trusted. A path
    // that is neither is refused before anything changes.
    struct stat st;
    const bool found = caPath != nullptr && ::stat(caPath, &st) == 0;
    const bool folder = found && S_ISDIR(st.st_mode);
    if (caPath != nullptr && !folder && !(found && S_ISREG(st.st_mode))) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]CA path[%s] is neither a file nor a folder", caPath);
        return -1;
    }
    const long verify = caPath != nullptr ? 1 : 0;
    CURLcode rc = curl_easy_setopt(m_Curl, CURLOPT_SSL_VERIFYPEER, verify);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_SSL_VERIFYPEER[%d] failed", static_cast<int>(rc),
                    curl_easy_strerror(rc), static_cast<int>(verify));
        return -1;
    }
    rc = curl_easy_setopt(m_Curl, CURLOPT_SSL_VERIFYHOST, verify * 2);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_SSL_VERIFYHOST[%d] failed", static_cast<int>(rc),
                    curl_easy_strerror(rc), static_cast<int>(verify * 2));
        return -1;
    }
    if (caPath == nullptr) return 0;
    const char* file = folder ? nullptr : caPath;
    rc = curl_easy_setopt(m_Curl, CURLOPT_CAINFO, file);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_CAINFO[%s] failed", static_cast<int>(rc),
                    curl_easy_strerror(rc), file != nullptr ? file : "");
        return -1;
    }
    const char* dir = folder ? caPath : nullptr;
    rc = curl_easy_setopt(m_Curl, CURLOPT_CAPATH, dir);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_CAPATH[%s] failed", static_cast<int>(rc),
                    curl_easy_strerror(rc), dir != nullptr ? dir : "");
        return -1;
    }
    return 0;
}

int CHttpHandle::SetHeaders(const std::list<std::string>& headers) {
    if (!IsReady() || m_Curl == nullptr) return -1;
    Transfer().m_HeaderList = headers;
    // libcurl's list grows across calls on one easy handle; GetHeaders keeps
    // the last list only.
    for (const std::string& header : headers) {
        curl_slist* list = curl_slist_append(m_HeaderSlist, header.c_str());
        if (list == nullptr) {
            WriteNetLog(LOG_ERROR, "[NETLOOP]curl_slist_append failed");
            return -1;
        }
        m_HeaderSlist = list;
    }
    if (m_HeaderSlist == nullptr) return -1;
    CURLcode rc = curl_easy_setopt(m_Curl, CURLOPT_HTTPHEADER, m_HeaderSlist);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_HTTPHEADER failed", static_cast<int>(rc),
                    curl_easy_strerror(rc));
        return -1;
    }
    return 0;
}

int CHttpHandle::EnableVerbose() {
    if (!IsReady() || m_Curl == nullptr) return -1;
    CURLcode rc = curl_easy_setopt(m_Curl, CURLOPT_VERBOSE, 1L);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_VERBOSE[%d] failed", static_cast<int>(rc),
                    curl_easy_strerror(rc), 1);
        return -1;
    }
    rc = curl_easy_setopt(m_Curl, CURLOPT_DEBUGFUNCTION, &CurlDebugCallback);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_DEBUGFUNCTION failed", static_cast<int>(rc),
                    curl_easy_strerror(rc));
        return -1;
    }
    rc = curl_easy_setopt(m_Curl, CURLOPT_DEBUGDATA, &m_Self);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_DEBUGDATA failed", static_cast<int>(rc),
                    curl_easy_strerror(rc));
        return -1;
    }
    return 0;
}

int CHttpHandle::CurlDebugCallback(CURL*, curl_infotype type, char* data, size_t size, void* userp) {
    if (userp == nullptr) return 0;
    std::shared_ptr<CHttpHandle> hold = *static_cast<std::shared_ptr<CHttpHandle>*>(userp);
    const int len = static_cast<int>(size);
    switch (type) {
        case CURLINFO_TEXT:
            WriteNetLog(LOG_ROUTINE, "[NETLOOP][TEXT][%zu]%.*s", size, len, data);
            break;
        case CURLINFO_HEADER_IN:
            WriteNetLog(LOG_ROUTINE, "[NETLOOP][HEADER_IN][%zu]%.*s", size, len, data);
            break;
        case CURLINFO_HEADER_OUT:
            WriteNetLog(LOG_ROUTINE, "[NETLOOP][HEADER_OUT][%zu] [%p] %.*s", size, userp, len, data);
            break;
        case CURLINFO_DATA_IN:
            WriteNetLog(LOG_ROUTINE, "[NETLOOP][DATA_IN][%zu]%.*s", size, len, data);
            break;
        case CURLINFO_DATA_OUT:
            WriteNetLog(LOG_ROUTINE, "[NETLOOP][DATA_OUT][%zu]%.*s", size, len, data);
            break;
        case CURLINFO_SSL_DATA_IN:
            WriteNetLog(LOG_ROUTINE, "[NETLOOP][SSL_DATA_IN][%zu]%.*s", size, len, data);
            break;
        case CURLINFO_SSL_DATA_OUT:
            WriteNetLog(LOG_ROUTINE, "[NETLOOP][SSL_DATA_OUT][%zu]%.*s", size, len, data);
            break;
        default:
            break;
    }
    return 0;
}

}  // namespace netloop
