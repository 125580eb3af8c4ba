// WebSocket connections against the loopback server: whole messages of every
// shape, the connection's events, ordered sends from every kind of caller,
// refused sends, TLS, and how handles end.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include "frame/HttpFrame.h"
#include "support/CaptureLogger.h"
#include "loopback/TestData.h"
#include "loopback/TestTls.h"
#include "support/Wait.h"
#include "loopback/WsTestServer.h"

using namespace netloop;
using namespace std::chrono_literals;
using testsupport::ScopedCaptureLogger;
using testsupport::WaitUntil;
using testsupport::WsTestServer;

namespace {

size_t Scaled(size_t n) { return std::getenv("NETLOOP_SANITIZED") != nullptr ? n / 4 : n; }

std::shared_ptr<std::vector<uint8_t>> Bytes(const std::string& s) {
    return std::make_shared<std::vector<uint8_t>>(s.begin(), s.end());
}

struct Message {
    int type;
    std::string bytes;
    bool copied;          // delivered from the handle's reassembly buffer, not libcurl's
    size_t statesBefore;  // OnWsState calls before this message
};

class WsRecorder : public IHttpHandleNotic {
public:
    std::weak_ptr<IHttpHandleInterface> handle;
    // Run on the loop thread after the event is recorded.
    std::function<void(const std::shared_ptr<IHttpHandleInterface>&, const Message&)> onData;
    std::function<void(curl_off_t dlnow)> onProgress;

    void OnWsData(const char* data, size_t length, int type, void*) override {
        std::shared_ptr<IHttpHandleInterface> h = handle.lock();
        ASSERT_TRUE(h);
        const std::string& buffer = h->GetResponse();
        std::less_equal<const char*> le;
        Message m{type, std::string(data, length),
                  le(buffer.data(), data) && le(data, buffer.data() + buffer.capacity()), 0};
        Add([&] {
            m.statesBefore = m_States.size();
            m_Messages.push_back(m);
        });
        if (onData) onData(h, m);
    }
    void OnWsState(std::shared_ptr<IHttpHandleInterface>, int state, void*) override {
        Add([&] { m_States.push_back(state); });
    }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int, void*) override { Add([&] { ++m_Finishes; }); }
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t dlnow, curl_off_t, curl_off_t, void*) override {
        if (onProgress) onProgress(dlnow);
    }
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }

    std::vector<Message> Messages() { return Read(m_Messages); }
    std::vector<int> States() { return Read(m_States); }
    int Finishes() { return Read(m_Finishes); }
    bool WaitMessages(size_t n, std::chrono::milliseconds t = 20s) {
        return WaitUntil([&] { return Messages().size() >= n; }, t);
    }
    bool WaitStates(size_t n) { return WaitUntil([&] { return States().size() >= n; }); }

private:
    template <typename F>
    void Add(F f) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        f();
    }
    template <typename T>
    T Read(const T& field) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return field;
    }
    std::mutex m_Mutex;
    std::vector<Message> m_Messages;
    std::vector<int> m_States;
    int m_Finishes = 0;
};

int Delete(IHttpInterface* frame, const std::shared_ptr<IHttpHandleInterface>& h) {
    std::promise<int> done;
    EXPECT_EQ(frame->DelHttpReq(h, false, [&](std::shared_ptr<IHttpHandleInterface>, void*, int rc) {
        done.set_value(rc);
    }, nullptr), 0);
    auto f = done.get_future();
    return f.wait_for(10s) == std::future_status::ready ? f.get() : -100;
}

// A running frame. The handles a test opened are gone by its end unless the
// test failed before deleting them: those are deleted here, so that the stop
// cannot wait for an open connection.
struct StartedFrame {
    std::shared_ptr<IHttpInterface> frame = IHttpInterface::Create();
    std::vector<std::weak_ptr<IHttpHandleInterface>> opened;
    explicit StartedFrame(std::shared_ptr<IHttpFrameNotic> notice = nullptr) {
        EXPECT_EQ(frame->Init(std::move(notice), false, false, nullptr), 0);
        EXPECT_EQ(frame->Start(true), 0);
    }
    ~StartedFrame() {
        for (auto& weak : opened) {
            if (auto h = weak.lock()) Delete(frame.get(), h);
        }
        frame->Stop(false);
    }
    IHttpInterface* operator->() const { return frame.get(); }
};

