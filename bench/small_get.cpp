// Small GETs (nginx /small, 100-byte body) over keep-alive HTTP/1.1 with a
// fixed number of transfers in flight; a new easy handle per request.
//
//   --impl=netloop     netloop frame; the next request is made from OnFinish
//   --impl=multi_poll  libcurl multi handle driven by curl_multi_poll
//   --impl=multi_uv    libcurl multi-socket interface on a libuv loop: one
//                      uv_poll_t per socket, one uv_timer_t (the shape of
//                      libcurl's own multi-uv example)
//   --impl=wrk         wrk -t1 against the same nginx: the machine's ceiling
//   --concurrency=C (16)  --n=N transfers per round (20000)  --warmup=W (200)
//   --min-seconds=S rounds go on until S seconds have passed (1)
//   --duration=S wrk's run time (3)
//   --tls         HTTPS on nginx's TLS port (HTTP/2 by ALPN), CA verified
//   --reuse       netloop and multi_poll: one handle per slot, added again
//                 after each finish (the others ignore it)
// Figure: requests per second.
#include <curl/curl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <regex>
#include <string>

#include "common/BenchUtil.h"
#include "common/CurlPlain.h"
#include "common/CurlUvDriver.h"
#include "common/NetloopFrame.h"
#include "common/NetloopGets.h"
#include "netloop/IHttpInterface.h"
#include "loopback/NginxServer.h"
#include "loopback/TestTls.h"

namespace {

using namespace netloop;

constexpr size_t kBodySize = 100;

// --reuse: each slot keeps its easy handle (netloop: its handle) and re-adds it
// after every finish, instead of making a new one per request.
bool g_Reuse = false;
// --tls: nginx's TLS port (HTTP/2 by ALPN), verified against the loopback CA.
std::string g_CaFile;

using Tally = bench::GetTally;

// ---------------------------------------------------------------------------
// Plain libcurl: what both baselines share

struct Xfer {
    std::string body;
};

CURL* NewEasy(const std::string& url) {
    CURL* easy = curl_easy_init();
    auto* x = new Xfer;
    bench::SetPlainOptions(easy, url.c_str());
    if (!g_CaFile.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, g_CaFile.c_str());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &bench::AppendToString);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &x->body);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, x);
    return easy;
}

// Takes finished transfers out of `multi`, counts them and starts the next
// ones; returns how many finished.
uint64_t ReapFinished(CURLM* multi, const std::string& url, uint64_t& started, uint64_t total, Tally& tally) {
    uint64_t finished = 0;
    int left = 0;
    while (CURLMsg* msg = curl_multi_info_read(multi, &left)) {
        if (msg->msg != CURLMSG_DONE) continue;
        CURL* easy = msg->easy_handle;
        CURLcode result = msg->data.result;
        Xfer* x = nullptr;
        long code = 0;
        curl_easy_getinfo(easy, CURLINFO_PRIVATE, &x);
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &code);
        const bool good = result == CURLE_OK && code == 200 && x->body.size() == kBodySize;
        ++(good ? tally.ok : tally.bad);
        curl_multi_remove_handle(multi, easy);
        ++finished;
        if (g_Reuse && started < total) {
            ++started;
            x->body.clear();
            curl_multi_add_handle(multi, easy);
            continue;
        }
        curl_easy_cleanup(easy);
        delete x;
        if (started < total) {
            ++started;
            curl_multi_add_handle(multi, NewEasy(url));
        }
    }
    return finished;
}

// ---------------------------------------------------------------------------
// Baseline (a): curl_multi_poll

class MultiPollGets {
public:
    explicit MultiPollGets(std::string url) : m_Url(std::move(url)), m_Multi(curl_multi_init()) {}
    ~MultiPollGets() { curl_multi_cleanup(m_Multi); }

    bool Run(uint64_t n, int concurrency, double limitSeconds) {
        const double deadline = bench::Now() + limitSeconds;
        uint64_t started = 0, finished = 0;
        for (int i = 0; i < concurrency && started < n; ++i, ++started) curl_multi_add_handle(m_Multi, NewEasy(m_Url));
        while (finished < n) {
            int running = 0;
            curl_multi_perform(m_Multi, &running);
            finished += ReapFinished(m_Multi, m_Url, started, n, m_Tally);
            if (finished >= n) break;
            if (bench::Now() > deadline) return false;
            curl_multi_poll(m_Multi, nullptr, 0, 1000, nullptr);
        }
        return true;
    }
    Tally Counts() const { return m_Tally; }

private:
    std::string m_Url;
    CURLM* m_Multi;
    Tally m_Tally;
};

// ---------------------------------------------------------------------------
// Baseline (b): multi-socket on libuv

class MultiUvGets {
public:
    explicit MultiUvGets(std::string url) : m_Url(std::move(url)), m_Driver([this] { CheckMultiInfo(); }) {}

