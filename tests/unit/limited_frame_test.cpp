// Frames with connection limits, and ends (delete, stop) made on the loop
// thread inside libcurl.
#include <atomic>
#include <cstdlib>
#include <thread>
#include <utility>

#include "Kit.h"

namespace {

using namespace kit;

// Counts each transfer's OnFinish (userData is its index) and deletes it there.
struct Burst : Recorder {
    IHttpInterface* frame;
    std::vector<std::atomic<int>> finishes;  // 1 for each good one, 1000 for a failure
    std::atomic<size_t> ended{0};
    Burst(IHttpInterface* f, size_t n) : frame(f), finishes(n) {}
    void OnFinish(std::shared_ptr<IHttpHandleInterface> h, int result, void* user) override {
        finishes[reinterpret_cast<size_t>(user)] += result == 0 && h->GetResponseCode() == 200 ? 1 : 1000;
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
    size_t bad = 0;
    for (size_t i = 0; i < n; ++i) bad += burst->finishes[i].load() != 1;
    EXPECT_EQ(bad, 0u) << "transfers that failed (timed out) or did not finish exactly once";
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
            EXPECT_EQ(waiting.Run(frame), 0) << "a second add is refused, the waiting one finishes";
        } else {
            if (c.action == Disconnect) EXPECT_EQ(waiting->Disconnect(), 0);
            if (c.action == Delete) EXPECT_EQ(waiting.Del(frame), 0);
            // The freed slot goes to the next one added, not to the ended one.
            EXPECT_EQ(a.Del(frame), 0);
            ASSERT_EQ(frame->AddHttpReq(next.h, true, nullptr, nullptr), 0);
            ASSERT_TRUE(isWs ? next.rec->AwaitState(WS_STATE_OPEN)
                             : Await([&] { return !next.rec->Get(&Recorder::finishes).empty(); }, "OnFinish"));
            EXPECT_TRUE(waiting.rec->Get(&Recorder::finishes).empty());
            EXPECT_TRUE(waiting.rec->Get(&Recorder::states).empty());
        }
        std::vector<Transfer*> armed{&b, &next};
        if (c.action != Delete) armed.push_back(&waiting);
        if (c.action == Outwait) armed.push_back(&a);
        for (Transfer* t : armed) EXPECT_EQ(t->Del(frame), 0);
    }
}

// Ends its transfer from inside libcurl (OnWsData, OnProgress), the first time
// it is called there: a delete and, with `stop`, a Stop of the frame.
struct EndInsideLibcurl : Recorder, IHttpFrameNotic {
    std::shared_ptr<IHttpInterface> frame = IHttpInterface::Create();
    std::weak_ptr<IHttpHandleInterface> handle;
    bool stop = false, ended = false;
    Done deleted;
    std::vector<int> stops;
    std::atomic<bool> stopped{false};
    void End() {
        if (std::exchange(ended, true)) return;
        if (auto h = handle.lock()) frame->DelHttpReq(h, stop, deleted.Fn(), nullptr);
        if (stop) stops.push_back(frame->Stop(false));
    }
    void OnWsData(const char* data, size_t length, int type, void* user) override {
        Recorder::OnWsData(data, length, type, user);
        End();
    }
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override { End(); }
    void OnWsState(std::shared_ptr<IHttpHandleInterface> open, int state, void* user) override {
        Recorder::OnWsState(open, state, user);
        size_t sent = 0;
        open->SendWsData(std::make_shared<std::vector<uint8_t>>(1, 'x'), WS_MSG_TEXT, &sent);
    }
    int OnFrameStop(std::shared_ptr<IHttpInterface>, void*) override { return stopped = true, 0; }
};

TEST(LoopEnds, EndsMadeInsideLibcurlWaitForItsCallAndSilenceTheTransfer) {
    WsServer ws;
    Nginx nginx;
    nginx.CreateFile("slow/blob", 6000);
    // The server answers the first message with its last message, a close and
    // the end of the stream in one write: one libcurl call meets them all.
    for (bool stop : {false, true}) {
        SCOPED_TRACE(stop ? "delete and stop from OnProgress" : "delete from OnWsData");
        auto rec = std::make_shared<EndInsideLibcurl>();
        rec->stop = stop;
        ASSERT_TRUE(rec->frame->Init(rec, false, false, nullptr) == 0 && rec->frame->Start(true) == 0);
        auto h = IHttpHandleInterface::Create();
        rec->handle = h;
        const std::string url = stop ? nginx.Url("/slow/blob") : ws.Url("/one-then-close");
        ASSERT_EQ(h->InitHttpReq(url.c_str(), nullptr, stop ? HTTP_REQ_GET : HTTP_REQ_WEBSOCKET, rec, 0, 0, nullptr), 0);
        if (stop) ASSERT_EQ(h->EnableProgress(true), 0);
        ASSERT_EQ(rec->frame->AddHttpReq(h, true, nullptr, nullptr), 0);
        ASSERT_TRUE(Await([&] { return !rec->deleted.Results().empty(); }, "the done function of the delete"));
        // The delete has run: whatever libcurl reported before it was told by now.
        EXPECT_EQ(rec->deleted.Results(), std::vector<int>{0});
        EXPECT_TRUE(rec->Get(&Recorder::finishes).empty());
        EXPECT_EQ(rec->Get(&Recorder::states), stop ? std::vector<int>{} : std::vector<int>{WS_STATE_OPEN});
        EXPECT_EQ(rec->Get(&Recorder::messages).size(), stop ? 0u : 1u);
        if (!stop) EXPECT_EQ(rec->frame->Stop(false), 0);
        EXPECT_TRUE(Await([&] { return rec->stopped.load(); }, "OnFrameStop"));
        EXPECT_EQ(rec->stops, stop ? std::vector<int>{0} : std::vector<int>{});
    }
}

}  // namespace
