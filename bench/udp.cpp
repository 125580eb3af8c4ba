// Connected UDP sockets on loopback.
//
//   --mode=pingpong   one datagram in flight against the UdpEchoPeer: each
//                     echo is answered with the next datagram from the receive
//                     callback; figure: round trips per second
//   --mode=oneway     the application thread sends N datagrams as fast as it
//                     can to a sink of this program's own (a thread reading a
//                     socket with a large receive buffer); figure: datagrams
//                     the sink received per second, from the first send to the
//                     last arrival (losses are reported, not hidden)
//   --impl=netloop    IUdpHandleInterface + AddUdpReq; sends with SendUdpData
//                     (from the loop thread in pingpong, from the application
//                     thread in oneway, which goes through the frame's queue)
//   --impl=baseline   plain libuv uv_udp_t, connected; uv_udp_try_send with
//                     uv_udp_send when the socket is busy, a static receive
//                     buffer; oneway requests reach the loop thread through a
//                     mutex + vector + uv_async_send queue
//   --n=N (100000 pingpong, 200000 oneway)  --size=BYTES (64 pingpong, 1400 oneway)
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <uv.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "common/BenchUtil.h"
#include "common/NetloopFrame.h"
#include "netloop/IHttpInterface.h"
#include "loopback/TestData.h"
#include "loopback/UdpEchoPeer.h"

