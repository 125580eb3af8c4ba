// netloop_soak: random operations from many application threads against one
// frame for a bounded time, with faults from the loopback servers in the mix,
// and the frame stopped and set up again between rounds while threads still
// try to add. Every notice, done function and handle is tracked, and the
// promises of the public headers are checked at the end of every round:
// one OnClose per added timer, at most one OnFinish per transfer and none
// after its delete, every done function at most once and exactly once for an
// accepted operation, no handle, notice or frame left alive, and descriptors,
// threads and resident memory back where they started.
//
// A second mode runs many short frame lives (Init, Start, a few transfers,
// timers and UDP datagrams, delete all, Stop) and checks the same counts.
//
//   netloop_soak [--seconds N] [--threads T] [--rounds R] [--restart-cycles C]
//                [--seed S] [--no-rss]
//
// --seconds 0 (or --rounds 0) skips the random rounds. The summary table goes
// to stdout; the process exits non-zero when any check failed. Loopback only:
// every server is started by this program.
#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "netloop/IHttpInterface.h"
#include "loopback/HttpTestServer.h"
#include "loopback/ProcessStats.h"
#include "loopback/TestTls.h"
#include "loopback/UdpEchoPeer.h"
#include "support/Wait.h"
#include "loopback/WsTestServer.h"
#include "sysutil/sysutil.h"

using namespace netloop;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// ---------------------------------------------------------------------------
// What is counted

enum OpKind {
    OP_TIMER_ADD,
    OP_TIMER_STOP_AGAIN,
    OP_TIMER_DEL,
    OP_HTTP_TRANSFER,
    OP_HTTPS_TRANSFER,
    OP_HTTP_DEL_EARLY,
    OP_HTTP_DRIP_CANCEL,
    OP_HTTP_DEL,
    OP_WS_CONNECT,
    OP_WS_SEND,
    OP_WS_DISCONNECT,
    OP_WS_DEL,
    OP_UDP_ADD,
    OP_UDP_SEND,
    OP_UDP_DEL,
    OP_RACE_REFUSED,
    OP_RACE_CANCELLED,
    OP_RACE_ACCEPTED,
    OP_FRAME_STOP_START,
    OP_RESTART_CYCLE,
    OP_COUNT
};

const char* const kOpNames[OP_COUNT] = {
    "timer add",
    "timer stop/again",
    "timer delete",
    "http transfer",
    "https transfer",
    "http delete before finish",
    "http cancelled mid-body (drip)",
    "http delete",
    "ws connect",
    "ws send",
    "ws disconnect",
    "ws delete",
    "udp add",
    "udp send",
    "udp delete",
    "add racing stop: refused -1",
    "add racing stop: cancelled -1",
    "add racing stop: accepted+deleted",
    "frame stop + init + start",
    "frame restart cycle",
};

enum FaultKind {
    F_HTTP_RESET,
    F_HTTP_SILENT,
    F_TLS_PLAIN_PORT,
    F_TLS_WRONG_CA,
    F_WS_DROP,
    F_WS_REFUSED,
    F_UDP_PEER_GONE,
    F_HTTP_SERVER_CLOSE,
    F_COUNT
};

const char* const kFaultNames[F_COUNT] = {
    "http reset mid-body (-2)",
    "http server never answers (time-out -2)",
    "https to a plain port (-2)",
    "https verified against wrong CA (-2)",
    "ws TCP drop without close (state -2)",
    "ws upgrade refused 403 (state -1)",
    "udp peer gone (recv error, closes -2)",
    "keep-alive connection closed by server",
};

std::atomic<uint64_t> g_Ops[OP_COUNT];
std::atomic<uint64_t> g_Faults[F_COUNT];

void CountOp(OpKind kind, uint64_t n = 1) { g_Ops[kind].fetch_add(n, std::memory_order_relaxed); }
void CountFault(FaultKind kind) { g_Faults[kind].fetch_add(1, std::memory_order_relaxed); }

// Invariant checks, by name: passed and failed counts, and the first few
// failures with their details.
class Checks {
public:
    bool Check(const std::string& name, bool ok, const std::string& detail = {}) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        auto& entry = m_ByName[name];
        if (ok) {
            ++entry.first;
        } else {
            ++entry.second;
            if (m_Failures.size() < 40) m_Failures.push_back(name + (detail.empty() ? "" : ": " + detail));
        }
        return ok;
    }
    uint64_t Passed() const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        uint64_t n = 0;
        for (const auto& kv : m_ByName) n += kv.second.first;
        return n;
    }
    uint64_t Failed() const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        uint64_t n = 0;
        for (const auto& kv : m_ByName) n += kv.second.second;
        return n;
    }
    void Print() const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        std::printf("\n%-58s %12s %8s\n", "invariant checks", "passed", "failed");
        for (const auto& kv : m_ByName)
            std::printf("  %-56s %12" PRIu64 " %8" PRIu64 "\n", kv.first.c_str(), kv.second.first, kv.second.second);
        for (const std::string& f : m_Failures) std::printf("FAILED: %s\n", f.c_str());
    }

private:
    mutable std::mutex m_Mutex;
    std::map<std::string, std::pair<uint64_t, uint64_t>> m_ByName;
    std::vector<std::string> m_Failures;
};

Checks g_Checks;

// Notices alive right now: every notice is released by the library once its
// handle has closed, so this is back to zero at the end of every round.
std::atomic<long> g_LiveNotices{0};

struct LiveCounted {
    LiveCounted() { g_LiveNotices.fetch_add(1); }
    ~LiveCounted() { g_LiveNotices.fetch_sub(1); }
    LiveCounted(const LiveCounted&) = delete;
    LiveCounted& operator=(const LiveCounted&) = delete;
};

// Counts log lines instead of keeping them, so a long run stays flat.
class CountingLogger : public sysutil::ISysutilLogInterface {
public:
    void WriteLog(int* level, int* tid, const char* format, ...) override {
        char line[1024];
        va_list args;
        va_start(args, format);
        std::vsnprintf(line, sizeof(line), format, args);
        va_end(args);
        m_Lines.fetch_add(1, std::memory_order_relaxed);
        if (std::strstr(line, "udp recv Error") != nullptr) m_UdpRecvErrors.fetch_add(1);
        if (std::strstr(line, "ws://") != nullptr && std::strstr(line, " DONE result[") != nullptr) {
            std::lock_guard<std::mutex> lock(m_Mutex);
            if (m_Odd.size() < 20) m_Odd.push_back(line);
        }
        if (m_Echo) std::fprintf(stderr, "[%d] %d %s\n", level ? *level : 0, tid ? *tid : 0, line);
    }
    uint64_t UdpRecvErrors() const { return m_UdpRecvErrors.load(); }
    uint64_t Lines() const { return m_Lines.load(); }
    bool m_Echo = std::getenv("NETLOOP_SOAK_ECHO") != nullptr;

    std::vector<std::string> Odd() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Odd;
    }

private:
    std::mutex m_Mutex;
    std::vector<std::string> m_Odd;  // lines that say a WebSocket ended as an HTTP transfer
    std::atomic<uint64_t> m_Lines{0};
    std::atomic<uint64_t> m_UdpRecvErrors{0};
};

std::shared_ptr<CountingLogger> g_Logger;
uint64_t g_DeadPeerSends = 0;  // datagrams sent to a port nobody listens on (main thread)

// One done function's calls.
struct DoneTrack {
    std::atomic<int> calls{0};
    std::atomic<int> result{-9};
    void Record(int rc) {
        result.store(rc);
        calls.fetch_add(1);
    }
};
using DoneRef = std::shared_ptr<DoneTrack>;

// An operation the application made and what it returned.
struct OperRec {
    const char* what;
    int rc;
    DoneRef done;
};

// ---------------------------------------------------------------------------
// Per-handle tracks and notices

struct TimerTrack {
    std::atomic<int> fires{0};
    std::atomic<int> closes{0};
    std::atomic<int> firesAfterClose{0};
    DoneRef add = std::make_shared<DoneTrack>();
    DoneRef del;  // set when the delete was accepted
    bool delCalled = false;
    std::weak_ptr<ITimerHandleInterface> weak;
};

