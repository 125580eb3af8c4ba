// Operation records: what an application thread asks the loop thread to do to
// one handle. Records are built once, shared, and never changed afterwards.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "netloop/IHttpHandleInterface.h"
#include "netloop/ITimerHandleInterface.h"
#include "netloop/IUdpHandleInterface.h"

namespace netloop {

class CHttpFrame;
struct AsynOperReq;

enum AsynOperType : int32_t {
    OperAddHttp = 0,
    OperDelHttp = 1,
    OperDisconnectWS = 2,
    OperWSSend = 3,
    OperAddTimer = 4,
    OperDelTimer = 5,
    OperStopTimer = 6,
    OperAgainTimer = 7,
    OperAddUdp = 8,
    OperDelUdp = 9,
    OperUdpSend = 10,
};

// The side a handle offers the queue.
class IAsynOperInterface {
public:
    // Executes `oper` on the loop thread; 0 or -1. The handle reports to the
    // application through the record's done function.
    virtual int DoAsynOper(std::shared_ptr<AsynOperReq> oper, std::shared_ptr<CHttpFrame> frame) = 0;
    // Offered every record still queued when the frame stops, on the loop thread
    // with the frame's queue mutex held. True: the record has been answered and
    // is dropped. False: it stays and is executed right afterwards.
    virtual bool CancelAsynOper(std::shared_ptr<AsynOperReq> oper) = 0;
    virtual ~IAsynOperInterface() {}
};

struct AsynOperReq {
    AsynOperType m_Type;
    std::shared_ptr<IAsynOperInterface> m_Oper;  // keeps the handle alive while queued
    void* m_UserData = nullptr;
};

struct AsynHttpReq : AsynOperReq {
    HttpDoneFunc m_Done;
};

struct AsynTimerReq : AsynOperReq {
    TimerDoneFunc m_Done;
};

struct AsynUdpReq : AsynOperReq {
    UdpDoneFunc m_Done;
};

struct AsynWSSendReq : AsynHttpReq {
    std::shared_ptr<std::vector<uint8_t>> data;
    int flags = 0;  // CURLWS_* of the message
};

struct AsynUDPSendReq : AsynOperReq {
    std::shared_ptr<std::vector<uint8_t>> data;
};

}  // namespace netloop
