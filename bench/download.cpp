// One large download (default 1 GiB) from nginx over HTTP/1.1, into memory or
// into a file.
//
//   --impl=netloop    netloop frame; body kept by the handle (GetResponse) or
//                     written with SetOutputFile
//   --impl=baseline   libcurl multi handle with curl_multi_poll; body appended
//                     to a std::string, or libcurl's default fwrite to a FILE*
//   --sink=memory|file (memory)  --size=BYTES (1G; K/M/G suffixes)
// Figure: MB/s (10^6 bytes per second) from the start of the transfer to its
// end.
#include <sys/stat.h>
#include <unistd.h>

#include <curl/curl.h>

#include <cstdio>
#include <memory>
#include <string>

#include "common/BenchUtil.h"
#include "common/CurlPlain.h"
#include "common/NetloopFrame.h"
#include "netloop/IHttpInterface.h"
#include "loopback/NginxServer.h"
#include "loopback/TempDir.h"

namespace {

using namespace netloop;

class FinishWaiter : public IHttpHandleNotic {
public:
    bench::Countdown done{1};
    std::atomic<int> result{-100};
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int r, void*) override {
        result = r;
        done.Add(1);
    }
    void OnWsData(const char*, size_t, int, void*) override {}
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }
};

uint64_t FileSize(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

}  // namespace

int main(int argc, char** argv) {
    bench::Args args(argc, argv);
    const std::string impl = args.Str("impl", "netloop");
    const std::string sink = args.Str("sink", "memory");
    const uint64_t size = args.Size("size", 1ull << 30);
    const int timeout = static_cast<int>(args.Int("timeout", 120));
    bench::StartWatchdog("download", impl, timeout);
    bench::Result res("download", impl);
    res.Param("sink", sink).Param("size", static_cast<int64_t>(size));
    if (sink != "memory" && sink != "file") return res.Fail("unknown --sink (memory, file)");
    const bool toFile = sink == "file";

    curl_global_init(CURL_GLOBAL_DEFAULT);
    testsupport::NginxServer nginx;
    if (!nginx.Running()) return res.Skip("nginx is not installed");
    const std::string data = bench::CachedDataFile(size);
    if (::symlink(data.c_str(), (nginx.Root() + "/big.bin").c_str()) != 0) return res.Fail("cannot link the data file");
    const std::string url = nginx.Url("/big.bin");
    const std::string dir = testsupport::MakeTempDir("netloop-bench-download");
    const std::string outPath = dir + "/out.bin";
    struct Cleanup {
        std::string dir;
        ~Cleanup() { testsupport::RemoveTree(dir); }
    } cleanup{dir};

    double elapsed = 0;
    uint64_t got = 0;
    if (impl == "netloop") {
        bench::FrameScope frame;
        if (!frame.ok()) return res.Fail("frame did not start");
        auto waiter = std::make_shared<FinishWaiter>();
        auto handle = IHttpHandleInterface::Create();
        if (handle->InitHttpReq(url.c_str(), nullptr, HTTP_REQ_GET, waiter, 0, 0, nullptr) != 0)
            return res.Fail("InitHttpReq failed");
        if (toFile && handle->SetOutputFile(outPath.c_str()) != 0) return res.Fail("SetOutputFile failed");
        const double t0 = bench::Now();
        if (frame->AddHttpReq(handle, true, nullptr, nullptr) != 0) return res.Fail("AddHttpReq refused");
        if (!waiter->done.Wait(timeout)) return res.Fail("transfer did not finish in time");
        elapsed = bench::Now() - t0;
        const bool ok = waiter->result == 0 && handle->GetResponseCode() == 200;
        if (!toFile) got = handle->GetResponse().size();
        bench::Countdown deleted(1);
        frame->DelHttpReq(handle, true, [&](std::shared_ptr<IHttpHandleInterface>, void*, int) { deleted.Add(1); },
                          nullptr);
        deleted.Wait(30);
        // The output file is closed by the teardown that follows the done
        // function; stopping the frame waits for it.
        frame.Stop();
        if (!ok) return res.Fail("transfer failed");
        if (toFile) got = FileSize(outPath);
    } else if (impl == "baseline") {
        CURLM* multi = curl_multi_init();
        CURL* easy = curl_easy_init();
        bench::SetPlainOptions(easy, url.c_str());
        std::string body;
        FILE* out = nullptr;
        if (toFile) {
            out = std::fopen(outPath.c_str(), "wb");
            if (out == nullptr) return res.Fail("cannot open the output file");
            curl_easy_setopt(easy, CURLOPT_WRITEDATA, out);  // libcurl's own fwrite
        } else {
            curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &bench::AppendToString);
            curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
        }
        const double t0 = bench::Now();
        CURLcode result = bench::PerformOnMulti(multi, easy, timeout);
        elapsed = bench::Now() - t0;
        long code = 0;
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &code);
        curl_multi_remove_handle(multi, easy);
        curl_easy_cleanup(easy);
        curl_multi_cleanup(multi);
        if (out != nullptr) std::fclose(out);
        if (result != CURLE_OK || code != 200) return res.Fail("transfer failed");
        got = toFile ? FileSize(outPath) : body.size();
    } else {
        return res.Fail("unknown --impl (netloop, baseline)");
    }
    if (got != size) return res.Fail("received " + std::to_string(got) + " bytes, expected " + std::to_string(size));
    res.Extra("seconds", elapsed);
    return res.Print(static_cast<double>(size) / elapsed / 1e6, "MB/s");
}
