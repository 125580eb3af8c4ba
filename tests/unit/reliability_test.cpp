// Faults the soak brought up, each pinned down by a test of its own.
//
// StopRace: calls from application threads that meet a frame stop halfway. A
// call that the frame can no longer carry out must say so (-1) and never
// leave a done function waiting that will not come. The race is made
// deterministic from inside: the test holds the frame's queue mutex while the
// caller has passed its running check and waits for the queue, and takes the
// frame out of the running state under that mutex, exactly as the loop's stop
// does.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "FrameTestKit.h"
#include "frame/HttpFrame.h"
#include "support/CaptureLogger.h"
#include "loopback/UdpEchoPeer.h"
#include "loopback/WsTestServer.h"
#include "support/Wait.h"

using namespace netloop;
using namespace std::chrono_literals;
using testsupport::ScopedCaptureLogger;
using testsupport::WaitUntil;

using frametest::StartFrame;

namespace {

// Runs `call` on a thread of its own while the queue is closed under its
// feet: returns what `call` returned.
int CallWhileTheFrameStops(const std::shared_ptr<IHttpInterface>& frame, std::function<int()> call) {
    auto impl = std::static_pointer_cast<CHttpFrame>(frame);
    std::promise<int> result;
    std::future<int> returned = result.get_future();
    std::thread caller;
    {
        std::unique_lock<std::mutex> queue(impl->m_Mutex);
        caller = std::thread([&] { result.set_value(call()); });
        // The caller checks that the frame runs, then waits here for the queue.
        std::this_thread::sleep_for(200ms);
        impl->m_Running.store(false);
    }
    caller.join();
    int rc = returned.get();
    {
        // Running again, so that the frame can be stopped the ordinary way.
        std::lock_guard<std::mutex> queue(impl->m_Mutex);
        impl->m_Running.store(true);
    }
    return rc;
}

}  // namespace

TEST(StopRace, TimerStopOrAgainThatMeetsTheStopIsRefusedAndNeverReports) {
    ScopedCaptureLogger log;
    auto frame = StartFrame();
    std::atomic<int> doneCalls{0};
    std::atomic<int> closes{0};
    auto timer = ITimerHandleInterface::Create(
        nullptr, [&](std::shared_ptr<ITimerHandleInterface>, void*) { closes.fetch_add(1); }, 100000, 100000,
        nullptr);
    std::promise<int> added;
    ASSERT_EQ(frame->AddTimerReq(
                  timer, false, [&](std::shared_ptr<ITimerHandleInterface>, void*, int rc) { added.set_value(rc); },
                  nullptr),
              0);
    auto addedResult = added.get_future();
    ASSERT_EQ(addedResult.wait_for(10s), std::future_status::ready);
    ASSERT_EQ(addedResult.get(), 0);
    // Deleted first, as the application must before a stop; a stop or again
    // on a closed timer is fine and reports 0 when it runs.
    ASSERT_EQ(frame->DelTimerReq(timer, false, nullptr, nullptr), 0);
    ASSERT_TRUE(WaitUntil([&] { return closes.load() == 1; }));

    auto done = [&](std::shared_ptr<ITimerHandleInterface>, void*, int) { doneCalls.fetch_add(1); };
    EXPECT_EQ(CallWhileTheFrameStops(frame, [&] { return timer->StopTimer(done, nullptr); }), -1);
    EXPECT_EQ(CallWhileTheFrameStops(frame, [&] { return timer->AgainTimer(done, nullptr); }), -1);
    EXPECT_EQ(frame->Stop(false), 0);
    EXPECT_EQ(doneCalls.load(), 0);
    EXPECT_EQ(log->Count("[NETLOOP]Can not add timer req now", 60), 2u);
}

TEST(StopRace, UdpSendThatMeetsTheStopIsRefused) {
    ScopedCaptureLogger log;
    testsupport::UdpEchoPeer peer;
    auto frame = StartFrame();
    auto udp = IUdpHandleInterface::Create(nullptr, "127.0.0.1", peer.Port(), nullptr);
    std::promise<int> added;
    ASSERT_EQ(frame->AddUdpReq(
                  udp, false, [&](std::shared_ptr<IUdpHandleInterface>, void*, int rc) { added.set_value(rc); },
                  nullptr),
              0);
    auto addedResult = added.get_future();
    ASSERT_EQ(addedResult.wait_for(10s), std::future_status::ready);
    ASSERT_EQ(addedResult.get(), 0);

    auto data = std::make_shared<std::vector<uint8_t>>(16, 7);
    EXPECT_EQ(CallWhileTheFrameStops(frame, [&] { return udp->SendUdpData(data); }), -1);
    EXPECT_EQ(udp->SendUdpData(data), 0);  // the socket itself is fine
    EXPECT_TRUE(peer.WaitForDatagrams(1, 10s));
    EXPECT_EQ(peer.ReceivedCount(), 1u);

    std::promise<int> deleted;
    ASSERT_EQ(frame->DelUdpReq(
                  udp, false, [&](std::shared_ptr<IUdpHandleInterface>, void*, int rc) { deleted.set_value(rc); },
                  nullptr),
              0);
    EXPECT_EQ(deleted.get_future().wait_for(10s), std::future_status::ready);
    EXPECT_EQ(frame->Stop(false), 0);
}

