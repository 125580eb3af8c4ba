#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "sysutil/sysutil.h"

namespace sysutil {
namespace {

// Creates every missing folder above `path`'s last component. Failures are left
// for fopen to report.
void CreateParentDirectories(const std::string& path) {
    for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1)) {
        std::string dir = path.substr(0, pos);
        if (::mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST) return;
    }
}

}  // namespace

FILE* CPathUtil::OpenFile(const char* path, const char* mode, int flags) {
    if (path == nullptr || mode == nullptr || *path == '\0') {
        errno = EINVAL;
        return nullptr;
    }
    if (flags == -1) CreateParentDirectories(path);
    return std::fopen(path, mode);
}

}  // namespace sysutil
