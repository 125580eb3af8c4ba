// WebSocket echo against the in-process WsTestServer: one message in flight,
// each echo answered with the next message.
//
//   --mode=echo   100-byte text messages; figure: round trips per second
//   --mode=bulk   1 MiB binary messages; figure: MB/s of message payload
//                 (10^6 bytes per second, each message counted once)
//   --mode=bulktext  the same with 1 MiB text messages (received text is checked)
//   --impl=netloop    HTTP_REQ_WEBSOCKET handle; the first message goes out once
//                     OnWsState reports the connection open, each next one is
//                     sent from OnWsData
//   --impl=baseline   libcurl with CURLOPT_CONNECT_ONLY 2: curl_easy_perform for
//                     the upgrade, then curl_ws_send / curl_ws_recv with poll()
//                     on the connection's socket
//   --n=N messages timed (echo 20000, bulk 200)  --warmup=W (echo 100, bulk 2)
//   --size=BYTES (echo 100, bulk 1M)
#include <poll.h>

#include <curl/curl.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "common/BenchUtil.h"
#include "common/CurlPlain.h"
#include "common/NetloopFrame.h"
#include "netloop/IHttpInterface.h"
#include "loopback/TestData.h"
#include "loopback/WsTestServer.h"

namespace {

using namespace netloop;

constexpr double kOpenWaitSeconds = 5;

// ---------------------------------------------------------------------------
// netloop

class NetloopWs : public IHttpHandleNotic {
public:
    std::shared_ptr<IHttpHandleInterface> handle;  // cleared at the end
    std::shared_ptr<std::vector<uint8_t>> payload;
    int type = WS_MSG_TEXT;
    uint64_t warmup = 0, total = 0;
    uint64_t received = 0;  // loop thread
    std::atomic<double> t0{0}, t1{0};
    std::atomic<int> wrongSize{0};
    std::atomic<int> ended{0};  // WS_STATE_FAILED / WS_STATE_CLOSED seen
    bench::Countdown opened{1}, done{1};

    void OnWsState(std::shared_ptr<IHttpHandleInterface>, int state, void*) override {
        if (state == WS_STATE_OPEN) {
            opened.Add(1);
            return;
        }
        ended = state;
        opened.Add(1);
        done.Add(1);
    }
    void OnWsData(const char*, size_t length, int msgType, void*) override {
        if (msgType != type) return;  // pings and the like
        if (length != payload->size()) wrongSize.fetch_add(1);
        ++received;
        if (received == warmup) t0 = bench::Now();
        if (received < warmup + total) {
            size_t sent = 0;
            handle->SendWsData(payload, type, &sent);
        } else if (received == warmup + total) {
            t1 = bench::Now();
            done.Add(1);
        }
    }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int, void*) override {}
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }
};

