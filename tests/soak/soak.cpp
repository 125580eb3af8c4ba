// netloop_soak: random operations from many application threads against one
// frame, with faults from the loopback servers in the mix; between rounds the
// frame stops while threads still add, and is set up again. Checked every
// round: each accepted operation's done function runs exactly once, a
// transfer finishes at most once and never after its delete, each added timer
// closes exactly once, and at the end no handle, notice or frame is alive and
// descriptors and threads are back where they were after the first round.
//
//   netloop_soak [--seconds N] [--threads T] [--seed S]
//
// Exits non-zero when a check failed. Loopback only: it starts its servers.
#include <dirent.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "netloop/IHttpHandleInterface.h"
#include "netloop/IHttpInterface.h"
#include "netloop/ITimerHandleInterface.h"
#include "netloop/IUdpHandleInterface.h"
#include "support/Servers.h"
#include "support/Wait.h"

using namespace netloop;
using namespace testsupport;
using Clock = std::chrono::steady_clock;

namespace {

std::atomic<int> g_Failures{0};
std::atomic<long> g_Ops{0};

void Check(bool ok, const char* what) {
    if (ok) return;
    if (g_Failures++ < 20) std::fprintf(stderr, "soak: FAILED: %s\n", what);
}

// Counts the calls of one done function.
struct Once {
    std::shared_ptr<std::atomic<int>> calls = std::make_shared<std::atomic<int>>(0);
    std::shared_ptr<std::atomic<int>> result = std::make_shared<std::atomic<int>>(99);
    auto Fn() const {
        return [c = calls, r = result](auto, void*, int rc) {
            *r = rc;
            ++*c;
        };
    }
    // Waits for the call; false (and a failure) when it did not come.
    bool Wait(const char* what) const {
        bool came = WaitUntil([&] { return *calls > 0; }, std::chrono::seconds(60));
        Check(came, what);
        return came;
    }
};

struct HttpNotice : IHttpHandleNotic {
    std::atomic<int> finishes{0}, afterDelete{0};
    std::atomic<bool> deleted{false};
    void OnWsData(const char*, size_t, int, void*) override {}
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int, void*) override {
        ++finishes;
        if (deleted) ++afterDelete;
    }
};

struct UdpNotice : IUdpHandleNotic {
    std::atomic<int> states{0}, datagrams{0};
    void OnUdpState(std::shared_ptr<IUdpHandleInterface>, int, void*) override { ++states; }
    void OnUdpData(const char*, int64_t, const char*, void*) override { ++datagrams; }
};

struct TimerNotice : ITimerHandleNotic {
    std::atomic<int> closes{0};
    void OnTimer(std::shared_ptr<ITimerHandleInterface>, void*) override {}
    void OnClose(std::shared_ptr<ITimerHandleInterface>, void*) override { ++closes; }
};

struct Servers {
    Nginx nginx;
    Faults faults;
    WsServer ws;
    UdpEcho udp;
    std::vector<std::string> urls;
    Servers() {
        nginx.CreateFile("/body", 100000);
        nginx.CreateFile("/slow/body", 20000);
        urls = {nginx.Url("/body"), nginx.Url("/status/500"), nginx.TlsUrl("/body"), nginx.Url("/slow/body"),
                faults.Url("/reset"), faults.Url("/silent"), "http://127.0.0.1:" + std::to_string(FreePort()) + "/"};
    }
};

struct Alive {
    std::mutex m;
    std::vector<std::weak_ptr<void>> objects;
    void Add(std::shared_ptr<void> p) {
        std::lock_guard<std::mutex> lock(m);
        objects.push_back(p);
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(m);
        size_t n = 0;
        for (auto& w : objects) n += !w.expired();
        return n;
    }
};

// One random operation, deleted again before it returns.
void RandomOperation(const std::shared_ptr<IHttpInterface>& f, Servers& s, std::mt19937& rng, Alive& alive) {
    const int kind = rng() % 5;
    if (kind <= 1) {  // HTTP or WebSocket, deleted at once, after a moment or after its end
        auto n = std::make_shared<HttpNotice>();
        auto h = IHttpHandleInterface::Create();
        alive.Add(n);
        alive.Add(h);
        const bool ws = kind == 1;
        const std::string url = ws ? s.ws.Url(rng() % 2 ? "/echo" : "/drop") : s.urls[rng() % s.urls.size()];
        h->InitHttpReq(url.c_str(), "soak", ws ? HTTP_REQ_WEBSOCKET : HTTP_REQ_GET, n, 2000, 3000, nullptr);
        h->SetCaPath(TestCa().caFile.c_str());
        Once added, deleted;
        if (f->AddHttpReq(h, true, added.Fn(), nullptr) != 0) return;
        const int wait = rng() % 3;
        size_t sent = 0;
        if (ws) h->SendWsData(std::make_shared<std::vector<uint8_t>>(100, 'w'), 2, &sent);
        if (wait == 1) std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 20));
        if (wait == 2 && !ws) WaitUntil([&] { return n->finishes > 0; }, std::chrono::seconds(60));
        if (ws && rng() % 2) h->Disconnect();
        f->DelHttpReq(h, true,
                      [n, fn = deleted.Fn()](auto hh, void* u, int rc) {
                          n->deleted = true;
                          fn(hh, u, rc);
                      },
                      nullptr);
        added.Wait("the add's done function");
        deleted.Wait("the delete's done function");
        Check(*added.calls == 1 && *deleted.calls == 1, "a done function ran more than once");
        Check(n->finishes <= 1, "OnFinish twice");
        Check(n->afterDelete == 0, "OnFinish after the delete");
        Check(wait != 2 || ws || n->finishes == 1, "no OnFinish for a transfer that ran to its end");
    } else if (kind <= 3) {  // a timer, maybe stopped and re-armed from here
        auto n = std::make_shared<TimerNotice>();
        auto t = ITimerHandleInterface::Create(n, rng() % 3, rng() % 3, nullptr);
        alive.Add(n);
        alive.Add(t);
        Once added, deleted;
        if (f->AddTimerReq(t, true, added.Fn(), nullptr) != 0) return;
        if (rng() % 2) added.Wait("the timer add's done function");
        if (rng() % 2) t->StopTimer(nullptr, nullptr);
        if (rng() % 2) t->AgainTimer(nullptr, nullptr);
        f->DelTimerReq(t, true, deleted.Fn(), nullptr);
        added.Wait("the timer add's done function");
        deleted.Wait("the timer delete's done function");
        Check(WaitUntil([&] { return n->closes > 0; }, std::chrono::seconds(60)), "OnClose after a timer delete");
        Check(n->closes == 1, "OnClose twice");
    } else {  // a UDP socket and a few datagrams
        auto n = std::make_shared<UdpNotice>();
        auto u = IUdpHandleInterface::Create(n, s.udp.Host().c_str(), s.udp.Port(), nullptr);
        alive.Add(n);
        alive.Add(u);
        Once added, deleted;
        if (f->AddUdpReq(u, true, added.Fn(), nullptr) != 0) return;
        if (added.Wait("the UDP add's done function") && *added.result == 0)
            for (int i = 0; i < 5; ++i) u->SendUdpData(std::make_shared<std::vector<uint8_t>>(50, 'u'));
        f->DelUdpReq(u, true, deleted.Fn(), nullptr);
        deleted.Wait("the UDP delete's done function");
        Check(WaitUntil([&] { return n->states == 2; }, std::chrono::seconds(60)), "OnUdpState OK then CLOSED");
    }
    ++g_Ops;
}

