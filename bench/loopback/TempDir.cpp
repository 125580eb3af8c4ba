#include "loopback/TempDir.h"

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace testsupport {

std::string MakeTempDir(const std::string& prefix) {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/" + prefix + "-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data()))
        throw std::runtime_error("mkdtemp(" + pattern + "): " + std::strerror(errno));
    return buf.data();
}

void RemoveTree(const std::string& path) {
    if (path.empty()) return;
    nftw(
        path.c_str(),
        [](const char* p, const struct stat*, int, struct FTW*) {
            ::remove(p);  // keep going: remove as much as possible
            return 0;
        },
        16, FTW_DEPTH | FTW_PHYS);
}

}  // namespace testsupport
