// The frame's libcurl share: one DNS cache, TLS session cache, connection
// cache and cookie store for all of its transfers, locked by one mutex per
// kind of shared data.
#include "frame/HttpFrame.h"
#include "frame/NetLog.h"

namespace netloop {
namespace {

struct ShareKind {
    curl_lock_data data;
    const char* failure;
};

}  // namespace

bool CHttpFrame::SetupShare() {
    m_Share = curl_share_init();
    if (m_Share == nullptr) return true;  // the frame runs without a share

    // Losing one kind of sharing costs only that kind; the frame works on.
    static const ShareKind kKinds[] = {
        {CURL_LOCK_DATA_DNS, "[NETLOOP]err[%d:%s]curl_share_setopt CURLSHOPT_SHARE CURL_LOCK_DATA_DNS failed"},
        {CURL_LOCK_DATA_SSL_SESSION,
         "[NETLOOP]err[%d:%s]curl_share_setopt CURLSHOPT_SHARE CURL_LOCK_DATA_SSL_SESSION failed"},
        {CURL_LOCK_DATA_CONNECT, "[NETLOOP]err[%d:%s]curl_share_setopt CURLSHOPT_SHARE CURL_LOCK_DATA_CONNECT failed"},
        {CURL_LOCK_DATA_COOKIE, "[NETLOOP]err[%d:%s]curl_share_setopt CURLSHOPT_SHARE CURL_LOCK_DATA_COOKIE failed"},
    };
    for (const ShareKind& kind : kKinds) {
        CURLSHcode rc = curl_share_setopt(m_Share, CURLSHOPT_SHARE, kind.data);
        if (rc != CURLSHE_OK) WriteNetLog(LOG_ERROR, kind.failure, static_cast<int>(rc), curl_share_strerror(rc));
    }

    // A share without its lock callbacks would be used unguarded: these end Init.
    CURLSHcode rc = curl_share_setopt(m_Share, CURLSHOPT_USERDATA, this);
    if (rc != CURLSHE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl_share_setopt CURLSHOPT_USERDATA failed", static_cast<int>(rc),
                    curl_share_strerror(rc));
        return false;
    }
    rc = curl_share_setopt(m_Share, CURLSHOPT_LOCKFUNC, &CHttpFrame::OnShareLock);
    if (rc != CURLSHE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl_share_setopt CURLSHOPT_LOCKFUNC failed", static_cast<int>(rc),
                    curl_share_strerror(rc));
        return false;
    }
    rc = curl_share_setopt(m_Share, CURLSHOPT_UNLOCKFUNC, &CHttpFrame::OnShareUnLock);
    if (rc != CURLSHE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl_share_setopt CURLSHOPT_UNLOCKFUNC failed",
                    static_cast<int>(rc), curl_share_strerror(rc));
        return false;
    }
    return true;
}

void CHttpFrame::OnShareLock(CURL*, curl_lock_data data, curl_lock_access, void* userptr) {
    auto* frame = static_cast<CHttpFrame*>(userptr);
    if (frame == nullptr) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]OnShareLock get null userdata");
        return;
    }
    if (data < 0 || data >= kShareLockCount) return;  // a kind newer than our headers
    // Shared and single access lock alike: readers of one kind wait for each other.
    frame->m_ShareMutex[data].lock();
}

void CHttpFrame::OnShareUnLock(CURL*, curl_lock_data data, void* userptr) {
    auto* frame = static_cast<CHttpFrame*>(userptr);
    if (frame == nullptr) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]OnShareUnLock get null userdata");
        return;
    }
    if (data < 0 || data >= kShareLockCount) return;
    frame->m_ShareMutex[data].unlock();
}

}  // namespace netloop
