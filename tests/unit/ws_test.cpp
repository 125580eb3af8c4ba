// WebSocket clients against python3-websockets: messages whole and in order,
// the server's close, drop and refusal, the client's own close and disconnect.
#include "Kit.h"

namespace {

using namespace kit;

WsServer& Ws() {
    static WsServer server;
    return server;
}

int Send(Transfer& t, const std::string& data, int type) {
    size_t sent = 0;
    return t->SendWsData(Bytes(data), type, &sent);
}

// What the server does, and what the client must see of it.
TEST(WebSocket, ServerBehaviours) {
    ScopedCaptureLogger log;
    Frame frame;
    const std::string big = Pattern(700000);
    struct Case {
        std::string url;
        std::vector<std::pair<int, std::string>> send;  // sent right after the add
        std::vector<std::pair<int, std::string>> want;  // messages, in order
        int endState;                                   // 1: still open
        std::string logLine;
        int level;
    };
    const std::string wss = Ws().TlsUrl("/echo");
    const Case cases[] = {
        {Ws().Url("/echo"), {{1, "hello"}, {2, std::string("\0bin\xff", 5)}, {2, big}, {1, "after"}},
         {{1, "hello"}, {2, std::string("\0bin\xff", 5)}, {2, big}, {1, "after"}}, 1, "", 0},
        {wss, {{1, "secure"}}, {{1, "secure"}}, 1, "", 0},
        {Ws().Url("/fragments"), {{1, "x"}}, {{1, "fragmented message"}, {1, "x"}}, 1, "", 0},
        {Ws().Url("/ping"), {}, {{1, "pong:are you there"}}, 1, "", 0},
        {Ws().Url("/close/4001/bye"), {}, {{3, "\x0f\xa1" "bye"}}, WS_STATE_CLOSED, " WS END result[0:", 20},
        {Ws().Url("/drop"), {{1, "last"}}, {{1, "last"}}, WS_STATE_CLOSED, " WS END result[", -1},
        {Ws().Url("/refuse"), {}, {}, WS_STATE_FAILED, " WS END result[", 60},
        {"ws://127.0.0.1:" + std::to_string(FreePort()) + "/", {}, {}, WS_STATE_FAILED, " WS END result[7:", 60},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.url);
        log->Clear();
        Transfer t(c.url, HTTP_REQ_WEBSOCKET);
        t->SetCaPath(TestCa().caFile.c_str());
        ASSERT_EQ(frame->AddHttpReq(t.h, true, nullptr, nullptr), 0);
        for (const auto& [type, data] : c.send) EXPECT_EQ(Send(t, data, type), 0) << "before the upgrade";
        if (c.endState != WS_STATE_FAILED) ASSERT_TRUE(t.rec->AwaitState(WS_STATE_OPEN));
        ASSERT_TRUE(t.rec->AwaitMessages(c.want.size()));
        if (c.endState != 1) ASSERT_TRUE(t.rec->AwaitState(c.endState));
        if (c.endState == 1) {
            // The message sent last comes back last: nothing else is on its way.
            EXPECT_EQ(Send(t, "end", 1), 0);
            ASSERT_TRUE(t.rec->AwaitMessages(c.want.size() + 1));
        }
        auto got = t.rec->Get(&Recorder::messages);
        ASSERT_EQ(got.size(), c.want.size() + (c.endState == 1));
        for (size_t i = 0; i < c.want.size(); ++i) {
            EXPECT_EQ(got[i].first, c.want[i].first) << "message " << i;
            EXPECT_TRUE(got[i].second == c.want[i].second) << "message " << i << " has " << got[i].second.size() << " bytes";
        }
        auto states = t.rec->Get(&Recorder::states);
        EXPECT_EQ(states.size(), c.endState == 1 ? 1u : c.endState == WS_STATE_FAILED ? 1u : 2u);
        if (!c.logLine.empty()) EXPECT_EQ(log->CountContaining(c.logLine, c.level), 1u) << c.logLine;
        EXPECT_TRUE(t.rec->Get(&Recorder::finishes).empty()) << "OnFinish on a WebSocket";
        EXPECT_EQ(t.Del(frame), 0);
    }
}

// The client closes with a close frame (the server answers it) or drops the
// connection with Disconnect (no OnWsState), and is refused what it may not do.
TEST(WebSocket, ClientCloseDisconnectAndRefusals) {
    ScopedCaptureLogger log;
    Frame frame;
    Transfer t(Ws().Url("/echo"), HTTP_REQ_WEBSOCKET);
    size_t sent = 0;
    EXPECT_EQ(t->SendWsData(Bytes("x"), 1, &sent), -1) << "not added";
    ASSERT_EQ(frame->AddHttpReq(t.h, true, nullptr, nullptr), 0);
    ASSERT_TRUE(t.rec->AwaitState(WS_STATE_OPEN));
    EXPECT_EQ(t->SendWsData(Bytes("x"), 7, &sent), -1);
    EXPECT_TRUE(log->Has("[NETLOOP]unknow websocket type[7]", 60));
    EXPECT_EQ(t->SendWsData(Bytes("x"), 1, nullptr), -1);
    // Many messages from the loop thread and from here keep their order.
    for (int i = 0; i < 100; ++i) ASSERT_EQ(Send(t, "m" + std::to_string(i), 1), 0);
    ASSERT_TRUE(t.rec->AwaitMessages(100));
    auto got = t.rec->Get(&Recorder::messages);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(got[i].second, "m" + std::to_string(i));
    EXPECT_EQ(t->SendWsData(nullptr, 2, &sent), 0) << "an empty message";

    EXPECT_EQ(t->Disconnect(), 0);
    ASSERT_TRUE(Await([&] { return log->Has("[NETLOOP]disconnect web socket", 20); }, "the disconnect"));
    // Added again, the same handle makes a fresh connection.
    t.rec->states.clear();
    ASSERT_EQ(frame->AddHttpReq(t.h, true, nullptr, nullptr), 0);
    ASSERT_TRUE(t.rec->AwaitState(WS_STATE_OPEN));
    EXPECT_EQ(Send(t, std::string("\x03\xe8" "done", 6), 3), 0);
    ASSERT_TRUE(t.rec->AwaitState(WS_STATE_CLOSED));
    EXPECT_EQ(t.rec->Get(&Recorder::states), (std::vector<int>{WS_STATE_OPEN, WS_STATE_CLOSED}));
    EXPECT_TRUE(Await([&] { return log->CountContaining(" WS END result[0:", 20) == 1; }, "the level-20 end line"));
    EXPECT_EQ(t.Del(frame), 0);
    frame.Stop();
    EXPECT_EQ(t->Disconnect(), -1) << "not armed";
    EXPECT_TRUE(t.rec->Get(&Recorder::finishes).empty());
}

// A connection that never completes its upgrade times out as FAILED.
TEST(WebSocket, SilentPeerFailsTheUpgrade) {
    Faults faults;
    Frame frame;
    Transfer t("ws://127.0.0.1:" + std::to_string(faults.Port()) + "/silent", HTTP_REQ_WEBSOCKET, 300);
    ASSERT_EQ(frame->AddHttpReq(t.h, true, nullptr, nullptr), 0);
    ASSERT_TRUE(t.rec->AwaitState(WS_STATE_FAILED));
    EXPECT_EQ(t.rec->Get(&Recorder::states), std::vector<int>{WS_STATE_FAILED});
    EXPECT_EQ(t.Del(frame), 0);
}

}  // namespace
