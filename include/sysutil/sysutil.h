// sysutil: the small platform layer netloop and its applications share.
//
// Thread identity, thread names, file opening and the process-wide logger.
// Everything here is safe to call from any thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>

#if defined(_WIN32)
#  if defined(SYSUTIL_BUILDING)
#    define SYSUTIL_EXPORT __declspec(dllexport)
#  else
#    define SYSUTIL_EXPORT __declspec(dllimport)
#  endif
#else
#  define SYSUTIL_EXPORT __attribute__((visibility("default")))
#endif

namespace sysutil {

// The kernel's id of the calling thread. Unique among the live threads of the
// process; an id may come back after its thread has ended.
SYSUTIL_EXPORT int32_t GetTid();

// Names the calling thread (visible in /proc/self/task/<tid>/comm). Names longer
// than the system allows are cut. Returns false when the system refused.
SYSUTIL_EXPORT bool SetThreadName(const char* name);

class SYSUTIL_EXPORT CPathUtil {
public:
    // Opens `path` like fopen(path, mode). With `flags` -1 the missing parent
    // directories of `path` are created first, so a file under a new folder can be
    // written. Returns null (errno set) when the file cannot be opened. The caller
    // owns the stream and closes it with fclose.
    static FILE* OpenFile(const char* path, const char* mode, int flags);
};

// The process's logger. One instance serves the application and every library
// that logs through sysutil.
class SYSUTIL_EXPORT ISysutilLogInterface {
public:
    // Writes one message. `level`: higher is graver (0 routine, 20 notable,
    // 40 unexpected, 60 error). `tid`: the caller's GetTid(). `format` and the
    // arguments follow printf. May be called from any thread at once.
    virtual void WriteLog(int* level, int* tid, const char* format, ...) = 0;
    virtual ~ISysutilLogInterface();

    // Empty `replace`: returns the process's logger, never empty (the default
    // logger until another is installed). Non-empty: installs `replace` as the
    // process's logger and returns it. Thread-safe; a logger that a caller got
    // stays alive until that caller drops its reference, so a message being written
    // while another thread replaces the logger is never cut short.
    static std::shared_ptr<ISysutilLogInterface> GetLogInstance(std::shared_ptr<ISysutilLogInterface> replace);
};

// The default logger's threshold: messages below `minLevel` are dropped before
// they are formatted. Default 40. Loggers installed by the application keep
// their own rules.
SYSUTIL_EXPORT void SetLogLevel(int minLevel);

// True when a message of `level` would be dropped unseen: the default logger is
// the process's logger and `level` is below its threshold. Lets a caller skip
// fetching the logger and gathering the message's arguments. False whenever an
// application's logger is installed, which decides for itself.
SYSUTIL_EXPORT bool LogLevelDropped(int level);

}  // namespace sysutil
