// One large upload (default 100 MiB, PUT with Content-Length) to a server that
// only counts what it reads: this program's own SinkServer by default, or with
// --server=test the HttpTestServer's /upload, which hashes the body as it reads
// (and so is slower than either client). The body comes from a read callback
// copying out of a 1 MiB pattern on both sides.
//
//   --impl=netloop    HTTP_REQ_UPLOAD + SetUploadSize, body via OnUploadRead
//   --impl=baseline   libcurl multi handle with curl_multi_poll, CURLOPT_UPLOAD,
//                     CURLOPT_INFILESIZE_LARGE and CURLOPT_READFUNCTION
//   --size=BYTES (100M)  --server=sink|test (sink)
//   --min-seconds=S uploads of SIZE follow one another until their time adds
//                   up to S (1); each upload uses a new handle
// Figure: MB/s (10^6 bytes per second).
#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "common/BenchUtil.h"
#include "common/CurlPlain.h"
#include "common/NetloopFrame.h"
#include "common/SinkServer.h"
#include "netloop/IHttpInterface.h"
#include "loopback/HttpTestServer.h"
#include "loopback/TestData.h"

namespace {

using namespace netloop;

// Hands out `total` bytes, cycling through one pattern buffer.
class BodySource {
public:
    explicit BodySource(uint64_t total) : m_Pattern(testsupport::DeterministicBytes(1 << 20)), m_Left(total) {}
    size_t Read(char* buffer, size_t want) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(want, m_Left));
        size_t done = 0;
        while (done < n) {
            size_t piece = std::min(n - done, m_Pattern.size() - m_Offset);
            std::memcpy(buffer + done, m_Pattern.data() + m_Offset, piece);
            done += piece;
            m_Offset = (m_Offset + piece) % m_Pattern.size();
        }
        m_Left -= n;
        return n;
    }

private:
    std::string m_Pattern;
    size_t m_Offset = 0;
    uint64_t m_Left;
};

class Uploader : public IHttpHandleNotic {
public:
    explicit Uploader(uint64_t size) : source(size) {}
    BodySource source;
    bench::Countdown done{1};
    std::atomic<int> result{-100};
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char* buffer, size_t size, size_t nitems,
                        void*) override {
        return source.Read(buffer, size * nitems);
    }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int r, void*) override {
        result = r;
        done.Add(1);
    }
    void OnWsData(const char*, size_t, int, void*) override {}
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
};

size_t ReadFromSource(char* buffer, size_t size, size_t nitems, void* userp) {
    return static_cast<BodySource*>(userp)->Read(buffer, size * nitems);
}

// One upload through netloop on a running frame: a new handle, as an
// application makes one per request. Seconds, or -1 with `error` set.
double UploadNetloop(const std::shared_ptr<IHttpInterface>& frame, const std::string& url, uint64_t size,
                     double limit, std::string& answer, std::string& error) {
    auto uploader = std::make_shared<Uploader>(size);
    auto handle = IHttpHandleInterface::Create();
    if (handle->InitHttpReq(url.c_str(), nullptr, HTTP_REQ_UPLOAD, uploader, 0, 0, nullptr) != 0 ||
        handle->SetUploadSize(static_cast<curl_off_t>(size)) != 0) {
        error = "arming the upload failed";
        return -1;
    }
    const double t0 = bench::Now();
    if (frame->AddHttpReq(handle, true, nullptr, nullptr) != 0) {
        error = "AddHttpReq refused";
        return -1;
    }
    const bool finished = uploader->done.Wait(limit);
    const double elapsed = bench::Now() - t0;
    const bool ok = finished && uploader->result == 0 && handle->GetResponseCode() == 200;
    if (finished) answer = handle->GetResponse();
    bench::Countdown deleted(1);
    frame->DelHttpReq(handle, true, [&](std::shared_ptr<IHttpHandleInterface>, void*, int) { deleted.Add(1); },
                      nullptr);
    deleted.Wait(30);
    if (!ok) {
        error = finished ? "upload failed" : "upload did not finish in time";
        return -1;
    }
    return elapsed;
}

