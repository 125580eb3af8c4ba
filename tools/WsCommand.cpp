// netloop ws: a WebSocket client on the terminal.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>

#include "Commands.h"
#include "StdinLines.h"
#include "ToolCommon.h"

namespace tool {
namespace {

using netloop::IHttpHandleInterface;

class WsPrinter : public netloop::IHttpHandleNotic {
public:
    std::atomic<int> state{1};  // 1 connecting, 0 open, -1 failed, -2 closed
    std::atomic<bool> closeSeen{false};
    std::mutex outMutex;

    void OnWsData(const char* data, size_t length, int type, void*) override {
        std::lock_guard<std::mutex> lock(outMutex);
        switch (type) {
            case netloop::WS_MSG_TEXT:
                std::printf("[text] %.*s\n", static_cast<int>(length), data);
                break;
            case netloop::WS_MSG_BINARY:
                std::printf("[binary] %zu bytes\n", length);
                break;
            case netloop::WS_MSG_CLOSE: {
                int code = length >= 2 ? (static_cast<unsigned char>(data[0]) << 8) | static_cast<unsigned char>(data[1]) : 0;
                std::printf("[close] %d %.*s\n", code, length > 2 ? static_cast<int>(length - 2) : 0, data + 2);
                closeSeen = true;
                break;
            }
            default:
                std::printf("[control] %zu bytes\n", length);
                break;
        }
        std::fflush(stdout);
    }
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int, void*) override {}
    void OnWsState(std::shared_ptr<IHttpHandleInterface>, int newState, void*) override {
        state = newState;
        std::lock_guard<std::mutex> lock(outMutex);
        std::fprintf(stderr, newState == 0 ? "connected\n" : "connection ended\n");
    }
};

std::shared_ptr<std::vector<uint8_t>> Bytes(const std::string& text) {
    return std::make_shared<std::vector<uint8_t>>(text.begin(), text.end());
}

bool WaitUntil(const std::function<bool()>& done, int ms) {
    for (int waited = 0; waited < ms; waited += 10) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
}

}  // namespace

int RunWs(int argc, char** argv) {
    ArgReader args(argc, argv, 2);
    HttpOptions options;
    options.timeoutMs = 0;  // a connection lives until it is closed
    std::string url, error;
    while (!args.Done() && error.empty()) {
        if (args.Flag("--help", "-h")) {
            std::printf("usage: netloop ws URL [--cacert FILE] [--insecure] [-H \"Name: value\"]... [--timeout MS] [-v]\n"
                        "Each line of stdin goes out as a text message; every message received is printed\n"
                        "with its type. End of input (Ctrl-D) sends a close frame and exits.\n");
            return 0;
        }
        if (!ReadHttpOption(args, options, error)) ReadOneUrl(args, url, error);
    }
    if (error.empty() && url.empty()) error = "no URL given";
    if (error.empty() && url.rfind("ws://", 0) != 0 && url.rfind("wss://", 0) != 0) error = "the URL must be ws:// or wss://";
    if (!error.empty()) {
        std::fprintf(stderr, "netloop ws: %s (see netloop ws --help)\n", error.c_str());
        return 2;
    }

    auto logger = ToolLogger::Install(options.verbose);
    auto printer = std::make_shared<WsPrinter>();
    auto handle = IHttpHandleInterface::Create();
    int status = 0;
    {
        RunningFrame frame;
        if (!frame.Ok() ||
            handle->InitHttpReq(url.c_str(), "ws", netloop::HTTP_REQ_WEBSOCKET, printer,
                                static_cast<int>(options.connectTimeoutMs), static_cast<int>(options.timeoutMs),
                                nullptr) != 0 ||
            !ApplyHttpOptions(*handle, options) || frame->AddHttpReq(handle, false, nullptr, nullptr) != 0) {
            std::fprintf(stderr, "netloop ws: cannot start a connection to %s\n", url.c_str());
            return 1;
        }
        auto ended = [&] { return printer->state.load() < 0; };
        bool eof = ForEachStdinLine(
            [&](const std::string& line) {
                size_t sent = 0;
                handle->SendWsData(Bytes(line), netloop::WS_MSG_TEXT, &sent);
            },
            ended);
        if (eof && !ended()) {
            // Wait for the upgrade if it is still under way, then close politely.
            WaitUntil([&] { return printer->state.load() != 1; }, static_cast<int>(options.connectTimeoutMs));
            if (printer->state.load() == 0) {
                std::string close("\x03\xe8", 2);  // 1000: normal closure
                size_t sent = 0;
                handle->SendWsData(Bytes(close), netloop::WS_MSG_CLOSE, &sent);
                WaitUntil([&] { return printer->closeSeen.load() || ended(); }, 3000);
            }
        }
        if (printer->state.load() == -1) {
            std::string why = logger->FailureFor(url);
            std::fprintf(stderr, "netloop ws: %s: %s\n", url.c_str(), why.empty() ? "connection failed" : why.c_str());
            status = 1;
        }
        frame->DelHttpReq(handle, false, nullptr, nullptr);
    }
    return status;
}

}  // namespace tool
