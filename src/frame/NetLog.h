// One log line through the process's logger, tagged with the caller's thread.
#pragma once

#include "sysutil/sysutil.h"

namespace netloop {

enum LogLevel : int {
    LOG_ROUTINE = 0,
    LOG_NOTABLE = 20,
    LOG_UNEXPECTED = 40,
    LOG_ERROR = 60,
};

// The logger is fetched anew for every line so that an application may replace
// it at any time; the reference is dropped right after the line.
template <typename... Args>
void WriteNetLog(int level, const char* format, Args... args) {
    // Routine lines are most lines and the default logger drops them: no need
    // to take the logger's lock for them.
    if (sysutil::LogLevelDropped(level)) return;
    std::shared_ptr<sysutil::ISysutilLogInterface> logger = sysutil::ISysutilLogInterface::GetLogInstance(nullptr);
    if (!logger) return;
    int tid = sysutil::GetTid();
    logger->WriteLog(&level, &tid, format, args...);
}

}  // namespace netloop
