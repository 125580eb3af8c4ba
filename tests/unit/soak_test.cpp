// The soak: random operations from several threads against one frame, with
// faults from the loopback servers in the mix; between rounds the frame stops
// while threads still add, and starts again with and without share and
// multiplexing. Checked: each accepted operation's done function runs exactly
// once, a transfer finishes at most once (and once when it ran to its end),
// each timer closes once, each UDP socket is told OK then CLOSED, and at the
// end no handle, notice or frame is alive and descriptors and threads are back
// where the first round left them. NETLOOP_SOAK_SECONDS sets its length
// (default 10); scripts/soak runs it long.
#include <filesystem>

#include <random>

#include "Kit.h"

namespace {

using namespace kit;

struct Counts : ITimerHandleNotic, IUdpHandleNotic {
    std::atomic<int> closes{0}, udpStates{0};
    void OnTimer(std::shared_ptr<ITimerHandleInterface>, void*) override {}
    void OnClose(std::shared_ptr<ITimerHandleInterface>, void*) override { ++closes; }
    void OnUdpState(std::shared_ptr<IUdpHandleInterface>, int, void*) override { ++udpStates; }
    void OnUdpData(const char*, int64_t, const char*, void*) override {}
};

size_t Entries(const char* dir) {
    std::error_code ec;
    auto it = std::filesystem::directory_iterator(dir, ec);
    return ec ? 0 : std::distance(it, {});
}

TEST(Soak, RandomOperationsFaultsAndStops) {
    const char* env = std::getenv("NETLOOP_SOAK_SECONDS");
    const int seconds = env ? std::atoi(env) : 10, threads = 4, rounds = std::max(2, seconds / 5);
    sysutil::SetLogLevel(100);  // refused adds at the stops are expected
    Nginx nginx;
    Faults faults;
    WsServer ws;
    UdpEcho udp;
    nginx.CreateFile("/body", 100000);
    nginx.CreateFile("/slow/body", 20000);
    const std::string urls[] = {nginx.Url("/body"), nginx.Url("/status/500"), nginx.TlsUrl("/body"), nginx.Url("/slow/body"),
                                faults.Url("/reset"), faults.Url("/silent"), ws.Url("/echo"), ws.Url("/drop"),
                                "http://127.0.0.1:" + std::to_string(FreePort()) + "/"};
    std::mutex m;
    std::vector<std::weak_ptr<void>> alive;
    auto track = [&](std::shared_ptr<void> p) {
        std::lock_guard<std::mutex> lock(m);
        alive.push_back(p);
    };
    std::atomic<long> ops{0};
    size_t fds = 0, tasks = 0;
    for (int round = 0; round < rounds; ++round) {
        Frame frame(round % 2 == 1, round % 3 == 1);
        track(frame.f);
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(seconds * 1000 / rounds);
        auto work = [&](int seed) {  // one random operation at a time, deleted before the next
            std::mt19937 rng(seed);
            while (std::chrono::steady_clock::now() < end) {
                auto counts = std::make_shared<Counts>();
                track(counts);
                Done added, deleted;
                if (rng() % 2) {  // HTTP or WebSocket, deleted at once, after a moment or after its end
                    const std::string& url = urls[rng() % std::size(urls)];
                    const bool isWs = url.rfind("ws", 0) == 0;
                    Transfer t(url, isWs ? HTTP_REQ_WEBSOCKET : HTTP_REQ_GET, 3000);
                    track(t.h), track(t.rec);
                    t->SetCaPath(TestCa().caFile.c_str());
                    if (frame->AddHttpReq(t.h, true, added.Fn(), nullptr) != 0) continue;
                    const int wait = rng() % 3;
                    size_t sent;
                    if (isWs) t->SendWsData(Bytes("soak"), 2, &sent);
                    if (isWs && wait == 0) t->Disconnect();
                    if (wait == 1) std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 20));
                    if (wait == 2 && !isWs) Await([&] { return !t.rec->Get(&Recorder::finishes).empty(); }, "OnFinish");
                    EXPECT_EQ(t.Del(frame), 0);
                    EXPECT_LE(t.rec->Get(&Recorder::finishes).size(), 1u) << url;
                    if (wait == 2 && !isWs) EXPECT_EQ(t.rec->Get(&Recorder::finishes).size(), 1u) << url;
                    if (isWs) EXPECT_TRUE(t.rec->Get(&Recorder::finishes).empty()) << url;
                } else if (rng() % 2) {  // a timer, maybe stopped and re-armed from here
                    auto timer = ITimerHandleInterface::Create(counts, rng() % 3, rng() % 3, nullptr);
                    track(timer);
                    if (frame->AddTimerReq(timer, true, added.Fn(), nullptr) != 0) continue;
                    if (rng() % 2) timer->StopTimer(nullptr, nullptr);
                    if (rng() % 2) timer->AgainTimer(nullptr, nullptr);
                    frame->DelTimerReq(timer, true, deleted.Fn(), nullptr);
                    EXPECT_EQ(deleted.Result("the timer's delete"), 0);
                    EXPECT_TRUE(Await([&] { return counts->closes > 0; }, "OnClose"));
                } else {  // a UDP socket and a few datagrams
                    auto u = IUdpHandleInterface::Create(counts, udp.Host().c_str(), udp.Port(), nullptr);
                    track(u);
                    if (frame->AddUdpReq(u, true, added.Fn(), nullptr) != 0) continue;
                    for (int i = 0; i < 5; ++i) u->SendUdpData(Bytes("datagram"));
                    frame->DelUdpReq(u, true, deleted.Fn(), nullptr);
                    EXPECT_EQ(deleted.Result("the UDP delete"), 0);
                    EXPECT_TRUE(Await([&] { return counts->udpStates == 2; }, "OnUdpState OK, then CLOSED"));
                }
                EXPECT_EQ(added.Results(), std::vector<int>{0}) << "the add's done function, once";
                EXPECT_LE(deleted.Results().size() + counts->closes, 2u) << "a done function or OnClose twice";
                ++ops;
            }
        };
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) workers.emplace_back(work, round * 17 + t);
        for (auto& w : workers) w.join();
        // Adds racing the stop: an accepted one hears its done function once;
        // one that went through deletes itself at once from the loop thread.
        std::atomic<bool> stopped{false};
        std::vector<Done> answers[4];
        workers.clear();
        for (int t = 0; t < threads; ++t)
            workers.emplace_back([&, t] {
                for (int i = 0; !stopped && i < 100000; ++i) {
                    auto timer = ITimerHandleInterface::Create(nullptr, 1000, 0, nullptr);
                    track(timer);
                    Done once;
                    auto fn = [f = frame.f, d = once.Fn()](std::shared_ptr<ITimerHandleInterface> h, void* u, int rc) {
                        d(h, u, rc);
                        if (rc == 0) f->DelTimerReq(h, false, nullptr, nullptr);
                    };
                    if (frame->AddTimerReq(timer, true, fn, nullptr) == 0) answers[t].push_back(once);
                }
            });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(frame.Stop(), 0);
        stopped = true;
        for (auto& w : workers) w.join();
        for (auto& list : answers)
            for (Done& once : list) EXPECT_EQ(once.Results().size(), 1u) << "an add racing the stop";
        if (round == 0) fds = Entries("/proc/self/fd"), tasks = Entries("/proc/self/task");
        if (HasFailure()) break;  // what follows a broken promise would only wait
    }
    EXPECT_TRUE(Await([&] {
        std::lock_guard<std::mutex> lock(m);
        return std::none_of(alive.begin(), alive.end(), [](auto& w) { return !w.expired(); });
    }, "the release of every handle, notice and frame"));
    EXPECT_TRUE(Await([&] { return Entries("/proc/self/fd") <= fds; }, "the close of every descriptor"));
    EXPECT_TRUE(Await([&] { return Entries("/proc/self/task") <= tasks; }, "the end of every thread"));
    std::printf("soak: %ld operations in %d rounds\n", ops.load(), rounds);
}

}  // namespace
