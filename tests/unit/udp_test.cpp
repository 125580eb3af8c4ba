// UDP handles on a running frame against loopback echo peers: connect, echo,
// close, refusals, connect failures, names through the resolver, many senders.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "FrameTestKit.h"
#include "frame/HttpFrame.h"
#include "support/CaptureLogger.h"
#include "support/EventList.h"
#include "support/FakeResolver.h"
#include "loopback/UdpEchoPeer.h"
#include "support/Wait.h"
#include "udp/UdpHandle.h"

using namespace netloop;
using namespace std::chrono_literals;
using testsupport::FakeResolver;
using testsupport::ScopedCaptureLogger;
using testsupport::ScopedResolver;
using testsupport::UdpEchoPeer;
using testsupport::WaitUntil;

using frametest::LoopTid;
using frametest::StartFrame;

namespace {

UdpEchoPeer::Options PeerOn(bool ipv6) {
    UdpEchoPeer::Options options;
    options.ipv6 = ipv6;
    options.maxRecords = 64;
    return options;
}

std::vector<std::string> Payloads(const UdpEchoPeer& peer) {
    std::vector<std::string> out;
    for (const auto& d : peer.Received()) out.push_back(d.payload);
    return out;
}

struct Event {
    std::string what;
    int32_t tid;
    void* userData;
};

// Records notices and done functions in order, with thread and user pointer.
// The hooks run on the notice's thread after the event is recorded.
class Recorder : public IUdpHandleNotic, public testsupport::EventList<Event> {
public:
    using DataHook = std::function<void(const std::string&)>;
    void SetOnData(DataHook hook, bool keepData = true) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_OnData = std::move(hook);
        m_KeepData = keepData;
    }

    void OnUdpState(std::shared_ptr<IUdpHandleInterface>, int status, void* userData) override {
        Add("state:" + std::to_string(status), userData);
    }
    void OnUdpData(const char* data, int64_t size, const char* peerIp, void* userData) override {
        std::string payload(data, static_cast<size_t>(size));
        DataHook hook;
        bool keep = false;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            hook = m_OnData;
            keep = m_KeepData;
            if (m_KeepData) {
                m_Data.push_back(payload);
                m_Peers.emplace_back(peerIp);
            }
        }
        if (keep) Add("data", userData);
        if (hook) hook(payload);
    }
    UdpDoneFunc Done(std::string what, std::function<void(std::shared_ptr<IUdpHandleInterface>)> then = nullptr) {
        return [this, what, then](std::shared_ptr<IUdpHandleInterface> handle, void* userData, int rc) {
            Add(what + ":" + std::to_string(rc), userData);
            if (then) then(handle);
        };
    }
    void Add(std::string what, void* userData = nullptr) { Push({std::move(what), sysutil::GetTid(), userData}); }
    std::vector<std::string> Data() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Data;
    }
    std::vector<std::string> Peers() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Peers;
    }

private:
    std::mutex m_Mutex;
    DataHook m_OnData;
    bool m_KeepData = true;
    std::vector<std::string> m_Data, m_Peers;
};

std::shared_ptr<std::vector<uint8_t>> Bytes(const std::string& s) {
    return std::make_shared<std::vector<uint8_t>>(s.begin(), s.end());
}

std::shared_ptr<CUdpHandle> Impl(const std::shared_ptr<IUdpHandleInterface>& handle) {
    return std::static_pointer_cast<CUdpHandle>(handle);
}

// The library's lines that matter (level 20 and up), as "text@level".
std::vector<std::string> Lines(const testsupport::CaptureLogger& log) {
    std::vector<std::string> out;
    for (const auto& l : log.Lines())
        if (l.level >= 20) out.push_back(l.text + "@" + std::to_string(l.level));
    return out;
}

std::string Peer(const std::string& host, int port) { return "[" + host + ":" + std::to_string(port) + "]"; }

