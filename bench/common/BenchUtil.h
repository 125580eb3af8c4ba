// Shared pieces of the benchmark programs: argument reading, the one-line JSON
// result, a watchdog that bounds every run, clocks and process memory figures.
//
// Every program prints exactly one JSON object on stdout, on one line:
//   {"bench":"small_get","impl":"netloop","params":{...},"value":1234.5,"unit":"req/s",...}
// or, when it could not measure, the same with "error":"..." (exit code 1) or
// "skipped":"..." (exit code 0) and no value. Diagnostics go to stderr.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace bench {

// --key=value and --key value; a bare --flag reads as "1".
class Args {
public:
    Args(int argc, char** argv);
    bool Has(const std::string& key) const { return m_Values.count(key) != 0; }
    std::string Str(const std::string& key, const std::string& def) const;
    int64_t Int(const std::string& key, int64_t def) const;
    double Num(const std::string& key, double def) const;
    // Accepts sizes with a K/M/G suffix (powers of 1024).
    uint64_t Size(const std::string& key, uint64_t def) const;

private:
    std::map<std::string, std::string> m_Values;
};

// The result line. Parameters and extra fields keep their insertion order.
class Result {
public:
    Result(std::string bench, std::string impl);
    Result& Param(const std::string& key, const std::string& value);
    Result& Param(const std::string& key, int64_t value);
    Result& Extra(const std::string& key, double value);
    Result& Extra(const std::string& key, const std::string& value);
    // Prints the measurement and returns the process exit code (0).
    int Print(double value, const std::string& unit);
    // Prints a failure and returns 1.
    int Fail(const std::string& message);
    // Prints a skip notice and returns 0.
    int Skip(const std::string& reason);

private:
    std::string Head() const;
    std::string m_Bench, m_Impl;
    std::vector<std::pair<std::string, std::string>> m_Params;  // JSON-encoded values
    std::vector<std::pair<std::string, std::string>> m_Extra;   // JSON-encoded values
};

std::string JsonString(const std::string& s);
std::string JsonNumber(double v);

// After `seconds`, prints an error line for (bench, impl) and ends the process
// with exit code 3, whatever it is doing. Call once, early.
void StartWatchdog(const std::string& bench, const std::string& impl, int seconds);

inline double Now() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// VmRSS and VmHWM of this process, in bytes.
size_t ResidentBytes();
size_t PeakResidentBytes();
// Lowers VmHWM to the current VmRSS (writes /proc/self/clear_refs); false when
// the kernel refused, in which case peaks include earlier phases.
bool ResetPeakResident();

// A count that one side raises and another waits for, with a bound.
class Countdown {
public:
    explicit Countdown(uint64_t target = 0) : m_Target(target) {}
    void Reset(uint64_t target) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Count = 0;
        m_Target = target;
    }
    // Returns the new count.
    uint64_t Add(uint64_t n = 1) {
        uint64_t now = m_Count.fetch_add(n, std::memory_order_acq_rel) + n;
        if (now >= m_Target) {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Cv.notify_all();
        }
        return now;
    }
    uint64_t Count() const { return m_Count.load(std::memory_order_acquire); }
    bool Wait(double seconds) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Cv.wait_for(lock, std::chrono::duration<double>(seconds),
                             [&] { return m_Count.load(std::memory_order_acquire) >= m_Target; });
    }

private:
    std::atomic<uint64_t> m_Count{0};
    uint64_t m_Target;
    std::mutex m_Mutex;
    std::condition_variable m_Cv;
};

// A file of `size` deterministic bytes in a cache folder shared by runs
// ($NETLOOP_BENCH_CACHE, else $TMPDIR/netloop-bench-cache), made once.
// Returns its path.
std::string CachedDataFile(uint64_t size);

}  // namespace bench

namespace bench {

// What a stretch of work cost this process: CPU time (user + system, every
// thread) and system calls entered by its threads (those alive at the first
// Start() and those they start later). Child processes such as nginx are not
// counted; in-process loopback servers are, alike for both sides of a pair. The system call count needs the raw_syscalls
// tracepoint (tracefs mounted, perf events allowed); without it only CPU time
// is reported.
class CostMeter {
public:
    CostMeter() = default;
    ~CostMeter();
    CostMeter(const CostMeter&) = delete;
    CostMeter& operator=(const CostMeter&) = delete;
    void Start();
    // Adds cpu_us_per_<item> and, when counted, syscalls_per_<item> to `res`.
    void Report(Result& res, double items, const std::string& item = "item");

private:
    uint64_t ReadCalls() const;
    std::vector<int> m_Fds;
    bool m_Opened = false;
    double m_Cpu0 = 0;
    uint64_t m_Calls0 = 0;
};

}  // namespace bench