namespace {

class WsOpen : public IHttpHandleNotic {
public:
    void OnWsData(const char*, size_t, int, void*) override { messages.fetch_add(1); }
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int, void*) override { finishes.fetch_add(1); }
    void OnWsState(std::shared_ptr<IHttpHandleInterface>, int state, void*) override {
        if (state == WS_STATE_OPEN) opened.fetch_add(1);
        if (state == WS_STATE_FAILED) failed.fetch_add(1);
        if (state == WS_STATE_CLOSED) closed.fetch_add(1);
    }
    std::atomic<int> closed{0};
    std::atomic<int> opened{0};
    std::atomic<int> failed{0};
    std::atomic<int> finishes{0};
    std::atomic<int> messages{0};
};

}  // namespace

TEST(StopRace, WsSendAndDisconnectThatMeetTheStopAreRefused) {
    ScopedCaptureLogger log;
    testsupport::WsTestServer server;
    auto frame = StartFrame();
    auto notice = std::make_shared<WsOpen>();
    auto ws = IHttpHandleInterface::Create();
    ASSERT_EQ(ws->InitHttpReq(server.Url("/echo").c_str(), "ws", HTTP_REQ_WEBSOCKET, notice, 5000, 0, nullptr), 0);
    ASSERT_EQ(frame->AddHttpReq(ws, false, nullptr, nullptr), 0);
    ASSERT_TRUE(WaitUntil([&] { return notice->opened.load() == 1; }));

    auto text = std::make_shared<std::vector<uint8_t>>(5, 'x');
    size_t sent = 0;
    EXPECT_EQ(CallWhileTheFrameStops(frame, [&] { return ws->SendWsData(text, WS_MSG_TEXT, &sent); }), -1);
    EXPECT_EQ(CallWhileTheFrameStops(frame, [&] { return ws->Disconnect(); }), -1);
    // Nothing was dropped behind the application's back: the connection is
    // still open and echoes what is sent now.
    EXPECT_EQ(ws->SendWsData(text, WS_MSG_TEXT, &sent), 0);
    EXPECT_TRUE(WaitUntil([&] { return notice->messages.load() == 1; }));
    EXPECT_EQ(server.MessageCount(), 1u);

    std::promise<int> deleted;
    ASSERT_EQ(frame->DelHttpReq(
                  ws, false, [&](std::shared_ptr<IHttpHandleInterface>, void*, int rc) { deleted.set_value(rc); },
                  nullptr),
              0);
    EXPECT_EQ(deleted.get_future().wait_for(10s), std::future_status::ready);
    EXPECT_EQ(frame->Stop(false), 0);
}

