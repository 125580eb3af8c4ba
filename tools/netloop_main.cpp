// netloop: the command-line face of the library, built on its public headers
// and shared libraries only.
#include <cstdio>
#include <cstring>

#include "Commands.h"

namespace {

struct Subcommand {
    const char* name;
    int (*run)(int, char**);
    const char* summary;
};

const Subcommand kSubcommands[] = {
    {"get", tool::RunGet, "download URLs concurrently"},
    {"post", tool::RunPost, "send a POST body"},
    {"put", tool::RunPut, "upload a file"},
    {"ws", tool::RunWs, "talk to a WebSocket server"},
    {"udp", tool::RunUdp, "exchange datagrams with a peer"},
    {"demo", tool::RunDemo, "show every capability on loopback servers"},
    {"bench", tool::RunBench, "run the benchmark suite"},
};

void Usage(FILE* out) {
    std::fprintf(out, "usage: netloop COMMAND [ARGS]   (netloop COMMAND --help for its options)\n\n");
    for (const Subcommand& s : kSubcommands) std::fprintf(out, "  %-6s %s\n", s.name, s.summary);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
        Usage(argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    for (const Subcommand& s : kSubcommands)
        if (std::strcmp(argv[1], s.name) == 0) return s.run(argc, argv);
    std::fprintf(stderr, "netloop: unknown command '%s'\n", argv[1]);
    Usage(stderr);
    return 2;
}
