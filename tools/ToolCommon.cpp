#include "ToolCommon.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tool {

ArgReader::ArgReader(int argc, char** argv, int first) : m_Args(argv + first, argv + argc), m_Index(0) {}

bool ArgReader::Value(const char* name, const char* alias, std::string& out, std::string& error) {
    const std::string& arg = m_Args[m_Index];
    if (arg != name && (alias == nullptr || arg != alias)) return false;
    if (m_Index + 1 >= m_Args.size()) {
        error = std::string(name) + " needs a value";
        ++m_Index;
        return true;
    }
    out = m_Args[m_Index + 1];
    m_Index += 2;
    return true;
}

bool ArgReader::Flag(const char* name, const char* alias) {
    const std::string& arg = m_Args[m_Index];
    if (arg != name && (alias == nullptr || arg != alias)) return false;
    ++m_Index;
    return true;
}

bool ParseInt(const std::string& text, long min, long max, long& out) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    long value = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || value < min || value > max) return false;
    out = value;
    return true;
}

std::string FormatBytes(double bytes) {
    static const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int unit = 0;
    while (bytes >= 1024.0 && unit < 4) {
        bytes /= 1024.0;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof(text), unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
    return text;
}

std::string FormatRate(double bytesPerSecond) { return FormatBytes(bytesPerSecond) + "/s"; }

std::string FormatSeconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof(text), seconds < 10 ? "%.2f s" : "%.1f s", seconds);
    return text;
}

double SecondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// ---------------------------------------------------------------------------

void ToolLogger::WriteLog(int* level, int*, const char* format, ...) {
    char text[2048];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    const int lvl = level ? *level : 0;
    if (m_Verbose) std::fprintf(stderr, "* [%d] %s\n", lvl, text);
    // "[NETLOOP]<url> DONE result[<code>:<reason>]": remember why a transfer failed.
    static const char kTag[] = "[NETLOOP]";
    const char* done = std::strstr(text, " DONE result[");
    if (lvl < 60 || done == nullptr || std::strncmp(text, kTag, sizeof(kTag) - 1) != 0) return;
    const char* urlStart = text + sizeof(kTag) - 1;
    std::string url(urlStart, static_cast<size_t>(done - urlStart));
    const char* reason = std::strchr(done + 13, ':');
    std::string why = reason ? std::string(reason + 1) : std::string(done + 13);
    if (!why.empty() && why.back() == ']') why.pop_back();
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Failures[url] = why;
}

std::string ToolLogger::FailureFor(const std::string& url) const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_Failures.find(url);
    return it == m_Failures.end() ? std::string() : it->second;
}

std::shared_ptr<ToolLogger> ToolLogger::Install(bool verbose) {
    auto logger = std::make_shared<ToolLogger>(verbose);
    sysutil::ISysutilLogInterface::GetLogInstance(logger);
    return logger;
}

// ---------------------------------------------------------------------------

RunningFrame::RunningFrame(bool multiplex) : m_Frame(netloop::IHttpInterface::Create()) {
    m_Ok = m_Frame->Init(nullptr, multiplex, true, nullptr) == 0 && m_Frame->Start(true) == 0;
}

RunningFrame::~RunningFrame() {
    if (m_Ok) m_Frame->Stop(false);
}

void Latch::CountDown() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (--m_Count <= 0) m_Cond.notify_all();
}

bool Latch::Wait(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Cond.wait_for(lock, timeout, [this] { return m_Count <= 0; });
}

bool Latch::WaitFor(std::chrono::milliseconds step, const std::function<void()>& tick,
                    std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(m_Mutex);
            if (m_Cond.wait_for(lock, step, [this] { return m_Count <= 0; })) return true;
        }
        tick();
        if (Clock::now() >= deadline) return false;
    }
}

// ---------------------------------------------------------------------------

void ReadOneUrl(ArgReader& args, std::string& url, std::string& error) {
    if (!args.Peek().empty() && args.Peek()[0] == '-') {
        error = "unknown option " + args.Next();
    } else if (url.empty()) {
        url = args.Next();
    } else {
        error = "one URL only";
    }
}

const char kHttpOptionsHelp[] =
    "  -H, --header \"Name: value\"  add a request header (repeatable)\n"
    "  --cacert FILE             verify the server against this CA file or folder\n"
    "  -k, --insecure            do not verify the server\n"
    "  --timeout MS              limit on the whole transfer; 0 (default): none\n"
    "  --connect-timeout MS      limit on connection set-up (default 10000)\n"
    "  -v, --verbose             print the library's log\n";

namespace {
const long kMaxTimeoutMs = 24L * 3600 * 1000;
}  // namespace

bool ReadHttpOption(ArgReader& args, HttpOptions& options, std::string& error) {
    std::string value;
    if (args.Value("--header", "-H", value, error)) {
        if (error.empty() && value.find(':') == std::string::npos) error = "header '" + value + "' has no ':'";
        options.headers.push_back(value);
        return true;
    }
    if (args.Value("--cacert", nullptr, value, error)) {
        options.caFile = value;
        return true;
    }
    if (args.Value("--timeout", nullptr, value, error)) {
        if (error.empty() && !ParseInt(value, 0, kMaxTimeoutMs, options.timeoutMs))
            error = "--timeout wants milliseconds (0: no limit), got '" + value + "'";
        return true;
    }
    if (args.Value("--connect-timeout", nullptr, value, error)) {
        if (error.empty() && !ParseInt(value, 1, kMaxTimeoutMs, options.connectTimeoutMs))
            error = "--connect-timeout wants milliseconds, got '" + value + "'";
        return true;
    }
    if (args.Flag("--insecure", "-k")) {
        options.insecure = true;
        return true;
    }
    if (args.Flag("--verbose", "-v")) {
        options.verbose = true;
        return true;
    }
    return false;
}

bool ApplyHttpOptions(netloop::IHttpHandleInterface& handle, const HttpOptions& options) {
    if (options.insecure) {
        if (handle.SetCaPath(nullptr) != 0) return false;
    } else if (!options.caFile.empty()) {
        if (handle.SetCaPath(options.caFile.c_str()) != 0) return false;
    }
    if (!options.headers.empty() && handle.SetHeaders(options.headers) != 0) return false;
    return true;
}

bool IsTerminal(FILE* stream) { return ::isatty(::fileno(stream)) == 1; }

}  // namespace tool
