// netloop ws: a WebSocket client on the terminal.
#include <sysutil/sysutil.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <thread>

#include "Commands.h"
#include "StdinLines.h"
#include "ToolCommon.h"

namespace tool {
namespace {

using netloop::IHttpHandleInterface;

// Close statuses that end a conversation as agreed.
bool CleanClose(int code) { return code == 1000 || code == 1001; }

// The tool's logger, plus the reason of a WebSocket end that libcurl reported
// ("[NETLOOP]<url> WS END result[<code>:<text>]"), for when libcurl left no
// error text of its own.
class WsLogger : public sysutil::ISysutilLogInterface {
public:
    explicit WsLogger(std::shared_ptr<ToolLogger> inner) : m_Inner(std::move(inner)) {}
    void WriteLog(int* level, int* tid, const char* format, ...) override {
        char text[2048];
        va_list args;
        va_start(args, format);
        std::vsnprintf(text, sizeof(text), format, args);
        va_end(args);
        m_Inner->WriteLog(level, tid, "%s", text);
        const char* end = std::strstr(text, " WS END result[");
        const char* reason = end ? std::strchr(end, ':') : nullptr;
        if (reason == nullptr) return;
        std::string why(reason + 1);
        if (!why.empty() && why.back() == ']') why.pop_back();
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_LastEnd = why;
    }
    std::string LastEnd() const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_LastEnd;
    }

private:
    std::shared_ptr<ToolLogger> m_Inner;
    mutable std::mutex m_Mutex;
    std::string m_LastEnd;
};

std::shared_ptr<std::vector<uint8_t>> Bytes(const std::string& text) {
    return std::make_shared<std::vector<uint8_t>>(text.begin(), text.end());
}

class WsPrinter : public netloop::IHttpHandleNotic {
public:
    std::atomic<int> state{1};  // 1 connecting, else the last WsState
    std::atomic<bool> closeSent{false};
    std::atomic<int> closeCode{-1};  // the server's close status; 1005 without one
    std::atomic<uint64_t> received{0};
    std::mutex outMutex;
    std::string closeReason, errorText;  // under outMutex
    long responseCode = 0;               // under outMutex
    std::shared_ptr<IHttpHandleInterface> handle;

    void OnWsData(const char* data, size_t length, int type, void*) override {
        std::lock_guard<std::mutex> lock(outMutex);
        switch (type) {
            case netloop::WS_MSG_TEXT:
                // fwrite: a NUL is part of the text, not its end.
                std::fputs("[text] ", stdout);
                std::fwrite(data, 1, length, stdout);
                std::fputc('\n', stdout);
                ++received;
                break;
            case netloop::WS_MSG_BINARY:
                std::printf("[binary] %zu bytes\n", length);
                ++received;
                break;
            case netloop::WS_MSG_CLOSE:
                OnClose(data, length);
                break;
            default:
                std::printf("[control] %zu bytes\n", length);
                break;
        }
        std::fflush(stdout);
    }
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int, void*) override {}
    void OnWsState(std::shared_ptr<IHttpHandleInterface> h, int newState, void*) override {
        {
            std::lock_guard<std::mutex> lock(outMutex);
            // Read here, on the loop thread, while the transfer is at rest.
            responseCode = h->GetResponseCode();
            errorText = h->GetErrorText();
            if (newState == netloop::WS_STATE_OPEN) std::fprintf(stderr, "connected\n");
        }
        state = newState;
    }

private:
    // The closing handshake: the server's close frame is answered with its own
    // status, unless this side began the handshake.
    void OnClose(const char* data, size_t length) {
        const int code = length >= 2 ? (static_cast<unsigned char>(data[0]) << 8) | static_cast<unsigned char>(data[1])
                                     : 1005;
        closeReason.assign(length > 2 ? data + 2 : "", length > 2 ? length - 2 : 0);
        std::printf("[close] %d ", code);
        std::fwrite(closeReason.data(), 1, closeReason.size(), stdout);
        std::fputc('\n', stdout);
        closeCode = code;
        if (closeSent.exchange(true) || !handle) return;
        size_t sent = 0;
        handle->SendWsData(Bytes(length >= 2 ? std::string(data, 2) : std::string()), netloop::WS_MSG_CLOSE, &sent);
    }
};

bool WaitUntil(const std::function<bool()>& done, long ms) {
    for (long waited = 0; waited < ms; waited += 10) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
}

// "16M", "64k", "1G" (powers of 1024) or plain bytes.
bool ParseSize(const std::string& text, size_t& out) {
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (end == text.c_str() || text[0] == '-') return false;
    unsigned shift = 0;
    if (*end == 'k' || *end == 'K') shift = 10;
    if (*end == 'm' || *end == 'M') shift = 20;
    if (*end == 'g' || *end == 'G') shift = 30;
    if (shift != 0) ++end;
    if (*end != '\0' || value > (~0ULL >> shift)) return false;
    out = static_cast<size_t>(value << shift);
    return true;
}