TEST(Udp, EchoesWholeDatagramsOverIpv4AndIpv6) {
    ScopedCaptureLogger log;
    auto frame = StartFrame();
    const int32_t loopTid = LoopTid(frame);
    for (bool ipv6 : {false, true}) {
        UdpEchoPeer peer(PeerOn(ipv6));
        const std::string host = peer.Host();
        SCOPED_TRACE(host);
        log->Clear();
        int marker = 0;
        auto rec = std::make_shared<Recorder>();
        auto handle = IUdpHandleInterface::Create(rec, host.c_str(), peer.Port(), &marker);
        std::weak_ptr<IUdpHandleInterface> weak = handle;
        // On the loop thread: "A" is answered with "B" at once, "bye" deletes.
        rec->SetOnData([&, weak](const std::string& payload) {
            auto self = weak.lock();
            if (payload == "A") {
                EXPECT_EQ(self->SendUdpData(Bytes("B")), 0);
            }
            if (payload != "bye") return;
            EXPECT_EQ(frame->DelUdpReq(self, false, rec->Done("del"), &marker), 0);
            rec->Add("after-del");
        });
        ASSERT_EQ(frame->AddUdpReq(handle, false, rec->Done("add"), &marker), 0);
        ASSERT_TRUE(rec->WaitCount("add:0", 1));
        EXPECT_EQ(rec->Names(), (std::vector<std::string>{"state:0", "add:0"}));
        EXPECT_EQ(Impl(handle)->Ip(), host);
        EXPECT_EQ(Impl(handle)->IsIpv4(), !ipv6);

        std::string big(65507, '\0');
        for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + 1);
        const std::vector<std::string> sent = {"", "A", std::string(1400, 'm'), big};
        for (const auto& s : sent) EXPECT_EQ(handle->SendUdpData(Bytes(s)), 0);
        ASSERT_TRUE(peer.WaitForDatagrams(5, 10s));
        ASSERT_TRUE(rec->WaitCount("data", 4));
        std::this_thread::sleep_for(50ms);
        // The empty datagram went out first and came back without a notice.
        EXPECT_EQ(Payloads(peer)[0], "");
        auto got = rec->Data();
        std::vector<std::string> want = {"A", "B", sent[2], big};
        std::sort(got.begin(), got.end());
        std::sort(want.begin(), want.end());
        EXPECT_EQ(got, want);
        EXPECT_EQ(rec->Peers(), std::vector<std::string>(4, host));

        EXPECT_EQ(handle->SendUdpData(Bytes("bye")), 0);
        ASSERT_TRUE(rec->WaitCount("state:-2", 1));
        std::this_thread::sleep_for(50ms);
        auto names = rec->Names();
        // The closed status comes on a later pass than the delete's done.
        EXPECT_EQ(std::vector<std::string>(names.end() - 4, names.end()),
                  (std::vector<std::string>{"data", "del:0", "after-del", "state:-2"}));
        for (const auto& e : rec->Events()) {
            EXPECT_EQ(e.tid, loopTid) << e.what;
            if (e.what != "after-del") {
                EXPECT_EQ(e.userData, &marker) << e.what;
            }
        }

        // Closed for good: no sends, and a handle carries one connection.
        EXPECT_EQ(handle->SendUdpData(Bytes("late")), -1);
        ASSERT_EQ(frame->AddUdpReq(handle, false, rec->Done("re-add"), nullptr), 0);
        ASSERT_TRUE(rec->WaitCount("re-add:-1", 1));
        EXPECT_EQ(Lines(*log), (std::vector<std::string>{"[NETLOOP]Udp connect" + Peer(host, peer.Port()) + " succ@20",
                                                        "[NETLOOP]Init udp handle failed@60"}));
        EXPECT_EQ(rec->Count("state:0"), 1u);
        handle.reset();
        EXPECT_TRUE(weak.expired());
    }
    EXPECT_EQ(frame->Stop(false), 0);
}

