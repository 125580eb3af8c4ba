// The peer users would pick instead of netloop for WebSocket echoes: a
// Boost.Beast websocket stream against the same in-process WsTestServer as
// bench_ws, one message in flight, each echo answered with the next message.
// The calls are the synchronous ones on one thread: with one message in flight
// that is what an io_context thread would do, without the dispatching.
//
//   --impl=beast
//   --mode=echo   100-byte text messages; figure: round trips per second
//   --mode=bulk   1 MiB binary messages; figure: MB/s of message payload
//   --n=N messages timed (echo 20000, bulk 200)  --warmup=W (echo 100, bulk 2)
//   --size=BYTES (echo 100, bulk 1M)
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>

#include <string>

#include "common/BenchUtil.h"
#include "loopback/TestData.h"
#include "loopback/WsTestServer.h"

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;

}  // namespace

int main(int argc, char** argv) {
    bench::Args args(argc, argv);
    const std::string impl = args.Str("impl", "beast");
    const std::string mode = args.Str("mode", "echo");
    const bool echo = mode == "echo";
    const uint64_t n = static_cast<uint64_t>(args.Int("n", echo ? 20000 : 200));
    const uint64_t warmup = static_cast<uint64_t>(args.Int("warmup", echo ? 100 : 2));
    const size_t size = static_cast<size_t>(args.Size("size", echo ? 100 : 1 << 20));
    const int timeout = static_cast<int>(args.Int("timeout", 120));
    bench::StartWatchdog("beast_ws", impl, timeout);
    bench::Result res("beast_ws", impl);
    res.Param("mode", mode).Param("n", static_cast<int64_t>(n)).Param("size", static_cast<int64_t>(size));
    if (impl != "beast") return res.Fail("unknown --impl (beast)");
    if (mode != "echo" && mode != "bulk") return res.Fail("unknown --mode (echo, bulk)");
    if (n == 0) return res.Fail("--n must be at least 1");

    testsupport::WsTestServer::Options options;
    options.maxRecords = 0;
    testsupport::WsTestServer server(options);
    const std::string bytes = echo ? testsupport::DeterministicText(size) : testsupport::DeterministicBytes(size);

    try {
        asio::io_context io{1};
        websocket::stream<tcp::socket> ws(io);
        ws.next_layer().connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), server.Port()));
        ws.next_layer().set_option(tcp::no_delay(true));
        ws.handshake("127.0.0.1:" + std::to_string(server.Port()), "/echo");
        ws.text(echo);
        ws.read_message_max(0);
        beast::flat_buffer buffer;
        bench::CostMeter cost;
        double t0 = bench::Now();
        for (uint64_t i = 0; i < warmup + n; ++i) {
            if (i == warmup) {
                cost.Start();
                t0 = bench::Now();
            }
            ws.write(asio::buffer(bytes));
            buffer.clear();
            ws.read(buffer);
            if (buffer.size() != size) return res.Fail("echo " + std::to_string(i) + " had the wrong size");
        }
        const double elapsed = bench::Now() - t0;
        cost.Report(res, static_cast<double>(n), "message");
        beast::error_code ignored;
        ws.close(websocket::close_code::normal, ignored);
        res.Extra("seconds", elapsed);
        if (echo) return res.Print(static_cast<double>(n) / elapsed, "round trips/s");
        return res.Print(static_cast<double>(n) * static_cast<double>(size) / elapsed / 1e6, "MB/s");
    } catch (const std::exception& e) {
        return res.Fail(e.what());
    }
}