class TimerNotice : public ITimerHandleNotic, LiveCounted {
public:
    explicit TimerNotice(std::shared_ptr<TimerTrack> t) : m_Track(std::move(t)) {}
    void OnTimer(std::shared_ptr<ITimerHandleInterface>, void*) override {
        if (m_Track->closes.load() != 0) m_Track->firesAfterClose.fetch_add(1);
        m_Track->fires.fetch_add(1);
    }
    void OnClose(std::shared_ptr<ITimerHandleInterface>, void*) override { m_Track->closes.fetch_add(1); }

private:
    std::shared_ptr<TimerTrack> m_Track;
};

enum HttpKind {
    K_HTTP_OK,       // completes with 0
    K_HTTPS_OK,      // completes with 0
    K_HTTP_RESET,    // -2
    K_HTTP_SILENT,   // -2 after the time-out
    K_TLS_PLAIN,     // -2
    K_TLS_WRONG_CA,  // -2
    K_HTTP_DRIP,     // deleted mid-body
    K_WS_ECHO,       // opens, echoes
    K_WS_DROP,       // opens, then the server drops it: state -2
    K_WS_REFUSED,    // state -1
};

struct HttpTrack {
    HttpKind kind = K_HTTP_OK;
    bool limited = false;  // added in a round with tight connection limits
    Clock::time_point added;
    int timeoutMs = 0;
    bool earlyDelete = false;
    bool finishedBeforeDelete = false;  // the application saw OnFinish before it asked for the delete
    bool disconnected = false;
    bool dropAsked = false;
    std::atomic<int> finishes{0};
    std::atomic<int> finishResult{-9};
    std::atomic<int> finishAfterDelete{0};
    std::atomic<bool> deleted{false};  // set by the delete's done function
    std::atomic<bool> gotBytes{false};
    std::atomic<int> wsOpen{0};
    std::atomic<int> wsFailed{0};
    std::atomic<int> wsClosed{0};
    std::atomic<int> wsStateAfterDelete{0};
    std::atomic<uint64_t> wsData{0};
    DoneRef add = std::make_shared<DoneTrack>();
    DoneRef del;
    std::weak_ptr<IHttpHandleInterface> weak;
};

class HttpNotice : public IHttpHandleNotic, LiveCounted {
public:
    explicit HttpNotice(std::shared_ptr<HttpTrack> t) : m_Track(std::move(t)) {}
    void OnWsData(const char*, size_t, int, void*) override { m_Track->wsData.fetch_add(1); }
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t dlnow, curl_off_t, curl_off_t, void*) override {
        if (dlnow > 0) m_Track->gotBytes.store(true);
    }
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int result, void*) override {
        if (m_Track->deleted.load()) m_Track->finishAfterDelete.fetch_add(1);
        m_Track->finishResult.store(result);
        m_Track->finishes.fetch_add(1);
    }
    void OnWsState(std::shared_ptr<IHttpHandleInterface>, int state, void*) override {
        if (m_Track->deleted.load()) m_Track->wsStateAfterDelete.fetch_add(1);
        if (state == WS_STATE_OPEN) m_Track->wsOpen.fetch_add(1);
        if (state == WS_STATE_FAILED) m_Track->wsFailed.fetch_add(1);
        if (state == WS_STATE_CLOSED) m_Track->wsClosed.fetch_add(1);
    }

private:
    std::shared_ptr<HttpTrack> m_Track;
};

struct UdpTrack {
    bool deadPeer = false;
    uint64_t sends = 0;  // accepted by SendUdpData (the owning thread only)
    std::atomic<int> ok{0};
    std::atomic<int> failed{0};
    std::atomic<int> closed{0};
    std::atomic<int> dataAfterClose{0};
    std::atomic<uint64_t> data{0};
    DoneRef add = std::make_shared<DoneTrack>();
    DoneRef del;
    std::weak_ptr<IUdpHandleInterface> weak;
};

class UdpNotice : public IUdpHandleNotic, LiveCounted {
public:
    explicit UdpNotice(std::shared_ptr<UdpTrack> t) : m_Track(std::move(t)) {}
    void OnUdpState(std::shared_ptr<IUdpHandleInterface>, int status, void*) override {
        if (status == UDP_STATUS_OK) m_Track->ok.fetch_add(1);
        if (status == UDP_STATUS_FAILED) m_Track->failed.fetch_add(1);
        if (status == UDP_STATUS_CLOSED) m_Track->closed.fetch_add(1);
    }
    void OnUdpData(const char*, int64_t, const char*, void*) override {
        if (m_Track->closed.load() != 0) m_Track->dataAfterClose.fetch_add(1);
        m_Track->data.fetch_add(1);
    }

private:
    std::shared_ptr<UdpTrack> m_Track;
};

class FrameNotice : public IHttpFrameNotic {
public:
    int OnFrameStop(std::shared_ptr<IHttpInterface>, void*) override {
        stops.fetch_add(1);
        return 0;
    }
    std::atomic<int> stops{0};
};

template <typename Done>
Done DoneInto(const DoneRef& track) {
    return [track](auto, void*, int rc) { track->Record(rc); };
}

// ---------------------------------------------------------------------------
// The loopback world

struct World {
    testsupport::HttpTestServer http{[] {
        testsupport::HttpTestServerOptions o;
        o.maxRecords = 64;
        o.maxKeptBodyBytes = 1 << 20;
        return o;
    }()};
    testsupport::HttpTestServer https{[] {
        testsupport::HttpTestServerOptions o;
        o.tls = true;
        o.maxRecords = 64;
        o.maxKeptBodyBytes = 1 << 20;
        return o;
    }()};
    testsupport::WsTestServer ws{[] {
        testsupport::WsTestServerOptions o;
        o.maxRecords = 64;
        o.maxKeptPayloadBytes = 1 << 20;
        return o;
    }()};
    testsupport::UdpEchoPeer udp{[] {
        testsupport::UdpEchoPeerOptions o;
        o.maxRecords = 64;
        o.maxKeptPayloadBytes = 1 << 20;
        return o;
    }()};
    std::string caFile = testsupport::TestTls().caFile;

    std::string HttpUrl(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(http.Port()) + path;
    }
    std::string HttpsUrl(const std::string& path) const {
        return "https://127.0.0.1:" + std::to_string(https.Port()) + path;
    }
    std::string HttpsToPlainUrl() const { return "https://127.0.0.1:" + std::to_string(http.Port()) + "/fixed"; }
    std::string WsUrl(const std::string& path) const { return "ws://127.0.0.1:" + std::to_string(ws.Port()) + path; }
};

// A UDP port that nobody listens on: bound once, then closed again.
int DeadUdpPort() {
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return 9;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    int port = 9;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
        port = ntohs(addr.sin_port);
    ::close(fd);
    return port;
}

std::shared_ptr<std::vector<uint8_t>> Bytes(size_t n, uint8_t fill) {
    return std::make_shared<std::vector<uint8_t>>(n, fill);
}
std::shared_ptr<std::vector<uint8_t>> Text(const std::string& s) {
    return std::make_shared<std::vector<uint8_t>>(s.begin(), s.end());
}

bool Sanitized() { return std::getenv("NETLOOP_SANITIZED") != nullptr; }

// Stop, bounded: a frame whose loop does not end means a handle was left
// armed, and a soak that hangs tells nobody anything.
bool StopBounded(const std::shared_ptr<IHttpInterface>& frame, std::chrono::seconds limit) {
    auto promise = std::make_shared<std::promise<int>>();
    std::future<int> result = promise->get_future();
    std::thread stopper([frame, promise] { promise->set_value(frame->Stop(false)); });
    if (result.wait_for(limit) != std::future_status::ready) {
        std::fprintf(stderr, "netloop_soak: Stop did not return within %lld s: a handle kept the loop alive\n",
                     static_cast<long long>(limit.count()));
        std::fflush(stdout);
        std::_Exit(3);
    }
    stopper.join();
    return result.get() == 0;
}