std::shared_ptr<IHttpHandleInterface> Open(StartedFrame& frame, const std::string& url,
                                           const std::shared_ptr<WsRecorder>& rec, int timeoutMs = 0,
                                           HttpDoneFunc added = nullptr) {
    auto h = IHttpHandleInterface::Create();
    EXPECT_EQ(h->InitHttpReq(url.c_str(), "ws", HTTP_REQ_WEBSOCKET, rec, 5000, timeoutMs, nullptr), 0);
    if (url.rfind("wss:", 0) == 0) {
        EXPECT_EQ(h->SetCaPath(testsupport::TestTls().caFile.c_str()), 0);
    }
    rec->handle = h;
    frame.opened.push_back(h);
    EXPECT_EQ(frame->AddHttpReq(h, false, std::move(added), nullptr), 0);
    return h;
}

int Send(const std::shared_ptr<IHttpHandleInterface>& h, const std::string& s, int type = WS_MSG_TEXT) {
    size_t sent = 0;
    return h->SendWsData(Bytes(s), type, &sent);
}

std::vector<std::string> Payloads(const std::vector<testsupport::WsMessage>& got) {
    std::vector<std::string> out;
    for (const auto& m : got) out.push_back(m.payload);
    return out;
}

TEST(WebSocket, DeliversWholeMessagesOfEveryShape) {
    ScopedCaptureLogger log;
    StartedFrame frame;
    const size_t big = Scaled(16u << 20);
    const std::string binary("\x00\x01\xff\x80 bin", 8);
    struct Case {
        const char* name;
        std::string send;
        int sendType;
        int type;
        std::string bytes;
        bool copied;
    };
    const Case cases[] = {
        {"text echo", "hello", WS_MSG_TEXT, WS_MSG_TEXT, "hello", false},
        {"binary echo", binary, WS_MSG_BINARY, WS_MSG_BINARY, binary, false},
        {"three frames", "cmd:frag 3 abcdefghi", WS_MSG_TEXT, WS_MSG_TEXT, "abcdefghi", true},
        {"empty last frame", "cmd:fragempty 3 abcdef", WS_MSG_TEXT, WS_MSG_TEXT, "abcdef", true},
        {"empty message", "cmd:empty", WS_MSG_TEXT, WS_MSG_TEXT, "", false},
        {"16 MiB", "cmd:big " + std::to_string(big), WS_MSG_TEXT, WS_MSG_BINARY, testsupport::DeterministicBytes(big),
         true},
        {"close frame", "cmd:close 4000 bye", WS_MSG_TEXT, WS_MSG_CLOSE, std::string("\x0f\xa0" "bye", 5), false},
    };
    for (bool tls : {false, true}) {
        WsTestServer::Options options;
        options.tls = tls;
        WsTestServer server(options);
        // A greeting that arrives together with the upgrade response.
        server.SetOnConnect({"cmd:text greeting"});
        auto rec = std::make_shared<WsRecorder>();
        // A close is answered as an application must: with a close of its own.
        rec->onData = [](const std::shared_ptr<IHttpHandleInterface>& h, const Message& m) {
            if (m.type == WS_MSG_CLOSE) {
                EXPECT_EQ(Send(h, m.bytes, WS_MSG_CLOSE), 0);
            }
        };
        auto h = Open(frame, server.Url("/"), rec);
        ASSERT_TRUE(rec->WaitMessages(1));
        EXPECT_EQ(rec->Messages()[0].bytes, "greeting");
        EXPECT_EQ(rec->Messages()[0].statesBefore, 1u);  // the open notice came first
        for (size_t i = 0; i < std::size(cases); ++i) {
            const Case& c = cases[i];
            ASSERT_EQ(Send(h, c.send, c.sendType), 0);
            ASSERT_TRUE(rec->WaitMessages(i + 2)) << c.name << " tls " << tls;
            Message m = rec->Messages()[i + 1];
            EXPECT_EQ(m.type, c.type) << c.name;
            EXPECT_EQ(m.bytes.size(), c.bytes.size()) << c.name;
            EXPECT_TRUE(m.bytes == c.bytes) << c.name;
            EXPECT_EQ(m.copied, c.copied) << c.name;
        }
        ASSERT_TRUE(rec->WaitStates(2));
        EXPECT_EQ(rec->States(), (std::vector<int>{WS_STATE_OPEN, WS_STATE_CLOSED}));
        EXPECT_EQ(rec->Messages().size(), std::size(cases) + 1);  // each message once
        EXPECT_EQ(rec->Finishes(), 0);
        EXPECT_EQ(Delete(frame.frame.get(), h), 0);
        EXPECT_EQ(log->Count("[NETLOOP]" + server.Url("/") + " WS END result[0:No error]", 20), 1u);
    }
    EXPECT_EQ(log->CountContaining(" DONE result"), 0u);
    EXPECT_EQ(log->CountContaining("curl_ws_send"), 0u);
}