namespace {

using namespace netloop;
using Payload = std::shared_ptr<std::vector<uint8_t>>;

Payload MakePayload(size_t size) {
    std::string bytes = testsupport::DeterministicBytes(size);
    return std::make_shared<std::vector<uint8_t>>(bytes.begin(), bytes.end());
}

// ---------------------------------------------------------------------------
// The one-way sink

class Sink {
public:
    Sink() {
        m_Fd = ::socket(AF_INET, SOCK_DGRAM, 0);
        int big = 32 << 20;
        if (::setsockopt(m_Fd, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof(big)) != 0)
            ::setsockopt(m_Fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof(big));
        timeval tv{0, 100 * 1000};
        ::setsockopt(m_Fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(m_Fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
        socklen_t len = sizeof(addr);
        ::getsockname(m_Fd, reinterpret_cast<sockaddr*>(&addr), &len);
        m_Port = ntohs(addr.sin_port);
        m_Thread = std::thread([this] { Loop(); });
    }
    ~Sink() {
        m_Stop = true;
        m_Thread.join();
        ::close(m_Fd);
    }
    int Port() const { return m_Port; }
    uint64_t Count() const { return m_Count.load(); }
    double LastArrival() const { return m_Last.load(); }

    // Waits until `n` arrived, or nothing arrived for `quietSeconds`.
    void WaitFor(uint64_t n, double quietSeconds, double limit) {
        const double deadline = bench::Now() + limit;
        uint64_t seen = Count();
        double since = bench::Now();
        while (Count() < n && bench::Now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            if (Count() != seen) {
                seen = Count();
                since = bench::Now();
            } else if (bench::Now() - since > quietSeconds) {
                break;
            }
        }
    }

private:
    void Loop() {
        std::vector<char> buf(65536);
        while (!m_Stop) {
            ssize_t got = ::recv(m_Fd, buf.data(), buf.size(), 0);
            if (got > 0) {
                m_Last.store(bench::Now());
                m_Count.fetch_add(1);
            }
        }
    }

    int m_Fd = -1;
    int m_Port = 0;
    std::atomic<bool> m_Stop{false};
    std::atomic<uint64_t> m_Count{0};
    std::atomic<double> m_Last{0};
    std::thread m_Thread;
};

// ---------------------------------------------------------------------------
// netloop

class NetloopUdp : public IUdpHandleNotic {
public:
    std::shared_ptr<IUdpHandleInterface> handle;  // cleared when closed
    Payload payload;
    uint64_t total = 0;
    uint64_t received = 0;  // loop thread
    bool echo = false;      // answer each datagram with the next one
    bench::Countdown connected{1}, closed{1}, done{1};

    void OnUdpState(std::shared_ptr<IUdpHandleInterface>, int status, void*) override {
        if (status == UDP_STATUS_OK) connected.Add(1);
        if (status == UDP_STATUS_CLOSED) {
            handle.reset();
            closed.Add(1);
        }
    }
    void OnUdpData(const char*, int64_t, const char*, void*) override {
        if (!echo) return;
        if (++received < total) {
            handle->SendUdpData(payload);
        } else if (received == total) {
            done.Add(1);
        }
    }
};

int RunNetloop(bench::Result& res, const std::string& mode, uint64_t n, size_t size, int peerPort, Sink* sink,
               double limit) {
    bench::FrameScope frame;
    if (!frame.ok()) return res.Fail("frame did not start");
    auto udp = std::make_shared<NetloopUdp>();
    udp->payload = MakePayload(size);
    udp->total = n;
    udp->echo = mode == "pingpong";
    udp->handle = IUdpHandleInterface::Create(udp, "127.0.0.1", peerPort, nullptr);
    auto handle = udp->handle;
    if (frame->AddUdpReq(handle, true, nullptr, nullptr) != 0 || !udp->connected.Wait(10))
        return res.Fail("UDP handle did not connect");

    double elapsed = 0;
    if (udp->echo) {
        const double t0 = bench::Now();
        handle->SendUdpData(udp->payload);
        if (!udp->done.Wait(limit)) return res.Fail("round trips did not finish in time (a datagram lost?)");
        elapsed = bench::Now() - t0;
    } else {
        const double t0 = bench::Now();
        for (uint64_t i = 0; i < n; ++i)
            if (handle->SendUdpData(udp->payload) != 0) return res.Fail("SendUdpData refused");
        sink->WaitFor(n, 0.5, limit);
        elapsed = sink->LastArrival() - t0;
    }
    frame->DelUdpReq(handle, true, nullptr, nullptr);
    handle.reset();
    udp->closed.Wait(10);
    if (!udp->echo) {
        res.Extra("sent", static_cast<double>(n)).Extra("received", static_cast<double>(sink->Count()));
        res.Extra("seconds", elapsed);
        return res.Print(static_cast<double>(sink->Count()) / elapsed, "datagrams/s");
    }
    res.Extra("seconds", elapsed);
    return res.Print(static_cast<double>(n) / elapsed, "round trips/s");
}

// ---------------------------------------------------------------------------
// Plain libuv

struct PlainUdp {
    uv_loop_t loop;
    uv_udp_t udp;
    uv_async_t wake, stop;
    std::thread thread;
    Payload payload;
    uint64_t total = 0, received = 0;
    bool echo = false;
    bench::Countdown done{1};
    std::mutex mutex;
    std::vector<Payload> pending;

    struct SendReq {
        uv_udp_send_t req;
        Payload data;
    };

    bool Start(int port) {
        uv_loop_init(&loop);
        uv_udp_init(&loop, &udp);
        udp.data = this;
        sockaddr_in addr;
        uv_ip4_addr("127.0.0.1", port, &addr);
        if (uv_udp_connect(&udp, reinterpret_cast<const sockaddr*>(&addr)) != 0) return false;
        uv_udp_recv_start(&udp, &PlainUdp::OnAlloc, &PlainUdp::OnRecv);
        uv_async_init(&loop, &wake, &PlainUdp::OnWake);
        uv_async_init(&loop, &stop, &PlainUdp::OnStop);
        wake.data = stop.data = this;
        thread = std::thread([this] { uv_run(&loop, UV_RUN_DEFAULT); });
        return true;
    }
    void Finish() {
        uv_async_send(&stop);
        thread.join();
        uv_loop_close(&loop);
    }
    // Loop thread: sends at once when the socket takes it, else queues in libuv.
    void Send(const Payload& data) {
        uv_buf_t buf = uv_buf_init(reinterpret_cast<char*>(data->data()), static_cast<unsigned>(data->size()));
        int rc = uv_udp_try_send(&udp, &buf, 1, nullptr);
        if (rc >= 0) return;
        auto* req = new SendReq;
        req->data = data;
        req->req.data = req;
        if (uv_udp_send(&req->req, &udp, &buf, 1, nullptr, [](uv_udp_send_t* r, int) {
                delete static_cast<SendReq*>(r->data);
            }) != 0)
            delete req;
    }
    // Any thread.
    void Post(Payload data) {
        std::lock_guard<std::mutex> lock(mutex);
        pending.push_back(std::move(data));
        uv_async_send(&wake);
    }
    static void OnWake(uv_async_t* a) {
        auto* self = static_cast<PlainUdp*>(a->data);
        std::vector<Payload> batch;
        {
            std::lock_guard<std::mutex> lock(self->mutex);
            batch.swap(self->pending);
        }
        for (const Payload& p : batch) self->Send(p);
    }
    static void OnStop(uv_async_t* a) {
        auto* self = static_cast<PlainUdp*>(a->data);
        uv_udp_recv_stop(&self->udp);
        uv_close(reinterpret_cast<uv_handle_t*>(&self->udp), nullptr);
        uv_close(reinterpret_cast<uv_handle_t*>(&self->wake), nullptr);
        uv_close(reinterpret_cast<uv_handle_t*>(&self->stop), nullptr);
    }
    static void OnAlloc(uv_handle_t*, size_t, uv_buf_t* buf) {
        static char storage[65536];
        *buf = uv_buf_init(storage, sizeof(storage));
    }
    static void OnRecv(uv_udp_t* h, ssize_t nread, const uv_buf_t*, const sockaddr* addr, unsigned) {
        auto* self = static_cast<PlainUdp*>(h->data);
        if (nread <= 0 || addr == nullptr || !self->echo) return;
        if (++self->received < self->total) {
            self->Send(self->payload);
        } else if (self->received == self->total) {
            self->done.Add(1);
        }
    }
};

int RunBaseline(bench::Result& res, const std::string& mode, uint64_t n, size_t size, int peerPort, Sink* sink,
                double limit) {
    PlainUdp udp;
    udp.payload = MakePayload(size);
    udp.total = n;
    udp.echo = mode == "pingpong";
    if (!udp.Start(peerPort)) return res.Fail("uv_udp_connect failed");
    double elapsed = 0;
    if (udp.echo) {
        const double t0 = bench::Now();
        udp.Post(udp.payload);
        const bool ok = udp.done.Wait(limit);
        elapsed = bench::Now() - t0;
        udp.Finish();
        if (!ok) return res.Fail("round trips did not finish in time (a datagram lost?)");
        res.Extra("seconds", elapsed);
        return res.Print(static_cast<double>(n) / elapsed, "round trips/s");
    }
    const double t0 = bench::Now();
    for (uint64_t i = 0; i < n; ++i) udp.Post(udp.payload);
    sink->WaitFor(n, 0.5, limit);
    elapsed = sink->LastArrival() - t0;
    udp.Finish();
    res.Extra("sent", static_cast<double>(n)).Extra("received", static_cast<double>(sink->Count()));
    res.Extra("seconds", elapsed);
    return res.Print(static_cast<double>(sink->Count()) / elapsed, "datagrams/s");
}

}  // namespace

int main(int argc, char** argv) {
    bench::Args args(argc, argv);
    const std::string impl = args.Str("impl", "netloop");
    const std::string mode = args.Str("mode", "pingpong");
    const bool pingpong = mode == "pingpong";
    const uint64_t n = static_cast<uint64_t>(args.Int("n", pingpong ? 100000 : 200000));
    const size_t size = static_cast<size_t>(args.Int("size", pingpong ? 64 : 1400));
    const int timeout = static_cast<int>(args.Int("timeout", 120));
    bench::StartWatchdog("udp", impl, timeout);
    bench::Result res("udp", impl);
    res.Param("mode", mode).Param("n", static_cast<int64_t>(n)).Param("size", static_cast<int64_t>(size));
    if (mode != "pingpong" && mode != "oneway") return res.Fail("unknown --mode (pingpong, oneway)");

    std::unique_ptr<testsupport::UdpEchoPeer> peer;
    std::unique_ptr<Sink> sink;
    int port = 0;
    if (pingpong) {
        testsupport::UdpEchoPeer::Options options;
        options.maxRecords = 0;  // count only: recording is not what is measured
        peer = std::make_unique<testsupport::UdpEchoPeer>(options);
        port = peer->Port();
    } else {
        sink = std::make_unique<Sink>();
        port = sink->Port();
    }
    if (impl == "netloop") return RunNetloop(res, mode, n, size, port, sink.get(), timeout);
    if (impl == "baseline") return RunBaseline(res, mode, n, size, port, sink.get(), timeout);
    return res.Fail("unknown --impl (netloop, baseline)");
}
