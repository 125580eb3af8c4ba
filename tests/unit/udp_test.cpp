// Connected UDP sockets against socat, and names through hostseek.
#include "Kit.h"

namespace {

using namespace kit;

struct UdpRecorder : IUdpHandleNotic, Locked {
    std::vector<int> states;
    std::vector<std::string> data, peers;
    void OnUdpState(std::shared_ptr<IUdpHandleInterface>, int status, void*) override {
        std::lock_guard<std::mutex> lock(m);
        states.push_back(status);
    }
    void OnUdpData(const char* d, int64_t size, const char* peerIp, void*) override {
        std::lock_guard<std::mutex> lock(m);
        data.emplace_back(d, size);
        peers.emplace_back(peerIp);
    }
};

TEST(Udp, EchoOverBothFamiliesAndNames) {
    ScopedCaptureLogger log;
    Frame frame;
    UdpEcho v4, v6(Loopback::V6);
    auto scripted = std::make_shared<ScriptedResolver>(0, "127.0.0.1", false);
    struct Case {
        std::string host, peer;
        uint16_t port;
        bool scriptedName;
    };
    for (const Case& c : {Case{"127.0.0.1", "127.0.0.1", v4.Port(), false}, Case{"::1", "::1", v6.Port(), false},
                          Case{"echo.test", "127.0.0.1", v4.Port(), true}}) {
        SCOPED_TRACE(c.host);
        std::shared_ptr<IHostseekInterface> previous;
        if (c.scriptedName) {
            previous = IHostseekInterface::GetHostseekInstance(3, nullptr);
            IHostseekInterface::GetHostseekInstance(3, scripted);
        }
        log->Clear();
        auto rec = std::make_shared<UdpRecorder>();
        auto u = IUdpHandleInterface::Create(rec, c.host.c_str(), c.port, nullptr);
        EXPECT_EQ(u->SendUdpData(Bytes("early")), -1) << "not connected";
        Done added;
        std::atomic<size_t> statesAtDone{99};
        ASSERT_EQ(frame->AddUdpReq(u, true, [&, fn = added.Fn()](auto h, void* p, int rc) {
            statesAtDone = rec->Get(&UdpRecorder::states).size();
            fn(h, p, rc);
        }, nullptr), 0);
        ASSERT_EQ(added.Result("AddUdpReq's done"), 0);
        EXPECT_EQ(statesAtDone, 1u) << "OnUdpState(OK) comes before the done function";
        EXPECT_EQ(rec->Get(&UdpRecorder::states), std::vector<int>{UDP_STATUS_OK});
        EXPECT_TRUE(log->Has("[NETLOOP]Udp connect[" + c.host + ":" + std::to_string(c.port) + "] succ", 20));
        if (c.scriptedName) {
            EXPECT_TRUE(log->Has("[NETLOOP]Udp Net Test Hostseek[echo.test]->[127.0.0.1] succ;", 20));
            IHostseekInterface::GetHostseekInstance(3, previous);
        }
        EXPECT_EQ(u->SendUdpData(std::make_shared<std::vector<uint8_t>>()), -1) << "empty datagram";
        // socat gives a new peer its own child only once the first datagram
        // is in; one echo first keeps the burst from splitting between two.
        std::vector<std::string> sent{"first"};
        ASSERT_EQ(u->SendUdpData(Bytes("first")), 0);
        ASSERT_TRUE(Await([&] { return rec->Get(&UdpRecorder::data).size() == 1; }, "the first echo"));
        for (size_t size : {1, 100, 1400, 9000, 65000}) sent.push_back(Pattern(size));
        for (size_t i = 1; i < sent.size(); ++i) ASSERT_EQ(u->SendUdpData(Bytes(sent[i])), 0);
        ASSERT_TRUE(Await([&] { return rec->Get(&UdpRecorder::data).size() == sent.size(); }, "the echoes"));
        EXPECT_TRUE(rec->Get(&UdpRecorder::data) == sent);
        EXPECT_EQ(rec->Get(&UdpRecorder::peers), std::vector<std::string>(sent.size(), c.peer));
        // Another frame refuses a handle the first one owns.
        Frame other;
        Done foreign;
        other->AddUdpReq(u, true, foreign.Fn(), nullptr);
        EXPECT_EQ(foreign.Result("the other frame's add"), -1);
        Done closed;
        ASSERT_EQ(frame->DelUdpReq(u, true, closed.Fn(), nullptr), 0);
        ASSERT_EQ(closed.Result("DelUdpReq's done"), 0);
        ASSERT_TRUE(Await([&] { return rec->Get(&UdpRecorder::states).size() == 2; }, "OnUdpState(CLOSED)"));
        EXPECT_EQ(rec->Get(&UdpRecorder::states).back(), UDP_STATUS_CLOSED);
        EXPECT_EQ(u->SendUdpData(Bytes("late")), -1) << "closed";
    }
}

TEST(Udp, FailedNameAndStoppedFrame) {
    ScopedCaptureLogger log;
    auto previous = IHostseekInterface::GetHostseekInstance(3, nullptr);
    auto failing = std::make_shared<ScriptedResolver>(EAI_NONAME, "", false);
    IHostseekInterface::GetHostseekInstance(3, failing);
    {
        Frame frame;
        auto rec = std::make_shared<UdpRecorder>();
        auto u = IUdpHandleInterface::Create(rec, "nowhere.test", 9, nullptr);
        Done added;
        ASSERT_EQ(frame->AddUdpReq(u, true, added.Fn(), nullptr), 0);
        EXPECT_EQ(added.Result("the failed add's done"), -1);
        ASSERT_TRUE(Await([&] { return !rec->Get(&UdpRecorder::states).empty(); }, "OnUdpState(FAILED)"));
        EXPECT_EQ(rec->Get(&UdpRecorder::states), std::vector<int>{UDP_STATUS_FAILED});
        EXPECT_TRUE(log->Has("[NETLOOP]Net test Hostseek [nowhere.test] failed", 60));
        EXPECT_EQ(u->SendUdpData(Bytes("x")), -1);
    }
    IHostseekInterface::GetHostseekInstance(3, previous);

    UdpEcho echo;
    auto rec = std::make_shared<UdpRecorder>();
    auto u = IUdpHandleInterface::Create(rec, "127.0.0.1", echo.Port(), nullptr);
    Frame frame;
    Done added, closed;
    frame->AddUdpReq(u, true, added.Fn(), nullptr);
    ASSERT_EQ(added.Result(), 0);
    // A delete from the loop thread still runs while the frame stops.
    auto t = ITimerHandleInterface::Create([&](auto self, void*) {
        frame->DelTimerReq(self, false, nullptr, nullptr);
        frame->Stop(false);
        frame->DelUdpReq(u, false, closed.Fn(), nullptr);
    }, nullptr, 0, 0, nullptr);
    frame->AddTimerReq(t, true, nullptr, nullptr);
    ASSERT_EQ(closed.Result("the delete during the stop"), 0);
    EXPECT_EQ(u->SendUdpData(Bytes("x")), -1);
}

// What the library relies on of the resolver.
TEST(Platform, ResolverLiterals) {
    struct Literal {
        const char* text;
        bool v4, v6;
    };
    for (Literal l : {Literal{"127.0.0.1", true, false}, Literal{"::1", false, true},
                      Literal{"256.0.0.1", false, false}, Literal{"localhost", false, false}, Literal{"[::1]", false, false},
                      Literal{"", false, false}}) {
        EXPECT_EQ(IHostseekInterface::IsIpv4Literal(l.text), l.v4) << l.text;
        EXPECT_EQ(IHostseekInterface::IsIpv6Literal(l.text), l.v6) << l.text;
    }
    // localhost comes late the first time, at once once cached.
    struct Late : IHostseekResultNotic {
        std::atomic<int> calls{0};
        std::string v4, v6;
        void OnHostseekResult(int status, struct addrinfo* result, void*) override {
            if (status == 0) IHostseekInterface::Parse(result, v4, v6);
            ++calls;
        }
    };
    auto resolver = IHostseekInterface::GetHostseekInstance(3, nullptr);
    auto late = std::make_shared<Late>();
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* result = nullptr;
    if (resolver->ResolveHost("localhost", &hints, late, nullptr, &result) != 0) {
        ASSERT_TRUE(Await([&] { return late->calls == 1; }, "the resolver's late answer"));
        EXPECT_EQ(late->v4, "127.0.0.1");
    }
    ASSERT_EQ(resolver->ResolveHost("localhost", &hints, late, nullptr, &result), 0);
    std::string v4, v6 = "kept";
    IHostseekInterface::Parse(result, v4, v6);
    EXPECT_EQ(v4, "127.0.0.1");
    EXPECT_EQ(v6, "kept");
}

}  // namespace