// Every connection hears of its own events once, and never of an end the
// application caused itself.
TEST(WebSocket, ReportsEachConnectionEventOnce) {
    ScopedCaptureLogger log;
    StartedFrame frame;
    WsTestServer server;
    std::string closedUrl;
    {
        WsTestServer gone;
        closedUrl = gone.Url("/");
    }
    enum Then { kNothing, kCommand, kDisconnect, kDelete };
    struct Case {
        const char* name;
        std::string url;
        int timeoutMs;
        Then then;
        const char* command;
        std::vector<int> states;
        int code;  // of the level 60 end line; -1: no end line
    };
    const Case cases[] = {
        {"refused upgrade", server.Url("/refuse/403"), 0, kNothing, "", {WS_STATE_FAILED}, CURLE_HTTP_RETURNED_ERROR},
        {"closed port", closedUrl, 0, kNothing, "", {WS_STATE_FAILED}, CURLE_COULDNT_CONNECT},
        {"dropped by server", server.Url("/"), 0, kCommand, "cmd:drop", {WS_STATE_OPEN, WS_STATE_CLOSED},
         CURLE_GOT_NOTHING},
        {"reset by server", server.Url("/"), 0, kCommand, "cmd:reset", {WS_STATE_OPEN, WS_STATE_CLOSED},
         CURLE_RECV_ERROR},
        {"time-out", server.Url("/silent"), 400, kNothing, "", {WS_STATE_OPEN, WS_STATE_CLOSED},
         CURLE_OPERATION_TIMEDOUT},
        {"disconnected", server.Url("/"), 0, kDisconnect, "", {WS_STATE_OPEN}, -1},
        {"deleted", server.Url("/"), 0, kDelete, "", {WS_STATE_OPEN}, -1},
    };
    for (const Case& c : cases) {
        auto rec = std::make_shared<WsRecorder>();
        auto h = Open(frame, c.url, rec, c.timeoutMs);
        ASSERT_TRUE(rec->WaitStates(1)) << c.name;
        switch (c.then) {
            case kCommand:
                EXPECT_EQ(Send(h, c.command), 0);
                break;
            case kDisconnect:
                EXPECT_EQ(h->Disconnect(), 0);
                break;
            case kDelete:
                EXPECT_EQ(Delete(frame.frame.get(), h), 0);
                break;
            case kNothing:
                break;
        }
        ASSERT_TRUE(rec->WaitStates(c.states.size())) << c.name;
        std::this_thread::sleep_for(c.code < 0 ? 300ms : 50ms);
        EXPECT_EQ(rec->States(), c.states) << c.name;
        EXPECT_EQ(rec->Finishes(), 0) << c.name;
        const std::string end = "[NETLOOP]" + c.url + " WS END result[" + std::to_string(c.code) + ":";
        EXPECT_EQ(log->CountContaining(end, 60), c.code < 0 ? 0u : 1u) << c.name;
        if (c.then == kDisconnect) {
            // Added again, the handle makes a fresh connection that works.
            ASSERT_EQ(frame->AddHttpReq(h, false, nullptr, nullptr), 0);
            ASSERT_TRUE(rec->WaitStates(2));
            EXPECT_EQ(rec->States(), (std::vector<int>{WS_STATE_OPEN, WS_STATE_OPEN}));
            ASSERT_EQ(Send(h, "again"), 0);
            ASSERT_TRUE(rec->WaitMessages(1));
            EXPECT_EQ(rec->Messages()[0].bytes, "again");
        }
        if (c.then != kDelete) {
            EXPECT_EQ(Delete(frame.frame.get(), h), 0) << c.name;
        }
    }
    EXPECT_EQ(log->CountContaining(" DONE result"), 0u);

    // Bytes without WebSocket framing (here: a plain HTTP answer to a handle of
    // the WebSocket kind) are kept as a response body, never read as frames.
    auto rec = std::make_shared<WsRecorder>();
    std::string http = server.Url("/");
    http.replace(0, 2, "http");
    auto h = Open(frame, http, rec);
    ASSERT_TRUE(WaitUntil([&] { return rec->Finishes() == 1; }));
    EXPECT_FALSE(h->GetResponse().empty());
    EXPECT_TRUE(rec->Messages().empty());
    EXPECT_TRUE(rec->States().empty());
    EXPECT_EQ(Delete(frame.frame.get(), h), 0);
}