// Why the connection ended, or "" for a clean close.
std::string EndReason(WsPrinter& printer, WsLogger& logger, long connectTimeoutMs) {
    std::lock_guard<std::mutex> lock(printer.outMutex);
    const std::string libcurl = !printer.errorText.empty() ? printer.errorText : logger.LastEnd();
    switch (printer.state.load()) {
        case 1:
            return "no answer to the upgrade within " + std::to_string(connectTimeoutMs) + " ms";
        case netloop::WS_STATE_FAILED:
            if (printer.responseCode > 0 && printer.responseCode != 101)
                return "upgrade refused: HTTP " + std::to_string(printer.responseCode);
            return libcurl.empty() ? "connection failed" : libcurl;
        case netloop::WS_STATE_ERROR:
            return printer.errorText;
        default:
            break;
    }
    const int code = printer.closeCode.load();
    if (code < 0) {
        if (printer.state.load() == netloop::WS_STATE_OPEN) return "no close frame from the server in reply";
        return "connection lost without a close frame" + (libcurl.empty() ? "" : " (" + libcurl + ")");
    }
    if (CleanClose(code)) return "";
    return "closed with " + std::to_string(code) + (printer.closeReason.empty() ? "" : " " + printer.closeReason);
}

}  // namespace

int RunWs(int argc, char** argv) {
    ArgReader args(argc, argv, 2);
    HttpOptions options;
    options.timeoutMs = 0;  // a connection lives until it is closed
    std::string url, error, value;
    long waitMs = 1000;
    size_t maxMessage = 0;
    bool maxMessageSet = false;
    while (!args.Done() && error.empty()) {
        if (args.Flag("--help", "-h")) {
            std::printf("usage: netloop ws URL [--cacert FILE] [--insecure] [-H \"Name: value\"]... [--timeout MS]\n"
                        "                      [--wait MS] [--max-message SIZE] [-v]\n"
                        "Each line of stdin goes out as a text message; every message received is printed\n"
                        "with its type. At end of input (Ctrl-D) waits up to MS (default 1000) for as many\n"
                        "messages as lines were sent, then closes with 1000. A close from the server is\n"
                        "answered. SIZE (bytes, or with k, M, G) bounds an incoming message (default 16M,\n"
                        "0 none). Exit status 0 only for a close with 1000 or 1001.\n");
            return 0;
        }
        if (args.Value("--wait", nullptr, value, error)) {
            if (error.empty() && !ParseInt(value, 0, 600000, waitMs)) error = "--wait wants milliseconds";
        } else if (args.Value("--max-message", nullptr, value, error)) {
            maxMessageSet = true;
            if (error.empty() && !ParseSize(value, maxMessage)) error = "--max-message wants a size (bytes, k, M, G)";
        } else if (!ReadHttpOption(args, options, error)) {
            ReadOneUrl(args, url, error);
        }
    }
    if (error.empty() && url.empty()) error = "no URL given";
    if (error.empty() && url.rfind("ws://", 0) != 0 && url.rfind("wss://", 0) != 0) error = "the URL must be ws:// or wss://";
    if (!error.empty()) {
        std::fprintf(stderr, "netloop ws: %s (see netloop ws --help)\n", error.c_str());
        return 2;
    }

    auto logger = std::make_shared<WsLogger>(std::make_shared<ToolLogger>(options.verbose));
    sysutil::ISysutilLogInterface::GetLogInstance(logger);
    auto printer = std::make_shared<WsPrinter>();
    auto handle = IHttpHandleInterface::Create();
    printer->handle = handle;
    std::string why;
    {
        RunningFrame frame;
        if (!frame.Ok() ||
            handle->InitHttpReq(url.c_str(), "ws", netloop::HTTP_REQ_WEBSOCKET, printer,
                                static_cast<int>(options.connectTimeoutMs), static_cast<int>(options.timeoutMs),
                                nullptr) != 0 ||
            !ApplyHttpOptions(*handle, options) || (maxMessageSet && handle->SetWsMaxMessageSize(maxMessage) != 0) ||
            frame->AddHttpReq(handle, false, nullptr, nullptr) != 0) {
            std::fprintf(stderr, "netloop ws: cannot start a connection to %s\n", url.c_str());
            printer->handle.reset();
            return 1;
        }
        const Clock::time_point start = Clock::now();
        auto ended = [&] { return printer->state.load() < 0; };
        // libcurl's connect time-out ends at the TCP/TLS connection; a server
        // that then never answers the upgrade is given the same time.
        auto upgradeLate = [&] {
            return printer->state.load() == 1 &&
                   Clock::now() - start > std::chrono::milliseconds(options.connectTimeoutMs);
        };
        uint64_t lines = 0;
        bool eof = ForEachStdinLine(
            [&](const std::string& line) {
                size_t sent = 0;
                if (handle->SendWsData(Bytes(line), netloop::WS_MSG_TEXT, &sent) == 0) ++lines;
            },
            [&] { return ended() || upgradeLate() || printer->closeSent.load(); });
        if (eof && !ended()) {
            WaitUntil([&] { return printer->state.load() != 1; },
                      options.connectTimeoutMs - static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                     Clock::now() - start).count()));
            // Replies still on their way are not cut off by the close.
            WaitUntil([&] { return ended() || printer->received.load() >= lines; }, waitMs);
            if (printer->state.load() == 0 && !printer->closeSent.exchange(true)) {
                size_t sent = 0;
                handle->SendWsData(Bytes(std::string("\x03\xe8", 2)), netloop::WS_MSG_CLOSE, &sent);  // 1000
            }
        }
        // Either side has begun the closing handshake: its end is awaited.
        if (printer->closeSent.load()) {
            WaitUntil([&] { return ended() || printer->closeCode.load() >= 0; }, 3000);
            WaitUntil(ended, 1000);  // the server closes the TCP connection last
        }
        why = EndReason(*printer, *logger, options.connectTimeoutMs);
        frame->DelHttpReq(handle, false, nullptr, nullptr);
    }
    printer->handle.reset();
    if (why.empty()) return 0;
    std::fprintf(stderr, "netloop ws: %s: %s\n", url.c_str(), why.c_str());
    return 1;
}

}  // namespace tool
