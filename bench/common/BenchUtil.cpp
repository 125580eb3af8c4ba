#include "common/BenchUtil.h"

#include <fcntl.h>
#include <linux/perf_event.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "loopback/ProcessStats.h"
#include "loopback/TestData.h"

namespace bench {

// ---------------------------------------------------------------------------
// Arguments

Args::Args(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a.rfind("--", 0) != 0) continue;
        a = a.substr(2);
        size_t eq = a.find('=');
        if (eq != std::string::npos) {
            m_Values[a.substr(0, eq)] = a.substr(eq + 1);
        } else if (i + 1 < argc && std::strncmp(argv[i + 1], "--", 2) != 0) {
            m_Values[a] = argv[++i];
        } else {
            m_Values[a] = "1";
        }
    }
}

std::string Args::Str(const std::string& key, const std::string& def) const {
    auto it = m_Values.find(key);
    return it == m_Values.end() ? def : it->second;
}

int64_t Args::Int(const std::string& key, int64_t def) const {
    auto it = m_Values.find(key);
    return it == m_Values.end() ? def : std::strtoll(it->second.c_str(), nullptr, 10);
}

double Args::Num(const std::string& key, double def) const {
    auto it = m_Values.find(key);
    return it == m_Values.end() ? def : std::strtod(it->second.c_str(), nullptr);
}

uint64_t Args::Size(const std::string& key, uint64_t def) const {
    auto it = m_Values.find(key);
    if (it == m_Values.end()) return def;
    char* end = nullptr;
    double v = std::strtod(it->second.c_str(), &end);
    switch (end != nullptr ? *end : 0) {
        case 'k': case 'K': v *= 1024.0; break;
        case 'm': case 'M': v *= 1024.0 * 1024.0; break;
        case 'g': case 'G': v *= 1024.0 * 1024.0 * 1024.0; break;
        default: break;
    }
    return static_cast<uint64_t>(v);
}

// ---------------------------------------------------------------------------
// JSON

std::string JsonString(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20) {
                    char buf[8];
                    std::snprintf(buf, sizeof(buf), "\\u%04x", c);
                    out += buf;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

std::string JsonNumber(double v) {
    if (!std::isfinite(v)) return "null";
    char buf[64];
    std::snprintf(buf, sizeof(buf), "%.6g", v);
    return buf;
}

Result::Result(std::string bench, std::string impl) : m_Bench(std::move(bench)), m_Impl(std::move(impl)) {}

Result& Result::Param(const std::string& key, const std::string& value) {
    m_Params.emplace_back(key, JsonString(value));
    return *this;
}

Result& Result::Param(const std::string& key, int64_t value) {
    m_Params.emplace_back(key, std::to_string(value));
    return *this;
}

Result& Result::Extra(const std::string& key, double value) {
    m_Extra.emplace_back(key, JsonNumber(value));
    return *this;
}

Result& Result::Extra(const std::string& key, const std::string& value) {
    m_Extra.emplace_back(key, JsonString(value));
    return *this;
}

std::string Result::Head() const {
    std::string out = "{\"bench\":" + JsonString(m_Bench) + ",\"impl\":" + JsonString(m_Impl) + ",\"params\":{";
    for (size_t i = 0; i < m_Params.size(); ++i)
        out += (i ? "," : "") + JsonString(m_Params[i].first) + ":" + m_Params[i].second;
    out += "}";
    for (const auto& [k, v] : m_Extra) out += "," + JsonString(k) + ":" + v;
    return out;
}

int Result::Print(double value, const std::string& unit) {
    std::string line = Head() + ",\"value\":" + JsonNumber(value) + ",\"unit\":" + JsonString(unit) + "}\n";
    std::fputs(line.c_str(), stdout);
    std::fflush(stdout);
    return 0;
}

int Result::Fail(const std::string& message) {
    std::string line = Head() + ",\"error\":" + JsonString(message) + "}\n";
    std::fputs(line.c_str(), stdout);
    std::fflush(stdout);
    std::fprintf(stderr, "%s/%s: %s\n", m_Bench.c_str(), m_Impl.c_str(), message.c_str());
    return 1;
}

int Result::Skip(const std::string& reason) {
    std::string line = Head() + ",\"skipped\":" + JsonString(reason) + "}\n";
    std::fputs(line.c_str(), stdout);
    std::fflush(stdout);
    std::fprintf(stderr, "%s/%s: skipped: %s\n", m_Bench.c_str(), m_Impl.c_str(), reason.c_str());
    return 0;
}

// ---------------------------------------------------------------------------
// Watchdog

namespace {

std::string g_WatchdogLine;

void OnWatchdog(int) {
    // Only async-signal-safe calls from here.
    ssize_t ignored = ::write(STDOUT_FILENO, g_WatchdogLine.data(), g_WatchdogLine.size());
    (void)ignored;
    ::_exit(3);
}

}  // namespace

void StartWatchdog(const std::string& bench, const std::string& impl, int seconds) {
    g_WatchdogLine = "{\"bench\":" + JsonString(bench) + ",\"impl\":" + JsonString(impl) +
                     ",\"params\":{},\"error\":\"time limit of " + std::to_string(seconds) + " s reached\"}\n";
    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnWatchdog;
    ::sigaction(SIGALRM, &sa, nullptr);
    ::alarm(static_cast<unsigned>(seconds));
}

// ---------------------------------------------------------------------------
// Memory

size_t ResidentBytes() { return testsupport::ResidentBytes(); }
size_t PeakResidentBytes() { return testsupport::PeakResidentBytes(); }

bool ResetPeakResident() {
    int fd = ::open("/proc/self/clear_refs", O_WRONLY);
    if (fd < 0) return false;
    bool ok = ::write(fd, "5", 1) == 1;
    ::close(fd);
    return ok;
}

// ---------------------------------------------------------------------------
// Cached data files

std::string CachedDataFile(uint64_t size) {
    std::string dir;
    if (const char* env = std::getenv("NETLOOP_BENCH_CACHE"); env != nullptr && *env) {
        dir = env;
    } else {
        const char* tmp = std::getenv("TMPDIR");
        dir = std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/netloop-bench-cache";
    }
    ::mkdir(dir.c_str(), 0700);
    std::string path = dir + "/data-" + std::to_string(size) + ".bin";
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && static_cast<uint64_t>(st.st_size) == size) return path;

    // Written under a private name and renamed, so a concurrent run never sees
    // a half-written file.
    std::string temp = path + ".part." + std::to_string(::getpid());
    FILE* f = std::fopen(temp.c_str(), "wb");
    if (f == nullptr) throw std::runtime_error("cannot write " + temp);
    std::vector<char> piece(1 << 20);
    for (uint64_t off = 0; off < size;) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(piece.size(), size - off));
        testsupport::FillDeterministicBytes(off, piece.data(), n);
        if (std::fwrite(piece.data(), 1, n, f) != n) {
            std::fclose(f);
            std::remove(temp.c_str());
            throw std::runtime_error("cannot write " + temp);
        }
        off += n;
    }
    if (std::fclose(f) != 0 || std::rename(temp.c_str(), path.c_str()) != 0) {
        std::remove(temp.c_str());
        throw std::runtime_error("cannot write " + path);
    }
    return path;
}

}  // namespace bench

