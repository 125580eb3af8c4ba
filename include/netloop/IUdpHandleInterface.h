// Connected UDP sockets: one socket on a frame's loop, tied to one peer.
//
// Create names the peer (numeric address or a name, resolved through the
// process's hostseek resolver when added). IHttpInterface::AddUdpReq connects,
// SendUdpData sends, IUdpHandleNotic receives, IHttpInterface::DelUdpReq closes.
// One connection per handle, on the frame that first adds it: another frame
// refuses it. A connected handle keeps itself alive until it is closed, whether
// or not the application holds it, so every connected handle has to be deleted
// before the frame stops.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "netloop/NetloopExport.h"

namespace netloop {

class IUdpHandleInterface;

// Done function of AddUdpReq / DelUdpReq: (handle, userData, result), result 0
// done or -1 failed/cancelled. Runs on the loop thread, except after a failed
// name look-up, when it runs on the resolver's thread. May be empty.
using UdpDoneFunc = std::function<void(std::shared_ptr<IUdpHandleInterface>, void*, int)>;

// Status values of IUdpHandleNotic::OnUdpState.
enum UdpStatus {
    UDP_STATUS_OK = 0,       // connected
    UDP_STATUS_FAILED = -1,  // the connect failed or the name could not be resolved
    UDP_STATUS_CLOSED = -2,  // the socket is closed
};

// Implemented by the application. Calls run on the loop thread, except a
// UDP_STATUS_FAILED for a failed name look-up, which comes on the resolver's thread.
class IUdpHandleNotic {
public:
    virtual void OnUdpState(std::shared_ptr<IUdpHandleInterface> handle, int status, void* userData) = 0;
    // One datagram from the peer. `data` and `peerIp` are valid for the call only;
    // `data` has no terminator. Empty datagrams are not reported.
    virtual void OnUdpData(const char* data, int64_t size, const char* peerIp, void* userData) = 0;
    virtual ~IUdpHandleNotic() {}
};

class NETLOOP_EXPORT IUdpHandleInterface {
public:
    IUdpHandleInterface();
    IUdpHandleInterface(const IUdpHandleInterface&);
    IUdpHandleInterface(IUdpHandleInterface&&);
    IUdpHandleInterface& operator=(const IUdpHandleInterface&);
    IUdpHandleInterface& operator=(IUdpHandleInterface&&);

    // Sends the whole vector as one datagram to the peer. The handle keeps a
    // reference to `data` until the send has finished and never copies it: leave
    // the vector alone after the call. An empty vector is sent as a zero-length
    // datagram, which UDP allows (some peers use them as keep-alives); note that
    // OnUdpData does not report such datagrams on the receiving side. Any
    // thread. Returns 0 when handed on (a failure after that is only logged),
    // -1 when `data` is null or the handle is not connected, and -1 with a log
    // line when the frame is not running.
    virtual int SendUdpData(std::shared_ptr<std::vector<uint8_t>> data) = 0;

    // Makes an unconnected handle for the peer `host`:`port`. `host` (not null) is
    // copied; `notic` may be empty. No network, no validation. Any thread.
    // The object is destroyed by the deleter of the returned reference, never
    // through an IUdpHandleInterface pointer.
    static std::shared_ptr<IUdpHandleInterface> Create(std::shared_ptr<IUdpHandleNotic> notic, const char* host,
                                                       int port, void* userData);
};

}  // namespace netloop
