// What a process holds right now: threads, descriptors, resident memory.
#pragma once

#include <cstddef>
#include <set>

namespace testsupport {

size_t ThreadCount();          // entries of /proc/self/task
size_t OpenFdCount();          // entries of /proc/self/fd
std::set<int> OpenFds();       // their numbers
size_t ResidentBytes();        // VmRSS
size_t PeakResidentBytes();    // VmHWM

}  // namespace testsupport