TEST(WebSocket, SendsWholeMessagesInOrderFromEveryCaller) {
    ScopedCaptureLogger log;
    StartedFrame frame;
    WsTestServer server;

    // Before the upgrade, from the loop thread (the add's done function) and
    // from this thread, then a burst from this thread: all in order.
    auto rec = std::make_shared<WsRecorder>();
    std::promise<std::vector<size_t>> early;
    auto h = Open(frame, server.Url("/silent"), rec, 0,
                  [&](std::shared_ptr<IHttpHandleInterface> self, void*, int rc) {
                      EXPECT_EQ(rc, 0);
                      std::vector<size_t> sent(2, 0);
                      EXPECT_EQ(self->SendWsData(Bytes("early-1"), WS_MSG_TEXT, &sent[0]), 0);
                      EXPECT_EQ(self->SendWsData(Bytes("early-2"), WS_MSG_TEXT, &sent[1]), 0);
                      early.set_value(sent);
                  });
    const size_t burst = Scaled(10000);
    std::vector<std::string> expected{"early-1", "early-2"};
    for (size_t i = 0; i < burst; ++i) {
        expected.push_back("m" + std::to_string(i));
        ASSERT_EQ(Send(h, expected.back()), 0);
    }
    ASSERT_TRUE(server.WaitForMessages(expected.size(), 30s));
    EXPECT_EQ(Payloads(server.ReceivedOn(1)), expected);
    EXPECT_EQ(early.get_future().get(), (std::vector<size_t>{7, 7}));
    EXPECT_EQ(Delete(frame.frame.get(), h), 0);

    // Messages much bigger than the socket can take, to a server that reads
    // slowly: the first from this thread, the second from inside OnWsData, where
    // the send must not hold up the loop. Each arrives whole, and whatever was
    // sent after it arrives after it.
    const std::string first = testsupport::DeterministicBytes(Scaled(4u << 20));
    const std::string second = testsupport::DeterministicBytes(Scaled(32u << 20), 7);
    const auto secondBytes = Bytes(second);
    const auto after1 = Bytes("after-1");
    std::promise<std::chrono::steady_clock::duration> inCallback;
    auto slowRec = std::make_shared<WsRecorder>();
    slowRec->onData = [&](const std::shared_ptr<IHttpHandleInterface>& self, const Message& m) {
        if (m.bytes != "trigger") return;  // the echo of what this thread sent
        size_t sent = 0;
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(self->SendWsData(secondBytes, WS_MSG_BINARY, &sent), 0);
        EXPECT_EQ(self->SendWsData(after1, WS_MSG_TEXT, &sent), 0);
        inCallback.set_value(std::chrono::steady_clock::now() - start);
    };
    auto slow = Open(frame, server.Url("/slowread?pause=200"), slowRec);
    ASSERT_TRUE(slowRec->WaitStates(1));
    ASSERT_EQ(Send(slow, first, WS_MSG_BINARY), 0);
    ASSERT_EQ(Send(slow, "trigger"), 0);
    auto took = inCallback.get_future();
    ASSERT_EQ(took.wait_for(30s), std::future_status::ready);
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(took.get()).count(), 500);
    ASSERT_EQ(Send(slow, "after-2"), 0);
    ASSERT_TRUE(server.WaitForMessages(expected.size() + 5, 60s));
    auto got = server.ReceivedOn(2);
    ASSERT_EQ(got.size(), 5u);
    EXPECT_EQ(got[0].sha256, testsupport::Sha256Hex(first));
    EXPECT_EQ(got[1].payload, "trigger");
    EXPECT_EQ(got[2].size, second.size());
    EXPECT_EQ(got[2].sha256, testsupport::Sha256Hex(second));
    EXPECT_EQ(got[3].payload, "after-1");
    EXPECT_EQ(got[4].payload, "after-2");
    EXPECT_EQ(Delete(frame.frame.get(), slow), 0);

    // Replies sent from inside OnWsData: a ping-pong of many rounds.
    const size_t rounds = Scaled(1000);
    size_t n = 0;  // loop thread only
    auto pongRec = std::make_shared<WsRecorder>();
    pongRec->onData = [&](const std::shared_ptr<IHttpHandleInterface>& self, const Message&) {
        if (++n >= rounds) return;
        size_t sent = 0;
        EXPECT_EQ(self->SendWsData(Bytes("p" + std::to_string(n)), WS_MSG_TEXT, &sent), 0);
        EXPECT_EQ(sent, 1 + std::to_string(n).size());
    };
    auto pong = Open(frame, server.Url("/"), pongRec);
    ASSERT_TRUE(pongRec->WaitStates(1));
    ASSERT_EQ(Send(pong, "p0"), 0);
    ASSERT_TRUE(pongRec->WaitMessages(rounds, 30s));
    auto echoes = pongRec->Messages();
    for (size_t i = 0; i < echoes.size(); ++i) ASSERT_EQ(echoes[i].bytes, "p" + std::to_string(i));
    EXPECT_EQ(Delete(frame.frame.get(), pong), 0);

    EXPECT_EQ(log->CountContaining("curl_ws_send"), 0u);
    EXPECT_EQ(log->CountContaining("Send len diff"), 0u);
}

