// Reads standard input line by line without blocking past a deadline check, so
// a command can notice that its connection ended while the user types.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <functional>
#include <string>

namespace tool {

// Calls `onLine` for every line of stdin until EOF or until `stop` says so.
// Returns true at EOF, false when stopped.
inline bool ForEachStdinLine(const std::function<void(const std::string&)>& onLine,
                             const std::function<bool()>& stop) {
    std::string pending;
    char buffer[4096];
    for (;;) {
        if (stop()) return false;
        struct pollfd pfd = {STDIN_FILENO, POLLIN, 0};
        int ready = ::poll(&pfd, 1, 100);
        if (ready <= 0) continue;
        ssize_t n = ::read(STDIN_FILENO, buffer, sizeof(buffer));
        if (n <= 0) {
            if (!pending.empty()) onLine(pending);
            return true;
        }
        pending.append(buffer, static_cast<size_t>(n));
        for (size_t eol; (eol = pending.find('\n')) != std::string::npos;) {
            std::string line = pending.substr(0, eol);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            pending.erase(0, eol + 1);
            onLine(line);
        }
    }
}

}  // namespace tool