// Returns the elapsed seconds of the timed messages, or a negative value after
// having printed the failure line itself.
double RunNetloop(bench::Result& res, int& exitCode, const std::string& url, int type,
                  const std::shared_ptr<std::vector<uint8_t>>& payload, uint64_t warmup, uint64_t n, double limit) {
    bench::FrameScope frame;
    if (!frame.ok()) {
        exitCode = res.Fail("frame did not start");
        return -1;
    }
    auto ws = std::make_shared<NetloopWs>();
    ws->payload = payload;
    ws->type = type;
    ws->warmup = warmup;
    ws->total = n;
    ws->handle = IHttpHandleInterface::Create();
    auto handle = ws->handle;
    if (handle->InitHttpReq(url.c_str(), nullptr, HTTP_REQ_WEBSOCKET, ws, 5000, 0, nullptr) != 0 ||
        frame->AddHttpReq(handle, true, nullptr, nullptr) != 0) {
        exitCode = res.Fail("arming or adding the WebSocket handle failed");
        return -1;
    }
    double elapsed = -1;
    auto finish = [&] {
        bench::Countdown deleted(1);
        frame->DelHttpReq(handle, true, [&](std::shared_ptr<IHttpHandleInterface>, void*, int) { deleted.Add(1); },
                          nullptr);
        deleted.Wait(10);
        ws->handle.reset();
    };
    if (!ws->opened.Wait(kOpenWaitSeconds)) {
        finish();
        exitCode = res.Fail("no OnWsState(WS_STATE_OPEN) within 5 s");
        return -1;
    }
    if (ws->ended != 0) {
        finish();
        exitCode = res.Fail("the WebSocket connection failed or closed (state " + std::to_string(ws->ended.load()) + ")");
        return -1;
    }
    if (warmup == 0) ws->t0 = bench::Now();
    size_t sent = 0;
    if (handle->SendWsData(payload, type, &sent) != 0) {
        finish();
        exitCode = res.Fail("SendWsData refused");
        return -1;
    }
    const bool ok = ws->done.Wait(limit);
    if (ok && ws->ended == 0) elapsed = ws->t1 - ws->t0;
    finish();
    if (!ok || ws->ended != 0) {
        exitCode = res.Fail("echoes did not all arrive (received " + std::to_string(ws->received) + ")");
        return -1;
    }
    if (ws->wrongSize != 0) {
        exitCode = res.Fail(std::to_string(ws->wrongSize.load()) + " echoes had the wrong size");
        return -1;
    }
    return elapsed;
}

// ---------------------------------------------------------------------------
// Plain libcurl, CONNECT_ONLY 2

class PlainWs {
public:
    ~PlainWs() {
        if (m_Easy != nullptr) curl_easy_cleanup(m_Easy);
    }
    bool Connect(const std::string& url) {
        m_Easy = curl_easy_init();
        bench::SetPlainOptions(m_Easy, url.c_str());
        curl_easy_setopt(m_Easy, CURLOPT_CONNECT_ONLY, 2L);
        if (curl_easy_perform(m_Easy) != CURLE_OK) return false;
        return curl_easy_getinfo(m_Easy, CURLINFO_ACTIVESOCKET, &m_Socket) == CURLE_OK &&
               m_Socket != CURL_SOCKET_BAD;
    }
    bool Send(const uint8_t* data, size_t size, unsigned flags) {
        while (size > 0) {
            size_t sent = 0;
            CURLcode rc = curl_ws_send(m_Easy, data, size, &sent, 0, flags);
            data += sent;
            size -= sent;
            if (rc == CURLE_AGAIN) {
                if (!Wait(POLLOUT)) return false;
            } else if (rc != CURLE_OK) {
                return false;
            }
        }
        return true;
    }
    // One whole message of a type in `flags`; its size, or -1.
    int64_t Receive(unsigned flags) {
        m_Message.clear();
        for (;;) {
            size_t got = 0;
            const curl_ws_frame* meta = nullptr;
            CURLcode rc = curl_ws_recv(m_Easy, m_Buffer.data(), m_Buffer.size(), &got, &meta);
            if (rc == CURLE_AGAIN) {
                if (!Wait(POLLIN)) return -1;
                continue;
            }
            if (rc != CURLE_OK || meta == nullptr) return -1;
            if ((meta->flags & flags) == 0) continue;  // pings and the like
            const bool last = meta->bytesleft == 0 && (meta->flags & CURLWS_CONT) == 0;
            // A message that came in one piece is used where it lies, as
            // netloop does; others are put together.
            if (last && m_Message.empty()) return static_cast<int64_t>(got);
            m_Message.append(m_Buffer.data(), got);
            if (last) return static_cast<int64_t>(m_Message.size());
        }
    }

private:
    bool Wait(short events) {
        pollfd p{static_cast<int>(m_Socket), events, 0};
        return ::poll(&p, 1, 10000) > 0;
    }

    CURL* m_Easy = nullptr;
    curl_socket_t m_Socket = CURL_SOCKET_BAD;
    std::vector<char> m_Buffer = std::vector<char>(64 * 1024);
    std::string m_Message;
};

