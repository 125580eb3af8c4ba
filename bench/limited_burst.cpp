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
//   --tls  HTTPS with HTTP/2 by ALPN: multiplexed, up to 50 streams a connection
// Figure: transfers completed with 200 per second, from the first add to the
// last end. netloop fails the run unless every transfer completed; the
// baseline reports how many did ("completed", "timed_out").
#include <curl/curl.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "common/BenchUtil.h"
#include "common/CurlPlain.h"
#include "common/CurlUvDriver.h"
#include "common/NetloopFrame.h"
#include "loopback/NginxServer.h"
#include "loopback/TestTls.h"
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

    bool Run(const std::string& url, const std::string& ca, uint64_t n, double limitSeconds) {
        m_Done.Reset(n);
        for (uint64_t i = 0; i < n; ++i) {
            auto handle = netloop::IHttpHandleInterface::Create();
            if (handle->InitHttpReq(url.c_str(), nullptr, netloop::HTTP_REQ_GET, m_Self.lock(), kTimeoutMs,
                                    kTimeoutMs, nullptr) != 0 ||
                (!ca.empty() && handle->SetCaPath(ca.c_str()) != 0) ||
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
    PlainBurst() : m_Driver([this] { Reap(); }) {
        CURLM* multi = m_Driver.Multi();
        curl_multi_setopt(multi, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
        curl_multi_setopt(multi, CURLMOPT_MAX_PIPELINE_LENGTH, 50L);
        curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, 2L);
        curl_multi_setopt(multi, CURLMOPT_MAX_TOTAL_CONNECTIONS, 10L);
        curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, 4L);
    }

    bool Run(const std::string& url, const std::string& ca, uint64_t n, double limitSeconds) {
        m_Total = n;
        for (uint64_t i = 0; i < n; ++i) curl_multi_add_handle(m_Driver.Multi(), NewEasy(url, ca));
        return m_Driver.RunUntil([this] { return m_Finished >= m_Total; }, limitSeconds);
    }
    Tally Counts() const { return m_Tally; }

private:
    static CURL* NewEasy(const std::string& url, const std::string& ca) {
        CURL* easy = curl_easy_init();
        auto* body = new std::string;
        bench::SetPlainOptions(easy, url.c_str());
        if (!ca.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, ca.c_str());
        curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, kTimeoutMs);
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, kTimeoutMs);
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &bench::AppendToString);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, body);
        curl_easy_setopt(easy, CURLOPT_PRIVATE, body);
        return easy;
    }

    // Counts the finished transfers and lets them go.
    void Reap() {
        CURLM* multi = m_Driver.Multi();
        int left = 0;
        while (CURLMsg* msg = curl_multi_info_read(multi, &left)) {
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
            curl_multi_remove_handle(multi, easy);
            curl_easy_cleanup(easy);
            delete body;
            ++m_Finished;
        }
    }

    uint64_t m_Total = 0, m_Finished = 0;
    Tally m_Tally;
    bench::CurlUvDriver m_Driver;  // last: made after, and gone before, what its callback counts
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
    const bool tls = args.Has("tls");
    res.Param("n", static_cast<int64_t>(n));
    res.Param("tls", tls ? 1 : 0);

    curl_global_init(CURL_GLOBAL_DEFAULT);
    testsupport::NginxServer nginx;
    if (!nginx.Running()) return res.Skip("nginx is not installed");
    const std::string url = tls ? nginx.TlsUrl("/small") : nginx.Url("/small");
    const std::string ca = tls ? testsupport::TestTls().caFile : std::string();
    const double limit = timeout;

    if (impl == "netloop") {
        bench::FrameScope frame(false, true);
        if (!frame.ok()) return res.Fail("frame did not start");
        auto burst = std::make_shared<Burst>(frame.get());
        burst->SetSelf(burst);
        const double t0 = bench::Now();
        if (!burst->Run(url, ca, n, limit)) return res.Fail("not every transfer ended in time");
        return Report(res, burst->Counts(), n, bench::Now() - t0, true);
    }
    if (impl == "multi_uv") {
        PlainBurst burst;
        const double t0 = bench::Now();
        if (!burst.Run(url, ca, n, limit)) return res.Fail("not every transfer ended in time");
        return Report(res, burst.Counts(), n, bench::Now() - t0, false);
    }
    return res.Fail("unknown --impl (netloop, multi_uv)");
}
