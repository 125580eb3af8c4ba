// Bounded waiting for tests: nothing a test waits for may hang the suite.
#pragma once

#include <chrono>
#include <thread>

namespace testsupport {

// Polls `done` every millisecond until it holds or `timeout` has passed.
template <typename Pred>
bool WaitUntil(Pred done, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return done();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace testsupport
