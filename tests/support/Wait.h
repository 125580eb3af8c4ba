// Bounded waiting: nothing a test waits for may hang the suite, and a wait that
// runs out says what did not arrive. The limit is generous on purpose: the
// suite must pass on a machine whose cores are busy with other work.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

namespace testsupport {

// 60 s, or NETLOOP_TEST_WAIT_SECONDS (scripts/mutate shortens it: a mutant
// that loses a notice should not cost a minute).
inline std::chrono::seconds WaitLimit() {
    const char* s = std::getenv("NETLOOP_TEST_WAIT_SECONDS");
    return std::chrono::seconds(s ? std::atoi(s) : 60);
}

// Polls `done` every millisecond until it holds or `timeout` has passed.
template <typename Pred>
bool WaitUntil(Pred done, std::chrono::milliseconds timeout = WaitLimit()) {
    for (auto end = std::chrono::steady_clock::now() + timeout; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(1)))
        if (std::chrono::steady_clock::now() > end) return done();
    return true;
}

// ASSERT_TRUE(Await([&] { return finished; }, "OnFinish of the GET"));
template <typename Pred>
::testing::AssertionResult Await(Pred done, const std::string& what) {
    if (WaitUntil(done)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << what << " did not arrive within " << WaitLimit().count() << " s";
}

}  // namespace testsupport