TEST(Udp, RefusesWhatTheConnectionCannotTake) {
    ScopedCaptureLogger log;
    auto frame = StartFrame();
    UdpEchoPeer peer(PeerOn(false));
    auto rec = std::make_shared<Recorder>();
    auto handle = IUdpHandleInterface::Create(rec, "127.0.0.1", peer.Port(), nullptr);

    // Not connected: sends are refused quietly, a delete does nothing but answer.
    EXPECT_EQ(handle->SendUdpData(Bytes("x")), -1);
    EXPECT_EQ(handle->SendUdpData(nullptr), -1);
    ASSERT_EQ(frame->DelUdpReq(handle, false, rec->Done("del-idle"), nullptr), 0);
    ASSERT_TRUE(rec->WaitCount("del-idle:0", 1));
    EXPECT_EQ(rec->Names(), (std::vector<std::string>{"del-idle:0"}));

    // A second add leaves the connection alone.
    ASSERT_EQ(frame->AddUdpReq(handle, false, rec->Done("add"), nullptr), 0);
    ASSERT_EQ(frame->AddUdpReq(handle, false, rec->Done("add-again"), nullptr), 0);
    ASSERT_TRUE(rec->WaitCount("add-again:-1", 1));
    // It belongs to its frame: another frame's loop must not touch the socket.
    auto second = StartFrame();
    ASSERT_EQ(second->AddUdpReq(handle, false, rec->Done("add-elsewhere"), nullptr), 0);
    ASSERT_EQ(second->DelUdpReq(handle, false, rec->Done("del-elsewhere"), nullptr), 0);
    ASSERT_TRUE(rec->WaitCount("del-elsewhere:-1", 1));
    EXPECT_EQ(rec->Count("add-elsewhere:-1"), 1u);
    EXPECT_EQ(second->Stop(false), 0);
    EXPECT_EQ(handle->SendUdpData(nullptr), -1);
    EXPECT_EQ(handle->SendUdpData(Bytes("x")), 0);
    ASSERT_TRUE(rec->WaitCount("data", 1));

    // A send queued behind a notice that deletes the handle directly is
    // overtaken by the delete and dropped without a word.
    std::mutex m;
    std::condition_variable cv;
    bool inNotice = false, queued = false;
    rec->SetOnData([&](const std::string& payload) {
        if (payload != "y") return;
        std::unique_lock<std::mutex> lock(m);
        inNotice = true;
        cv.notify_all();
        EXPECT_TRUE(cv.wait_for(lock, 10s, [&] { return queued; }));
        EXPECT_EQ(frame->DelUdpReq(handle, false, rec->Done("del"), nullptr), 0);
    });
    EXPECT_EQ(handle->SendUdpData(Bytes("y")), 0);
    {
        std::unique_lock<std::mutex> lock(m);
        ASSERT_TRUE(cv.wait_for(lock, 10s, [&] { return inNotice; }));
        EXPECT_EQ(handle->SendUdpData(Bytes("overtaken")), 0);
        queued = true;
        cv.notify_all();
    }
    ASSERT_TRUE(rec->WaitCount("state:-2", 1));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(Payloads(peer), (std::vector<std::string>{"x", "y"}));
    EXPECT_EQ(handle->SendUdpData(Bytes("z")), -1);
    EXPECT_EQ(Lines(*log), (std::vector<std::string>{"[NETLOOP]Udp connect[127.0.0.1:" + std::to_string(peer.Port()) +
                                                        "] succ@20",
                                                    "[NETLOOP]Init udp handle failed@60",
                                                    "[NETLOOP]Init udp handle failed@60"}));

    // A stop made from a notice: a queued add is answered -1, sends are refused
    // with a line, and the socket can still be deleted on the loop thread.
    log->Clear();
    auto other = std::make_shared<Recorder>();
    auto queuedAdd = IUdpHandleInterface::Create(other, "127.0.0.1", peer.Port(), nullptr);
    auto last = std::make_shared<Recorder>();
    auto lastHandle = IUdpHandleInterface::Create(last, "127.0.0.1", peer.Port(), nullptr);
    last->SetOnData([&](const std::string&) {
        EXPECT_EQ(frame->AddUdpReq(queuedAdd, true, other->Done("add"), nullptr), 0);
        EXPECT_EQ(frame->Stop(false), 0);
        EXPECT_EQ(lastHandle->SendUdpData(Bytes("after-stop")), -1);
        EXPECT_EQ(frame->DelUdpReq(lastHandle, false, last->Done("del"), nullptr), 0);
    });
    ASSERT_EQ(frame->AddUdpReq(lastHandle, false, nullptr, nullptr), 0);
    ASSERT_TRUE(last->WaitCount("state:0", 1));
    EXPECT_EQ(lastHandle->SendUdpData(Bytes("stop")), 0);
    auto impl = std::static_pointer_cast<CHttpFrame>(frame);
    ASSERT_TRUE(WaitUntil([&] { return impl->m_State.load() == FrameIdle; }));
    EXPECT_EQ(other->Names(), (std::vector<std::string>{"add:-1"}));
    EXPECT_EQ(last->Names(), (std::vector<std::string>{"state:0", "data", "del:0", "state:-2"}));
    EXPECT_EQ(log->Count("[NETLOOP]Can not send udp data req now", 60), 1u);
}

