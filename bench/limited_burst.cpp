// A burst of GETs (nginx /small, keep-alive HTTP/1.1) all added at once to a
// multi handle with tight connection limits: multiplexing, 50 streams per
// connection, 2 connections per host, 10 in all, 4 kept. Each transfer has a
// 10 s total and connect time-out.
//
//   --impl=netloop   a frame made with enablePipelining; all N handles are
//                    added from the application thread before the first ends
//   --impl=multi_uv  the same limits and time-outs on a plain libcurl
//                    multi-socket loop on libuv, all N easy handles added at once
//   --n=N transfers (1000)
// Figure: transfers completed with 200 per second, from the first add to the
// last end. netloop fails the run unless every transfer completed; the
// baseline reports how many did ("completed", "timed_out").
#include <curl/curl.h>
#include <uv.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "common/BenchUtil.h"
#include "common/CurlPlain.h"
#include "common/NetloopFrame.h"
#include "loopback/NginxServer.h"
#include "netloop/IHttpInterface.h"

namespace {

constexpr size_t kBodySize = 100;
constexpr long kTimeoutMs = 10000;

struct Tally {
    uint64_t ok = 0;
    uint64_t timedOut = 0;
    uint64_t failed = 0;
};

// ---------------------------------------------------------------------------
// netloop

class Burst : public netloop::IHttpHandleNotic {
public:
    explicit Burst(std::shared_ptr<netloop::IHttpInterface> frame) : m_Frame(std::move(frame)) {}

    bool Run(const std::string& url, uint64_t n, double limitSeconds) {
        m_Done.Reset(n);
        for (uint64_t i = 0; i < n; ++i) {
            auto handle = netloop::IHttpHandleInterface::Create();
            if (handle->InitHttpReq(url.c_str(), nullptr, netloop::HTTP_REQ_GET, m_Self.lock(), kTimeoutMs,
                                    kTimeoutMs, nullptr) != 0 ||
                m_Frame->AddHttpReq(handle, false, nullptr, nullptr) != 0)
                return false;
        }
        return m_Done.Wait(limitSeconds);
    }
    void SetSelf(const std::shared_ptr<Burst>& self) { m_Self = self; }
    Tally Counts() const { return Tally{m_Ok.load(), 0, m_Bad.load()}; }

