// Starting, stopping and looking into a frame from a test, with bounded waits.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>

#include "frame/HttpFrame.h"

namespace frametest {

inline std::shared_ptr<netloop::IHttpInterface> StartFrame(bool share = false, bool pipelining = false) {
    auto frame = netloop::IHttpInterface::Create();
    EXPECT_EQ(frame->Init(nullptr, pipelining, share, nullptr), 0);
    EXPECT_EQ(frame->Start(true), 0);
    return frame;
}

// Stop from the test thread; a loop that never ends is a failure, not a hang.
inline void StopFrame(const std::shared_ptr<netloop::IHttpInterface>& frame,
                      std::chrono::seconds limit = std::chrono::seconds(30)) {
    auto stopped = std::async(std::launch::async, [frame] { return frame->Stop(false); });
    if (stopped.wait_for(limit) != std::future_status::ready) {
        std::fprintf(stderr, "the frame did not stop within %lld s\n", static_cast<long long>(limit.count()));
        std::abort();
    }
    EXPECT_EQ(stopped.get(), 0);
}

// The kernel id of the frame's loop thread, 0 when none runs.
inline int32_t LoopTid(const std::shared_ptr<netloop::IHttpInterface>& frame) {
    return std::static_pointer_cast<netloop::CHttpFrame>(frame)->m_Tid.load();
}

}  // namespace frametest
