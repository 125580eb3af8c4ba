// netloop_lifecycle: one application's whole life with netloop, start to end,
// small enough to run under valgrind. Two frame lives (the second with a share
// and HTTP/2 multiplexing), each with HTTP and HTTPS transfers, a POST, a
// WebSocket connection that sends and hears its echo, repeating and one-shot
// timers and a UDP socket talking to an echo peer; then every handle is
// deleted, the frame stops, and the application lets go of everything.
//
// Exits 0 when every step saw what it should; prints one line per step.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "netloop/IHttpInterface.h"
#include "loopback/HttpTestServer.h"
#include "loopback/TestTls.h"
#include "loopback/UdpEchoPeer.h"
#include "support/Wait.h"
#include "loopback/WsTestServer.h"

using namespace netloop;
using namespace std::chrono_literals;

namespace {

int g_Failures = 0;

void Expect(bool ok, const char* what) {
    std::printf("%-60s %s\n", what, ok ? "ok" : "FAILED");
    if (!ok) ++g_Failures;
}

// Valgrind makes everything many times slower: waits are generous but bounded.
constexpr auto kWait = 60s;

struct Done {
    std::atomic<int> calls{0};
    std::atomic<int> result{-9};
};

template <typename Fn>
Fn DoneInto(const std::shared_ptr<Done>& d) {
    return [d](auto, void*, int rc) {
        d->result.store(rc);
        d->calls.fetch_add(1);
    };
}

bool WaitDone(const std::shared_ptr<Done>& d, int expected) {
    return testsupport::WaitUntil([&] { return d->calls.load() != 0; }, kWait) && d->calls.load() == 1 &&
           d->result.load() == expected;
}

class Transfer : public IHttpHandleNotic {
public:
    void OnWsData(const char* data, size_t length, int type, void*) override {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Messages.emplace_back(data, length);
    }
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }
    void OnFinish(std::shared_ptr<IHttpHandleInterface> handle, int result, void*) override {
        status.store(handle->GetResponseCode());
        body = handle->GetResponse();
        finishResult.store(result);
        finishes.fetch_add(1);
    }
    void OnWsState(std::shared_ptr<IHttpHandleInterface>, int state, void*) override {
        if (state == WS_STATE_OPEN) opened.fetch_add(1);
    }
    std::vector<std::string> Messages() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Messages;
    }

    std::atomic<int> finishes{0};
    std::atomic<int> finishResult{-9};
    std::atomic<long> status{0};
    std::atomic<int> opened{0};
    std::string body;  // written before finishes is raised

private:
    std::mutex m_Mutex;
    std::vector<std::string> m_Messages;
};

class Ticker : public ITimerHandleNotic {
public:
    void OnTimer(std::shared_ptr<ITimerHandleInterface>, void*) override { fires.fetch_add(1); }
    void OnClose(std::shared_ptr<ITimerHandleInterface>, void*) override { closes.fetch_add(1); }
    std::atomic<int> fires{0};
    std::atomic<int> closes{0};
};

class Datagrams : public IUdpHandleNotic {
public:
    void OnUdpState(std::shared_ptr<IUdpHandleInterface>, int status, void*) override {
        if (status == UDP_STATUS_OK) connected.fetch_add(1);
        if (status == UDP_STATUS_CLOSED) closed.fetch_add(1);
    }
    void OnUdpData(const char* data, int64_t size, const char*, void*) override {
        std::lock_guard<std::mutex> lock(m_Mutex);
        last.assign(data, static_cast<size_t>(size));
        received.fetch_add(1);
    }
    std::string Last() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return last;
    }
    std::atomic<int> connected{0};
    std::atomic<int> closed{0};
    std::atomic<int> received{0};

private:
    std::mutex m_Mutex;
    std::string last;
};

class FrameEnd : public IHttpFrameNotic {
public:
    int OnFrameStop(std::shared_ptr<IHttpInterface>, void*) override {
        stops.fetch_add(1);
        return 0;
    }
    std::atomic<int> stops{0};
};

std::shared_ptr<std::vector<uint8_t>> Bytes(const std::string& s) {
    return std::make_shared<std::vector<uint8_t>>(s.begin(), s.end());
}

struct Servers {
    testsupport::HttpTestServer http;
    testsupport::HttpTestServer https{[] {
        testsupport::HttpTestServerOptions o;
        o.tls = true;
        return o;
    }()};
    testsupport::WsTestServer ws;
    testsupport::UdpEchoPeer udp;
};