// ---------------------------------------------------------------------------
// One application thread of a round

struct RoundShared {
    std::shared_ptr<IHttpInterface> frame;
    World* world = nullptr;
    int deadUdpPort = 9;
    Clock::time_point randomUntil;
    std::atomic<int> racing{0};        // workers that reached the racing phase
    std::atomic<bool> stopped{false};  // Stop has returned
    // The frame multiplexes with tight connection limits (2 per host): long
    // connections (WebSockets, drips, silent servers) make the others wait
    // for a free one, and a transfer's time-out counts that wait.
    bool limited = false;
};

struct TimerItem {
    std::shared_ptr<ITimerHandleInterface> h;
    std::shared_ptr<TimerTrack> t;
};
struct HttpItem {
    std::shared_ptr<IHttpHandleInterface> h;
    std::shared_ptr<HttpTrack> t;
};
struct UdpItem {
    std::shared_ptr<IUdpHandleInterface> h;
    std::shared_ptr<UdpTrack> t;
    Clock::time_point added;
};

// What a racing add left behind.
struct RaceRec {
    int rc = -1;
    int kind = 0;  // 0 timer, 1 http, 2 udp, 3 ws
    DoneRef add = std::make_shared<DoneTrack>();
    DoneRef del = std::make_shared<DoneTrack>();
    std::shared_ptr<TimerTrack> timer;
    std::shared_ptr<HttpTrack> http;
    std::shared_ptr<UdpTrack> udp;
    std::weak_ptr<void> weak;
    std::shared_ptr<IHttpHandleInterface> armed;  // HTTP and WebSocket handles
};

class Worker {
public:
    Worker(RoundShared& shared, uint64_t seed) : m_Shared(shared), m_Rng(seed) {}

    void Run() {
        while (Clock::now() < m_Shared.randomUntil) {
            Step();
            std::this_thread::sleep_for(std::chrono::microseconds(Pick(200, 1500)));
        }
        Cleanup();
        m_Shared.racing.fetch_add(1);
        Race();
    }