    void OnFinish(std::shared_ptr<netloop::IHttpHandleInterface> handle, int result, void*) override {
        const bool good = result == 0 && handle->GetResponseCode() == 200 && handle->GetResponse().size() == kBodySize;
        (good ? m_Ok : m_Bad).fetch_add(1);
        m_Frame->DelHttpReq(handle, false, nullptr, nullptr);
        m_Done.Add(1);
    }
    void OnWsData(const char*, size_t, int, void*) override {}
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
    size_t OnUploadRead(std::shared_ptr<netloop::IHttpHandleInterface>, char*, size_t, size_t, void*) override {
        return 0;
    }

private:
    std::shared_ptr<netloop::IHttpInterface> m_Frame;
    std::weak_ptr<Burst> m_Self;
    std::atomic<uint64_t> m_Ok{0}, m_Bad{0};
    bench::Countdown m_Done;
};

// ---------------------------------------------------------------------------
// Plain libcurl on libuv, with the frame's limits

class PlainBurst {
public:
    PlainBurst() {
        uv_loop_init(&m_Loop);
        uv_timer_init(&m_Loop, &m_Timeout);
        m_Timeout.data = this;
        m_Multi = curl_multi_init();
        curl_multi_setopt(m_Multi, CURLMOPT_SOCKETFUNCTION, &PlainBurst::HandleSocket);
        curl_multi_setopt(m_Multi, CURLMOPT_SOCKETDATA, this);
        curl_multi_setopt(m_Multi, CURLMOPT_TIMERFUNCTION, &PlainBurst::StartTimeout);
        curl_multi_setopt(m_Multi, CURLMOPT_TIMERDATA, this);
        curl_multi_setopt(m_Multi, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
        curl_multi_setopt(m_Multi, CURLMOPT_MAX_PIPELINE_LENGTH, 50L);
        curl_multi_setopt(m_Multi, CURLMOPT_MAX_HOST_CONNECTIONS, 2L);
        curl_multi_setopt(m_Multi, CURLMOPT_MAX_TOTAL_CONNECTIONS, 10L);
        curl_multi_setopt(m_Multi, CURLMOPT_MAXCONNECTS, 4L);
    }
    ~PlainBurst() {
        curl_multi_cleanup(m_Multi);
        uv_close(reinterpret_cast<uv_handle_t*>(&m_Timeout), nullptr);
        uv_run(&m_Loop, UV_RUN_DEFAULT);
        uv_loop_close(&m_Loop);
    }

    bool Run(const std::string& url, uint64_t n, double limitSeconds) {
        m_Total = n;
        for (uint64_t i = 0; i < n; ++i) curl_multi_add_handle(m_Multi, NewEasy(url));
        const double deadline = bench::Now() + limitSeconds;
        while (m_Finished < m_Total) {
            uv_run(&m_Loop, UV_RUN_ONCE);
            if (bench::Now() > deadline) return false;
        }
        return true;
    }
    Tally Counts() const { return m_Tally; }

private:
    struct SocketContext {
        uv_poll_t poll;
        curl_socket_t socket;
        PlainBurst* owner;
    };

    static CURL* NewEasy(const std::string& url) {
        CURL* easy = curl_easy_init();
        auto* body = new std::string;
        bench::SetPlainOptions(easy, url.c_str());
        curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, kTimeoutMs);
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, kTimeoutMs);
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &bench::AppendToString);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, body);
        curl_easy_setopt(easy, CURLOPT_PRIVATE, body);
        return easy;
    }

    static int HandleSocket(CURL*, curl_socket_t s, int action, void* userp, void* socketp) {
        auto* self = static_cast<PlainBurst*>(userp);
        auto* ctx = static_cast<SocketContext*>(socketp);
        if (action == CURL_POLL_IN || action == CURL_POLL_OUT || action == CURL_POLL_INOUT) {
            if (ctx == nullptr) {
                ctx = new SocketContext;
                ctx->socket = s;
                ctx->owner = self;
                uv_poll_init_socket(&self->m_Loop, &ctx->poll, s);
                ctx->poll.data = ctx;
                curl_multi_assign(self->m_Multi, s, ctx);
            }
            int events = 0;
            if (action != CURL_POLL_OUT) events |= UV_READABLE;
            if (action != CURL_POLL_IN) events |= UV_WRITABLE;
            uv_poll_start(&ctx->poll, events, &PlainBurst::OnPoll);
        } else if (action == CURL_POLL_REMOVE && ctx != nullptr) {
            uv_poll_stop(&ctx->poll);
            uv_close(reinterpret_cast<uv_handle_t*>(&ctx->poll),
                     [](uv_handle_t* h) { delete static_cast<SocketContext*>(h->data); });
            curl_multi_assign(self->m_Multi, s, nullptr);
        }
        return 0;
    }

    static void OnPoll(uv_poll_t* poll, int, int events) {
        auto* ctx = static_cast<SocketContext*>(poll->data);
        int flags = 0;
        if (events & UV_READABLE) flags |= CURL_CSELECT_IN;
        if (events & UV_WRITABLE) flags |= CURL_CSELECT_OUT;
        ctx->owner->Action(ctx->socket, flags);
    }

    static int StartTimeout(CURLM*, long timeoutMs, void* userp) {
        auto* self = static_cast<PlainBurst*>(userp);
        if (timeoutMs < 0)
            uv_timer_stop(&self->m_Timeout);
        else
            uv_timer_start(&self->m_Timeout, &PlainBurst::OnTimeout, static_cast<uint64_t>(timeoutMs), 0);
        return 0;
    }

    static void OnTimeout(uv_timer_t* timer) { static_cast<PlainBurst*>(timer->data)->Action(CURL_SOCKET_TIMEOUT, 0); }

    void Action(curl_socket_t socket, int flags) {
        int running = 0;
        curl_multi_socket_action(m_Multi, socket, flags, &running);
        int left = 0;
        while (CURLMsg* msg = curl_multi_info_read(m_Multi, &left)) {
            if (msg->msg != CURLMSG_DONE) continue;
            CURL* easy = msg->easy_handle;
            const CURLcode result = msg->data.result;
            std::string* body = nullptr;
            long code = 0;
            curl_easy_getinfo(easy, CURLINFO_PRIVATE, &body);
            curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &code);
            if (result == CURLE_OK && code == 200 && body->size() == kBodySize)
                ++m_Tally.ok;
            else
                ++(result == CURLE_OPERATION_TIMEDOUT ? m_Tally.timedOut : m_Tally.failed);
            curl_multi_remove_handle(m_Multi, easy);
            curl_easy_cleanup(easy);
            delete body;
            ++m_Finished;
        }
    }

    uv_loop_t m_Loop;
    uv_timer_t m_Timeout;
    CURLM* m_Multi = nullptr;
    uint64_t m_Total = 0, m_Finished = 0;
    Tally m_Tally;
};

int Report(bench::Result& res, const Tally& tally, uint64_t n, double seconds, bool mustComplete) {
    res.Extra("completed", static_cast<double>(tally.ok));
    res.Extra("timed_out", static_cast<double>(tally.timedOut));
    res.Extra("failed", static_cast<double>(tally.failed));
    res.Extra("seconds", seconds);
    if (mustComplete && tally.ok != n)
        return res.Fail("only " + std::to_string(tally.ok) + " of " + std::to_string(n) + " completed");
    return res.Print(static_cast<double>(tally.ok) / seconds, "xfer/s");
}

}  // namespace

int main(int argc, char** argv) {
    bench::Args args(argc, argv);
    const std::string impl = args.Str("impl", "netloop");
    const uint64_t n = static_cast<uint64_t>(args.Int("n", 1000));
    const int timeout = static_cast<int>(args.Int("timeout", 120));
    bench::StartWatchdog("limited_burst", impl, timeout);
    bench::Result res("limited_burst", impl);
    res.Param("n", static_cast<int64_t>(n));

    curl_global_init(CURL_GLOBAL_DEFAULT);
    testsupport::NginxServer nginx;
    if (!nginx.Running()) return res.Skip("nginx is not installed");
    const std::string url = nginx.Url("/small");
    const double limit = timeout;

    if (impl == "netloop") {
        bench::FrameScope frame(false, true);
        if (!frame.ok()) return res.Fail("frame did not start");
        auto burst = std::make_shared<Burst>(frame.get());
        burst->SetSelf(burst);
        const double t0 = bench::Now();
        if (!burst->Run(url, n, limit)) return res.Fail("not every transfer ended in time");
        return Report(res, burst->Counts(), n, bench::Now() - t0, true);
    }
    if (impl == "multi_uv") {
        PlainBurst burst;
        const double t0 = bench::Now();
        if (!burst.Run(url, n, limit)) return res.Fail("not every transfer ended in time");
        return Report(res, burst.Counts(), n, bench::Now() - t0, false);
    }
    return res.Fail("unknown --impl (netloop, multi_uv)");
}
