// The frame: one libuv loop on a thread of its own, one libcurl multi handle
// and, on request, one libcurl share. Everything netloop does for an application
// happens on a frame's loop thread.
//
// Order of use:
//   auto frame = IHttpInterface::Create();
//   frame->Init(notice, enablePipelining, enableShare, userData);
//   frame->Start(true);                      // operations are accepted from now on
//   ... AddHttpReq / AddTimerReq / AddUdpReq, then their Del operations ...
//   frame->Stop(false);                      // returns after OnFrameStop
// After Stop the same frame may begin again with Init.
//
// Every handle given to the frame must be deleted (DelHttpReq, DelTimerReq,
// DelUdpReq) before Stop. The frame does not end handles itself: an armed timer,
// an open UDP socket or a transfer still in libcurl keeps the loop running, and
// Stop from another thread then waits for it.
//
// Results: operations return 0 (done or queued) or -1 (refused). Refusals never
// throw; those made because the loop is not running are logged at level 60.
#pragma once

#include <cstdint>
#include <memory>

#include "netloop/IHttpHandleInterface.h"
#include "netloop/ITimerHandleInterface.h"
#include "netloop/IUdpHandleInterface.h"
#include "netloop/NetloopExport.h"

namespace netloop {

class IHttpInterface;

// Implemented by the application and handed to Init.
class IHttpFrameNotic {
public:
    // The loop has ended; called once on the loop thread before the frame
    // releases its libcurl and libuv objects. The result is not used. Init called
    // from here is refused.
    virtual int OnFrameStop(std::shared_ptr<IHttpInterface> frame, void* userData) = 0;
    virtual ~IHttpFrameNotic() {}
};

class NETLOOP_EXPORT IHttpInterface {
public:
    IHttpInterface();
    IHttpInterface(const IHttpInterface&);
    IHttpInterface& operator=(const IHttpInterface&);

    // Builds the loop, the multi handle and, with `enableShare`, a share that
    // gives all transfers one DNS cache, TLS session cache, connection cache and
    // cookie store. `enablePipelining` turns on HTTP/2 multiplexing with tight
    // connection limits (2 per host, 10 in all, 4 kept, 50 streams on each
    // multiplexed connection). On such a frame a transfer that the limits
    // leave no connection for waits in the frame's own line, first added first
    // run, one line per server (scheme, host, port), and is handed to libcurl
    // when a transfer ahead of it ends; its time-outs start only then. A server
    // gets as many transfers at once as the limits can run: 2, or up to 100
    // once a response from it has come over HTTP/2. `notice` may be empty.
    // Any thread. -1 when the frame is not idle (set up, running or still
    // stopping) or a libuv/libcurl step failed (logged); nothing is kept then.
    virtual int Init(std::shared_ptr<IHttpFrameNotic> notice, bool enablePipelining, bool enableShare,
                     void* userData) = 0;

    // Starts the loop thread (named "Http"). With `wait` true, returns once the
    // loop runs (no time limit); otherwise use WaitRunning. Start on a started
    // frame returns 0 and makes no second thread. -1 before Init. One caller at a
    // time. A failure to create the thread reaches the caller as std::system_error.
    virtual int Start(bool wait) = 0;

    // Polls every 10 ms until the loop runs or `timeoutMs` has passed. Any thread.
    virtual bool WaitRunning(int32_t timeoutMs) = 0;

    // Stops the loop: queued adds are cancelled (their done functions get -1),
    // other queued operations still run, then the frame's own handles close.
    // From another thread, or from the loop thread with `forceAsyn` true, the stop
    // is signalled; from the loop thread with `forceAsyn` false it runs at once.
    // From another thread Stop returns after OnFrameStop and the release of the
    // frame's resources; on the loop thread it returns at once and the loop ends
    // after the current callback. Inside OnProgress, OnUploadRead or OnWsData
    // (inside libcurl) the stop runs as soon as libcurl's call has returned. A
    // transfer of a limited frame still waiting for a connection when the stop
    // runs never starts: it gets OnFinish -2 (a WebSocket WS_STATE_FAILED),
    // from where it can be deleted. -1 when not running (also a second Stop).
    virtual int Stop(bool forceAsyn) = 0;

    // The operations below take a handle made by the handle's Create, a done
    // function (may be empty) and a user pointer for it, and return -1 when
    // refused: an empty or foreign handle, or (adds only, logged) a frame that is
    // not running. On the loop thread with `forceAsyn` false the operation runs
    // inside the call, `done` is called before it returns and its result is
    // returned. Otherwise the operation is queued, 0 is returned, and `done`
    // reports on the loop thread later; operations queued by one thread run in
    // call order. At a stop a queued add is cancelled (done gets -1) and a queued
    // delete still runs. Deletes from other threads are refused once the frame is
    // stopping; from the loop thread they still run.

    // Starts the transfer of an armed handle. `done` 0: accepted (not finished;
    // on a limited frame possibly waiting for a connection, see Init).
    virtual int AddHttpReq(std::shared_ptr<IHttpHandleInterface> handle, bool forceAsyn, HttpDoneFunc done,
                           void* userData) = 0;
    // Ends the transfer (no OnFinish after it) and returns the handle to idle;
    // `done` runs just before the teardown, while the response can still be read.
    // A transfer still waiting for a connection leaves the line (`done` 0).
    // Made inside libcurl (OnProgress, OnUploadRead, OnWsData) the delete is
    // queued, and nothing more is told of the transfer: no OnFinish, no
    // OnWsState, no further OnWsData. Queued from anywhere else (forceAsyn
    // true), an end that comes before the record runs is told as usual.
    virtual int DelHttpReq(std::shared_ptr<IHttpHandleInterface> handle, bool forceAsyn, HttpDoneFunc done,
                           void* userData) = 0;
    // Arms the timer. A timer is added once.
    virtual int AddTimerReq(std::shared_ptr<ITimerHandleInterface> handle, bool forceAsyn, TimerDoneFunc done,
                            void* userData) = 0;
    // Closes the timer; `done` runs before OnClose.
    virtual int DelTimerReq(std::shared_ptr<ITimerHandleInterface> handle, bool forceAsyn, TimerDoneFunc done,
                            void* userData) = 0;
    // Resolves the peer if needed and connects; OnUdpState(UDP_STATUS_OK) comes
    // before `done` 0.
    virtual int AddUdpReq(std::shared_ptr<IUdpHandleInterface> handle, bool forceAsyn, UdpDoneFunc done,
                          void* userData) = 0;
    // Closes the socket; `done` 0, then OnUdpState(UDP_STATUS_CLOSED) on a later pass.
    virtual int DelUdpReq(std::shared_ptr<IUdpHandleInterface> handle, bool forceAsyn, UdpDoneFunc done,
                          void* userData) = 0;

    virtual ~IHttpInterface();

    // A new, idle frame. The first call in the process also runs libcurl's global
    // set-up; libcurl's global clean-up runs at process exit. Any thread.
    static std::shared_ptr<IHttpInterface> Create();
};

}  // namespace netloop
