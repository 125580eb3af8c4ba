// Many small HTTPS GETs (nginx's TLS port, /small, HTTP/2 offered by ALPN)
// through a netloop frame, with and without the frame's libcurl share.
//
//   --impl=share      Init(..., enableShare = true, ...)
//   --impl=noshare    Init(..., enableShare = false, ...): the reference
//   --concurrency=C (16)  --n=N per round (5000)  --warmup=W (100)
//   --min-seconds=S rounds go on until S seconds have passed (1)
// Figure: requests per second.
#include <curl/curl.h>

#include <memory>
#include <set>
#include <string>

#include "common/BenchUtil.h"
#include "common/NetloopFrame.h"
#include "common/NetloopGets.h"
#include "loopback/NginxServer.h"
#include "loopback/TestTls.h"

int main(int argc, char** argv) {
    bench::Args args(argc, argv);
    const std::string impl = args.Str("impl", "share");
    const int concurrency = static_cast<int>(args.Int("concurrency", 16));
    const uint64_t n = static_cast<uint64_t>(args.Int("n", 5000));
    const uint64_t warmup = static_cast<uint64_t>(args.Int("warmup", 100));
    const double minSeconds = args.Num("min-seconds", 1.0);
    const int timeout = static_cast<int>(args.Int("timeout", 120));
    bench::StartWatchdog("https_share", impl, timeout);
    bench::Result res("https_share", impl);
    res.Param("concurrency", concurrency).Param("n", static_cast<int64_t>(n));
    if (impl != "share" && impl != "noshare") return res.Fail("unknown --impl (share, noshare)");

    curl_global_init(CURL_GLOBAL_DEFAULT);
    testsupport::NginxServer nginx;
    if (!nginx.Running()) return res.Skip("nginx is not installed");

    bench::FrameScope frame(impl == "share");
    if (!frame.ok()) return res.Fail("frame did not start");
    bench::GetOptions options;
    options.url = nginx.TlsUrl("/small");
    options.bodySize = testsupport::NginxServer::SmallBody().size();
    options.caPath = testsupport::TestTls().caFile;
    auto gets = std::make_shared<bench::NetloopGets>(frame.get(), options);
    int rc = bench::MeasureGets(res, *gets, warmup, n, concurrency, timeout, minSeconds, [&] {
        // How many TLS connections nginx saw, and over which protocol.
        std::set<uint64_t> connections;
        std::string protocol;
        for (const auto& entry : nginx.AccessLog()) {
            connections.insert(entry.connection);
            protocol = entry.protocol;
        }
        res.Extra("server_connections", static_cast<double>(connections.size())).Extra("protocol", protocol);
    });
    return rc;
}
