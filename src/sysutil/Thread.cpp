#include "sysutil/sysutil.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

namespace sysutil {

int32_t GetTid() {
    // The kernel id never changes for a thread, and asking the kernel on every
    // call would cost a system call on the hottest paths of the callers.
    thread_local const int32_t tid = static_cast<int32_t>(::syscall(SYS_gettid));
    return tid;
}

bool SetThreadName(const char* name) {
    if (name == nullptr) return false;
    char shortName[16];  // the kernel keeps 15 characters and the terminator
    std::strncpy(shortName, name, sizeof(shortName) - 1);
    shortName[sizeof(shortName) - 1] = '\0';
    return ::pthread_setname_np(::pthread_self(), shortName) == 0;
}

}  // namespace sysutil