double RunBaseline(bench::Result& res, int& exitCode, const std::string& url, int type,
                   const std::shared_ptr<std::vector<uint8_t>>& payload, uint64_t warmup, uint64_t n, double limit) {
    PlainWs ws;
    if (!ws.Connect(url)) {
        exitCode = res.Fail("WebSocket upgrade failed");
        return -1;
    }
    const unsigned flags = type == WS_MSG_TEXT ? CURLWS_TEXT : CURLWS_BINARY;
    const double deadline = bench::Now() + limit;
    double t0 = bench::Now();
    for (uint64_t i = 0; i < warmup + n; ++i) {
        if (i == warmup) t0 = bench::Now();
        if (!ws.Send(payload->data(), payload->size(), flags)) {
            exitCode = res.Fail("curl_ws_send failed");
            return -1;
        }
        int64_t got = ws.Receive(flags);
        if (got != static_cast<int64_t>(payload->size())) {
            exitCode = res.Fail("echo " + std::to_string(i) + " failed or had the wrong size");
            return -1;
        }
        if (bench::Now() > deadline) {
            exitCode = res.Fail("echoes did not all arrive in time");
            return -1;
        }
    }
    return bench::Now() - t0;
}

}  // namespace

int main(int argc, char** argv) {
    bench::Args args(argc, argv);
    const std::string impl = args.Str("impl", "netloop");
    const std::string mode = args.Str("mode", "echo");
    const bool echo = mode == "echo";
    const bool text = echo || mode == "bulktext";
    const uint64_t n = static_cast<uint64_t>(args.Int("n", echo ? 20000 : 200));
    const uint64_t warmup = static_cast<uint64_t>(args.Int("warmup", echo ? 100 : 2));
    const size_t size = static_cast<size_t>(args.Size("size", echo ? 100 : 1 << 20));
    const int timeout = static_cast<int>(args.Int("timeout", 120));
    bench::StartWatchdog("ws", impl, timeout);
    bench::Result res("ws", impl);
    res.Param("mode", mode).Param("n", static_cast<int64_t>(n)).Param("size", static_cast<int64_t>(size));
    if (mode != "echo" && mode != "bulk" && mode != "bulktext") return res.Fail("unknown --mode (echo, bulk, bulktext)");
    if (n == 0) return res.Fail("--n must be at least 1");

    curl_global_init(CURL_GLOBAL_DEFAULT);
    testsupport::WsTestServer::Options options;
    options.maxRecords = 0;  // echo only: recording is not what is measured
    testsupport::WsTestServer server(options);
    const std::string url = server.Url("/echo");
    const int type = text ? WS_MSG_TEXT : WS_MSG_BINARY;
    std::string bytes = text ? testsupport::DeterministicText(size) : testsupport::DeterministicBytes(size);
    auto payload = std::make_shared<std::vector<uint8_t>>(bytes.begin(), bytes.end());

    int exitCode = 0;
    double elapsed = -1;
    // Counted over the whole run, connection and warm-up included: a small
    // share next to the timed messages.
    bench::CostMeter cost;
    cost.Start();
    if (impl == "netloop") {
        elapsed = RunNetloop(res, exitCode, url, type, payload, warmup, n, timeout);
    } else if (impl == "baseline") {
        elapsed = RunBaseline(res, exitCode, url, type, payload, warmup, n, timeout);
    } else {
        return res.Fail("unknown --impl (netloop, baseline)");
    }
    if (elapsed < 0) return exitCode;
    cost.Report(res, static_cast<double>(warmup + n), "message");
    res.Extra("seconds", elapsed);
    if (echo) return res.Print(static_cast<double>(n) / elapsed, "round trips/s");
    return res.Print(static_cast<double>(n) * static_cast<double>(size) / elapsed / 1e6, "MB/s");
}
