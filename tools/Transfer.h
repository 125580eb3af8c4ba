// One URL of a `get` run and everything learned about it, shared by the runner
// (loop thread), the progress display and the summary (main thread).
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "Output.h"
#include "ResponseFacts.h"
#include "ToolCommon.h"

namespace tool {

struct Transfer {
    std::string url;
    std::string target;  // the real output file; empty: stdout, a temporary file or nothing
    std::string shownAs;  // where the body went, for the summary
    StagedFile file;     // the body while it is written, when it goes to `target`
    std::string sinkPath;  // what the library writes to when there is no target; empty: memory
    std::shared_ptr<netloop::IHttpHandleInterface> handle;
    std::atomic<int64_t> now{0};
    std::atomic<int64_t> total{0};
    std::atomic<bool> running{false};
    std::atomic<bool> finished{false};  // set last: what comes before is complete
    Clock::time_point start, end;
    ResponseFacts facts;
    std::string why;  // why the transfer failed; empty: it succeeded
    int64_t bytes = 0;
    bool Succeeded() const { return finished && why.empty(); }
};

}  // namespace tool
