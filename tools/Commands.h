// The subcommands of the netloop tool. Each takes the whole argument list
// (argv[1] is the subcommand's name) and returns the process's exit status:
// 0 success, 1 failure, 2 bad arguments.
#pragma once

namespace tool {

int RunGet(int argc, char** argv);
int RunPost(int argc, char** argv);
int RunPut(int argc, char** argv);
int RunWs(int argc, char** argv);
int RunUdp(int argc, char** argv);
int RunDemo(int argc, char** argv);
int RunBench(int argc, char** argv);

}  // namespace tool