    // Retired items, for the round's checks.
    std::vector<std::shared_ptr<TimerTrack>> timers;
    std::vector<std::shared_ptr<HttpTrack>> transfers;
    std::vector<std::shared_ptr<UdpTrack>> udps;
    std::vector<OperRec> opers;  // stop/again and friends
    std::vector<RaceRec> races;

private:
    IHttpInterface& F() { return *m_Shared.frame; }
    World& W() { return *m_Shared.world; }
    int Pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(m_Rng); }
    bool Chance(int percent) { return Pick(0, 99) < percent; }

    void Step() {
        Maintain();
        switch (Pick(0, 9)) {
            case 0:
            case 1:
                if (m_Timers.size() < 6) NewTimer();
                break;
            case 2:
                if (!m_Timers.empty()) StopOrAgain(m_Timers[Pick(0, static_cast<int>(m_Timers.size()) - 1)]);
                break;
            case 3:
                if (!m_Timers.empty()) DeleteTimer(static_cast<size_t>(Pick(0, static_cast<int>(m_Timers.size()) - 1)));
                break;
            case 4:
            case 5:
                if (m_Transfers.size() < 4) NewTransfer();
                break;
            case 6:
                if (m_Sockets.size() < 2) NewWs();
                break;
            case 7:
                if (!m_Sockets.empty()) WsAction(static_cast<size_t>(Pick(0, static_cast<int>(m_Sockets.size()) - 1)));
                break;
            case 8:
                if (m_Udps.size() < 2) NewUdp();
                break;
            case 9:
                if (!m_Udps.empty()) UdpAction(static_cast<size_t>(Pick(0, static_cast<int>(m_Udps.size()) - 1)));
                break;
        }
    }

    // --- timers

    void NewTimer() {
        auto t = std::make_shared<TimerTrack>();
        uint64_t repeat = Chance(50) ? 0 : static_cast<uint64_t>(Pick(2, 20));
        auto h = ITimerHandleInterface::Create(std::make_shared<TimerNotice>(t), static_cast<uint64_t>(Pick(0, 40)),
                                               repeat, nullptr);
        t->weak = h;
        int rc = F().AddTimerReq(h, Chance(20), DoneInto<TimerDoneFunc>(t->add), nullptr);
        g_Checks.Check("add to a running frame returns 0", rc == 0, "timer");
        CountOp(OP_TIMER_ADD);
        if (rc != 0) {
            timers.push_back(t);
            return;
        }
        m_Timers.push_back({h, t});
    }

    void StopOrAgain(TimerItem& item) {
        auto done = std::make_shared<DoneTrack>();
        const bool stop = Chance(50);
        int rc = stop ? item.h->StopTimer(DoneInto<TimerDoneFunc>(done), nullptr)
                      : item.h->AgainTimer(DoneInto<TimerDoneFunc>(done), nullptr);
        // -1 before the add has run; then the done function is never called.
        opers.push_back({stop ? "timer stop" : "timer again", rc, done});
        CountOp(OP_TIMER_STOP_AGAIN);
    }

    void DeleteTimer(size_t index) {
        TimerItem item = std::move(m_Timers[index]);
        m_Timers.erase(m_Timers.begin() + static_cast<long>(index));
        item.t->del = std::make_shared<DoneTrack>();
        item.t->delCalled = true;
        int rc = F().DelTimerReq(item.h, Chance(20), DoneInto<TimerDoneFunc>(item.t->del), nullptr);
        g_Checks.Check("delete on a running frame returns 0", rc == 0, "timer");
        if (rc != 0) item.t->del.reset();
        CountOp(OP_TIMER_DEL);
        timers.push_back(item.t);
    }

    // --- HTTP(S) transfers

    void NewTransfer() {
        auto t = std::make_shared<HttpTrack>();
        std::string url;
        std::string ca = W().caFile;
        t->timeoutMs = 15000;
        const int roll = Pick(0, 99);
        static const char* const kPlain[] = {"/fixed", "/status/404", "/status/503", "/bytes/65536", "/delay/30",
                                             "/chunked?parts=8&size=512", "/fixed?size=20000", "/close"};
        if (roll < 45) {
            t->kind = K_HTTP_OK;
            url = W().HttpUrl(kPlain[Pick(0, 7)]);
        } else if (roll < 57) {
            t->kind = K_HTTPS_OK;
            url = W().HttpsUrl(Chance(50) ? "/fixed" : "/bytes/32768");
        } else if (roll < 65) {
            t->kind = K_HTTP_RESET;
            url = W().HttpUrl("/reset?bytes=200000&after=" + std::to_string(Pick(1, 4000)));
        } else if (roll < 72) {
            t->kind = K_HTTP_SILENT;
            t->timeoutMs = Pick(100, 400);
            url = W().HttpUrl("/silent");
        } else if (roll < 78) {
            t->kind = K_TLS_PLAIN;
            url = W().HttpsToPlainUrl();
        } else if (roll < 84) {
            t->kind = K_TLS_WRONG_CA;
            url = W().HttpsUrl("/fixed");
            ca.clear();  // libcurl's own CA store, which does not know the test certificate
        } else {
            t->kind = K_HTTP_DRIP;
            url = W().HttpUrl("/drip?bytes=100000&interval=10&piece=64");
        }
        auto h = IHttpHandleInterface::Create();
        t->weak = h;
        if (h->InitHttpReq(url.c_str(), "soak", HTTP_REQ_GET, std::make_shared<HttpNotice>(t), 5000, t->timeoutMs,
                           nullptr) != 0) {
            g_Checks.Check("InitHttpReq on a new handle returns 0", false, url);
            return;
        }
        if (t->kind == K_HTTPS_OK || t->kind == K_TLS_PLAIN) h->SetCaPath(ca.c_str());
        if (t->kind == K_HTTP_DRIP) h->EnableProgress(true);
        // A few transfers of other kinds are deleted at a random moment too.
        t->earlyDelete = t->kind != K_HTTP_DRIP && Chance(12);
        t->added = Clock::now();
        int rc = F().AddHttpReq(h, Chance(20), DoneInto<HttpDoneFunc>(t->add), nullptr);
        g_Checks.Check("add to a running frame returns 0", rc == 0, "http");
        CountOp(t->kind == K_HTTPS_OK || t->kind == K_TLS_WRONG_CA ? OP_HTTPS_TRANSFER : OP_HTTP_TRANSFER);
        if (rc != 0) {
            // Armed but never added: it still has to go back to idle through a frame.
            DeleteTransfer(HttpItem{h, t});
            return;
        }
        m_Transfers.push_back({h, t});
    }

    void DeleteTransfer(HttpItem item) {
        item.t->finishedBeforeDelete = item.t->finishes.load() != 0;
        item.t->del = std::make_shared<DoneTrack>();
        auto track = item.t;
        auto del = item.t->del;
        HttpDoneFunc done = [track, del](std::shared_ptr<IHttpHandleInterface>, void*, int rc) {
            track->deleted.store(true);
            del->Record(rc);
        };
        int rc = F().DelHttpReq(item.h, Chance(20), std::move(done), nullptr);
        g_Checks.Check("delete on a running frame returns 0", rc == 0, "http");
        if (rc != 0) item.t->del.reset();
        CountOp(item.t->kind >= K_WS_ECHO ? OP_WS_DEL : OP_HTTP_DEL);
        transfers.push_back(item.t);
    }

    // Moves transfers along: finished ones are deleted, drips once bytes came,
    // early deletes at a random moment.
    void Maintain() {
        const auto now = Clock::now();
        for (size_t i = 0; i < m_Transfers.size();) {
            HttpTrack& t = *m_Transfers[i].t;
            bool remove = false;
            if (t.finishes.load() != 0) {
                ExpectFinish(t);
                remove = true;
            } else if (t.kind == K_HTTP_DRIP && (t.gotBytes.load() || now - t.added > 3s)) {
                if (!m_Shared.limited) g_Checks.Check("drip transfer had bytes before its delete", t.gotBytes.load());
                if (t.gotBytes.load()) CountOp(OP_HTTP_DRIP_CANCEL);
                if (Chance(30)) {
                    // A disconnect first: the transfer is aborted and stays armed.
                    t.disconnected = m_Transfers[i].h->Disconnect() == 0;
                    g_Checks.Check("Disconnect of an added transfer returns 0", t.disconnected);
                }
                remove = true;
            } else if (t.earlyDelete && now - t.added > std::chrono::milliseconds(Pick(0, 30))) {
                CountOp(OP_HTTP_DEL_EARLY);
                remove = true;
            } else if (now - t.added > std::chrono::milliseconds(t.timeoutMs) + 20s) {
                g_Checks.Check("transfer ends within its time-out", false, std::to_string(t.kind));
                remove = true;
            }
            if (remove) {
                DeleteTransfer(std::move(m_Transfers[i]));
                m_Transfers.erase(m_Transfers.begin() + static_cast<long>(i));
            } else {
                ++i;
            }
        }
        for (size_t i = 0; i < m_Sockets.size();) {
            HttpTrack& t = *m_Sockets[i].t;
            bool remove = false;
            if (t.kind == K_WS_REFUSED && t.wsFailed.load() != 0) {
                CountFault(F_WS_REFUSED);
                remove = true;
            } else if (t.kind == K_WS_DROP && t.wsFailed.load() != 0) {
                // Under connection limits: timed out waiting for a connection.
                g_Checks.Check("ws fails before its open only under connection limits", t.limited);
                remove = true;
            } else if (t.kind == K_WS_DROP && t.wsOpen.load() != 0 && !t.dropAsked) {
                size_t sent = 0;
                t.dropAsked = m_Sockets[i].h->SendWsData(Text("cmd:drop"), WS_MSG_TEXT, &sent) == 0;
                g_Checks.Check("SendWsData on an open connection returns 0", t.dropAsked);
            } else if (t.kind == K_WS_DROP && t.wsClosed.load() != 0) {
                CountFault(F_WS_DROP);
                remove = true;
            } else if (now - t.added > 20s) {
                g_Checks.Check("ws connection reaches its expected state", false, std::to_string(t.kind));
                remove = true;
            }
            if (remove) {
                DeleteTransfer(std::move(m_Sockets[i]));
                m_Sockets.erase(m_Sockets.begin() + static_cast<long>(i));
            } else {
                ++i;
            }
        }
    }

    void ExpectFinish(HttpTrack& t) {
        const int result = t.finishResult.load();
        switch (t.kind) {
            case K_HTTP_OK:
            case K_HTTPS_OK:
                if (m_Shared.limited)
                    g_Checks.Check("loopback transfer under connection limits finishes with 0 or -2",
                                   result == 0 || result == -2, "result " + std::to_string(result));
                else
                    g_Checks.Check("loopback transfer finishes with 0", result == 0,
                                   "kind " + std::to_string(t.kind) + " result " + std::to_string(result));
                break;
            case K_HTTP_RESET:
                if (g_Checks.Check("reset mid-body finishes with -2", result == -2)) CountFault(F_HTTP_RESET);
                break;
            case K_HTTP_SILENT:
                if (g_Checks.Check("silent server times out with -2", result == -2)) CountFault(F_HTTP_SILENT);
                break;
            case K_TLS_PLAIN:
                if (g_Checks.Check("https to a plain port finishes with -2", result == -2))
                    CountFault(F_TLS_PLAIN_PORT);
                break;
            case K_TLS_WRONG_CA:
                if (g_Checks.Check("https with the wrong CA finishes with -2", result == -2))
                    CountFault(F_TLS_WRONG_CA);
                break;
            default:
                break;
        }
    }

    // --- WebSocket connections

    void NewWs() {
        auto t = std::make_shared<HttpTrack>();
        t->limited = m_Shared.limited;
        const int roll = Pick(0, 99);
        std::string url;
        if (roll < 70) {
            t->kind = K_WS_ECHO;
            url = W().WsUrl("/echo");
        } else if (roll < 85) {
            t->kind = K_WS_DROP;
            url = W().WsUrl("/echo");
        } else {
            t->kind = K_WS_REFUSED;
            url = W().WsUrl("/refuse/403");
        }
        auto h = IHttpHandleInterface::Create();
        t->weak = h;
        if (h->InitHttpReq(url.c_str(), "soak-ws", HTTP_REQ_WEBSOCKET, std::make_shared<HttpNotice>(t), 5000, 0,
                           nullptr) != 0) {
            g_Checks.Check("InitHttpReq on a new handle returns 0", false, url);
            return;
        }
        t->added = Clock::now();
        int rc = F().AddHttpReq(h, Chance(20), DoneInto<HttpDoneFunc>(t->add), nullptr);
        g_Checks.Check("add to a running frame returns 0", rc == 0, "ws");
        CountOp(OP_WS_CONNECT);
        if (rc != 0) {
            DeleteTransfer(HttpItem{h, t});
            return;
        }
        m_Sockets.push_back({h, t});
    }

    void WsAction(size_t index) {
        HttpItem& item = m_Sockets[index];
        HttpTrack& t = *item.t;
        if (t.kind != K_WS_ECHO) return;
        const int roll = Pick(0, 99);
        if (roll < 70) {
            // Sends before the open wait for it.
            size_t sent = 0;
            auto data = Chance(50) ? Text("soak " + std::to_string(Pick(0, 1 << 20))) : Bytes(Pick(1, 4096), 0x5a);
            int rc = item.h->SendWsData(data, Chance(50) ? WS_MSG_TEXT : WS_MSG_BINARY, &sent);
            g_Checks.Check("SendWsData on an added connection returns 0", rc == 0);
            CountOp(OP_WS_SEND);
            return;
        }
        if (roll < 85 && t.wsOpen.load() != 0) {
            t.disconnected = true;
            int rc = item.h->Disconnect();
            g_Checks.Check("Disconnect of an added connection returns 0", rc == 0);
            CountOp(OP_WS_DISCONNECT);
        }
        HttpItem gone = std::move(item);
        m_Sockets.erase(m_Sockets.begin() + static_cast<long>(index));
        DeleteTransfer(std::move(gone));
    }

    // --- UDP

    void NewUdp() {
        auto t = std::make_shared<UdpTrack>();
        t->deadPeer = Chance(25);
        const int port = t->deadPeer ? m_Shared.deadUdpPort : W().udp.Port();
        auto h = IUdpHandleInterface::Create(std::make_shared<UdpNotice>(t), "127.0.0.1", port, nullptr);
        t->weak = h;
        int rc = F().AddUdpReq(h, Chance(20), DoneInto<UdpDoneFunc>(t->add), nullptr);
        g_Checks.Check("add to a running frame returns 0", rc == 0, "udp");
        CountOp(OP_UDP_ADD);
        if (rc != 0) {
            udps.push_back(t);
            return;
        }
        m_Udps.push_back({h, t, Clock::now()});
    }

    void UdpAction(size_t index) {
        UdpItem& item = m_Udps[index];
        if (Chance(75) && item.t->add.get()->calls.load() != 0) {
            int rc = item.h->SendUdpData(Bytes(static_cast<size_t>(Pick(1, 1200)), 0x33));
            g_Checks.Check("SendUdpData on a connected socket returns 0", rc == 0);
            if (rc == 0) ++item.t->sends;
            CountOp(OP_UDP_SEND);
            return;
        }
        if (Clock::now() - item.added < 20ms) return;
        DeleteUdp(index);
    }

    void DeleteUdp(size_t index) {
        UdpItem item = std::move(m_Udps[index]);
        m_Udps.erase(m_Udps.begin() + static_cast<long>(index));
        item.t->del = std::make_shared<DoneTrack>();
        int rc = F().DelUdpReq(item.h, Chance(20), DoneInto<UdpDoneFunc>(item.t->del), nullptr);
        g_Checks.Check("delete on a running frame returns 0", rc == 0, "udp");
        if (rc != 0) item.t->del.reset();
        CountOp(OP_UDP_DEL);
        udps.push_back(item.t);
    }

    // --- end of the random phase: everything this thread added is deleted,
    // and the deletes are seen through before the frame may stop.

    void Cleanup() {
        while (!m_Timers.empty()) DeleteTimer(m_Timers.size() - 1);
        while (!m_Udps.empty()) DeleteUdp(m_Udps.size() - 1);
        while (!m_Transfers.empty()) {
            HttpItem item = std::move(m_Transfers.back());
            m_Transfers.pop_back();
            if (item.t->finishes.load() != 0) ExpectFinish(*item.t);
            DeleteTransfer(std::move(item));
        }
        while (!m_Sockets.empty()) {
            HttpItem item = std::move(m_Sockets.back());
            m_Sockets.pop_back();
            DeleteTransfer(std::move(item));
        }
        // Everything settles on the loop thread; bounded.
        bool settled = testsupport::WaitUntil(
            [&] {
                for (auto& t : timers)
                    if (t->add->calls.load() != 0 && t->add->result.load() == 0 && t->closes.load() == 0) return false;
                for (auto& t : transfers)
                    if (t->del && t->del->calls.load() == 0) return false;
                for (auto& t : udps)
                    if (t->del && t->del->calls.load() == 0) return false;
                for (auto& o : opers)
                    if (o.rc == 0 && o.done->calls.load() == 0) return false;
                return true;
            },
            30s);
        g_Checks.Check("deletes of a round settle before the stop", settled);
    }

    // --- adds racing the frame's stop. Each accepted add deletes its handle
    // from its own done function, on the loop thread, so nothing is ever left
    // armed whichever side wins.

    void Race() {
        IHttpInterface* frame = m_Shared.frame.get();
        while (!m_Shared.stopped.load() && races.size() < 400) {
            RaceRec r;
            r.kind = Pick(0, 3);
            if (r.kind == 0) {
                r.timer = std::make_shared<TimerTrack>();
                auto h = ITimerHandleInterface::Create(std::make_shared<TimerNotice>(r.timer),
                                                       static_cast<uint64_t>(Pick(0, 5)), 1, nullptr);
                r.weak = h;
                auto add = r.add;
                auto del = r.del;
                r.rc = frame->AddTimerReq(
                    h, Chance(50),
                    [frame, add, del](std::shared_ptr<ITimerHandleInterface> handle, void*, int rc) {
                        add->Record(rc);
                        if (rc == 0) frame->DelTimerReq(handle, false, DoneInto<TimerDoneFunc>(del), nullptr);
                    },
                    nullptr);
            } else if (r.kind == 1 || r.kind == 3) {
                r.http = std::make_shared<HttpTrack>();
                auto h = IHttpHandleInterface::Create();
                r.weak = h;
                std::string url = r.kind == 1 ? W().HttpUrl("/delay/50") : W().WsUrl("/echo");
                h->InitHttpReq(url.c_str(), "race", r.kind == 1 ? HTTP_REQ_GET : HTTP_REQ_WEBSOCKET,
                               std::make_shared<HttpNotice>(r.http), 5000, 0, nullptr);
                auto add = r.add;
                auto del = r.del;
                auto track = r.http;
                r.rc = frame->AddHttpReq(
                    h, Chance(50),
                    [frame, add, del, track](std::shared_ptr<IHttpHandleInterface> handle, void*, int rc) {
                        add->Record(rc);
                        if (rc != 0) return;
                        frame->DelHttpReq(
                            handle, false,
                            [del, track](std::shared_ptr<IHttpHandleInterface>, void*, int drc) {
                                track->deleted.store(true);
                                del->Record(drc);
                            },
                            nullptr);
                    },
                    nullptr);
                // Refused or cancelled, the handle stays armed with no frame
                // running; it goes back to idle at the start of the next round.
                r.armed = h;
            } else {
                r.udp = std::make_shared<UdpTrack>();
                auto h = IUdpHandleInterface::Create(std::make_shared<UdpNotice>(r.udp), "127.0.0.1", W().udp.Port(),
                                                     nullptr);
                r.weak = h;
                auto add = r.add;
                auto del = r.del;
                r.rc = frame->AddUdpReq(
                    h, Chance(50),
                    [frame, add, del](std::shared_ptr<IUdpHandleInterface> handle, void*, int rc) {
                        add->Record(rc);
                        if (rc == 0) frame->DelUdpReq(handle, false, DoneInto<UdpDoneFunc>(del), nullptr);
                    },
                    nullptr);
            }
            races.push_back(std::move(r));
            std::this_thread::sleep_for(std::chrono::microseconds(Pick(50, 400)));
        }
    }