// Takes every descriptor below a lowered limit, so the next socket() fails
// with EMFILE; gives them back when it goes.
class DescriptorsExhausted {
public:
    DescriptorsExhausted() {
        getrlimit(RLIMIT_NOFILE, &m_Old);
        rlimit low = m_Old;
        low.rlim_cur = std::min<rlim_t>(m_Old.rlim_cur, 512);
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
        for (int i = 0; i < 1024; ++i) {
            int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            if (fd < 0) break;
            m_Fds.push_back(fd);
        }
        EXPECT_LT(m_Fds.size(), 1024u);
    }
    ~DescriptorsExhausted() {
        for (int fd : m_Fds) ::close(fd);
        setrlimit(RLIMIT_NOFILE, &m_Old);
    }

private:
    rlimit m_Old{};
    std::vector<int> m_Fds;
};

TEST(Udp, ConnectFailuresCloseTheSocketAndLeaveTheHandleReusable) {
    ScopedCaptureLogger log;
    auto frame = StartFrame();
    struct Case {
        const char* host;
        std::string line;
    };
    // Addresses that libuv takes but the kernel will not connect to.
    const Case cases[] = {
        {"255.255.255.255", "[NETLOOP]uv_udp_connect[255.255.255.255] failed[" + std::to_string(UV_EACCES) + "]"},
        {"fe80::1", "[NETLOOP]uv_udp_connect[fe80::1] failed[" + std::to_string(UV_EINVAL) + "]"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.host);
        log->Clear();
        auto rec = std::make_shared<Recorder>();
        auto handle = IUdpHandleInterface::Create(rec, c.host, 9, nullptr);
        std::weak_ptr<IUdpHandleInterface> weak = handle;
        // An add from the done function finds libuv still closing the socket.
        auto nested = [&](std::shared_ptr<IUdpHandleInterface> self) {
            EXPECT_EQ(frame->AddUdpReq(self, false, rec->Done("nested"), nullptr), -1);
        };
        ASSERT_EQ(frame->AddUdpReq(handle, false, rec->Done("add", nested), nullptr), 0);
        ASSERT_TRUE(rec->WaitCount("nested:-1", 1));
        const std::string failed = "[NETLOOP]Udp connect[" + std::string(c.host) + ":9] failed@60";
        const std::string initFailed = "[NETLOOP]Init udp handle failed@60";
        EXPECT_EQ(rec->Names(), (std::vector<std::string>{"state:-1", "state:-2", "add:-1", "nested:-1"}));
        EXPECT_EQ(Lines(*log), (std::vector<std::string>{c.line + "@60", failed, initFailed, initFailed}));

        // Once the close has finished the handle connects again as far as the
        // address lets it; dropped, it goes away.
        ASSERT_EQ(frame->AddUdpReq(handle, false, rec->Done("again"), nullptr), 0);
        ASSERT_TRUE(rec->WaitCount("again:-1", 1));
        EXPECT_EQ(log->Count(c.line, 60), 2u);
        EXPECT_EQ(Impl(handle)->State(), UDP_HANDLE_IDLE);
        handle.reset();
        EXPECT_TRUE(WaitUntil([&] { return weak.expired(); }));
    }

    EXPECT_EQ(frame->Stop(false), 0);
}

