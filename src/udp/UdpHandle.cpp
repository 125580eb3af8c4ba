#include "udp/UdpHandle.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "frame/HttpFrame.h"
#include "frame/NetLog.h"

namespace netloop {

using hostseek_interface::IHostseekInterface;
using SelfRef = std::shared_ptr<CUdpHandle>;

namespace {

// The resolver kind that netloop asks for.
constexpr int kHostseekKind = 3;

uv_handle_t* AsHandle(uv_udp_t* udp) { return reinterpret_cast<uv_handle_t*>(udp); }

std::shared_ptr<AsynUdpReq> AsUdpReq(const std::shared_ptr<AsynOperReq>& oper) {
    // Add and Del records of a UDP handle are always built as AsynUdpReq.
    return std::static_pointer_cast<AsynUdpReq>(oper);
}

}  // namespace

std::shared_ptr<IUdpHandleInterface> IUdpHandleInterface::Create(std::shared_ptr<IUdpHandleNotic> notic,
                                                                 const char* host, int port, void* userData) {
    return std::make_shared<CUdpHandle>(std::move(notic), host, port, userData);
}

CUdpHandle::CUdpHandle(std::shared_ptr<IUdpHandleNotic> notic, const char* host, int port, void* userData)
    : m_Notic(std::move(notic)), m_Host(host != nullptr ? host : ""), m_Port(port), m_UserData(userData) {
    std::memset(&m_Udp, 0, sizeof(m_Udp));
}

// libuv lets go of m_Udp before the last self reference goes, so nothing of
// libuv's is left to release here.
CUdpHandle::~CUdpHandle() = default;

std::string CUdpHandle::Ip() const {
    std::lock_guard<std::mutex> lock(m_AddrMutex);
    return m_Ip;
}

bool CUdpHandle::IsIpv4() const {
    std::lock_guard<std::mutex> lock(m_AddrMutex);
    return m_IsIpv4;
}

// ---------------------------------------------------------------------------
// Application threads

int CUdpHandle::SendUdpData(std::shared_ptr<std::vector<uint8_t>> data) {
    // An empty datagram is refused: the peer could not tell it from no data.
    if (!data || data->empty()) return -1;
    if (m_State.load() != UDP_HANDLE_CONNECTED) return -1;
    CHttpFrame* frame = m_FramePtr.load(std::memory_order_acquire);
    if (frame == nullptr) return -1;
    if (!frame->m_Running.load()) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]Can not send udp data req now");
        return -1;
    }
    if (frame->IsLoopThread()) {
        // A failure here has been logged; the caller's answer is only whether
        // the datagram was taken.
        SendUdpOnLoop(std::move(data));
        return 0;
    }
    auto oper = std::make_shared<AsynUDPSendReq>();
    oper->m_Type = OperUdpSend;
    oper->m_Oper = shared_from_this();
    oper->m_UserData = nullptr;
    oper->data = std::move(data);
    return frame->PostAsynOper(std::move(oper)) ? 0 : -1;
}

// ---------------------------------------------------------------------------
// The loop thread: records

int CUdpHandle::DoAsynOper(std::shared_ptr<AsynOperReq> oper, std::shared_ptr<CHttpFrame> frame) {
    switch (oper->m_Type) {
        case OperAddUdp:
            return AddOnLoop(oper, frame);
        case OperDelUdp:
            return DelOnLoop(oper, frame);
        case OperUdpSend:
            return SendUdpOnLoop(static_cast<AsynUDPSendReq*>(oper.get())->data);
        default:
            return 0;
    }
}

bool CUdpHandle::CancelAsynOper(std::shared_ptr<AsynOperReq> oper) {
    if (oper->m_Type != OperAddUdp) return false;
    std::shared_ptr<AsynUdpReq> rec = AsUdpReq(oper);
    if (rec->m_Done) rec->m_Done(shared_from_this(), rec->m_UserData, -1);
    return true;
}

