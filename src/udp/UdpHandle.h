// CUdpHandle: one UDP socket on a frame's loop, connected to one peer.
//
// Everything that touches the socket runs on the loop thread, inside
// DoAsynOper or a libuv callback. Application threads only create the handle
// and call SendUdpData, which hands the datagram over to the loop thread.
//
// m_Udp.data holds a heap-allocated strong reference to the handle for as long
// as libuv knows the socket: from a successful connect until OnUdpClose, and
// from the start of the close after a failed connect until OnUdpAbortClose.
// It is null exactly when libuv is done with m_Udp.
#pragma once

#include <uv.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "frame/AsynOperReq.h"
#include "hostseek/IHostseekInterface.h"
#include "netloop/IUdpHandleInterface.h"

namespace netloop {

enum UdpHandleState : int {
    UDP_HANDLE_IDLE = 0,        // no socket, or its close has been started
    UDP_HANDLE_CONNECTING = 1,  // only inside InitUdpHandle
    UDP_HANDLE_CONNECTED = 2,   // open and receiving; the only state that sends
    UDP_HANDLE_CLOSING = 3,     // only inside the close of OperDelUdp
};

// One datagram in flight: libuv's request and the reference that keeps the
// application's bytes alive until libuv has finished with them.
struct UdpSendBuf {
    uv_udp_send_t req;  // req.data points back at this UdpSendBuf
    std::shared_ptr<std::vector<uint8_t>> data;
};

class CUdpHandle : public IUdpHandleInterface,
                   public IAsynOperInterface,
                   public hostseek_interface::IHostseekResultNotic,
                   public std::enable_shared_from_this<CUdpHandle> {
public:
    CUdpHandle(std::shared_ptr<IUdpHandleNotic> notic, const char* host, int port, void* userData);
    ~CUdpHandle() override;

    int SendUdpData(std::shared_ptr<std::vector<uint8_t>> data) override;

    int DoAsynOper(std::shared_ptr<AsynOperReq> oper, std::shared_ptr<CHttpFrame> frame) override;
    bool CancelAsynOper(std::shared_ptr<AsynOperReq> oper) override;

    // A late answer of the name look-up; on a resolver thread.
    void OnHostseekResult(int status, struct addrinfo* result, void* userData) override;

    // libuv callbacks; they reach the handle through the self reference in data.
    static void OnUdpAlloc(uv_handle_t* handle, size_t suggestedSize, uv_buf_t* buf);
    static void OnUdpRecv(uv_udp_t* handle, ssize_t nread, const uv_buf_t* buf, const struct sockaddr* addr,
                          unsigned flags);
    // OnUdpState(UDP_STATUS_ERROR) for the handle whose self reference is `selfRef` (may be null).
    static void ReportError(void* selfRef);
    static void OnUdpSendDone(uv_udp_send_t* req, int status);
    static void OnUdpClose(uv_handle_t* handle);
    static void OnUdpAbortClose(uv_handle_t* handle);

    // For inspection on the loop thread, or once the handle is quiet.
    int State() const { return m_State.load(); }
    std::string Ip() const;
    bool IsIpv4() const;

private:
    int AddOnLoop(const std::shared_ptr<AsynOperReq>& oper, const std::shared_ptr<CHttpFrame>& frame);
    int DelOnLoop(const std::shared_ptr<AsynOperReq>& oper, const std::shared_ptr<CHttpFrame>& frame);
    int NetTest(const std::shared_ptr<AsynUdpReq>& rec);
    // Takes the address out of a look-up's answer; false when it has none.
    bool TakeAddress(struct addrinfo* result);
    void ReportNetTestFailure(const std::shared_ptr<AsynUdpReq>& rec);
    int ConnectUdp(const std::shared_ptr<AsynUdpReq>& rec, const std::shared_ptr<CHttpFrame>& frame);
    int InitUdpHandle(uv_loop_t* loop);
    int OpenSocket(uv_loop_t* loop, const std::string& ip, bool isIpv4, bool& socketMade);
    int FailConnect(bool socketMade);
    int SendUdpOnLoop(std::shared_ptr<std::vector<uint8_t>> data);

    // Set by the first OperAddUdp on the loop thread and never changed after;
    // read by SendUdpData and late look-up answers on other threads, hence
    // accessed atomically.
    std::shared_ptr<CHttpFrame> m_Frame;
    // m_Frame's object, published once m_Frame is set. m_Frame never changes
    // after that and holds the frame for the handle's whole life, so a sender
    // reaches the frame through this without taking a reference of its own.
    std::atomic<CHttpFrame*> m_FramePtr{nullptr};
    // Written on the loop thread only (atomically, by OnUdpClose); read
    // atomically off the loop thread.
    std::shared_ptr<IUdpHandleNotic> m_Notic;
    const std::string m_Host;
    // m_IsIpv4 and m_Ip may be written by a late look-up answer while a second
    // add of the same handle reads them on the loop thread: m_AddrMutex guards
    // both. Neither is on the path of a datagram.
    bool m_IsIpv4 = true;
    std::string m_Ip;
    const int m_Port;
    void* const m_UserData;
    std::atomic<int> m_State{UDP_HANDLE_IDLE};
    uv_udp_t m_Udp;

    mutable std::mutex m_AddrMutex;
    // Loop thread only: set once a connected socket has been closed by
    // OperDelUdp. A handle carries one connection.
    bool m_Closed = false;
};

}  // namespace netloop