void OneFrameLife(const std::shared_ptr<IHttpInterface>& frame, Servers& s, bool pipelining, bool share) {
    auto end = std::make_shared<FrameEnd>();
    Expect(frame->Init(end, pipelining, share, nullptr) == 0, "frame Init");
    Expect(frame->Start(true) == 0, "frame Start");

    // Timers: one repeating, one one-shot.
    auto ticker = std::make_shared<Ticker>();
    auto repeating = ITimerHandleInterface::Create(ticker, 5, 5, nullptr);
    auto once = std::make_shared<Ticker>();
    auto oneShot = ITimerHandleInterface::Create(once, 1, 0, nullptr);
    auto addRepeating = std::make_shared<Done>();
    auto addOneShot = std::make_shared<Done>();
    frame->AddTimerReq(repeating, false, DoneInto<TimerDoneFunc>(addRepeating), nullptr);
    frame->AddTimerReq(oneShot, true, DoneInto<TimerDoneFunc>(addOneShot), nullptr);

    // HTTP GET, POST and HTTPS GET.
    auto get = std::make_shared<Transfer>();
    auto getHandle = IHttpHandleInterface::Create();
    getHandle->InitHttpReq(s.http.Url("/fixed").c_str(), "get", HTTP_REQ_GET, get, 10000, 60000, nullptr);
    auto post = std::make_shared<Transfer>();
    auto postHandle = IHttpHandleInterface::Create();
    postHandle->InitHttpReq(s.http.Url("/echo").c_str(), "post", HTTP_REQ_POST, post, 10000, 60000, nullptr);
    postHandle->SetPostFields("a=1&b=2");
    postHandle->SetHeaders({"X-Lifecycle: yes"});
    auto tls = std::make_shared<Transfer>();
    auto tlsHandle = IHttpHandleInterface::Create();
    const std::string tlsUrl = "https://127.0.0.1:" + std::to_string(s.https.Port()) + "/bytes/5000";
    tlsHandle->InitHttpReq(tlsUrl.c_str(), "tls", HTTP_REQ_GET, tls, 10000, 60000, nullptr);
    tlsHandle->SetCaPath(testsupport::TestTls().caFile.c_str());
    auto addGet = std::make_shared<Done>(), addPost = std::make_shared<Done>(), addTls = std::make_shared<Done>();
    frame->AddHttpReq(getHandle, false, DoneInto<HttpDoneFunc>(addGet), nullptr);
    frame->AddHttpReq(postHandle, false, DoneInto<HttpDoneFunc>(addPost), nullptr);
    frame->AddHttpReq(tlsHandle, false, DoneInto<HttpDoneFunc>(addTls), nullptr);

    // WebSocket: a message sent before the open waits for it.
    auto ws = std::make_shared<Transfer>();
    auto wsHandle = IHttpHandleInterface::Create();
    wsHandle->InitHttpReq(s.ws.Url("/echo").c_str(), "ws", HTTP_REQ_WEBSOCKET, ws, 10000, 0, nullptr);
    auto addWs = std::make_shared<Done>();
    frame->AddHttpReq(wsHandle, false, DoneInto<HttpDoneFunc>(addWs), nullptr);
    size_t sent = 0;
    Expect(wsHandle->SendWsData(Bytes("hello over ws"), WS_MSG_TEXT, &sent) == 0, "ws send before the open");

    // UDP.
    auto dgrams = std::make_shared<Datagrams>();
    auto udpHandle = IUdpHandleInterface::Create(dgrams, "127.0.0.1", s.udp.Port(), nullptr);
    auto addUdp = std::make_shared<Done>();
    frame->AddUdpReq(udpHandle, false, DoneInto<UdpDoneFunc>(addUdp), nullptr);

    Expect(WaitDone(addRepeating, 0) && WaitDone(addOneShot, 0), "timer adds done 0");
    Expect(WaitDone(addGet, 0) && WaitDone(addPost, 0) && WaitDone(addTls, 0) && WaitDone(addWs, 0),
           "transfer adds done 0");
    Expect(WaitDone(addUdp, 0) && dgrams->connected.load() == 1, "udp connected");
    Expect(udpHandle->SendUdpData(Bytes("hello over udp")) == 0, "udp send");

    bool finished = testsupport::WaitUntil(
        [&] { return get->finishes.load() == 1 && post->finishes.load() == 1 && tls->finishes.load() == 1; }, kWait);
    Expect(finished, "http, post and https finished");
    Expect(get->finishResult.load() == 0 && get->status.load() == 200 && get->body == "hello netloop",
           "http GET body");
    Expect(post->finishResult.load() == 0 && post->body.find("a=1&b=2") != std::string::npos &&
               post->body.find("X-Lifecycle: yes") != std::string::npos,
           "http POST echoed");
    Expect(tls->finishResult.load() == 0 && tls->status.load() == 200 && tls->body.size() == 5000,
           "https GET verified and complete");
    Expect(testsupport::WaitUntil([&] { return ws->opened.load() == 1 && !ws->Messages().empty(); }, kWait) &&
               ws->Messages().front() == "hello over ws",
           "ws opened and echoed");
    Expect(testsupport::WaitUntil([&] { return dgrams->received.load() >= 1; }, kWait) &&
               dgrams->Last() == "hello over udp",
           "udp echoed");
    Expect(testsupport::WaitUntil([&] { return ticker->fires.load() >= 3 && once->fires.load() == 1; }, kWait),
           "timers fired");

    // A stop and an again from the application's thread.
    auto stopDone = std::make_shared<Done>(), againDone = std::make_shared<Done>();
    repeating->StopTimer(DoneInto<TimerDoneFunc>(stopDone), nullptr);
    repeating->AgainTimer(DoneInto<TimerDoneFunc>(againDone), nullptr);
    Expect(WaitDone(stopDone, 0) && WaitDone(againDone, 0), "timer stop and again done 0");

    // Everything goes: the application's duty before Stop.
    auto delRepeating = std::make_shared<Done>(), delOneShot = std::make_shared<Done>();
    auto delGet = std::make_shared<Done>(), delPost = std::make_shared<Done>(), delTls = std::make_shared<Done>();
    auto delWs = std::make_shared<Done>(), delUdp = std::make_shared<Done>();
    frame->DelTimerReq(repeating, false, DoneInto<TimerDoneFunc>(delRepeating), nullptr);
    frame->DelTimerReq(oneShot, false, DoneInto<TimerDoneFunc>(delOneShot), nullptr);
    frame->DelHttpReq(getHandle, false, DoneInto<HttpDoneFunc>(delGet), nullptr);
    frame->DelHttpReq(postHandle, false, DoneInto<HttpDoneFunc>(delPost), nullptr);
    frame->DelHttpReq(tlsHandle, false, DoneInto<HttpDoneFunc>(delTls), nullptr);
    frame->DelHttpReq(wsHandle, false, DoneInto<HttpDoneFunc>(delWs), nullptr);
    frame->DelUdpReq(udpHandle, false, DoneInto<UdpDoneFunc>(delUdp), nullptr);
    Expect(WaitDone(delRepeating, 0) && WaitDone(delOneShot, 0), "timer deletes done 0");
    Expect(testsupport::WaitUntil([&] { return ticker->closes.load() == 1 && once->closes.load() == 1; }, kWait),
           "timers closed once");
    Expect(WaitDone(delGet, 0) && WaitDone(delPost, 0) && WaitDone(delTls, 0) && WaitDone(delWs, 0),
           "transfer deletes done 0");
    Expect(WaitDone(delUdp, 0) && testsupport::WaitUntil([&] { return dgrams->closed.load() == 1; }, kWait),
           "udp closed once");

    std::weak_ptr<ITimerHandleInterface> weakTimer = repeating;
    std::weak_ptr<IHttpHandleInterface> weakWs = wsHandle;
    std::weak_ptr<IUdpHandleInterface> weakUdp = udpHandle;
    repeating.reset();
    oneShot.reset();
    getHandle.reset();
    postHandle.reset();
    tlsHandle.reset();
    wsHandle.reset();
    udpHandle.reset();
    Expect(frame->Stop(false) == 0 && end->stops.load() == 1, "frame Stop, OnFrameStop once");
    Expect(weakTimer.expired() && weakWs.expired() && weakUdp.expired(), "handles released");
}

}  // namespace

int main() {
    {
        Servers servers;
        auto frame = IHttpInterface::Create();
        std::weak_ptr<IHttpInterface> weakFrame = frame;
        OneFrameLife(frame, servers, false, false);
        OneFrameLife(frame, servers, true, true);
        frame.reset();
        Expect(weakFrame.expired(), "frame released");
    }
    std::printf("lifecycle: %s\n", g_Failures == 0 ? "all steps ok" : "FAILED");
    return g_Failures == 0 ? 0 : 1;
}
