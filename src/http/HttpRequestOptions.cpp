// Request options beyond the request type: method, redirects, compression and
// the cap on a response body.
#include <cstring>

#include "frame/NetLog.h"
#include "http/HttpHandle.h"

namespace netloop {
namespace {

// A method is an HTTP token: one or more of the characters RFC 9110 allows.
bool IsToken(const char* text) {
    static const char kSpecials[] = "!#$%&'*+-.^_`|~";
    if (*text == '\0') return false;
    for (const char* c = text; *c != '\0'; ++c) {
        const unsigned char u = static_cast<unsigned char>(*c);
        const bool alnum = (u >= '0' && u <= '9') || (u >= 'A' && u <= 'Z') || (u >= 'a' && u <= 'z');
        if (!alnum && std::strchr(kSpecials, u) == nullptr) return false;
    }
    return true;
}

}  // namespace

int CHttpHandle::SetMaxResponseSize(curl_off_t bytes) {
    if (!IsReady() || m_Curl == nullptr || m_ReqType == HTTP_REQ_WEBSOCKET) return -1;
    if (bytes < 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]invalid response size cap[%lld]", static_cast<long long>(bytes));
        return -1;
    }
    // libcurl refuses a body whose announced size is too large before any of
    // it arrives, and stops one that grows past the cap; the write callback
    // holds the same cap against the bytes it keeps.
    CURLcode rc = curl_easy_setopt(m_Curl, CURLOPT_MAXFILESIZE_LARGE, bytes);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_MAXFILESIZE_LARGE[%lld] failed",
                    static_cast<int>(rc), curl_easy_strerror(rc), static_cast<long long>(bytes));
        return -1;
    }
    Transfer().m_MaxBody = bytes;
    return 0;
}

int CHttpHandle::SetMethod(const char* method) {
    if (method == nullptr || !IsReady() || m_Curl == nullptr || m_ReqType == HTTP_REQ_WEBSOCKET) return -1;
    if (!IsToken(method)) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]invalid method[%s]", method);
        return -1;
    }
    // HEAD must be libcurl's own: as a custom method libcurl would wait for a
    // body that never comes. Any other method keeps the request type's body
    // (POST fields or upload stream) and only renames the request.
    const bool head = std::strcmp(method, "HEAD") == 0;
    CURLcode rc = curl_easy_setopt(m_Curl, CURLOPT_NOBODY, head ? 1L : 0L);
    if (rc == CURLE_OK && !head && !ApplyRequestType()) return -1;  // NOBODY 0 turns a POST into a GET
    if (rc == CURLE_OK) rc = curl_easy_setopt(m_Curl, CURLOPT_CUSTOMREQUEST, head ? nullptr : method);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set method[%s] failed", static_cast<int>(rc),
                    curl_easy_strerror(rc), method);
        return -1;
    }
    return 0;
}

bool CHttpHandle::ApplyRequestType() { return m_ReqType == HTTP_REQ_WEBSOCKET || SetRequestType(m_ReqType); }

int CHttpHandle::SetFollowRedirects(long maxRedirects) {
    if (!IsReady() || m_Curl == nullptr || m_ReqType == HTTP_REQ_WEBSOCKET) return -1;
    if (maxRedirects < 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]invalid redirect count[%ld]", maxRedirects);
        return -1;
    }
    // Only to http and https, never to a local file or another protocol. A
    // 301/302 turns a POST into a GET and a 303 turns every method but HEAD
    // into one, as browsers do; 307 and 308 keep method and body.
    CURLcode rc = curl_easy_setopt(m_Curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_REDIR_PROTOCOLS_STR failed",
                    static_cast<int>(rc), curl_easy_strerror(rc));
        return -1;
    }
    rc = curl_easy_setopt(m_Curl, CURLOPT_MAXREDIRS, maxRedirects);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_MAXREDIRS[%ld] failed", static_cast<int>(rc),
                    curl_easy_strerror(rc), maxRedirects);
        return -1;
    }
    rc = curl_easy_setopt(m_Curl, CURLOPT_FOLLOWLOCATION, maxRedirects > 0 ? CURLFOLLOW_OBEYCODE : 0L);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_FOLLOWLOCATION failed", static_cast<int>(rc),
                    curl_easy_strerror(rc));
        return -1;
    }
    return 0;
}

int CHttpHandle::EnableCompression(bool enable) {
    if (!IsReady() || m_Curl == nullptr || m_ReqType == HTTP_REQ_WEBSOCKET) return -1;
    // "" offers every encoding this libcurl decodes; null sends no offer and
    // passes bodies on as they come.
    CURLcode rc = curl_easy_setopt(m_Curl, CURLOPT_ACCEPT_ENCODING, enable ? "" : nullptr);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_ACCEPT_ENCODING[%d] failed",
                    static_cast<int>(rc), curl_easy_strerror(rc), enable ? 1 : 0);
        return -1;
    }
    return 0;
}

}  // namespace netloop