int CUdpHandle::AddOnLoop(const std::shared_ptr<AsynOperReq>& oper, const std::shared_ptr<CHttpFrame>& frame) {
    std::shared_ptr<AsynUdpReq> rec = AsUdpReq(oper);
    // The first frame to run an add keeps the handle: m_Frame is never
    // rewritten, so readers on other threads never see it change, and a
    // socket never moves to another loop.
    std::shared_ptr<CHttpFrame> expected;
    if (!frame || (!std::atomic_compare_exchange_strong(&m_Frame, &expected, frame) && expected != frame)) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]Init udp handle failed");
        if (rec->m_Done) rec->m_Done(shared_from_this(), rec->m_UserData, -1);
        return -1;
    }
    m_FramePtr.store(frame.get(), std::memory_order_release);

    // A name is looked up once: a known address is used as it is.
    bool haveIp = true;
    {
        std::lock_guard<std::mutex> lock(m_AddrMutex);
        if (m_Ip.empty()) {
            if (IHostseekInterface::IsIpv4Literal(m_Host.c_str())) {
                m_Ip = m_Host;
            } else if (IHostseekInterface::IsIpv6Literal(m_Host.c_str())) {
                m_Ip = m_Host;
                m_IsIpv4 = false;
            } else {
                haveIp = false;
            }
        }
    }
    if (!haveIp) {
        int rc = NetTest(rec);
        // 1: the answer was at hand and gave an address.
        if (rc != 1) return rc;
    }
    return ConnectUdp(rec, frame);
}

int CUdpHandle::DelOnLoop(const std::shared_ptr<AsynOperReq>& oper, const std::shared_ptr<CHttpFrame>& frame) {
    std::shared_ptr<AsynUdpReq> rec = AsUdpReq(oper);
    // A socket is touched only on the loop thread of its own frame; a delete
    // through another frame is refused.
    std::shared_ptr<CHttpFrame> owner = std::atomic_load(&m_Frame);
    if (owner && owner != frame) {
        if (rec->m_Done) rec->m_Done(shared_from_this(), rec->m_UserData, -1);
        return -1;
    }
    int expected = UDP_HANDLE_CONNECTED;
    if (m_State.compare_exchange_strong(expected, UDP_HANDLE_CLOSING)) {
        uv_udp_recv_stop(&m_Udp);
        if (uv_is_closing(AsHandle(&m_Udp)) == 0) uv_close(AsHandle(&m_Udp), OnUdpClose);
        m_Closed = true;
        m_State.exchange(UDP_HANDLE_IDLE);
    }
    if (rec->m_Done) rec->m_Done(shared_from_this(), rec->m_UserData, 0);
    return 0;
}

// ---------------------------------------------------------------------------
// Name look-up

// Result: 1 when the answer was at hand and gave an address (the caller goes
// on to connect), 0 when the answer comes later through OnHostseekResult, -1
// when the answer at hand had no address (reported here).
int CUdpHandle::NetTest(const std::shared_ptr<AsynUdpReq>& rec) {
    struct addrinfo hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_flags = AI_ADDRCONFIG;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = 0;

    // The record rides along with the look-up: it carries the done function
    // and the user pointer to a late answer. Whoever gets the answer frees it.
    auto* token = new std::shared_ptr<AsynUdpReq>(rec);
    struct addrinfo* result = nullptr;
    std::shared_ptr<hostseek_interface::IHostseekResultNotic> notic = shared_from_this();
    int rc = IHostseekInterface::GetHostseekInstance(kHostseekKind, nullptr)
                 ->ResolveHost(m_Host.c_str(), &hints, std::move(notic), token, &result);
    if (rc != 0 || result == nullptr) return 0;

    delete token;
    if (TakeAddress(result)) return 1;
    ReportNetTestFailure(rec);
    return -1;
}

bool CUdpHandle::TakeAddress(struct addrinfo* result) {
    std::string ipv4;
    std::string ipv6;
    IHostseekInterface::Parse(result, ipv4, ipv6);
    std::lock_guard<std::mutex> lock(m_AddrMutex);
    if (!ipv4.empty()) {
        m_Ip = std::move(ipv4);
        m_IsIpv4 = true;
        return true;
    }
    if (!ipv6.empty()) {
        m_Ip = std::move(ipv6);
        m_IsIpv4 = false;
        return true;
    }
    return false;
}