// A failure that goes away: out of descriptors, then not. The name is looked
// up once; the second add connects with the address it already has.
TEST(Udp, AFailedConnectIsRetriedWithTheAddressAlreadyFound) {
#if defined(__SANITIZE_ADDRESS__)
    // That build also checks dynamic types, and the check opens a pipe: it
    // cannot run while every descriptor is taken.
    GTEST_SKIP() << "needs free descriptors for the sanitizer's own checks";
#endif
    ScopedCaptureLogger log;
    auto frame = StartFrame();
    auto fake = std::make_shared<FakeResolver>();
    ScopedResolver installed(fake);
    UdpEchoPeer peer(PeerOn(false));
    fake->Set("peer.test", FakeResolver::Script::AtOnce({"127.0.0.1"}));
    auto rec = std::make_shared<Recorder>();
    auto handle = IUdpHandleInterface::Create(rec, "peer.test", peer.Port(), nullptr);
    log->Clear();
    {
        DescriptorsExhausted exhausted;
        ASSERT_EQ(frame->AddUdpReq(handle, false, rec->Done("add"), nullptr), 0);
        ASSERT_TRUE(rec->WaitCount("add:-1", 1));
    }
    EXPECT_EQ(Lines(*log), (std::vector<std::string>{"[NETLOOP]uv_udp_bind failed[" + std::to_string(UV_EMFILE) + "]@60",
                                                    "[NETLOOP]Udp connect" + Peer("peer.test", peer.Port()) +
                                                        " failed@60",
                                                    "[NETLOOP]Init udp handle failed@60"}));
    ASSERT_EQ(frame->AddUdpReq(handle, false, rec->Done("again"), nullptr), 0);
    ASSERT_TRUE(rec->WaitCount("again:0", 1));
    EXPECT_EQ(fake->RequestCount("peer.test"), 1u);
    EXPECT_EQ(handle->SendUdpData(Bytes("ok")), 0);
    ASSERT_TRUE(rec->WaitCount("data", 1));
    EXPECT_EQ(rec->Names(), (std::vector<std::string>{"state:-1", "state:-2", "add:-1", "state:0", "again:0", "data"}));
    ASSERT_EQ(frame->DelUdpReq(handle, false, nullptr, nullptr), 0);
    ASSERT_TRUE(rec->WaitCount("state:-2", 2));
    EXPECT_EQ(frame->Stop(false), 0);
}

