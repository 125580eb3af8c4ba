// Frames with connection limits: a burst finishes, a waiting transfer leaves
// its line when ended and its time-outs do not count the wait. Ends made on the
// loop thread inside libcurl: a delete silences the transfer, a stop waits for
// libcurl's call to return.
#include <atomic>
#include <cstdlib>
#include <thread>

#include "Kit.h"

namespace {

using namespace kit;

// Counts each transfer's OnFinish (userData is its index) and deletes it there.
struct Burst : Recorder {
    IHttpInterface* frame;
    std::vector<std::atomic<int>> finishes, failures;
    std::atomic<size_t> ended{0};
    Burst(IHttpInterface* f, size_t n) : frame(f), finishes(n), failures(n) {}
    void OnFinish(std::shared_ptr<IHttpHandleInterface> h, int result, void* user) override {
        const size_t i = reinterpret_cast<size_t>(user);
        ++finishes[i];
        if (result != 0 || h->GetResponseCode() != 200) ++failures[i];
        frame->DelHttpReq(h, false, nullptr, nullptr);
        ++ended;
    }
};

TEST(LimitedFrame, BurstFromFourThreadsFinishesEveryTransferOnce) {
    Nginx nginx;
    Frame frame(false, true);
    const size_t n = std::getenv("NETLOOP_SANITIZED") != nullptr ? 1000 : 10000;
    const std::string url = nginx.Url("/status/200");
    auto burst = std::make_shared<Burst>(frame.f.get(), n);
    std::vector<std::thread> adders;
    for (size_t t = 0; t < 4; ++t)
        adders.emplace_back([&, t] {
            for (size_t i = t; i < n; i += 4) {
                auto h = IHttpHandleInterface::Create();
                // Time-outs that a burst waiting inside libcurl runs into.
                EXPECT_EQ(h->InitHttpReq(url.c_str(), nullptr, HTTP_REQ_GET, burst, 5000, 5000,
                                         reinterpret_cast<void*>(i)), 0);
                EXPECT_EQ(frame->AddHttpReq(h, false, nullptr, nullptr), 0);
            }
        });
    for (auto& adder : adders) adder.join();
    ASSERT_TRUE(Await([&] { return burst->ended.load() == n; }, "OnFinish of all " + std::to_string(n) + " GETs"));
    size_t notOnce = 0, failed = 0;
    for (size_t i = 0; i < n; ++i) {
        notOnce += burst->finishes[i].load() != 1;
        failed += burst->failures[i].load() != 0;
    }
    EXPECT_EQ(notOnce, 0u) << "transfers without exactly one OnFinish";
    EXPECT_EQ(failed, 0u) << "transfers that failed (timed out)";
}

TEST(LimitedFrame, WaitingTransferLeavesItsLineOrOutwaitsItsTimeOut) {
    Nginx nginx;
    WsServer ws;
    nginx.CreateFile("slow/blob", 6000);  // three seconds at the location's 2 KB/s
    enum Action { Delete, Disconnect, Outwait };
    struct Case {
        int type;
        Action action;
    } cases[] = {{HTTP_REQ_GET, Delete}, {HTTP_REQ_GET, Disconnect}, {HTTP_REQ_WEBSOCKET, Delete},
                 {HTTP_REQ_WEBSOCKET, Disconnect}, {HTTP_REQ_GET, Outwait}};
    for (const Case& c : cases) {
        SCOPED_TRACE("type " + std::to_string(c.type) + " action " + std::to_string(c.action));
        const bool isWs = c.type == HTTP_REQ_WEBSOCKET;
        Frame frame(false, true);
        // Two transfers take the host's two connections; the third waits.
        Transfer a(isWs ? ws.Url() : nginx.Url("/slow/blob"), c.type), b(isWs ? ws.Url() : nginx.Url("/slow/blob"), c.type);
        Transfer waiting(isWs ? ws.Url() : nginx.Url("/status/200"), c.type, c.action == Outwait ? 1000 : 0);
        Transfer next(isWs ? ws.Url() : nginx.Url("/status/204"), c.type);
        Done added;
        for (Transfer* t : {&a, &b, &waiting}) ASSERT_EQ(frame->AddHttpReq(t->h, true, added.Fn(), nullptr), 0);
        ASSERT_TRUE(Await([&] { return added.Results() == std::vector<int>{0, 0, 0}; }, "three adds accepted"));
        if (c.action == Outwait) {
            EXPECT_EQ(waiting.rec->AwaitFinish() ? waiting.rec->Get(&Recorder::finishes)[0] : INT_MIN, 0);
        } else {
            if (c.action == Disconnect) EXPECT_EQ(waiting->Disconnect(), 0);
            if (c.action == Delete) EXPECT_EQ(waiting.Del(frame), 0);
            // The freed slot goes to the next one added, not to the ended one.
            EXPECT_EQ(a.Del(frame), 0);
            ASSERT_EQ(frame->AddHttpReq(next.h, true, nullptr, nullptr), 0);
            ASSERT_TRUE(isWs ? next.rec->AwaitState(WS_STATE_OPEN) : next.rec->AwaitFinish());
            EXPECT_TRUE(waiting.rec->Get(&Recorder::finishes).empty());
            EXPECT_TRUE(waiting.rec->Get(&Recorder::states).empty());
        }
        std::vector<Transfer*> armed{&b, &next};
        if (c.action != Delete) armed.push_back(&waiting);
        if (c.action == Outwait) armed.push_back(&a);
        for (Transfer* t : armed) EXPECT_EQ(t->Del(frame), 0);
    }
}

// Deletes its transfer from every OnWsData, as an application may.
struct DeleteOnData : Recorder {
    IHttpInterface* frame = nullptr;
    std::weak_ptr<IHttpHandleInterface> handle;
    Done deleted;
    void OnWsData(const char* data, size_t length, int type, void* user) override {
        Recorder::OnWsData(data, length, type, user);
        if (auto h = handle.lock()) frame->DelHttpReq(h, false, deleted.Fn(), nullptr);
    }
};

TEST(LoopEnds, DeleteFromOnWsDataSilencesAConnectionThatCloses) {
    WsServer ws;
    Frame frame;
    auto rec = std::make_shared<DeleteOnData>();
    auto h = IHttpHandleInterface::Create();
    rec->frame = frame.f.get();
    rec->handle = h;
    // The server's answer to this message is its last message and its close.
    rec->onState = [](std::shared_ptr<IHttpHandleInterface> open, int) {
        size_t sent = 0;
        open->SendWsData(std::make_shared<std::vector<uint8_t>>(1, 'x'), WS_MSG_TEXT, &sent);
    };
    ASSERT_EQ(h->InitHttpReq(ws.Url("/one-then-close").c_str(), nullptr, HTTP_REQ_WEBSOCKET, rec, 0, 0, nullptr), 0);
    ASSERT_EQ(frame->AddHttpReq(h, true, nullptr, nullptr), 0);
    EXPECT_EQ(rec->deleted.Result("the done function of the delete"), 0);
    // The delete has run: whatever libcurl reported before it was told by now.
    EXPECT_EQ(rec->Get(&Recorder::states), std::vector<int>{WS_STATE_OPEN});
    ASSERT_EQ(rec->Get(&Recorder::messages).size(), 1u);
    EXPECT_EQ(rec->deleted.Results(), std::vector<int>{0});
}

// Deletes its transfer and stops the frame from OnProgress, inside libcurl.
struct StopOnProgress : Recorder, IHttpFrameNotic {
    std::shared_ptr<IHttpInterface> frame = IHttpInterface::Create();
    std::weak_ptr<IHttpHandleInterface> handle;
    Done deleted;
    std::atomic<int> stopResult{INT_MIN};
    std::atomic<bool> stopped{false};
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {
        auto h = handle.lock();
        if (!h || stopResult.load() != INT_MIN) return;
        frame->DelHttpReq(h, true, deleted.Fn(), nullptr);
        stopResult = frame->Stop(false);
    }
    int OnFrameStop(std::shared_ptr<IHttpInterface>, void*) override { return stopped = true, 0; }
};

TEST(LoopEnds, StopInsideLibcurlRunsTheQueuedDeleteAfterTheCallReturns) {
    Nginx nginx;
    nginx.CreateFile("slow/blob", 6000);
    auto rec = std::make_shared<StopOnProgress>();
    ASSERT_EQ(rec->frame->Init(rec, false, false, nullptr), 0);
    ASSERT_EQ(rec->frame->Start(true), 0);
    auto h = IHttpHandleInterface::Create();
    rec->handle = h;
    ASSERT_EQ(h->InitHttpReq(nginx.Url("/slow/blob").c_str(), nullptr, HTTP_REQ_GET, rec, 0, 0, nullptr), 0);
    ASSERT_EQ(h->EnableProgress(true), 0);
    ASSERT_EQ(rec->frame->AddHttpReq(h, true, nullptr, nullptr), 0);
    ASSERT_TRUE(Await([&] { return rec->stopped.load(); }, "OnFrameStop"));
    EXPECT_EQ(rec->stopResult.load(), 0);
    EXPECT_EQ(rec->deleted.Results(), std::vector<int>{0});
    EXPECT_TRUE(rec->Get(&Recorder::finishes).empty());
}

}  // namespace