// Adds racing a stop: each accepted add hears its done function exactly once,
// and one that went through is deleted at once from the loop thread.
void RacingAdds(const std::shared_ptr<IHttpInterface>& f, std::atomic<bool>& stopped, Alive& alive,
                std::vector<Once>& answers) {
    while (!stopped) {
        auto t = ITimerHandleInterface::Create(nullptr, 1000, 0, nullptr);
        alive.Add(t);
        Once once;
        auto fn = once.Fn();
        if (f->AddTimerReq(t, true,
                           [f, fn](std::shared_ptr<ITimerHandleInterface> h, void* u, int rc) {
                               fn(h, u, rc);
                               if (rc == 0) f->DelTimerReq(h, false, nullptr, nullptr);
                           },
                           nullptr) == 0)
            answers.push_back(once);
    }
}

size_t Entries(const char* dir) {
    size_t n = 0;
    if (DIR* d = opendir(dir)) {
        while (readdir(d)) ++n;
        closedir(d);
    }
    return n;
}

}  // namespace

int main(int argc, char** argv) {
    int seconds = 60, threads = 6;
    unsigned seed = std::random_device{}();
    for (int i = 1; i + 1 < argc; i += 2) {
        if (!std::strcmp(argv[i], "--seconds")) seconds = std::atoi(argv[i + 1]);
        if (!std::strcmp(argv[i], "--threads")) threads = std::atoi(argv[i + 1]);
        if (!std::strcmp(argv[i], "--seed")) seed = static_cast<unsigned>(std::atol(argv[i + 1]));
    }
    std::printf("soak: %d s, %d threads, seed %u\n", seconds, threads, seed);
    Servers servers;
    Alive alive;
    const int rounds = std::max(2, seconds / 5);
    size_t fds = 0, tasks = 0;
    for (int round = 0; round < rounds; ++round) {
        auto frame = IHttpInterface::Create();
        alive.Add(frame);
        Check(frame->Init(nullptr, round % 3 == 1, round % 2 == 1, nullptr) == 0, "Init");
        Check(frame->Start(true) == 0, "Start");
        const auto end = Clock::now() + std::chrono::milliseconds(seconds * 1000 / rounds);
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t)
            workers.emplace_back([&, t] {
                std::mt19937 rng(seed * 131 + round * 17 + t);
                while (Clock::now() < end) RandomOperation(frame, servers, rng, alive);
            });
        for (auto& w : workers) w.join();
        std::atomic<bool> stopped{false};
        std::vector<std::vector<Once>> answers(threads);
        workers.clear();
        for (int t = 0; t < threads; ++t)
            workers.emplace_back([&, t] { RacingAdds(frame, stopped, alive, answers[t]); });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        Check(frame->Stop(false) == 0, "Stop");
        stopped = true;
        for (auto& w : workers) w.join();
        for (auto& list : answers)
            for (Once& once : list) Check(*once.calls == 1, "an accepted add racing the stop had no single answer");
        answers.clear();
        frame.reset();
        if (round == 0) {
            fds = Entries("/proc/self/fd");
            tasks = Entries("/proc/self/task");
        }
        std::printf("soak: round %d of %d, %ld operations so far\n", round + 1, rounds, g_Ops.load());
        std::fflush(stdout);
    }
    Check(WaitUntil([&] { return alive.Count() == 0; }, std::chrono::seconds(60)), "handles, notices or frames left alive");
    Check(WaitUntil([&] { return Entries("/proc/self/fd") <= fds; }, std::chrono::seconds(60)), "descriptors leaked");
    Check(WaitUntil([&] { return Entries("/proc/self/task") <= tasks; }, std::chrono::seconds(60)), "threads left");
    std::printf("soak: %ld operations, %d failed checks\n", g_Ops.load(), g_Failures.load());
    return g_Failures == 0 ? 0 : 1;
}
