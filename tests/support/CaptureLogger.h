// A logger for tests: installed as the process's logger for its lifetime, it
// keeps every line with its level so tests can assert the exact words the
// library writes. NETLOOP_TEST_ECHO=1 also prints the lines.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sysutil/sysutil.h"

namespace testsupport {

class CaptureLogger : public sysutil::ISysutilLogInterface {
public:
    void WriteLog(int* level, int* tid, const char* format, ...) override {
        char text[8192];
        va_list args;
        va_start(args, format);
        std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (m_Echo) std::fprintf(stderr, "[log %d] %s\n", level ? *level : 0, text);
        m_Lines.emplace_back(level ? *level : 0, text);
    }
    // Lines equal to `text` (or containing it, with `whole` false) at `level`
    // (any level for -1).
    size_t Count(const std::string& text, int level = -1, bool whole = true) const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        size_t n = 0;
        for (const auto& [l, t] : m_Lines)
            n += (level < 0 || l == level) && (whole ? t == text : t.find(text) != std::string::npos);
        return n;
    }
    size_t CountContaining(const std::string& part, int level = -1) const { return Count(part, level, false); }
    bool Has(const std::string& text, int level = -1) const { return Count(text, level) > 0; }
    void Clear() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Lines.clear();
    }

private:
    mutable std::mutex m_Mutex;
    std::vector<std::pair<int, std::string>> m_Lines;
    const bool m_Echo = std::getenv("NETLOOP_TEST_ECHO") && *std::getenv("NETLOOP_TEST_ECHO") == '1';
};

class ScopedCaptureLogger {
public:
    ScopedCaptureLogger() { sysutil::ISysutilLogInterface::GetLogInstance(m_Logger); }
    ~ScopedCaptureLogger() { sysutil::ISysutilLogInterface::GetLogInstance(m_Previous); }
    CaptureLogger* operator->() const { return m_Logger.get(); }

private:
    std::shared_ptr<sysutil::ISysutilLogInterface> m_Previous = sysutil::ISysutilLogInterface::GetLogInstance(nullptr);
    std::shared_ptr<CaptureLogger> m_Logger = std::make_shared<CaptureLogger>();
};

}  // namespace testsupport
