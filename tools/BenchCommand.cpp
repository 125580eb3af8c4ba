// netloop bench: runs the benchmark suite's driver script.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "Commands.h"

namespace tool {

int RunBench(int argc, char** argv) {
    std::string script = std::string(NETLOOP_SOURCE_DIR) + "/scripts/bench";
    std::vector<char*> args{const_cast<char*>(script.c_str())};
    for (int i = 2; i < argc; ++i) args.push_back(argv[i]);
    args.push_back(nullptr);
    ::execv(script.c_str(), args.data());
    std::perror(("netloop bench: cannot run " + script).c_str());
    return 1;
}

}  // namespace tool