public:
    // Armed HTTP handles whose racing add was refused or cancelled.
    // InitHttpReq made them keep themselves alive; only a delete through a
    // frame ends that.
    std::vector<std::shared_ptr<IHttpHandleInterface>> TakeOrphans() {
        std::vector<std::shared_ptr<IHttpHandleInterface>> out;
        for (auto& r : races) {
            if (r.armed && (r.rc != 0 || r.add->result.load() != 0)) out.push_back(r.armed);
            r.armed.reset();
        }
        return out;
    }

private:
    RoundShared& m_Shared;
    std::mt19937_64 m_Rng;
    std::vector<TimerItem> m_Timers;
    std::vector<HttpItem> m_Transfers;
    std::vector<HttpItem> m_Sockets;
    std::vector<UdpItem> m_Udps;
};

// ---------------------------------------------------------------------------
// The checks at the end of a round, after the frame has stopped

void CheckDone(const DoneRef& d, const char* what) {
    if (!d) return;
    g_Checks.Check(std::string("accepted operation: done exactly once (") + what + ")", d->calls.load() == 1,
                   "calls " + std::to_string(d->calls.load()));
}

void CheckWorker(Worker& w) {
    for (auto& t : w.timers) {
        CheckDone(t->add, "timer add");
        if (t->del) CheckDone(t->del, "timer delete");
        const bool added = t->add->calls.load() == 1 && t->add->result.load() == 0;
        g_Checks.Check("added timer: exactly one OnClose", !added || t->closes.load() == 1,
                       "closes " + std::to_string(t->closes.load()));
        g_Checks.Check("timer: no OnTimer after OnClose", t->firesAfterClose.load() == 0);
    }
    for (auto& t : w.transfers) {
        CheckDone(t->add, t->kind >= K_WS_ECHO ? "ws add" : "http add");
        CheckDone(t->del, t->kind >= K_WS_ECHO ? "ws delete" : "http delete");
        if (t->del) g_Checks.Check("delete of an armed handle: done 0", t->del->result.load() == 0);
        g_Checks.Check("transfer: at most one OnFinish", t->finishes.load() <= 1);
        g_Checks.Check("transfer: no OnFinish after its delete", t->finishAfterDelete.load() == 0);
        if (t->kind >= K_WS_ECHO) {
            g_Checks.Check("ws: never an OnFinish", t->finishes.load() == 0,
                           "kind " + std::to_string(t->kind) + " result " + std::to_string(t->finishResult.load()) +
                               " open " + std::to_string(t->wsOpen.load()) + " failed " +
                               std::to_string(t->wsFailed.load()) + " closed " + std::to_string(t->wsClosed.load()) +
                               (t->disconnected ? " disconnected" : "") + (t->earlyDelete ? " early" : ""));
            g_Checks.Check("ws: no OnWsState after its delete", t->wsStateAfterDelete.load() == 0);
            g_Checks.Check("ws: at most one open, one end", t->wsOpen.load() <= 1 &&
                                                                   t->wsFailed.load() + t->wsClosed.load() <= 1);
            if (t->kind == K_WS_ECHO && t->limited)
                g_Checks.Check("ws echo connection under connection limits: no close notice (a time-out waiting "
                               "for a connection fails it)",
                               t->wsClosed.load() == 0 && (t->wsFailed.load() == 0 || t->wsOpen.load() == 0));
            else if (t->kind == K_WS_ECHO)
                g_Checks.Check("ws echo connection: no failure or close notice",
                               t->wsFailed.load() == 0 && t->wsClosed.load() == 0);
            if (t->kind == K_WS_REFUSED)
                g_Checks.Check("refused upgrade: never opens", t->wsOpen.load() == 0);
        } else if (t->finishedBeforeDelete) {
            g_Checks.Check("finished transfer: still one OnFinish after its delete", t->finishes.load() == 1);
        }
    }
    for (auto& t : w.udps) {
        CheckDone(t->add, "udp add");
        if (t->del) CheckDone(t->del, "udp delete");
        const bool connected = t->add->result.load() == 0;
        g_Checks.Check("udp add on loopback: done 0 after OnUdpState 0", connected && t->ok.load() == 1);
        g_Checks.Check("connected udp: exactly one OnUdpState -2 after its delete", !connected || t->closed.load() == 1,
                       "closed " + std::to_string(t->closed.load()));
        g_Checks.Check("udp: no OnUdpData after OnUdpState -2", t->dataAfterClose.load() == 0);
        if (t->deadPeer && connected && t->closed.load() == 1) CountFault(F_UDP_PEER_GONE);
    }
    for (auto& o : w.opers) {
        if (o.rc == 0)
            CheckDone(o.done, o.what);
        else
            g_Checks.Check("refused operation: done never called", o.done->calls.load() == 0, o.what);
    }
    for (auto& r : w.races) {
        if (r.rc != 0) {
            CountOp(OP_RACE_REFUSED);
            g_Checks.Check("racing add refused: done never called", r.add->calls.load() == 0);
            continue;
        }
        g_Checks.Check("racing add accepted: done exactly once", r.add->calls.load() == 1,
                       "calls " + std::to_string(r.add->calls.load()));
        if (r.add->result.load() != 0) {
            CountOp(OP_RACE_CANCELLED);
            g_Checks.Check("racing add cancelled: done -1", r.add->result.load() == -1);
            g_Checks.Check("racing add cancelled: never deleted", r.del->calls.load() == 0);
            continue;
        }
        CountOp(OP_RACE_ACCEPTED);
        g_Checks.Check("racing add executed: deleted in its done, done 0",
                       r.del->calls.load() == 1 && r.del->result.load() == 0);
        if (r.timer) g_Checks.Check("racing timer: exactly one OnClose", r.timer->closes.load() == 1);
        if (r.udp) g_Checks.Check("racing udp: exactly one OnUdpState -2", r.udp->closed.load() == 1);
        if (r.http) g_Checks.Check("racing transfer: no OnFinish", r.http->finishes.load() == 0);
    }
}

