#include "loopback/ProcessStats.h"

#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace testsupport {
namespace {

std::set<int> NumericEntries(const char* dir) {
    std::set<int> out;
    DIR* d = ::opendir(dir);
    if (d == nullptr) return out;
    int own = ::dirfd(d);
    while (struct dirent* e = ::readdir(d)) {
        if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
        int n = std::atoi(e->d_name);
        if (n != own) out.insert(n);
    }
    ::closedir(d);
    return out;
}

size_t StatusKb(const char* key) {
    std::ifstream in("/proc/self/status");
    std::string line;
    size_t keyLen = std::strlen(key);
    while (std::getline(in, line))
        if (line.compare(0, keyLen, key) == 0) return std::strtoull(line.c_str() + keyLen + 1, nullptr, 10);
    return 0;
}

}  // namespace

size_t ThreadCount() { return NumericEntries("/proc/self/task").size(); }
size_t OpenFdCount() { return NumericEntries("/proc/self/fd").size(); }
std::set<int> OpenFds() { return NumericEntries("/proc/self/fd"); }
size_t ResidentBytes() { return StatusKb("VmRSS") * 1024; }
size_t PeakResidentBytes() { return StatusKb("VmHWM") * 1024; }

}  // namespace testsupport
