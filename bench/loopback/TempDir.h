// Scratch folders for test servers (TLS files, nginx prefix).
#pragma once

#include <string>

namespace testsupport {

// Creates a fresh, private folder under $TMPDIR (or /tmp) named
// <prefix>-XXXXXX and returns its path; throws std::runtime_error on failure.
std::string MakeTempDir(const std::string& prefix);

// Removes `path` and everything below it; missing paths are fine.
void RemoveTree(const std::string& path);

}  // namespace testsupport