// One upload through a plain libcurl multi handle: a new easy handle each time.
double UploadPlain(CURLM* multi, const std::string& url, uint64_t size, double limit, std::string& answer,
                   std::string& error) {
    BodySource source(size);
    CURL* easy = curl_easy_init();
    bench::SetPlainOptions(easy, url.c_str());
    curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(easy, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(size));
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, &ReadFromSource);
    curl_easy_setopt(easy, CURLOPT_READDATA, &source);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &bench::AppendToString);
    answer.clear();
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &answer);
    const double t0 = bench::Now();
    CURLcode result = bench::PerformOnMulti(multi, easy, limit);
    const double elapsed = bench::Now() - t0;
    long code = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &code);
    curl_multi_remove_handle(multi, easy);
    curl_easy_cleanup(easy);
    if (result != CURLE_OK || code != 200) {
        error = result == CURLE_AGAIN ? "upload did not finish in time" : "upload failed";
        return -1;
    }
    return elapsed;
}

}  // namespace

int main(int argc, char** argv) {
    bench::Args args(argc, argv);
    const std::string impl = args.Str("impl", "netloop");
    const uint64_t size = args.Size("size", 100ull << 20);
    const double minSeconds = args.Num("min-seconds", 1.0);
    const int timeout = static_cast<int>(args.Int("timeout", 120));
    bench::StartWatchdog("upload", impl, timeout);
    bench::Result res("upload", impl);
    res.Param("size", static_cast<int64_t>(size));

    curl_global_init(CURL_GLOBAL_DEFAULT);
    const std::string serverKind = args.Str("server", "sink");
    res.Param("server", serverKind);
    std::unique_ptr<bench::SinkServer> sinkServer;
    std::unique_ptr<testsupport::HttpTestServer> testServer;
    std::string url;
    if (serverKind == "sink") {
        sinkServer = std::make_unique<bench::SinkServer>();
        url = sinkServer->Url("/upload");
    } else if (serverKind == "test") {
        testServer = std::make_unique<testsupport::HttpTestServer>();
        url = testServer->Url("/upload");
    } else {
        return res.Fail("unknown --server (sink, test)");
    }
    if (impl != "netloop" && impl != "baseline") return res.Fail("unknown --impl (netloop, baseline)");
    // Both servers begin their answer with the size they read.
    const std::string expected = "size=" + std::to_string(size);

    std::unique_ptr<bench::FrameScope> frame;
    CURLM* multi = nullptr;
    if (impl == "netloop") {
        frame = std::make_unique<bench::FrameScope>();
        if (!frame->ok()) return res.Fail("frame did not start");
    } else {
        multi = curl_multi_init();
    }
    struct MultiCleanup {
        CURLM* multi;
        ~MultiCleanup() {
            if (multi != nullptr) curl_multi_cleanup(multi);
        }
    } cleanup{multi};

    // Uploads of `size` bytes, one after another, until --min-seconds have passed.
    double elapsed = 0;
    uint64_t uploads = 0;
    do {
        std::string answer, error;
        double s = frame ? UploadNetloop(frame->get(), url, size, timeout, answer, error)
                         : UploadPlain(multi, url, size, timeout, answer, error);
        if (s < 0) return res.Fail(error);
        if (answer.rfind(expected, 0) != 0 || (answer.size() > expected.size() && answer[expected.size()] != ' '))
            return res.Fail("server answered: " + answer);
        elapsed += s;
        ++uploads;
    } while (elapsed < minSeconds);
    res.Extra("uploads", static_cast<double>(uploads)).Extra("seconds", elapsed);
    return res.Print(static_cast<double>(size) * static_cast<double>(uploads) / elapsed / 1e6, "MB/s");
}