class StopNotice : public IHttpFrameNotic {
public:
    std::function<void(std::shared_ptr<IHttpInterface>)> onStop;
    int OnFrameStop(std::shared_ptr<IHttpInterface> frame, void*) override {
        if (onStop) onStop(frame);
        return 0;
    }
};

TEST(WebSocket, RefusesSendsItCannotMake) {
    ScopedCaptureLogger log;
    WsTestServer server;
    auto notice = std::make_shared<StopNotice>();
    StartedFrame frame(notice);
    auto rec = std::make_shared<WsRecorder>();
    auto ws = Open(frame, server.Url("/refuse/403"), rec);
    ASSERT_TRUE(rec->WaitStates(1));
    auto get = IHttpHandleInterface::Create();
    ASSERT_EQ(get->InitHttpReq(server.Url("/").c_str(), "get", HTTP_REQ_GET, nullptr, 0, 0, nullptr), 0);
    auto idle = IHttpHandleInterface::Create();
    auto unadded = IHttpHandleInterface::Create();
    ASSERT_EQ(unadded->InitHttpReq(server.Url("/").c_str(), "ws", HTTP_REQ_WEBSOCKET, nullptr, 0, 0, nullptr), 0);

    struct Case {
        const char* name;
        std::shared_ptr<IHttpHandleInterface> handle;
        int type;
        bool withSent;
        std::string line;  // level 60; empty: nothing logged
    };
    const Case cases[] = {
        {"type 0", ws, 0, true, "[NETLOOP]unknow websocket type[0]"},
        {"type 4", ws, 4, true, "[NETLOOP]unknow websocket type[4]"},
        {"no sent", ws, WS_MSG_TEXT, false, ""},
        {"not a websocket", get, WS_MSG_TEXT, true, ""},
        {"not armed", idle, WS_MSG_TEXT, true, ""},
        {"never added", unadded, WS_MSG_TEXT, true, ""},
    };
    for (const Case& c : cases) {
        log->Clear();
        size_t sent = 99;
        EXPECT_EQ(c.handle->SendWsData(Bytes("x"), c.type, c.withSent ? &sent : nullptr), -1) << c.name;
        EXPECT_EQ(sent, 99u) << c.name;
        auto lines = log->Lines();
        ASSERT_EQ(lines.size(), c.line.empty() ? 0u : 1u) << c.name;
        if (!c.line.empty()) {
            EXPECT_EQ(lines[0].text, c.line) << c.name;
            EXPECT_EQ(lines[0].level, 60) << c.name;
        }
    }

    // Once the loop has stopped a send is refused with its message; the handles
    // are deleted right there, on the loop thread.
    int stoppedSend = 0;
    notice->onStop = [&](std::shared_ptr<IHttpInterface> f) {
        size_t sent = 0;
        stoppedSend = ws->SendWsData(Bytes("late"), WS_MSG_TEXT, &sent);
        for (auto& h : {ws, get, unadded}) EXPECT_EQ(f->DelHttpReq(h, false, nullptr, nullptr), 0);
    };
    log->Clear();
    ASSERT_EQ(frame->Stop(false), 0);
    EXPECT_EQ(stoppedSend, -1);
    EXPECT_EQ(log->Count("[NETLOOP]Can not send ws data req now", 60), 1u);
}

