// Bounded waiting: nothing a test waits for may hang the suite, and a wait that
// runs out says what did not arrive.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

namespace testsupport {

// Polls `done` every millisecond until it holds or `timeout` has passed.
template <typename Pred>
bool WaitUntil(Pred done, std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return done();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// ASSERT_TRUE(Await([&] { return finished; }, "OnFinish of the GET"));
// The limit is generous on purpose: the suite must pass on a loaded machine.
template <typename Pred>
::testing::AssertionResult Await(Pred done, const std::string& what,
                                 std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
    if (WaitUntil(done, timeout)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << what << " did not arrive within "
                                         << std::chrono::duration_cast<std::chrono::seconds>(timeout).count() << " s";
}

}  // namespace testsupport
