// Resident memory of armed, idle HTTP handles (armed, never added).
//
//   --impl=netloop    IHttpHandleInterface::Create + InitHttpReq (GET), kept
//   --impl=baseline   curl_easy_init with the options InitHttpReq sets for a
//                     GET (URL, no signals, time-outs, private pointer, write
//                     and read callbacks, HTTP/2 over TLS, ALPN, TLS range,
//                     HTTPGET), each with a small record of the application's
//   --n=N (10000)
// Figure: bytes per handle, peak resident memory once all are armed minus
// what the process had before arming.
#include <curl/curl.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/BenchUtil.h"
#include "common/CurlPlain.h"
#include "common/NetloopFrame.h"
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

}  // namespace

int main(int argc, char** argv) {
    bench::Args args(argc, argv);
    const std::string impl = args.Str("impl", "netloop");
    const uint64_t n = static_cast<uint64_t>(args.Int("n", 10000));
    const int timeout = static_cast<int>(args.Int("timeout", 120));
    // A port nobody needs: nothing is ever sent.
    const std::string url = args.Str("url", "http://127.0.0.1:9/small");
    bench::StartWatchdog("http_idle", impl, timeout);
    bench::Result res("http_idle", impl);
    res.Param("n", static_cast<int64_t>(n));
    if (impl != "netloop" && impl != "baseline") return res.Fail("unknown --impl (netloop, baseline)");

    curl_global_init(CURL_GLOBAL_DEFAULT);
    // Both sides run a frame, so the process around the handles is the same.
    bench::FrameScope frame;
    if (!frame.ok()) return res.Fail("frame did not start");
    // One handle of each kind first, on both sides: libcurl's and netloop's
    // one-time set-up (the resolver among them) is not a per-handle cost.
    {
        CURL* easy = curl_easy_init();
        bench::SetPlainOptions(easy, url.c_str());
        curl_easy_cleanup(easy);
        auto h = IHttpHandleInterface::Create();
        if (h->InitHttpReq(url.c_str(), nullptr, HTTP_REQ_GET, std::make_shared<IdleNotice>(), 0, 0, nullptr) != 0)
            return res.Fail("InitHttpReq failed");
        bench::Countdown deleted(1);
        frame->DelHttpReq(h, true, [&](std::shared_ptr<IHttpHandleInterface>, void*, int) { deleted.Add(1); },
                          nullptr);
        if (!deleted.Wait(10)) return res.Fail("the first handle was not deleted in time");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    bench::ResetPeakResident();
    const size_t before = bench::ResidentBytes();

    size_t peak = 0;
    if (impl == "netloop") {
        auto notice = std::make_shared<IdleNotice>();
        std::vector<std::shared_ptr<IHttpHandleInterface>> handles;
        handles.reserve(n);
        for (uint64_t i = 0; i < n; ++i) {
            auto h = IHttpHandleInterface::Create();
            if (h->InitHttpReq(url.c_str(), nullptr, HTTP_REQ_GET, notice, 0, 0, nullptr) != 0)
                return res.Fail("InitHttpReq failed");
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
            CURL* easy = curl_easy_init();
            if (easy == nullptr) return res.Fail("curl_easy_init failed");
            bench::SetPlainOptions(easy, url.c_str());
            curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, 0L);
            curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, 0L);
            curl_easy_setopt(easy, CURLOPT_PRIVATE, records.back().get());
            curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &bench::AppendToString);
            curl_easy_setopt(easy, CURLOPT_WRITEDATA, &records.back()->body);
            curl_easy_setopt(easy, CURLOPT_READFUNCTION, &NoRead);
            curl_easy_setopt(easy, CURLOPT_READDATA, records.back().get());
            curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
            easies.push_back(easy);
        }
        peak = bench::PeakResidentBytes();
        for (CURL* easy : easies) curl_easy_cleanup(easy);
    }
    res.Extra("rss_before", static_cast<double>(before)).Extra("rss_peak", static_cast<double>(peak));
    return res.Print(static_cast<double>(peak - before) / static_cast<double>(n), "bytes/handle");
}
