// netloop_soak: random operations from many application threads against one
// frame, with faults from the loopback servers in the mix; between rounds the
// frame stops while threads still add, and is set up again. Checked: each
// accepted operation's done function runs exactly once, a transfer finishes at
// most once and never after its delete, each added timer closes once, each
// UDP socket is told OK then CLOSED, and at the end no handle, notice or frame
// is alive and descriptors and threads are back where the first round left them.
//   netloop_soak [--seconds N] [--threads T] [--seed S]     (exit 1: a check failed)
#include <dirent.h>

#include <cstring>
#include <random>
#include <thread>

#include "netloop/IHttpHandleInterface.h"
#include "netloop/IHttpInterface.h"
#include "netloop/ITimerHandleInterface.h"
#include "netloop/IUdpHandleInterface.h"
#include "support/Servers.h"
#include "support/Wait.h"
#include "sysutil/sysutil.h"

using namespace netloop;
using namespace testsupport;

namespace {

std::atomic<int> g_Failures{0};
std::atomic<long> g_Ops{0};
std::mutex g_AliveMutex;
std::vector<std::weak_ptr<void>> g_Alive;

void Check(bool ok, const char* what) {
    if (!ok && g_Failures++ < 20) std::fprintf(stderr, "soak: FAILED: %s\n", what);
}
bool Within60s(std::function<bool()> done) { return WaitUntil(done, std::chrono::seconds(60)); }
void Track(std::shared_ptr<void> p) {
    std::lock_guard<std::mutex> lock(g_AliveMutex);
    g_Alive.push_back(p);
}

// Counts the calls of one done function.
struct Once {
    std::shared_ptr<std::atomic<int>> calls = std::make_shared<std::atomic<int>>(0), result = std::make_shared<std::atomic<int>>(9);
    std::function<void(std::shared_ptr<void>, void*, int)> fn = [c = calls, r = result](auto, void*, int rc) {
        *r = rc;
        ++*c;
    };
    template <typename H>
    std::function<void(std::shared_ptr<H>, void*, int)> Fn() const {
        return [f = fn](std::shared_ptr<H> h, void* u, int rc) { f(h, u, rc); };
    }
    void Expect(const char* what) const {
        Check(Within60s([&] { return *calls > 0; }), what);
        Check(*calls <= 1, "a done function ran twice");
    }
};

struct Notice : IHttpHandleNotic, ITimerHandleNotic, IUdpHandleNotic {
    std::atomic<int> finishes{0}, afterDelete{0}, closes{0}, udpStates{0};
    std::atomic<bool> deleted{false};
    void OnWsData(const char*, size_t, int, void*) override {}
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int, void*) override { ++finishes, afterDelete += deleted; }
    void OnTimer(std::shared_ptr<ITimerHandleInterface>, void*) override {}
    void OnClose(std::shared_ptr<ITimerHandleInterface>, void*) override { ++closes; }
    void OnUdpState(std::shared_ptr<IUdpHandleInterface>, int, void*) override { ++udpStates; }
    void OnUdpData(const char*, int64_t, const char*, void*) override {}
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
                faults.Url("/reset"), faults.Url("/silent"), "http://127.0.0.1:" + std::to_string(FreePort()) + "/",
                ws.Url("/echo"), ws.Url("/drop")};
    }
};