void CUdpHandle::ReportNetTestFailure(const std::shared_ptr<AsynUdpReq>& rec) {
    WriteNetLog(LOG_ERROR, "[NETLOOP]Net test Hostseek [%s] failed", m_Host.c_str());
    SelfRef self = shared_from_this();
    if (rec->m_Done) rec->m_Done(self, rec->m_UserData, -1);
    // No socket was made, so no closed status follows.
    std::shared_ptr<IUdpHandleNotic> notic = std::atomic_load(&m_Notic);
    if (notic) notic->OnUdpState(self, UDP_STATUS_FAILED, m_UserData);
}

void CUdpHandle::OnHostseekResult(int, struct addrinfo* result, void* userData) {
    auto* token = static_cast<std::shared_ptr<AsynUdpReq>*>(userData);
    if (token == nullptr) return;
    std::shared_ptr<AsynUdpReq> rec = std::move(*token);
    delete token;

    if (result == nullptr || !TakeAddress(result)) {
        ReportNetTestFailure(rec);
        return;
    }
    WriteNetLog(LOG_NOTABLE, "[NETLOOP]Udp Net Test Hostseek[%s]->[%s] succ;", m_Host.c_str(), Ip().c_str());
    // The add starts again with the address known; the same done function
    // goes along, so the application hears of the add once.
    std::shared_ptr<CHttpFrame> frame = std::atomic_load(&m_Frame);
    if (frame) frame->AddUdpReq(shared_from_this(), false, rec->m_Done, rec->m_UserData);
}

// ---------------------------------------------------------------------------
// Connect

int CUdpHandle::ConnectUdp(const std::shared_ptr<AsynUdpReq>& rec, const std::shared_ptr<CHttpFrame>& frame) {
    int result = InitUdpHandle(frame->m_Loop.get());
    if (result != 0) WriteNetLog(LOG_ERROR, "[NETLOOP]Init udp handle failed");
    if (rec->m_Done) rec->m_Done(shared_from_this(), rec->m_UserData, result);
    return result;
}

int CUdpHandle::InitUdpHandle(uv_loop_t* loop) {
    int expected = UDP_HANDLE_IDLE;
    if (!m_State.compare_exchange_strong(expected, UDP_HANDLE_CONNECTING)) return -1;
    // One connection per handle. And after a failed connect libuv may still be
    // closing m_Udp (a second add in the same pass of the loop, or one made
    // from the done function): initialising it again then would corrupt the
    // loop's handle list.
    if (m_Closed || m_Udp.data != nullptr || loop == nullptr) {
        m_State.exchange(UDP_HANDLE_IDLE);
        return -1;
    }
    std::string ip;
    bool isIpv4;
    {
        std::lock_guard<std::mutex> lock(m_AddrMutex);
        ip = m_Ip;
        isIpv4 = m_IsIpv4;
    }
    bool socketMade = false;
    if (OpenSocket(loop, ip, isIpv4, socketMade) != 0) return FailConnect(socketMade);

    SelfRef self = shared_from_this();
    m_Udp.data = new SelfRef(self);
    m_State.exchange(UDP_HANDLE_CONNECTED);
    std::shared_ptr<IUdpHandleNotic> notic = m_Notic;
    if (notic) notic->OnUdpState(self, UDP_STATUS_OK, m_UserData);
    WriteNetLog(LOG_NOTABLE, "[NETLOOP]Udp connect[%s:%d] succ", m_Host.c_str(), m_Port);
    return 0;
}

