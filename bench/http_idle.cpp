// Armed, idle HTTP handles (armed, never added): what they hold and what
// arming one costs.
//
//   --impl=netloop    IHttpHandleInterface::Create + InitHttpReq (GET)
//   --impl=baseline   curl_easy_init with the options InitHttpReq sets for a
//                     GET (URL, no signals, time-outs, private pointer, write
//                     and read callbacks, HTTP/2 over TLS, ALPN, TLS range,
//                     HTTPGET), each with a small record of the application's
//   --mode=rss        (default) the handles are kept until all are armed.
//                     Figure: bytes per handle, peak resident memory once all
//                     are armed minus what the process had before arming.
//   --mode=arm        each handle is made, armed and deleted in turn, both
//                     sides on the same thread. Figure: handles per second.
//   --thread=loop     arm mode: on the frame's loop thread, where netloop's
//                     DelHttpReq runs at once (default)
//   --thread=app      arm mode: on the main thread; netloop's deletes are
//                     queued to the loop thread, and the run ends when the
//                     last one is done
//   --n=N (10000)
//   --url=URL         the handle's URL (http://127.0.0.1:9/small)
//   --min-seconds=S   arm mode: whole runs repeated until they add up to S (1)
#include <curl/curl.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/BenchUtil.h"
#include "common/CurlPlain.h"
#include "common/NetloopFrame.h"
#include "common/OneLineReporter.h"
#include "netloop/IHttpInterface.h"

namespace {

using namespace netloop;

class IdleNotice : public IHttpHandleNotic {
public:
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int, void*) override {}
    void OnWsData(const char*, size_t, int, void*) override {}
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }
};

struct PlainRecord {
    std::string body;
};

size_t NoRead(char*, size_t, size_t, void*) { return 0; }

// The plain side of an armed handle: the options InitHttpReq sets for a GET.
CURL* ArmPlain(const char* url, PlainRecord* record) {
    CURL* easy = curl_easy_init();
    if (easy == nullptr) return nullptr;
    bench::SetPlainOptions(easy, url);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, 0L);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, 0L);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, record);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &bench::AppendToString);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &record->body);
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, &NoRead);
    curl_easy_setopt(easy, CURLOPT_READDATA, record);
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    return easy;
}

std::shared_ptr<IHttpHandleInterface> ArmNetloop(const std::string& url, const std::shared_ptr<IdleNotice>& notice) {
    auto h = IHttpHandleInterface::Create();
    if (h->InitHttpReq(url.c_str(), nullptr, HTTP_REQ_GET, notice, 0, 0, nullptr) != 0) return nullptr;
    return h;
}

// Runs `work` on the frame's loop thread (from a timer's add) and waits for it.
bool OnLoopThread(bench::FrameScope& frame, const std::function<void()>& work, double limit) {
    bench::Countdown ran(1);
    auto timer = ITimerHandleInterface::Create(TimerFunc(), TimerFunc(), 3600 * 1000, 0, nullptr);
    int rc = frame->AddTimerReq(timer, true,
                                [&](std::shared_ptr<ITimerHandleInterface> t, void*, int result) {
                                    if (result == 0) work();
                                    frame->DelTimerReq(t, false, nullptr, nullptr);
                                    ran.Add(1);
                                },
                                nullptr);
    return rc == 0 && ran.Wait(limit);
}

int RunRss(bench::Result& res, bench::FrameScope& frame, const std::string& impl, const std::string& url,
           uint64_t n, int timeout) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    bench::ResetPeakResident();
    const size_t before = bench::ResidentBytes();

    size_t peak = 0;
    if (impl == "netloop") {
        auto notice = std::make_shared<IdleNotice>();
        std::vector<std::shared_ptr<IHttpHandleInterface>> handles;
        handles.reserve(n);
        for (uint64_t i = 0; i < n; ++i) {
            auto h = ArmNetloop(url, notice);
            if (!h) return res.Fail("InitHttpReq failed");
            handles.push_back(std::move(h));
        }
        peak = bench::PeakResidentBytes();
        bench::Countdown deleted(n);
        for (auto& h : handles)
            frame->DelHttpReq(h, true, [&](std::shared_ptr<IHttpHandleInterface>, void*, int) { deleted.Add(1); },
                              nullptr);
        if (!deleted.Wait(timeout)) return res.Fail("handles were not all deleted in time");
    } else {
        std::vector<CURL*> easies;
        std::vector<std::unique_ptr<PlainRecord>> records;
        easies.reserve(n);
        records.reserve(n);
        for (uint64_t i = 0; i < n; ++i) {
            records.push_back(std::make_unique<PlainRecord>());
            CURL* easy = ArmPlain(url.c_str(), records.back().get());
            if (easy == nullptr) return res.Fail("curl_easy_init failed");
            easies.push_back(easy);
        }
        peak = bench::PeakResidentBytes();
        for (CURL* easy : easies) curl_easy_cleanup(easy);
    }
    res.Extra("rss_before", static_cast<double>(before)).Extra("rss_peak", static_cast<double>(peak));
    return res.Print(static_cast<double>(peak - before) / static_cast<double>(n), "bytes/handle");
}

