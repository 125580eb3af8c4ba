// WebSocket bounds against peers that break them (tests/support/ws_server.py,
// /hostile/...): an incoming message past the limit, text that is not UTF-8,
// a fragmented message followed by one of another type, and a server that
// never reads what the client sends.
#include <cstdio>
#include <thread>

#include "Kit.h"

namespace {

using namespace kit;

WsServer& Ws() {
    static WsServer server;
    return server;
}

struct ServerReport {
    long long sent = -1;  // payload bytes the server wrote
    int code = -1;        // close code it received; -1 for none
};

// What the server recorded of the /hostile/<name> connection.
ServerReport Report(Frame& frame, const std::string& name) {
    Transfer t(Ws().Url("/report/" + name), HTTP_REQ_WEBSOCKET);
    EXPECT_EQ(frame->AddHttpReq(t.h, true, nullptr, nullptr), 0);
    ServerReport r;
    if (t.rec->AwaitMessages(1)) {
        const std::string text = t.rec->Get(&Recorder::messages)[0].second;
        if (std::sscanf(text.c_str(), "sent=%lld code=%d", &r.sent, &r.code) != 2) ADD_FAILURE() << text;
    }
    t.Del(frame);
    return r;
}

constexpr size_t kMiB = size_t{1} << 20;
constexpr size_t kDefault = SIZE_MAX;  // leave the handle's limit alone

// Each peer either gets its messages through whole or has its connection
// failed: a close frame with the status reaches the server, nothing of the
// refused message is delivered, the application hears WS_STATE_ERROR with
// the reason, and the server got no further than the limit plus what was in
// flight.
TEST(WsLimits, PeersPastTheBoundsFailTheConnection) {
    ScopedCaptureLogger log;
    Frame frame;
    const std::string twenty = Pattern(20 * kMiB);
    struct Case {
        std::string name;
        size_t limit;
        std::string send;  // binary, sent once open (the echo comes back)
        std::vector<std::pair<int, std::string>> want;
        int closeCode;  // 0: the connection stays open
        std::string error;
    };
    const Case cases[] = {
        {"endless", kDefault, "", {}, 1009, "message too big (limit 16 MiB, "},
        {"huge", kDefault, "", {}, 1009, "message too big (limit 16 MiB, 1099511627776 bytes seen)"},
        {"echo", kDefault, twenty, {}, 1009, "message too big (limit 16 MiB, "},
        {"echo", 0, twenty, {{2, twenty}}, 0, ""},
        {"echo", 1000, std::string(1001, 'b'), {}, 1009, "message too big (limit 1000 bytes, 1001 bytes seen)"},
        {"utf8-bad", kDefault, "", {}, 1007, "text message is not valid UTF-8"},
        {"utf8-surrogate", kDefault, "", {}, 1007, "text message is not valid UTF-8"},
        {"utf8-split-bad", kDefault, "", {}, 1007, "text message is not valid UTF-8"},
        {"utf8-split-good", kDefault, "", {{1, "ab\xe2\x82\xac"}}, 0, ""},
        {"mixed", kDefault, "", {{2, "bin1bin2"}, {1, "text"}}, 0, ""},
    };
    int id = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name + " limit " + std::to_string(c.limit));
        log->Clear();
        const std::string name = c.name + "/" + std::to_string(++id);
        Transfer t(Ws().Url("/hostile/" + name), HTTP_REQ_WEBSOCKET);
        if (c.limit != kDefault) EXPECT_EQ(t->SetWsMaxMessageSize(c.limit), 0);
        ASSERT_EQ(frame->AddHttpReq(t.h, true, nullptr, nullptr), 0);
        ASSERT_TRUE(t.rec->AwaitState(WS_STATE_OPEN));
        size_t sent = 0;
        if (!c.send.empty()) EXPECT_EQ(t->SendWsData(Bytes(c.send), WS_MSG_BINARY, &sent), 0);
        if (c.closeCode == 0) {
            ASSERT_TRUE(t.rec->AwaitMessages(c.want.size()));
            // The message sent last comes back last: nothing else is on its way.
            EXPECT_EQ(t->SendWsData(Bytes("end"), WS_MSG_TEXT, &sent), 0);
            ASSERT_TRUE(t.rec->AwaitMessages(c.want.size() + 1));
            auto got = t.rec->Get(&Recorder::messages);
            for (size_t i = 0; i < c.want.size(); ++i) {
                EXPECT_EQ(got[i].first, c.want[i].first) << "message " << i;
                EXPECT_TRUE(got[i].second == c.want[i].second) << "message " << i << ": " << got[i].second.size() << " bytes";
            }
            EXPECT_EQ(t.rec->Get(&Recorder::states), std::vector<int>{WS_STATE_OPEN});
            EXPECT_EQ(t.Del(frame), 0);
            continue;
        }
        ASSERT_TRUE(t.rec->AwaitState(WS_STATE_ERROR));
        EXPECT_TRUE(t.rec->Get(&Recorder::messages).empty()) << "part of a refused message was delivered";
        EXPECT_EQ(t.rec->Get(&Recorder::states), (std::vector<int>{WS_STATE_OPEN, WS_STATE_ERROR}));
        EXPECT_NE(t->GetErrorText().find(c.error), std::string::npos) << t->GetErrorText();
        EXPECT_EQ(log->CountContaining(" WS FAIL [" + std::to_string(c.closeCode) + "] " + c.error, 60), 1u);
        EXPECT_EQ(t->SendWsData(Bytes("late"), WS_MSG_TEXT, &sent), 0) << "handed on, and dropped";
        EXPECT_TRUE(Await([&] { return t->GetWsBufferedAmount() == 0; }, "nothing left waiting"));
        EXPECT_EQ(t.Del(frame), 0);
        const ServerReport r = Report(frame, name);
        EXPECT_EQ(r.code, c.closeCode);
        EXPECT_LE(r.sent, static_cast<long long>(24 * kMiB)) << "the server went on long after the limit";
    }
}