// Handles of the round: the library holds none once the frame has stopped.
size_t LiveHandles(Worker& w) {
    size_t live = 0;
    for (auto& t : w.timers) live += t->weak.expired() ? 0 : 1;
    for (auto& t : w.transfers) live += t->weak.expired() ? 0 : 1;
    for (auto& t : w.udps) live += t->weak.expired() ? 0 : 1;
    for (auto& r : w.races) live += r.weak.expired() ? 0 : 1;
    return live;
}

// Descriptors and threads of the servers' connections go away a moment after
// the client's; wait for them, bounded. The start figures are taken once the
// first round or cycles have set up what lives for the whole process (the
// resolver's threads, the servers' accepted sockets that are still closing
// then count too), so "back to start" means "not above it".
bool SettleCounts(size_t fds, size_t threads, std::chrono::milliseconds limit) {
    return testsupport::WaitUntil(
        [&] { return testsupport::OpenFdCount() <= fds && testsupport::ThreadCount() <= threads; }, limit);
}

size_t TrimmedRss() {
    ::malloc_trim(0);
    return testsupport::ResidentBytes();
}

struct Options {
    int seconds = 20;
    int threads = 8;
    int rounds = 5;
    int restartCycles = 0;
    uint64_t seed = 0;
    bool rss = true;
};

struct RssLog {
    std::vector<size_t> samples;
};

// Warm-up: the first quarter of the samples (at least one) fills caches,
// arenas and the servers' bounded records. After that, resident memory may
// wander by allocator noise but not grow with the work done.
void CheckRssFlat(const char* what, const std::vector<size_t>& samples, size_t slack) {
    if (samples.size() < 3) return;
    size_t warm = std::max<size_t>(1, samples.size() / 4);
    size_t base = samples[warm];
    size_t last = samples.back();
    size_t peak = *std::max_element(samples.begin() + static_cast<long>(warm), samples.end());
    char detail[200];
    std::snprintf(detail, sizeof(detail), "after warm-up %.1f MiB, last %.1f MiB, peak %.1f MiB, allowed +%.1f MiB",
                  base / 1048576.0, last / 1048576.0, peak / 1048576.0, slack / 1048576.0);
    g_Checks.Check(std::string("resident memory flat after warm-up (") + what + ")", last <= base + slack, detail);
    std::printf("  rss %-8s %s\n", what, detail);
}

// ---------------------------------------------------------------------------
// Mode 1: random rounds