// A WebSocket transfer that libcurl never gave a connection is still a
// WebSocket. Here it waits for a free connection under the frame's per-host
// limit past its connect time-out; when a connection frees up, libcurl ends it
// at once with a time-out, before it ever had a connection of its own. That
// end is OnWsState(WS_STATE_FAILED) with the WS END line, never OnFinish.
TEST(WsPending, AConnectionThatNeverGotASocketFailsAsAWebSocket) {
    ScopedCaptureLogger log;
    testsupport::WsTestServer server;
    auto frame = IHttpInterface::Create();
    ASSERT_EQ(frame->Init(nullptr, true, false, nullptr), 0);  // at most 2 connections per host
    ASSERT_EQ(frame->Start(true), 0);

    struct Conn {
        std::shared_ptr<WsOpen> notice = std::make_shared<WsOpen>();
        std::shared_ptr<IHttpHandleInterface> handle = IHttpHandleInterface::Create();
    };
    std::vector<Conn> open(2);
    for (Conn& c : open) {
        ASSERT_EQ(c.handle->InitHttpReq(server.Url("/").c_str(), "ws", HTTP_REQ_WEBSOCKET, c.notice, 5000, 0, nullptr),
                  0);
        ASSERT_EQ(frame->AddHttpReq(c.handle, false, nullptr, nullptr), 0);
    }
    ASSERT_TRUE(WaitUntil([&] { return open[0].notice->opened.load() == 1 && open[1].notice->opened.load() == 1; }));

    Conn waiting;
    ASSERT_EQ(waiting.handle->InitHttpReq(server.Url("/").c_str(), "ws", HTTP_REQ_WEBSOCKET, waiting.notice, 300, 0,
                                          nullptr),
              0);
    ASSERT_EQ(frame->AddHttpReq(waiting.handle, false, nullptr, nullptr), 0);
    std::this_thread::sleep_for(600ms);  // past its connect time-out, still waiting
    EXPECT_EQ(waiting.notice->opened.load() + waiting.notice->failed.load() + waiting.notice->finishes.load(), 0);
    // One of the two goes: the server drops it without a close frame.
    size_t sent = 0;
    const std::string drop = "cmd:drop";
    ASSERT_EQ(open[0].handle->SendWsData(std::make_shared<std::vector<uint8_t>>(drop.begin(), drop.end()),
                                         WS_MSG_TEXT, &sent),
              0);
    ASSERT_TRUE(WaitUntil([&] { return open[0].notice->closed.load() == 1; }));
    ASSERT_TRUE(WaitUntil([&] {
        return waiting.notice->opened.load() + waiting.notice->failed.load() + waiting.notice->finishes.load() != 0;
    }));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(waiting.notice->finishes.load(), 0);
    EXPECT_EQ(waiting.notice->failed.load(), 1);
    EXPECT_EQ(waiting.notice->opened.load(), 0);
    EXPECT_EQ(server.UpgradeCount(), 2u);
    EXPECT_EQ(log->CountContaining(" DONE result"), 0u);
    EXPECT_EQ(log->CountContaining("[NETLOOP]" + server.Url("/") + " WS END result[28:", 60), 1u);

    open.push_back(waiting);
    for (Conn& c : open) {
        std::promise<int> deleted;
        ASSERT_EQ(frame->DelHttpReq(
                      c.handle, false,
                      [&](std::shared_ptr<IHttpHandleInterface>, void*, int rc) { deleted.set_value(rc); }, nullptr),
                  0);
        EXPECT_EQ(deleted.get_future().wait_for(10s), std::future_status::ready);
    }
    EXPECT_EQ(frame->Stop(false), 0);
}

// The kernel hands the id of an ended thread to a later one. Once a frame's
// loop thread has ended, a thread that happens to carry its old id is an
// application thread like any other: its delete on the stopped frame is
// refused, not run on the spot as if it came from the loop.
TEST(LoopThreadId, AThreadThatInheritsTheEndedLoopThreadsIdIsNotTheLoop) {
    ScopedCaptureLogger log;
    auto frame = StartFrame();
    std::promise<int32_t> loopTid;
    auto timer = ITimerHandleInterface::Create(
        [&](std::shared_ptr<ITimerHandleInterface>, void*) { loopTid.set_value(sysutil::GetTid()); }, nullptr, 0, 0,
        nullptr);
    ASSERT_EQ(frame->AddTimerReq(timer, false, nullptr, nullptr), 0);
    auto tid = loopTid.get_future();
    ASSERT_EQ(tid.wait_for(10s), std::future_status::ready);
    const int32_t oldLoop = tid.get();
    ASSERT_EQ(frame->DelTimerReq(timer, false, nullptr, nullptr), 0);
    ASSERT_EQ(frame->Stop(false), 0);

    auto handle = IHttpHandleInterface::Create();
    ASSERT_EQ(handle->InitHttpReq("http://127.0.0.1:9/", "armed", HTTP_REQ_GET, nullptr, 0, 0, nullptr), 0);
    std::atomic<int> doneCalls{0};
    int rc = 0;
    bool found = false;
    // Threads come and go until one gets the old id; the ids wrap at the
    // system's limit, so this is a bounded walk around it.
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (!found && std::chrono::steady_clock::now() < deadline) {
        std::thread probe([&] {
            if (sysutil::GetTid() != oldLoop) return;
            found = true;
            rc = frame->DelHttpReq(
                handle, false, [&](std::shared_ptr<IHttpHandleInterface>, void*, int) { doneCalls.fetch_add(1); },
                nullptr);
        });
        probe.join();
    }
    if (!found) GTEST_SKIP() << "no thread got id " << oldLoop << " within a minute";
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(doneCalls.load(), 0);
    EXPECT_NE(handle->GetResponseCode(), -1);  // still armed: nothing ran

    // The armed handle goes back to idle through a running frame.
    ASSERT_EQ(frame->Init(nullptr, false, false, nullptr), 0);
    ASSERT_EQ(frame->Start(true), 0);
    std::promise<int> deleted;
    ASSERT_EQ(frame->DelHttpReq(
                  handle, false, [&](std::shared_ptr<IHttpHandleInterface>, void*, int r) { deleted.set_value(r); },
                  nullptr),
              0);
    EXPECT_EQ(deleted.get_future().wait_for(10s), std::future_status::ready);
    EXPECT_EQ(frame->Stop(false), 0);
}