int CUdpHandle::OpenSocket(uv_loop_t* loop, const std::string& ip, bool isIpv4, bool& socketMade) {
    int rc = uv_udp_init(loop, &m_Udp);
    if (rc != 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]uv_udp_init failed[%d]", rc);
        return -1;
    }
    socketMade = true;

    // The system picks the local port. The local address has the peer's
    // family, so that an IPv6 peer can be reached at all.
    struct sockaddr_storage local;
    std::memset(&local, 0, sizeof(local));
    if (isIpv4) {
        rc = uv_ip4_addr("0.0.0.0", 0, reinterpret_cast<struct sockaddr_in*>(&local));
        if (rc != 0) {
            WriteNetLog(LOG_ERROR, "[NETLOOP]uv_ip4_addr failed[%d]", rc);
            return -1;
        }
    } else {
        rc = uv_ip6_addr("::", 0, reinterpret_cast<struct sockaddr_in6*>(&local));
        if (rc != 0) {
            WriteNetLog(LOG_ERROR, "[NETLOOP]uv_ip6_addr failed[%d]", rc);
            return -1;
        }
    }
    rc = uv_udp_bind(&m_Udp, reinterpret_cast<const struct sockaddr*>(&local), 0);
    if (rc != 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]uv_udp_bind failed[%d]", rc);
        return -1;
    }

    struct sockaddr_storage peer;
    std::memset(&peer, 0, sizeof(peer));
    if (isIpv4) {
        rc = uv_ip4_addr(ip.c_str(), m_Port, reinterpret_cast<struct sockaddr_in*>(&peer));
        if (rc != 0) {
            WriteNetLog(LOG_ERROR, "[NETLOOP]uv_ip4_addr[%s] failed[%d]", ip.c_str(), rc);
            return -1;
        }
    } else {
        rc = uv_ip6_addr(ip.c_str(), m_Port, reinterpret_cast<struct sockaddr_in6*>(&peer));
        if (rc != 0) {
            WriteNetLog(LOG_ERROR, "[NETLOOP]uv_ip6_addr[%s] failed[%d]", ip.c_str(), rc);
            return -1;
        }
    }
    rc = uv_udp_connect(&m_Udp, reinterpret_cast<const struct sockaddr*>(&peer));
    if (rc != 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]uv_udp_connect[%s] failed[%d]", ip.c_str(), rc);
        return -1;
    }
    rc = uv_udp_recv_start(&m_Udp, OnUdpAlloc, OnUdpRecv);
    if (rc != 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]uv_udp_recv_start failed[%d]", rc);
        return -1;
    }
    return 0;
}

int CUdpHandle::FailConnect(bool socketMade) {
    if (socketMade) {
        uv_udp_recv_stop(&m_Udp);
        if (uv_is_closing(AsHandle(&m_Udp)) == 0) {
            // m_Udp is part of this object: it has to live until libuv is done
            // with it, whether or not the application still holds the handle.
            m_Udp.data = new SelfRef(shared_from_this());
            uv_close(AsHandle(&m_Udp), OnUdpAbortClose);
        }
    }
    std::shared_ptr<IUdpHandleNotic> notic = m_Notic;
    if (notic) {
        SelfRef self = shared_from_this();
        notic->OnUdpState(self, UDP_STATUS_FAILED, m_UserData);
        notic->OnUdpState(self, UDP_STATUS_CLOSED, m_UserData);
    }
    WriteNetLog(LOG_ERROR, "[NETLOOP]Udp connect[%s:%d] failed", m_Host.c_str(), m_Port);
    m_State.exchange(UDP_HANDLE_IDLE);
    return -1;
}

// ---------------------------------------------------------------------------
// Datagrams

int CUdpHandle::SendUdpOnLoop(std::shared_ptr<std::vector<uint8_t>> data) {
    // A close that overtook a queued send ends it here.
    if (m_State.load() != UDP_HANDLE_CONNECTED) return -1;
    // Most datagrams go out at once: no request, no completion callback. libuv
    // refuses (UV_EAGAIN) while earlier sends wait in its queue, so the order
    // holds.
    uv_buf_t now = uv_buf_init(reinterpret_cast<char*>(data->data()), static_cast<unsigned int>(data->size()));
    if (uv_udp_try_send(&m_Udp, &now, 1, nullptr) == static_cast<int>(data->size())) return 0;
    auto* send = new UdpSendBuf;
    send->req.data = send;
    send->data = std::move(data);
    // libuv sends straight from the application's bytes.
    uv_buf_t buf = uv_buf_init(reinterpret_cast<char*>(send->data->data()),
                               static_cast<unsigned int>(send->data->size()));
    int rc = uv_udp_send(&send->req, &m_Udp, &buf, 1, nullptr, OnUdpSendDone);
    if (rc != 0) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]uv_udp_send failed[%d]", rc);
        delete send;
        // The caller may have had 0 already, when the send was queued.
        ReportError(m_Udp.data);
        return -1;
    }
    return 0;
}