void RunRounds(const Options& opt) {
    auto frame = IHttpInterface::Create();
    std::weak_ptr<IHttpInterface> weakFrame = frame;
    auto notice = std::make_shared<FrameNotice>();
    const auto roundLength = std::chrono::milliseconds(static_cast<int64_t>(opt.seconds) * 1000 / opt.rounds);
    size_t baseFds = 0, baseThreads = 0;
    std::vector<size_t> rss;
    std::vector<std::shared_ptr<IHttpHandleInterface>> orphans;
    std::mt19937_64 seeds(opt.seed);

    for (int round = 0; round < opt.rounds; ++round) {
        if (frame->Init(notice, round % 2 == 1, round % 3 == 2, nullptr) != 0 || frame->Start(true) != 0) {
            g_Checks.Check("frame Init and Start after a stop", false, "round " + std::to_string(round));
            return;
        }
        if (round > 0) CountOp(OP_FRAME_STOP_START);
        // Fresh servers every round: they remember every connection they ever
        // had, and that memory is theirs, not the library's.
        auto worldHolder = std::make_unique<World>();
        World& world = *worldHolder;
        // Handles whose racing add was refused last round are armed: they go
        // back to idle through this frame.
        for (auto& h : orphans) {
            auto done = std::make_shared<DoneTrack>();
            g_Checks.Check("delete on a running frame returns 0",
                           frame->DelHttpReq(h, false, DoneInto<HttpDoneFunc>(done), nullptr) == 0, "orphan");
            testsupport::WaitUntil([&] { return done->calls.load() != 0; }, 10s);
            CheckDone(done, "http delete");
        }
        orphans.clear();

        world.http.SetCloseEveryNth(round % 2 == 0 ? 5 : 0);
        const uint64_t requestsBefore = world.http.RequestCount();

        RoundShared shared;
        shared.frame = frame;
        shared.world = &world;
        shared.limited = round % 2 == 1;
        shared.deadUdpPort = DeadUdpPort();
        shared.randomUntil = Clock::now() + roundLength;
        const int stopsBefore = notice->stops.load();

        std::vector<std::unique_ptr<Worker>> workers;
        std::vector<std::thread> threads;
        for (int i = 0; i < opt.threads; ++i) workers.push_back(std::make_unique<Worker>(shared, seeds()));
        for (int i = 0; i < opt.threads; ++i) threads.emplace_back([w = workers[i].get()] { w->Run(); });

        // Every thread has deleted what it added; now they add while the frame stops.
        bool allRacing = testsupport::WaitUntil([&] { return shared.racing.load() == opt.threads; }, 120s);
        g_Checks.Check("all threads reach the racing phase", allRacing);
        std::this_thread::sleep_for(std::chrono::milliseconds(2 + round % 7 * 3));
        g_Checks.Check("Stop of a running frame returns 0", StopBounded(frame, 60s));
        shared.stopped.store(true);
        for (auto& t : threads) t.join();

        g_Checks.Check("OnFrameStop exactly once per stop", notice->stops.load() == stopsBefore + 1);
        for (auto& w : workers) {
            CheckWorker(*w);
            for (auto& t : w->udps)
                if (t->deadPeer) g_DeadPeerSends += t->sends;
            for (auto& h : w->TakeOrphans()) orphans.push_back(h);
        }
        // Every fifth response of these rounds closed its kept-alive connection.
        if (round % 2 == 0)
            for (uint64_t n = (world.http.RequestCount() - requestsBefore) / 5; n > 0; --n)
                CountFault(F_HTTP_SERVER_CLOSE);

        size_t live = 0;
        for (auto& w : workers) live += LiveHandles(*w);
        // Refused racing HTTP adds are still armed (held by their self
        // reference) until next round's delete; they are not counted here.
        size_t expectedLive = orphans.size();
        g_Checks.Check("no handle left alive after the stop", live == expectedLive,
                       std::to_string(live) + " alive, " + std::to_string(expectedLive) + " expected");
        g_Checks.Check("no notice left alive after the stop",
                       g_LiveNotices.load() == static_cast<long>(expectedLive),
                       std::to_string(g_LiveNotices.load()) + " alive");
        workers.clear();
        worldHolder.reset();

        if (round == 0) {
            // The first round started the servers' connections, the resolver
            // and libcurl's caches: counts are taken from here on.
            std::this_thread::sleep_for(300ms);
            baseFds = testsupport::OpenFdCount();
            baseThreads = testsupport::ThreadCount();
        } else {
            bool settled = SettleCounts(baseFds, baseThreads, 10s);
            g_Checks.Check("descriptors back to start after the stop", testsupport::OpenFdCount() <= baseFds,
                           std::to_string(testsupport::OpenFdCount()) + " vs " + std::to_string(baseFds));
            g_Checks.Check("threads back to start after the stop", testsupport::ThreadCount() <= baseThreads,
                           std::to_string(testsupport::ThreadCount()) + " vs " + std::to_string(baseThreads));
            (void)settled;
        }
        rss.push_back(TrimmedRss());
        std::fprintf(stderr, "round %d/%d done: rss %.1f MiB, fds %zu, threads %zu\n", round + 1, opt.rounds,
                     rss.back() / 1048576.0, testsupport::OpenFdCount(), testsupport::ThreadCount());
    }

    // The last round's refused adds go back to idle through one more frame life.
    if (!orphans.empty()) {
        if (frame->Init(notice, false, false, nullptr) == 0 && frame->Start(true) == 0) {
            for (auto& h : orphans) {
                auto done = std::make_shared<DoneTrack>();
                frame->DelHttpReq(h, false, DoneInto<HttpDoneFunc>(done), nullptr);
                testsupport::WaitUntil([&] { return done->calls.load() != 0; }, 10s);
                CheckDone(done, "http delete");
            }
            StopBounded(frame, 60s);
        }
        std::vector<std::weak_ptr<IHttpHandleInterface>> weak(orphans.begin(), orphans.end());
        orphans.clear();
        size_t live = 0;
        for (auto& w : weak) live += w.expired() ? 0 : 1;
        g_Checks.Check("no handle left alive after the stop", live == 0, "refused racing adds");
    }
    frame.reset();
    g_Checks.Check("frame released once the application drops it", weakFrame.expired());
    g_Checks.Check("no notice left alive at the end", g_LiveNotices.load() == 0);
    // ICMP port unreachable comes back on loopback at once; the socket reads it
    // as an error, logs it and goes on.
    if (g_DeadPeerSends >= 20)
        g_Checks.Check("udp peer gone: \"udp recv Error\" logged", g_Logger->UdpRecvErrors() > 0,
                       std::to_string(g_DeadPeerSends) + " datagrams sent to the dead port");
    if (opt.rss) CheckRssFlat("rounds", rss, 16u << 20);
}

// ---------------------------------------------------------------------------
// Mode 2: many short frame lives with transfers in between