TEST(Udp, NamesAreLookedUpOnceAndAnsweredAtOnceOrLate) {
    ScopedCaptureLogger log;
    auto fake = std::make_shared<FakeResolver>();
    ScopedResolver installed(fake);
    UdpEchoPeer peer4(PeerOn(false)), peer6(PeerOn(true));
    auto frame = StartFrame();
    const int32_t loopTid = LoopTid(frame);
    using Script = FakeResolver::Script;
    struct Case {
        const char* host;
        Script script;
        const char* ip;  // the address chosen; null when the look-up fails
    };
    const Case cases[] = {
        {"now.test", Script::AtOnce({"127.0.0.1"}), "127.0.0.1"},
        {"late.test", Script::Late({"127.0.0.1"}, 30ms), "127.0.0.1"},
        {"both.test", Script::Late({"::1", "127.0.0.1"}), "127.0.0.1"},
        {"v6.test", Script::AtOnce({"::1"}), "::1"},
        {"v6late.test", Script::Late({"::1"}), "::1"},
        {"fail.test", Script::FailLate(EAI_NONAME, 20ms), nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.host);
        log->Clear();
        fake->Set(c.host, c.script);
        const bool v6 = c.ip != nullptr && std::string(c.ip) == "::1";
        const int port = v6 ? peer6.Port() : peer4.Port();
        auto rec = std::make_shared<Recorder>();
        int marker = 0;
        auto handle = IUdpHandleInterface::Create(rec, c.host, port, &marker);
        ASSERT_EQ(frame->AddUdpReq(handle, false, rec->Done("add"), &marker), 0);
        ASSERT_TRUE(WaitUntil([&] { return rec->Count("add:0") + rec->Count("add:-1") == 1; }));
        ASSERT_TRUE(fake->WaitIdle(10s));
        std::this_thread::sleep_for(30ms);

        ASSERT_EQ(fake->RequestCount(c.host), 1u);
        const auto request = fake->Requests().back();
        EXPECT_TRUE(request.withNotice);
        EXPECT_EQ(request.family, AF_UNSPEC);
        EXPECT_EQ(request.socktype, SOCK_STREAM);
        EXPECT_EQ(request.protocol, 0);
        EXPECT_EQ(request.flags, AI_ADDRCONFIG);
        const bool late = c.script.mode == Script::Mode::kLate;
        if (c.ip == nullptr) {
            // No socket was made: a failure without a closed status, and the
            // name is asked for again on the next add.
            EXPECT_EQ(rec->Names(), (std::vector<std::string>{"add:-1", "state:-1"}));
            EXPECT_EQ(Lines(*log), (std::vector<std::string>{"[NETLOOP]Net test Hostseek [" + std::string(c.host) +
                                                            "] failed@60"}));
            EXPECT_EQ(Impl(handle)->Ip(), "");
            ASSERT_EQ(frame->AddUdpReq(handle, false, rec->Done("add"), &marker), 0);
            ASSERT_TRUE(rec->WaitCount("state:-1", 2));
            EXPECT_EQ(fake->RequestCount(c.host), 2u);
            continue;
        }
        EXPECT_EQ(rec->Names(), (std::vector<std::string>{"state:0", "add:0"}));
        for (const auto& e : rec->Events()) {
            EXPECT_EQ(e.tid, loopTid);
            EXPECT_EQ(e.userData, &marker);
        }
        std::vector<std::string> lines;
        if (late)
            lines.push_back("[NETLOOP]Udp Net Test Hostseek[" + std::string(c.host) + "]->[" + c.ip + "] succ;@20");
        lines.push_back("[NETLOOP]Udp connect" + Peer(c.host, port) + " succ@20");
        EXPECT_EQ(Lines(*log), lines);
        EXPECT_EQ(Impl(handle)->Ip(), c.ip);
        EXPECT_EQ(Impl(handle)->IsIpv4(), !v6);
        EXPECT_EQ(handle->SendUdpData(Bytes(c.host)), 0);
        ASSERT_TRUE(rec->WaitCount("data", 1));
        EXPECT_EQ(rec->Peers(), std::vector<std::string>{c.ip});
        ASSERT_EQ(frame->DelUdpReq(handle, false, nullptr, nullptr), 0);
        ASSERT_TRUE(rec->WaitCount("state:-2", 1));
    }

    // The real resolver knows localhost; IPv4 is preferred.
    {
        ScopedResolver real(installed.Previous());
        auto rec = std::make_shared<Recorder>();
        auto handle = IUdpHandleInterface::Create(rec, "localhost", peer4.Port(), nullptr);
        ASSERT_EQ(frame->AddUdpReq(handle, false, rec->Done("add"), nullptr), 0);
        ASSERT_TRUE(rec->WaitCount("add:0", 1));
        EXPECT_EQ(Impl(handle)->Ip(), "127.0.0.1");
        EXPECT_EQ(handle->SendUdpData(Bytes("hi")), 0);
        ASSERT_TRUE(rec->WaitCount("data", 1));
        ASSERT_EQ(frame->DelUdpReq(handle, false, nullptr, nullptr), 0);
        ASSERT_TRUE(rec->WaitCount("state:-2", 1));
    }

    // The frame stops while the answer is on its way: the answer is taken but
    // the add is refused, and neither the done function nor the notice hears.
    fake->Set("held.test", Script::Never());
    auto rec = std::make_shared<Recorder>();
    auto handle = IUdpHandleInterface::Create(rec, "held.test", peer4.Port(), nullptr);
    ASSERT_EQ(frame->AddUdpReq(handle, false, rec->Done("add"), nullptr), 0);
    ASSERT_TRUE(WaitUntil([&] { return fake->HeldCount("held.test") == 1; }));
    EXPECT_EQ(frame->Stop(false), 0);
    log->Clear();
    EXPECT_EQ(fake->ReleaseHeld("held.test", Script::Late({"127.0.0.1"})), 1u);
    ASSERT_TRUE(fake->WaitIdle(10s));
    EXPECT_EQ(Lines(*log), (std::vector<std::string>{"[NETLOOP]Udp Net Test Hostseek[held.test]->[127.0.0.1] succ;@20",
                                                    "[NETLOOP]Can not add udp req now@60"}));
    EXPECT_TRUE(rec->Names().empty());
    EXPECT_EQ(Impl(handle)->Ip(), "127.0.0.1");
}

