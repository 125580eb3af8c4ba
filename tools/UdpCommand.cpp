// netloop udp: datagrams to one peer from the terminal.
#include <atomic>
#include <cstdio>
#include <thread>

#include "Commands.h"
#include "StdinLines.h"
#include "ToolCommon.h"

namespace tool {
namespace {

class UdpPrinter : public netloop::IUdpHandleNotic {
public:
    std::atomic<int> state{1};  // 1 connecting, then the last OnUdpState status
    std::atomic<uint64_t> replies{0};

    void OnUdpState(std::shared_ptr<netloop::IUdpHandleInterface>, int status, void*) override {
        if (state.load() != netloop::UDP_STATUS_FAILED || status == netloop::UDP_STATUS_OK) state = status;
    }
    void OnUdpData(const char* data, int64_t size, const char* peerIp, void*) override {
        std::printf("from %s: %.*s\n", peerIp, static_cast<int>(size), data);
        std::fflush(stdout);
        ++replies;
    }
};

}  // namespace

int RunUdp(int argc, char** argv) {
    ArgReader args(argc, argv, 2);
    std::string host, portText, value, error;
    long port = 0, waitMs = 1000;
    bool verbose = false;
    while (!args.Done() && error.empty()) {
        if (args.Flag("--help", "-h")) {
            std::printf("usage: netloop udp HOST PORT [--wait MS] [-v]\n"
                        "Each line of stdin is one datagram to HOST:PORT; replies are printed with the\n"
                        "peer's address. At end of input waits MS (default 1000) for late replies.\n");
            return 0;
        }
        if (args.Value("--wait", nullptr, value, error)) {
            if (error.empty() && !ParseInt(value, 0, 600000, waitMs)) error = "--wait wants milliseconds";
        } else if (args.Flag("--verbose", "-v")) {
            verbose = true;
        } else if (!args.Peek().empty() && args.Peek()[0] == '-') {
            error = "unknown option " + args.Next();
        } else if (host.empty()) {
            host = args.Next();
        } else if (portText.empty()) {
            portText = args.Next();
        } else {
            error = "unexpected argument " + args.Next();
        }
    }
    if (error.empty() && (host.empty() || portText.empty())) error = "HOST and PORT are required";
    if (error.empty() && !ParseInt(portText, 1, 65535, port)) error = "PORT must be 1..65535";
    if (!error.empty()) {
        std::fprintf(stderr, "netloop udp: %s (see netloop udp --help)\n", error.c_str());
        return 2;
    }

    ToolLogger::Install(verbose);
    auto printer = std::make_shared<UdpPrinter>();
    auto handle = netloop::IUdpHandleInterface::Create(printer, host.c_str(), static_cast<int>(port), nullptr);
    int status = 0;
    {
        RunningFrame frame;
        Latch added(1);
        std::atomic<int> addResult{-1};
        if (!frame.Ok() || frame->AddUdpReq(handle, false, [&](std::shared_ptr<netloop::IUdpHandleInterface>, void*, int rc) {
                addResult = rc;
                added.CountDown();
            }, nullptr) != 0) {
            std::fprintf(stderr, "netloop udp: cannot start\n");
            return 1;
        }
        if (!added.Wait(std::chrono::seconds(15)) || addResult.load() != 0) {
            std::fprintf(stderr, "netloop udp: cannot reach %s port %ld (name or connect failed)\n", host.c_str(), port);
            status = 1;
        } else {
            ForEachStdinLine(
                [&](const std::string& line) {
                    handle->SendUdpData(std::make_shared<std::vector<uint8_t>>(line.begin(), line.end()));
                },
                [] { return false; });
            std::this_thread::sleep_for(std::chrono::milliseconds(waitMs));
        }
        Latch deleted(1);
        frame->DelUdpReq(handle, false, [&](std::shared_ptr<netloop::IUdpHandleInterface>, void*, int) {
            deleted.CountDown();
        }, nullptr);
        deleted.Wait(std::chrono::seconds(5));
    }
    return status;
}

}  // namespace tool