void RunRestartCycles(const Options& opt, World& world) {
    auto frame = IHttpInterface::Create();
    auto notice = std::make_shared<FrameNotice>();
    std::vector<size_t> rss;
    size_t baseFds = 0, baseThreads = 0;
    int sample = std::max(1, opt.restartCycles / 40);
    const std::string fixed = world.HttpUrl("/fixed");
    const std::string wsUrl = world.WsUrl("/echo");
    for (int cycle = 0; cycle < opt.restartCycles; ++cycle) {
        // A new frame object now and then: the old one must go away whole.
        if (cycle % 100 == 99) {
            std::weak_ptr<IHttpInterface> weak = frame;
            frame = IHttpInterface::Create();
            g_Checks.Check("frame released once the application drops it", weak.expired());
        }
        if (!g_Checks.Check("frame Init and Start after a stop",
                            frame->Init(notice, cycle % 2 == 1, cycle % 5 == 0, nullptr) == 0 &&
                                frame->Start(true) == 0,
                            "cycle " + std::to_string(cycle)))
            return;

        auto timerTrack = std::make_shared<TimerTrack>();
        auto timer = ITimerHandleInterface::Create(std::make_shared<TimerNotice>(timerTrack), 1, 2, nullptr);
        frame->AddTimerReq(timer, false, DoneInto<TimerDoneFunc>(timerTrack->add), nullptr);

        auto httpTrack = std::make_shared<HttpTrack>();
        auto http = IHttpHandleInterface::Create();
        http->InitHttpReq(fixed.c_str(), "cycle", HTTP_REQ_GET, std::make_shared<HttpNotice>(httpTrack), 5000, 10000,
                          nullptr);
        frame->AddHttpReq(http, false, DoneInto<HttpDoneFunc>(httpTrack->add), nullptr);

        auto udpTrack = std::make_shared<UdpTrack>();
        auto udp = IUdpHandleInterface::Create(std::make_shared<UdpNotice>(udpTrack), "127.0.0.1", world.udp.Port(),
                                               nullptr);
        frame->AddUdpReq(udp, false, DoneInto<UdpDoneFunc>(udpTrack->add), nullptr);

        std::shared_ptr<HttpTrack> wsTrack;
        std::shared_ptr<IHttpHandleInterface> ws;
        if (cycle % 10 == 0) {
            wsTrack = std::make_shared<HttpTrack>();
            ws = IHttpHandleInterface::Create();
            ws->InitHttpReq(wsUrl.c_str(), "cycle-ws", HTTP_REQ_WEBSOCKET, std::make_shared<HttpNotice>(wsTrack),
                            5000, 0, nullptr);
            frame->AddHttpReq(ws, false, DoneInto<HttpDoneFunc>(wsTrack->add), nullptr);
            size_t sent = 0;
            ws->SendWsData(Text("cycle"), WS_MSG_TEXT, &sent);
        }

        testsupport::WaitUntil([&] { return udpTrack->add->calls.load() != 0; }, 10s);
        udp->SendUdpData(Bytes(64, 1));
        bool moved = testsupport::WaitUntil(
            [&] {
                return timerTrack->fires.load() >= 2 && httpTrack->finishes.load() == 1 && udpTrack->data.load() >= 1 &&
                       (!wsTrack || wsTrack->wsData.load() >= 1);
            },
            10s);
        g_Checks.Check("restart cycle: timer fired, transfer finished, datagram and ws echo came back", moved);
        g_Checks.Check("loopback transfer finishes with 0", httpTrack->finishResult.load() == 0);

        timerTrack->del = std::make_shared<DoneTrack>();
        httpTrack->del = std::make_shared<DoneTrack>();
        udpTrack->del = std::make_shared<DoneTrack>();
        frame->DelTimerReq(timer, false, DoneInto<TimerDoneFunc>(timerTrack->del), nullptr);
        frame->DelHttpReq(http, false, DoneInto<HttpDoneFunc>(httpTrack->del), nullptr);
        frame->DelUdpReq(udp, false, DoneInto<UdpDoneFunc>(udpTrack->del), nullptr);
        if (ws) {
            wsTrack->del = std::make_shared<DoneTrack>();
            frame->DelHttpReq(ws, false, DoneInto<HttpDoneFunc>(wsTrack->del), nullptr);
        }
        bool deleted = testsupport::WaitUntil(
            [&] {
                return timerTrack->closes.load() == 1 && httpTrack->del->calls.load() == 1 &&
                       udpTrack->closed.load() == 1 && (!ws || wsTrack->del->calls.load() == 1);
            },
            10s);
        g_Checks.Check("restart cycle: deletes seen through", deleted);
        std::weak_ptr<ITimerHandleInterface> weakTimer = timer;
        std::weak_ptr<IHttpHandleInterface> weakHttp = http;
        std::weak_ptr<IUdpHandleInterface> weakUdp = udp;
        std::weak_ptr<IHttpHandleInterface> weakWs = ws;
        timer.reset();
        http.reset();
        udp.reset();
        ws.reset();
        g_Checks.Check("Stop of a running frame returns 0", StopBounded(frame, 60s));
        CountOp(OP_RESTART_CYCLE);
        CheckDone(timerTrack->add, "timer add");
        CheckDone(timerTrack->del, "timer delete");
        CheckDone(httpTrack->add, "http add");
        CheckDone(httpTrack->del, "http delete");
        CheckDone(udpTrack->add, "udp add");
        CheckDone(udpTrack->del, "udp delete");
        g_Checks.Check("no handle left alive after the stop",
                       weakTimer.expired() && weakHttp.expired() && weakUdp.expired() && weakWs.expired(),
                       "restart cycle");
        g_Checks.Check("no notice left alive after the stop", g_LiveNotices.load() == 0);

        if (cycle == 4) {
            std::this_thread::sleep_for(200ms);
            baseFds = testsupport::OpenFdCount();
            baseThreads = testsupport::ThreadCount();
        } else if (cycle > 4) {
            SettleCounts(baseFds, baseThreads, 5s);
            g_Checks.Check("descriptors back to start after the stop", testsupport::OpenFdCount() <= baseFds,
                           std::to_string(testsupport::OpenFdCount()) + " vs " + std::to_string(baseFds));
            g_Checks.Check("threads back to start after the stop", testsupport::ThreadCount() <= baseThreads,
                           std::to_string(testsupport::ThreadCount()) + " vs " + std::to_string(baseThreads));
        }
        if (cycle % sample == 0 || cycle == opt.restartCycles - 1) rss.push_back(TrimmedRss());
        if ((cycle + 1) % 100 == 0)
            std::fprintf(stderr, "restart cycle %d/%d: rss %.1f MiB, fds %zu, threads %zu\n", cycle + 1,
                         opt.restartCycles, rss.back() / 1048576.0, testsupport::OpenFdCount(),
                         testsupport::ThreadCount());
    }
    frame.reset();
    if (opt.rss) CheckRssFlat("restarts", rss, 8u << 20);
}

void PrintTable(const Options& opt, double seconds) {
    std::printf("\nnetloop soak: %d s random rounds x%d on %d threads, %d restart cycles, seed %" PRIu64
                ", %.1f s wall\n",
                opt.rounds > 0 ? opt.seconds : 0, opt.rounds, opt.threads, opt.restartCycles, opt.seed, seconds);
    std::printf("\n%-58s %12s\n", "operations done", "count");
    uint64_t ops = 0;
    for (int i = 0; i < OP_COUNT; ++i) {
        std::printf("  %-56s %12" PRIu64 "\n", kOpNames[i], g_Ops[i].load());
        ops += g_Ops[i].load();
    }
    std::printf("  %-56s %12" PRIu64 "\n", "total", ops);
    std::printf("\n%-58s %12s\n", "faults survived", "count");
    uint64_t faults = 0;
    for (int i = 0; i < F_COUNT; ++i) {
        std::printf("  %-56s %12" PRIu64 "\n", kFaultNames[i], g_Faults[i].load());
        faults += g_Faults[i].load();
    }
    std::printf("  %-56s %12" PRIu64 "\n", "total", faults);
    std::printf("  %-56s %12" PRIu64 "\n", "(\"udp recv Error\" lines logged)", g_Logger->UdpRecvErrors());
    for (const std::string& line : g_Logger->Odd()) std::printf("log: %s\n", line.c_str());
    g_Checks.Print();
    std::printf("\nsoak: %" PRIu64 " passed, %" PRIu64 " failed\n", g_Checks.Passed(), g_Checks.Failed());
}

int Usage() {
    std::fprintf(stderr,
                 "usage: netloop_soak [--seconds N] [--threads T] [--rounds R] [--restart-cycles C] [--seed S] "
                 "[--no-rss]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    opt.seed = static_cast<uint64_t>(Clock::now().time_since_epoch().count());
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto next = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        const char* v = nullptr;
        if (a == "--no-rss") {
            opt.rss = false;
            continue;
        }
        if ((v = next()) == nullptr) return Usage();
        if (a == "--seconds")
            opt.seconds = std::atoi(v);
        else if (a == "--threads")
            opt.threads = std::max(1, std::atoi(v));
        else if (a == "--rounds")
            opt.rounds = std::atoi(v);
        else if (a == "--restart-cycles")
            opt.restartCycles = std::atoi(v);
        else if (a == "--seed")
            opt.seed = std::strtoull(v, nullptr, 10);
        else
            return Usage();
    }
    if (opt.seconds <= 0) opt.rounds = 0;
    // Sanitizers keep freed memory in quarantine: resident memory says nothing there.
    if (Sanitized()) opt.rss = false;

    g_Logger = std::make_shared<CountingLogger>();
    auto previous = sysutil::ISysutilLogInterface::GetLogInstance(nullptr);
    sysutil::ISysutilLogInterface::GetLogInstance(g_Logger);

    const auto start = Clock::now();
    {
        if (opt.rounds > 0) RunRounds(opt);
        if (opt.restartCycles > 0) {
            World world;
            RunRestartCycles(opt, world);
        }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    sysutil::ISysutilLogInterface::GetLogInstance(previous);
    PrintTable(opt, seconds);
    return g_Checks.Failed() == 0 ? 0 : 1;
}
