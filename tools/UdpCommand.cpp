// netloop udp: datagrams to one peer from the terminal.
#include <atomic>
#include <cstdio>
#include <thread>

#include "Commands.h"
#include "Output.h"
#include "StdinLines.h"
#include "ToolCommon.h"

namespace tool {
namespace {

// The most a UDP datagram carries over IPv6 (65,507 bytes over IPv4).
const size_t kMaxDatagram = 65527;

class UdpPrinter : public netloop::IUdpHandleNotic {
public:
    std::atomic<int> sendErrors{0};
    std::atomic<bool> writeFailed{false};
    std::string writeError;  // loop thread until the handle is closed

    void OnUdpState(std::shared_ptr<netloop::IUdpHandleInterface>, int status, void*) override {
        if (status == netloop::UDP_STATUS_ERROR) ++sendErrors;
    }
    // Every byte of the datagram, NULs included, and a line end.
    void OnUdpData(const char* data, int64_t size, const char* peerIp, void*) override {
        std::string line = "from " + std::string(peerIp) + ": ";
        line.append(data, static_cast<size_t>(size));
        line += '\n';
        if (!writeFailed && !WriteAll(stdout, line, writeError)) writeFailed = true;
    }
};

// Sends stdin line by line; returns the number of lines that could not go.
int SendLines(netloop::IUdpHandleInterface& handle) {
    int refused = 0, number = 0;
    ForEachStdinLine(
        [&](const std::string& line) {
            ++number;
            if (line.empty()) return;  // the library sends no empty datagram
            if (line.size() > kMaxDatagram) {
                std::fprintf(stderr, "netloop udp: line %d has %zu bytes, more than one datagram carries (%zu)\n",
                             number, line.size(), kMaxDatagram);
                ++refused;
            } else if (handle.SendUdpData(std::make_shared<std::vector<uint8_t>>(line.begin(), line.end())) != 0) {
                std::fprintf(stderr, "netloop udp: line %d was not sent\n", number);
                ++refused;
            }
        },
        [] { return false; });
    return refused;
}

}  // namespace

int RunUdp(int argc, char** argv) {
    ArgReader args(argc, argv, 2);
    std::string host, portText, value, error;
    long port = 0, waitMs = 1000;
    bool verbose = false;
    while (!args.Done() && error.empty()) {
        if (args.Flag("--help", "-h")) {
            std::printf("usage: netloop udp HOST PORT [--wait MS] [-v]\n"
                        "Each line of stdin is one datagram to HOST:PORT (HOST: a name, an IPv4 or an\n"
                        "IPv6 address, [::1] too); each reply is printed whole as \"from ADDRESS: BYTES\".\n"
                        "Empty lines send nothing. At end of input waits MS (default 1000) for late\n"
                        "replies. Exit status 1 when a datagram could not be sent or the peer refused it\n"
                        "(nothing listening).\n");
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
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
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
            if (SendLines(*handle) > 0) status = 1;
            std::this_thread::sleep_for(std::chrono::milliseconds(waitMs));
        }
        Latch deleted(1);
        frame->DelUdpReq(handle, false, [&](std::shared_ptr<netloop::IUdpHandleInterface>, void*, int) {
            deleted.CountDown();
        }, nullptr);
        deleted.Wait(std::chrono::seconds(5));
    }
    if (printer->sendErrors > 0) {
        std::fprintf(stderr, "netloop udp: %d send error(s): the peer refused datagrams (nothing listening at %s port "
                             "%ld?) or the system did not send them (-v shows why)\n",
                     printer->sendErrors.load(), host.c_str(), port);
        status = 1;
    }
    if (printer->writeFailed) {
        std::fprintf(stderr, "netloop udp: writing a reply to stdout failed: %s\n", printer->writeError.c_str());
        status = 1;
    }
    return status;
}

}  // namespace tool