// One handle made, armed and deleted; false when a step was refused. On the
// loop thread netloop's delete runs at once; elsewhere it is queued and
// `deleted` counts its done function.
bool ArmOnce(bench::FrameScope& frame, const std::string& impl, const std::string& url,
             const std::shared_ptr<IdleNotice>& notice, bool queued, bench::Countdown& deleted) {
    if (impl == "netloop") {
        auto h = ArmNetloop(url, notice);
        if (!queued) return h && frame->DelHttpReq(h, false, nullptr, nullptr) == 0;
        return h && frame->DelHttpReq(h, true, [&](std::shared_ptr<IHttpHandleInterface>, void*, int) {
            deleted.Add(1);
        }, nullptr) == 0;
    }
    auto record = std::make_unique<PlainRecord>();
    CURL* easy = ArmPlain(url.c_str(), record.get());
    if (easy == nullptr) return false;
    curl_easy_cleanup(easy);
    deleted.Add(1);
    return true;
}

// One run of the arm mode: `n` handles made, armed and deleted one after the
// other, on the loop thread or on this one (`onLoop` false), until the last
// is deleted. Answers the wall seconds, or -1.
double ArmRound(bench::FrameScope& frame, const std::string& impl, const std::string& url, uint64_t n,
                bool onLoop, int timeout) {
    auto notice = std::make_shared<IdleNotice>();
    bench::Countdown deleted(onLoop ? 0 : n);
    double t0 = 0, seconds = -1;
    auto round = [&] {
        t0 = bench::Now();
        for (uint64_t i = 0; i < n; ++i)
            if (!ArmOnce(frame, impl, url, notice, !onLoop, deleted)) return;
        seconds = bench::Now() - t0;
    };
    if (onLoop) return OnLoopThread(frame, round, timeout) ? seconds : -1;
    round();
    if (seconds < 0 || !deleted.Wait(timeout)) return -1;
    return bench::Now() - t0;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    bench::Args args(argc, argv);
    const std::string impl = args.Str("impl", "netloop");
    const std::string mode = args.Str("mode", "rss");
    const uint64_t n = static_cast<uint64_t>(args.Int("n", 10000));
    const int timeout = static_cast<int>(args.Int("timeout", 120));
    const double minSeconds = args.Num("min-seconds", 1.0);
    const std::string thread = args.Str("thread", "loop");
    const bool onLoop = thread == "loop";
    // A port nobody needs: nothing is ever sent.
    const std::string url = args.Str("url", "http://127.0.0.1:9/small");
    bench::StartWatchdog("http_idle", impl, timeout);
    bench::Result res("http_idle", impl);
    if (mode != "rss") res.Param("mode", mode).Param("thread", thread);
    res.Param("n", static_cast<int64_t>(n));
    if (args.Has("url")) res.Param("url", url);
    if (impl != "netloop" && impl != "baseline") return res.Fail("unknown --impl (netloop, baseline)");
    if (mode != "rss" && mode != "arm") return res.Fail("unknown --mode (rss, arm)");
    if (thread != "loop" && thread != "app") return res.Fail("unknown --thread (loop, app)");

    curl_global_init(CURL_GLOBAL_DEFAULT);
    // Both sides run a frame, so the process around the handles is the same.
    bench::FrameScope frame;
    if (!frame.ok()) return res.Fail("frame did not start");
    // One handle of each kind first, on both sides: libcurl's and netloop's
    // one-time set-up (the resolver among them) is not a per-handle cost.
    {
        PlainRecord record;
        curl_easy_cleanup(ArmPlain(url.c_str(), &record));
        auto h = ArmNetloop(url, std::make_shared<IdleNotice>());
        if (!h) return res.Fail("InitHttpReq failed");
        bench::Countdown deleted(1);
        frame->DelHttpReq(h, true, [&](std::shared_ptr<IHttpHandleInterface>, void*, int) { deleted.Add(1); },
                          nullptr);
        if (!deleted.Wait(10)) return res.Fail("the first handle was not deleted in time");
    }
    if (mode == "rss") return RunRss(res, frame, impl, url, n, timeout);
    return bench::RunRateBenchmark(res, "http_idle/arm/" + impl, minSeconds, n, "handles/s",
                                   "handles were not all armed and deleted in time",
                                   [&] { return ArmRound(frame, impl, url, n, onLoop, timeout); });
}