TEST(Udp, ManySendersEachDatagramComesBackOnceInOrder) {
    constexpr int kThreads = 4;
    constexpr uint32_t kWindow = 16;  // datagrams in flight per sender, so loopback buffers never overflow
    const uint32_t perThread = std::getenv("NETLOOP_SANITIZED") ? 2500 : 25000;
    UdpEchoPeer peer(PeerOn(false));
    auto frame = StartFrame();
    std::atomic<uint32_t> back[kThreads] = {};
    std::atomic<int> disorder{0};
    auto rec = std::make_shared<Recorder>();
    rec->SetOnData([&](const std::string& payload) {
        uint32_t seq;
        std::memcpy(&seq, payload.data() + 1, sizeof(seq));
        auto& count = back[static_cast<int>(payload[0])];
        if (seq != count.load()) ++disorder;
        count.store(seq + 1);
    }, false);
    std::weak_ptr<IUdpHandleInterface> weak;
    {
        auto handle = IUdpHandleInterface::Create(rec, "127.0.0.1", peer.Port(), nullptr);
        weak = handle;
        ASSERT_EQ(frame->AddUdpReq(handle, false, rec->Done("add"), nullptr), 0);
        ASSERT_TRUE(rec->WaitCount("add:0", 1));
    }
    // The application holds no reference any more; the open socket keeps the
    // handle, and each sender borrows it only for a call.
    ASSERT_FALSE(weak.expired());
    std::atomic<bool> stalled{false};
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t)
        senders.emplace_back([&, t] {
            for (uint32_t seq = 0; seq < perThread && !stalled; ++seq) {
                auto deadline = std::chrono::steady_clock::now() + 10s;
                while (seq - back[t].load() >= kWindow) {
                    if (std::chrono::steady_clock::now() > deadline) {
                        stalled = true;
                        return;
                    }
                    std::this_thread::yield();
                }
                auto data = std::make_shared<std::vector<uint8_t>>(32, static_cast<uint8_t>(t));
                std::memcpy(data->data() + 1, &seq, sizeof(seq));
                auto handle = weak.lock();
                ASSERT_TRUE(handle);
                ASSERT_EQ(handle->SendUdpData(std::move(data)), 0);
            }
        });
    for (auto& th : senders) th.join();
    EXPECT_FALSE(stalled.load());
    EXPECT_TRUE(WaitUntil([&] {
        for (auto& b : back)
            if (b.load() != perThread) return false;
        return true;
    }));
    EXPECT_EQ(disorder.load(), 0);
    EXPECT_EQ(peer.ReceivedCount(), uint64_t{kThreads} * perThread);

    ASSERT_EQ(frame->DelUdpReq(weak.lock(), false, nullptr, nullptr), 0);
    ASSERT_TRUE(rec->WaitCount("state:-2", 1));
    EXPECT_TRUE(WaitUntil([&] { return weak.expired(); }));
    EXPECT_EQ(frame->Stop(false), 0);
}

}  // namespace