    bool Run(uint64_t n, int concurrency, double limitSeconds) {
        m_Total = n;
        m_Started = 0;
        m_Finished = 0;
        for (int i = 0; i < concurrency && m_Started < n; ++i, ++m_Started)
            curl_multi_add_handle(m_Driver.Multi(), NewEasy(m_Url));
        return m_Driver.RunUntil([this] { return m_Finished >= m_Total; }, limitSeconds);
    }
    Tally Counts() const { return m_Tally; }

private:
    void CheckMultiInfo() { m_Finished += ReapFinished(m_Driver.Multi(), m_Url, m_Started, m_Total, m_Tally); }

    std::string m_Url;
    uint64_t m_Total = 0, m_Started = 0, m_Finished = 0;
    Tally m_Tally;
    bench::CurlUvDriver m_Driver;  // last: made after, and gone before, what its callback counts
};

// ---------------------------------------------------------------------------
// wrk

bool OnPath(const std::string& name) {
    if (name.find('/') != std::string::npos) return ::access(name.c_str(), X_OK) == 0;
    const char* path = std::getenv("PATH");
    std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
    for (size_t start = 0; start <= dirs.size();) {
        size_t end = dirs.find(':', start);
        if (end == std::string::npos) end = dirs.size();
        if (::access((dirs.substr(start, end - start) + "/" + name).c_str(), X_OK) == 0) return true;
        start = end + 1;
    }
    return false;
}

int RunWrk(bench::Result& res, const std::string& url, int concurrency, int seconds, const std::string& wrk) {
    if (!OnPath(wrk)) return res.Skip(wrk + " is not installed");
    std::string cmd = wrk + " -t1 -c" + std::to_string(concurrency) + " -d" + std::to_string(seconds) +
                      "s --timeout 5s " + url + " 2>&1";
    FILE* p = ::popen(cmd.c_str(), "r");
    if (p == nullptr) return res.Fail("cannot run wrk");
    std::string out;
    char buf[4096];
    while (size_t got = std::fread(buf, 1, sizeof(buf), p)) out.append(buf, got);
    int status = ::pclose(p);
    std::smatch m;
    if (status != 0 || !std::regex_search(out, m, std::regex("Requests/sec:\\s+([0-9.]+)")))
        return res.Fail("wrk failed: " + out);
    if (out.find("Non-2xx") != std::string::npos || out.find("Socket errors") != std::string::npos)
        return res.Fail("wrk saw errors: " + out);
    return res.Print(std::strtod(m[1].str().c_str(), nullptr), "req/s");
}

}  // namespace

int main(int argc, char** argv) {
    bench::Args args(argc, argv);
    const std::string impl = args.Str("impl", "netloop");
    const int concurrency = static_cast<int>(args.Int("concurrency", 16));
    const uint64_t n = static_cast<uint64_t>(args.Int("n", 20000));
    const uint64_t warmup = static_cast<uint64_t>(args.Int("warmup", 200));
    const double minSeconds = args.Num("min-seconds", 1.0);
    const int timeout = static_cast<int>(args.Int("timeout", 120));
    bench::StartWatchdog("small_get", impl, timeout);
    bench::Result res("small_get", impl);
    res.Param("concurrency", concurrency);
    g_Reuse = args.Int("reuse", 0) != 0;
    if (g_Reuse) res.Param("reuse", 1);
    if (impl == "wrk") {
        res.Param("duration", args.Int("duration", 3));
    } else {
        res.Param("n", static_cast<int64_t>(n));
    }

    curl_global_init(CURL_GLOBAL_DEFAULT);
    testsupport::NginxServer nginx;
    if (!nginx.Running()) return res.Skip("nginx is not installed");
    const bool tls = args.Int("tls", 0) != 0;
    if (tls) {
        res.Param("tls", 1);
        g_CaFile = testsupport::TestTls().caFile;
    }
    const std::string url = tls ? nginx.TlsUrl("/small") : nginx.Url("/small");
    const double limit = timeout;

    if (impl == "netloop") {
        bench::FrameScope frame;
        if (!frame.ok()) return res.Fail("frame did not start");
        bench::GetOptions options;
        options.url = url;
        options.bodySize = kBodySize;
        options.reuseHandles = g_Reuse;
        options.caPath = g_CaFile;
        auto gets = std::make_shared<bench::NetloopGets>(frame.get(), options);
        return bench::MeasureGets(res, *gets, warmup, n, concurrency, limit, minSeconds);
    }
    if (impl == "multi_poll") {
        MultiPollGets gets(url);
        return bench::MeasureGets(res, gets, warmup, n, concurrency, limit, minSeconds);
    }
    if (impl == "multi_uv") {
        MultiUvGets gets(url);
        return bench::MeasureGets(res, gets, warmup, n, concurrency, limit, minSeconds);
    }
    if (impl == "wrk")
        return RunWrk(res, url, concurrency, static_cast<int>(args.Int("duration", 3)), args.Str("wrk", "wrk"));
    return res.Fail("unknown --impl (netloop, multi_poll, multi_uv, wrk)");
}
