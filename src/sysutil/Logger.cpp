#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "sysutil/sysutil.h"

namespace sysutil {
namespace {

std::atomic<int> g_MinLevel{40};
// Whether the default logger is still the process's logger.
std::atomic<bool> g_DefaultLogger{true};

// Writes to stderr: "2026-11-23 11:04:08.123 [60] 4711 text".
class CStderrLogger : public ISysutilLogInterface {
public:
    void WriteLog(int* level, int* tid, const char* format, ...) override {
        int lvl = level ? *level : 0;
        if (lvl < g_MinLevel.load(std::memory_order_relaxed) || format == nullptr) return;

        char line[4096];
        int used = FormatPrefix(line, sizeof(line), lvl, tid ? *tid : 0);
        va_list args;
        va_start(args, format);
        int n = std::vsnprintf(line + used, sizeof(line) - used - 1, format, args);
        va_end(args);
        if (n < 0) return;
        size_t len = used + std::min<size_t>(static_cast<size_t>(n), sizeof(line) - used - 2);
        line[len++] = '\n';
        std::fwrite(line, 1, len, stderr);  // one write per line keeps lines whole
    }

private:
    static int FormatPrefix(char* out, size_t size, int level, int tid) {
        struct timeval tv;
        ::gettimeofday(&tv, nullptr);
        struct tm local;
        ::localtime_r(&tv.tv_sec, &local);
        char stamp[32];
        std::strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &local);
        return std::snprintf(out, size, "%s.%03ld [%d] %d ", stamp, static_cast<long>(tv.tv_usec / 1000), level, tid);
    }
};

std::mutex g_LoggerMutex;

std::shared_ptr<ISysutilLogInterface>& CurrentLogger() {
    // Never destroyed: other libraries log from exit handlers and detached
    // threads, after static destructors would have run.
    static auto* logger = new std::shared_ptr<ISysutilLogInterface>(std::make_shared<CStderrLogger>());
    return *logger;
}

}  // namespace

ISysutilLogInterface::~ISysutilLogInterface() = default;

std::shared_ptr<ISysutilLogInterface> ISysutilLogInterface::GetLogInstance(
    std::shared_ptr<ISysutilLogInterface> replace) {
    std::lock_guard<std::mutex> lock(g_LoggerMutex);
    if (replace) {
        CurrentLogger() = std::move(replace);
        g_DefaultLogger.store(false, std::memory_order_relaxed);
    }
    return CurrentLogger();
}

void SetLogLevel(int minLevel) { g_MinLevel.store(minLevel, std::memory_order_relaxed); }

bool LogLevelDropped(int level) {
    return g_DefaultLogger.load(std::memory_order_relaxed) && level < g_MinLevel.load(std::memory_order_relaxed);
}

}  // namespace sysutil
