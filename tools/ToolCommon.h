// Pieces every subcommand of the netloop tool shares: argument reading, number
// formatting, the tool's logger, and a frame that starts and stops with a scope.
#pragma once

#include <netloop/IHttpInterface.h>
#include <sysutil/sysutil.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tool {

using Clock = std::chrono::steady_clock;

// Reads "--name value" / "-n value" pairs and flags off an argument list.
class ArgReader {
public:
    ArgReader(int argc, char** argv, int first);
    bool Done() const { return m_Index >= m_Args.size(); }
    const std::string& Peek() const { return m_Args[m_Index]; }
    std::string Next() { return m_Args[m_Index++]; }
    // True when the current argument is `name` (or `alias`); its value goes to
    // `out`. A missing value is an error the caller reports.
    bool Value(const char* name, const char* alias, std::string& out, std::string& error);
    bool Flag(const char* name, const char* alias = nullptr);

private:
    std::vector<std::string> m_Args;
    size_t m_Index;
};

bool ParseInt(const std::string& text, long min, long max, long& out);

std::string FormatBytes(double bytes);
std::string FormatRate(double bytesPerSecond);
std::string FormatSeconds(double seconds);
double SecondsBetween(Clock::time_point from, Clock::time_point to);

// The tool's logger: prints everything with -v, and otherwise keeps the last
// error line libcurl's failures produced, so a failed transfer can say why.
class ToolLogger : public sysutil::ISysutilLogInterface {
public:
    explicit ToolLogger(bool verbose) : m_Verbose(verbose) {}
    void WriteLog(int* level, int* tid, const char* format, ...) override;
    // The reason of the last failure logged for `url`, or "".
    std::string FailureFor(const std::string& url) const;
    static std::shared_ptr<ToolLogger> Install(bool verbose);

private:
    bool m_Verbose;
    mutable std::mutex m_Mutex;
    std::map<std::string, std::string> m_Failures;
};

// A frame running for the life of the object. `multiplex`: HTTP/2 streams of
// one host share a connection (a frame with tight connection limits).
class RunningFrame {
public:
    explicit RunningFrame(bool multiplex = false);
    ~RunningFrame();
    bool Ok() const { return m_Ok; }
    const std::shared_ptr<netloop::IHttpInterface>& operator->() const { return m_Frame; }
    const std::shared_ptr<netloop::IHttpInterface>& Get() const { return m_Frame; }

private:
    std::shared_ptr<netloop::IHttpInterface> m_Frame;
    bool m_Ok = false;
};

// A counter the loop thread counts down and the main thread waits on.
class Latch {
public:
    explicit Latch(int count) : m_Count(count) {}
    void CountDown();
    // False when `timeout` passed first.
    bool Wait(std::chrono::milliseconds timeout);
    bool WaitFor(std::chrono::milliseconds step, const std::function<void()>& tick, std::chrono::milliseconds timeout);

private:
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    int m_Count;
};

// Common HTTP options of get/post/put.
struct HttpOptions {
    std::list<std::string> headers;
    std::string caFile;
    bool insecure = false;
    long timeoutMs = 0;             // the whole transfer; 0: no limit
    long connectTimeoutMs = 10000;  // connection set-up only
    bool verbose = false;
};

// Reads one of the common HTTP options at the reader's position; false when the
// argument is none of them. `error` is set for a malformed value.
bool ReadHttpOption(ArgReader& args, HttpOptions& options, std::string& error);
// Takes the next argument as the command's one URL: an unknown option or a
// second URL sets `error`.
void ReadOneUrl(ArgReader& args, std::string& url, std::string& error);

// Applies verification and headers to an armed handle.
bool ApplyHttpOptions(netloop::IHttpHandleInterface& handle, const HttpOptions& options);

bool IsTerminal(FILE* stream);

// The help text of the options ReadHttpOption reads.
extern const char kHttpOptionsHelp[];

}  // namespace tool