// A server that never reads: SendWsData refuses what would pass the bound and
// the waiting bytes never exceed it; after the end nothing is left counted.
TEST(WsLimits, SendBufferBoundAgainstAPeerThatNeverReads) {
    ScopedCaptureLogger log;
    Frame frame;
    const size_t bound = kMiB, piece = 256 * 1024;
    Transfer t(Ws().Url("/hostile/deaf/1"), HTTP_REQ_WEBSOCKET);
    EXPECT_EQ(t->SetWsMaxSendBuffer(bound), 0);
    ASSERT_EQ(frame->AddHttpReq(t.h, true, nullptr, nullptr), 0);
    ASSERT_TRUE(t.rec->AwaitState(WS_STATE_OPEN));
    size_t sent = 0;
    EXPECT_EQ(t->SendWsData(Bytes(std::string(bound + 1, 'x')), WS_MSG_BINARY, &sent), -1) << "larger than the bound";
    EXPECT_EQ(t->GetWsBufferedAmount(), 0u);
    EXPECT_TRUE(log->Has("[NETLOOP]ws send refused: 0 bytes waiting, 1048577 more would pass the limit 1048576", 60));
    // Kernel buffers take several MiB first; 400 pieces are 100 MiB.
    const auto payload = Bytes(Pattern(piece));
    size_t accepted = 0;
    int refusals = 0;
    for (int i = 0; i < 400 && refusals < 20; ++i) {
        if (t->SendWsData(payload, WS_MSG_BINARY, &sent) == 0) {
            accepted += piece;
        } else {
            ++refusals;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        const size_t waiting = t->GetWsBufferedAmount();
        ASSERT_LE(waiting, bound);
        ASSERT_LE(waiting, accepted);
    }
    EXPECT_EQ(refusals, 20) << "the bound was never reached after " << accepted << " bytes";
    EXPECT_GT(t->GetWsBufferedAmount(), 0u);
    EXPECT_EQ(t.Del(frame), 0);
    EXPECT_EQ(t->GetWsBufferedAmount(), 0u) << "what waited was dropped with the connection";
}

}  // namespace