// ---------------------------------------------------------------------------
// CostMeter

namespace bench {
namespace {

double ProcessCpuSeconds() {
    struct rusage ru {};
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

long SyscallTracepointId() {
    for (const char* path : {"/sys/kernel/tracing/events/raw_syscalls/sys_enter/id",
                             "/sys/kernel/debug/tracing/events/raw_syscalls/sys_enter/id"}) {
        std::ifstream in(path);
        long id = -1;
        if (in >> id) return id;
    }
    return -1;
}

}  // namespace

CostMeter::~CostMeter() {
    for (int fd : m_Fds) ::close(fd);
}

uint64_t CostMeter::ReadCalls() const {
    uint64_t total = 0;
    for (int fd : m_Fds) {
        uint64_t v = 0;
        if (::read(fd, &v, sizeof(v)) == sizeof(v)) total += v;
    }
    return total;
}

void CostMeter::Start() {
    if (!m_Opened) {
        m_Opened = true;
        const long id = SyscallTracepointId();
        if (id >= 0) {
            perf_event_attr attr {};
            attr.size = sizeof(attr);
            attr.type = PERF_TYPE_TRACEPOINT;
            attr.config = static_cast<uint64_t>(id);
            attr.inherit = 1;  // threads started later count too
            std::vector<int> fds;
            bool all = true;
            for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
                const pid_t tid = static_cast<pid_t>(std::stol(entry.path().filename().string()));
                int fd = static_cast<int>(::syscall(SYS_perf_event_open, &attr, tid, -1, -1, 0));
                if (fd < 0) {
                    all = false;
                    break;
                }
                fds.push_back(fd);
            }
            if (all) {
                m_Fds.swap(fds);
            } else {
                for (int fd : fds) ::close(fd);
            }
        }
    }
    m_Calls0 = ReadCalls();
    m_Cpu0 = ProcessCpuSeconds();
}

void CostMeter::Report(Result& res, double items, const std::string& item) {
    if (items <= 0) return;
    res.Extra("cpu_us_per_" + item, (ProcessCpuSeconds() - m_Cpu0) * 1e6 / items);
    if (!m_Fds.empty()) res.Extra("syscalls_per_" + item, static_cast<double>(ReadCalls() - m_Calls0) / items);
}

}  // namespace bench