// The application may drop a connected handle: it keeps working until it is
// deleted, here in the middle of a message, and then it goes away for good.
TEST(WebSocket, HandleLivesUntilDeletedEvenMidMessage) {
    ScopedCaptureLogger log;
    WsTestServer server;
    std::weak_ptr<IHttpHandleInterface> weak;
    auto rec = std::make_shared<WsRecorder>();
    std::promise<int> deleted;
    {
        StartedFrame frame;
        weak = Open(frame, server.Url("/"), rec);
        ASSERT_TRUE(rec->WaitStates(1));
        ASSERT_FALSE(weak.expired());
        ASSERT_EQ(Send(weak.lock(), "still here"), 0);
        ASSERT_TRUE(rec->WaitMessages(1));
        EXPECT_EQ(rec->Messages()[0].bytes, "still here");

        // Deleted from inside libcurl once part of a big message is in.
        auto h = weak.lock();
        ASSERT_EQ(h->EnableProgress(true), 0);
        std::once_flag once;
        rec->onProgress = [&](curl_off_t dlnow) {
            if (dlnow < (1 << 20)) return;
            std::call_once(once, [&] {
                EXPECT_EQ(frame->DelHttpReq(weak.lock(), false, [&](std::shared_ptr<IHttpHandleInterface>, void*, int rc) {
                    deleted.set_value(rc);
                }, nullptr), 0);
            });
        };
        ASSERT_EQ(Send(h, "cmd:big " + std::to_string(Scaled(32u << 20))), 0);
        h.reset();
        auto f = deleted.get_future();
        ASSERT_EQ(f.wait_for(20s), std::future_status::ready);
        EXPECT_EQ(f.get(), 0);
        std::this_thread::sleep_for(100ms);
    }
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(rec->Messages().size(), 1u);
    EXPECT_EQ(rec->States(), (std::vector<int>{WS_STATE_OPEN}));
    EXPECT_EQ(log->CountContaining("WS END"), 0u);
}

}  // namespace