void CUdpHandle::ReportError(void* selfRef) {
    auto* ref = static_cast<SelfRef*>(selfRef);
    if (ref == nullptr) return;
    SelfRef self = *ref;
    std::shared_ptr<IUdpHandleNotic> notic = self->m_Notic;
    if (notic) notic->OnUdpState(self, UDP_STATUS_ERROR, self->m_UserData);
}

void CUdpHandle::OnUdpSendDone(uv_udp_send_t* req, int status) {
    // A datagram lost on the way is not seen; one the system refused is. A
    // send cancelled because the application closed the socket is no error.
    if (status < 0 && status != UV_ECANCELED) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]udp send Error: %s", uv_err_name(status));
        ReportError(req->handle->data);
    }
    delete static_cast<UdpSendBuf*>(req->data);
}

namespace {

// One receive buffer per loop thread, big enough for any datagram. libuv reads
// one datagram into it and hands it to OnUdpRecv before it asks for the next
// buffer, and the notice only borrows the bytes for its call.
// Made on first use, so that threads that never receive pay nothing.
constexpr size_t kUdpReceiveSize = 64 * 1024;
thread_local std::unique_ptr<char[]> t_UdpReceive;

}  // namespace

void CUdpHandle::OnUdpAlloc(uv_handle_t*, size_t, uv_buf_t* buf) {
    if (!t_UdpReceive) t_UdpReceive.reset(new (std::nothrow) char[kUdpReceiveSize]);
    // A failed allocation reaches OnUdpRecv as UV_ENOBUFS.
    buf->base = t_UdpReceive.get();
    buf->len = t_UdpReceive ? kUdpReceiveSize : 0;
}

void CUdpHandle::OnUdpRecv(uv_udp_t* udp, ssize_t nread, const uv_buf_t* buf, const struct sockaddr* addr,
                           unsigned flags) {
    auto* ref = static_cast<SelfRef*>(udp->data);
    if (ref != nullptr) {
        SelfRef self = *ref;
        if (nread < 0) {
            WriteNetLog(LOG_ERROR, "[NETLOOP]udp recv Error: %s", uv_err_name(static_cast<int>(nread)));
            ReportError(ref);
        } else if (nread == 0 || addr == nullptr) {
            // Nothing to read, or an empty datagram: neither is delivered.
        } else if ((flags & UV_UDP_PARTIAL) != 0) {
            WriteNetLog(LOG_UNEXPECTED, "[NETLOOP]udp package was truncated");
        } else if (self->m_Notic) {
            // m_Notic changes only in OnUdpClose, which cannot run inside
            // this call, so it is used without a copy.
            char peerIp[65] = {0};
            uv_ip_name(addr, peerIp, sizeof(peerIp));
            self->m_Notic->OnUdpData(buf->base, static_cast<int64_t>(nread), peerIp, self->m_UserData);
        }
    }
    // buf->base is the loop thread's receive buffer: nothing to free.
}

// ---------------------------------------------------------------------------
// Close callbacks

void CUdpHandle::OnUdpClose(uv_handle_t* handle) {
    auto* ref = static_cast<SelfRef*>(handle->data);
    if (ref == nullptr) return;
    SelfRef self = *ref;
    std::shared_ptr<IUdpHandleNotic> notic = self->m_Notic;
    if (notic) notic->OnUdpState(self, UDP_STATUS_CLOSED, self->m_UserData);
    std::atomic_store(&self->m_Notic, std::shared_ptr<IUdpHandleNotic>());
    handle->data = nullptr;
    delete ref;
    // Dropping `self` may destroy the handle here, on the loop thread.
}

void CUdpHandle::OnUdpAbortClose(uv_handle_t* handle) {
    // The notices of the failed connect have gone out already; the handle
    // stays usable for another add.
    auto* ref = static_cast<SelfRef*>(handle->data);
    if (ref == nullptr) return;
    handle->data = nullptr;
    delete ref;
}

}  // namespace netloop