// One random operation, deleted again before it returns.
void RandomOperation(const std::shared_ptr<IHttpInterface>& f, Servers& s, std::mt19937& rng) {
    auto n = std::make_shared<Notice>();
    Track(n);
    Once added, deleted;
    const int kind = rng() % 4;
    if (kind < 2) {  // HTTP or WebSocket, deleted at once, after a moment or after its end
        auto h = IHttpHandleInterface::Create();
        Track(h);
        const std::string& url = s.urls[rng() % s.urls.size()];
        const bool ws = url.rfind("ws", 0) == 0;
        h->InitHttpReq(url.c_str(), "soak", ws ? HTTP_REQ_WEBSOCKET : HTTP_REQ_GET, n, 2000, 3000, nullptr);
        h->SetCaPath(TestCa().caFile.c_str());
        if (f->AddHttpReq(h, true, added.Fn<IHttpHandleInterface>(), nullptr) != 0) return;
        size_t sent;
        if (ws) h->SendWsData(std::make_shared<std::vector<uint8_t>>(100, 'w'), 2, &sent);
        const int wait = rng() % 3;
        if (wait == 1) std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 20));
        if (wait == 2 && !ws) Within60s([&] { return n->finishes > 0; });
        if (ws && rng() % 2) h->Disconnect();
        f->DelHttpReq(h, true, [n, d = deleted.fn](auto h, void* u, int rc) { n->deleted = true, d(h, u, rc); }, nullptr);
        added.Expect("the add's done function");
        deleted.Expect("the delete's done function");
        Check(n->finishes <= 1 && n->afterDelete == 0, "OnFinish twice or after the delete");
        Check(wait != 2 || ws || n->finishes == 1, "no OnFinish for a transfer that ran to its end");
    } else if (kind == 2) {  // a timer, maybe stopped and re-armed from here
        auto t = ITimerHandleInterface::Create(n, rng() % 3, rng() % 3, nullptr);
        Track(t);
        if (f->AddTimerReq(t, true, added.Fn<ITimerHandleInterface>(), nullptr) != 0) return;
        if (rng() % 2) t->StopTimer(nullptr, nullptr);
        if (rng() % 2) t->AgainTimer(nullptr, nullptr);
        f->DelTimerReq(t, true, deleted.Fn<ITimerHandleInterface>(), nullptr);
        added.Expect("the timer add's done function");
        deleted.Expect("the timer delete's done function");
        Check(Within60s([&] { return n->closes > 0; }) && n->closes == 1, "one OnClose after a timer delete");
    } else {  // a UDP socket and a few datagrams
        auto u = IUdpHandleInterface::Create(n, s.udp.Host().c_str(), s.udp.Port(), nullptr);
        Track(u);
        if (f->AddUdpReq(u, true, added.Fn<IUdpHandleInterface>(), nullptr) != 0) return;
        added.Expect("the UDP add's done function");
        for (int i = 0; i < 5; ++i) u->SendUdpData(std::make_shared<std::vector<uint8_t>>(50, 'u'));
        f->DelUdpReq(u, true, deleted.Fn<IUdpHandleInterface>(), nullptr);
        deleted.Expect("the UDP delete's done function");
        Check(Within60s([&] { return n->udpStates == 2; }), "OnUdpState OK then CLOSED");
    }
    ++g_Ops;
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
    sysutil::SetLogLevel(100);  // refused adds at the stops are expected
    std::printf("soak: %d s, %d threads, seed %u\n", seconds, threads, seed);
    Servers servers;
    const int rounds = std::max(2, seconds / 5);
    size_t fds = 0, tasks = 0;
    for (int round = 0; round < rounds; ++round) {
        auto frame = IHttpInterface::Create();
        Track(frame);
        Check(frame->Init(nullptr, round % 3 == 1, round % 2 == 1, nullptr) == 0 && frame->Start(true) == 0, "start");
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(seconds * 1000 / rounds);
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t)
            workers.emplace_back([&, t] {
                std::mt19937 rng(seed * 131 + round * 17 + t);
                while (std::chrono::steady_clock::now() < end) RandomOperation(frame, servers, rng);
            });
        for (auto& w : workers) w.join();
        // Adds racing the stop: each accepted one hears its done function once,
        // and one that went through is deleted at once from the loop thread.
        std::atomic<bool> stopped{false};
        std::vector<std::vector<Once>> answers(threads);
        workers.clear();
        for (int t = 0; t < threads; ++t)
            workers.emplace_back([&, t] {
                while (!stopped) {
                    auto timer = ITimerHandleInterface::Create(nullptr, 1000, 0, nullptr);
                    Track(timer);
                    Once once;
                    auto fn = [frame, d = once.fn](std::shared_ptr<ITimerHandleInterface> h, void* u, int rc) {
                        d(h, u, rc);
                        if (rc == 0) frame->DelTimerReq(h, false, nullptr, nullptr);
                    };
                    if (frame->AddTimerReq(timer, true, fn, nullptr) == 0) answers[t].push_back(once);
                }
            });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        Check(frame->Stop(false) == 0, "Stop");
        stopped = true;
        for (auto& w : workers) w.join();
        for (auto& list : answers)
            for (Once& once : list) Check(*once.calls == 1, "an add racing the stop had no single answer");
        frame.reset();
        if (round == 0) fds = Entries("/proc/self/fd"), tasks = Entries("/proc/self/task");
        std::printf("soak: round %d of %d, %ld operations so far\n", round + 1, rounds, g_Ops.load());
        std::fflush(stdout);
    }
    auto alive = [] {
        std::lock_guard<std::mutex> lock(g_AliveMutex);
        return std::count_if(g_Alive.begin(), g_Alive.end(), [](auto& w) { return !w.expired(); });
    };
    Check(Within60s([&] { return alive() == 0; }), "handles, notices or frames left alive");
    Check(Within60s([&] { return Entries("/proc/self/fd") <= fds; }), "descriptors left open");
    Check(Within60s([&] { return Entries("/proc/self/task") <= tasks; }), "threads left running");
    std::printf("soak: %ld operations, %d failed checks\n", g_Ops.load(), g_Failures.load());
    return g_Failures == 0 ? 0 : 1;
}
