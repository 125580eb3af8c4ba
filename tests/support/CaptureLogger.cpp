#include "support/CaptureLogger.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace testsupport {

void CaptureLogger::WriteLog(int* level, int* tid, const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    if (n > 0) std::vsnprintf(&text[0], text.size() + 1, format, args);
    va_end(args);

    LogLine line{level ? *level : 0, tid ? *tid : 0, std::move(text)};
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (m_Echo) std::fprintf(stderr, "[log %d] %s\n", line.level, line.text.c_str());
    m_Lines.push_back(std::move(line));
    m_Cond.notify_all();
}

std::vector<LogLine> CaptureLogger::Lines() const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Lines;
}

size_t CaptureLogger::Count(const std::string& text, int level) const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    size_t n = 0;
    for (const auto& l : m_Lines)
        if (l.text == text && (level < 0 || l.level == level)) ++n;
    return n;
}

size_t CaptureLogger::CountContaining(const std::string& part, int level) const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    size_t n = 0;
    for (const auto& l : m_Lines)
        if (l.text.find(part) != std::string::npos && (level < 0 || l.level == level)) ++n;
    return n;
}

int CaptureLogger::IndexOf(const std::string& text, size_t from) const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    for (size_t i = from; i < m_Lines.size(); ++i)
        if (m_Lines[i].text == text) return static_cast<int>(i);
    return -1;
}

bool CaptureLogger::WaitFor(const std::string& text, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Cond.wait_for(lock, timeout, [&] {
        for (const auto& l : m_Lines)
            if (l.text == text) return true;
        return false;
    });
}

void CaptureLogger::Clear() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Lines.clear();
}

ScopedCaptureLogger::ScopedCaptureLogger() : m_Logger(std::make_shared<CaptureLogger>()) {
    const char* echo = std::getenv("NETLOOP_TEST_ECHO");
    m_Logger->m_Echo = echo != nullptr && *echo == '1';
    m_Previous = sysutil::ISysutilLogInterface::GetLogInstance(nullptr);
    sysutil::ISysutilLogInterface::GetLogInstance(m_Logger);
}

ScopedCaptureLogger::~ScopedCaptureLogger() { sysutil::ISysutilLogInterface::GetLogInstance(m_Previous); }

}  // namespace testsupport
