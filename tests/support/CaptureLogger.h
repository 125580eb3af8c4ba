// A logger for tests: keeps every line with its level so tests can assert the
// exact words the library writes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sysutil/sysutil.h"

namespace testsupport {

struct LogLine {
    int level;
    int tid;
    std::string text;
};

class CaptureLogger : public sysutil::ISysutilLogInterface {
public:
    void WriteLog(int* level, int* tid, const char* format, ...) override;

    std::vector<LogLine> Lines() const;
    // Lines whose text equals `text` exactly (at `level`, or any level with -1).
    size_t Count(const std::string& text, int level = -1) const;
    // Lines whose text contains `part`.
    size_t CountContaining(const std::string& part, int level = -1) const;
    bool Has(const std::string& text, int level = -1) const { return Count(text, level) > 0; }
    // Index of the first line equal to `text` at or after `from`; -1 when none.
    int IndexOf(const std::string& text, size_t from = 0) const;
    // Waits until a line equal to `text` has been written, at most `timeout`.
    bool WaitFor(const std::string& text, std::chrono::milliseconds timeout) const;
    void Clear();

private:
    mutable std::mutex m_Mutex;
    mutable std::condition_variable m_Cond;
    std::vector<LogLine> m_Lines;
    bool m_Echo = false;
    friend class ScopedCaptureLogger;
};

// Installs a CaptureLogger as the process's logger for its lifetime and puts the
// previous logger back afterwards. Set NETLOOP_TEST_ECHO=1 to also see the lines.
class ScopedCaptureLogger {
public:
    ScopedCaptureLogger();
    ~ScopedCaptureLogger();
    CaptureLogger& operator*() const { return *m_Logger; }
    CaptureLogger* operator->() const { return m_Logger.get(); }

private:
    std::shared_ptr<CaptureLogger> m_Logger;
    std::shared_ptr<sysutil::ISysutilLogInterface> m_Previous;
};

}  // namespace testsupport
