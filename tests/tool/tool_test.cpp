// The netloop tool as its users run it: a child process against loopback servers.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "loopback/HttpTestServer.h"
#include "loopback/TestData.h"
#include "loopback/UdpEchoPeer.h"
#include "loopback/WsTestServer.h"

namespace {

struct ToolRun {
    int exitCode = -1;
    std::string out, err;
};

// Runs the tool with `args`, feeding `input` on stdin, killing it after `timeout`.
ToolRun RunTool(const std::vector<std::string>& args, const std::string& input = "",
                std::chrono::seconds timeout = std::chrono::seconds(60)) {
    int in[2], out[2], err[2];
    EXPECT_EQ(::pipe(in), 0);
    EXPECT_EQ(::pipe(out), 0);
    EXPECT_EQ(::pipe(err), 0);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) ::close(fd);
        std::vector<char*> argv{const_cast<char*>(NETLOOP_TOOL)};
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        ::execv(NETLOOP_TOOL, argv.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    if (!input.empty()) (void)!::write(in[1], input.data(), input.size());
    ::close(in[1]);
    ToolRun run;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    struct pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    int open = 2;
    while (open > 0 && std::chrono::steady_clock::now() < deadline) {
        if (::poll(fds, 2, 100) <= 0) continue;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
            char buf[65536];
            ssize_t n = ::read(fds[i].fd, buf, sizeof(buf));
            if (n <= 0) {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            } else {
                (i == 0 ? run.out : run.err).append(buf, static_cast<size_t>(n));
            }
        }
    }
    if (open > 0) ::kill(pid, SIGKILL);
    for (auto& f : fds)
        if (f.fd >= 0) ::close(f.fd);
    int status = 0;
    ::waitpid(pid, &status, 0);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

std::string TempDir() {
    char dir[] = "/tmp/netloop-tool-XXXXXX";
    EXPECT_NE(::mkdtemp(dir), nullptr);
    return dir;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

TEST(Tool, GetWritesEveryFileAndReportsFailures) {
    testsupport::HttpTestServer server;
    std::string dir = TempDir();
    std::vector<std::string> args{"get", "-j", "4", "-o", dir};
    for (int i = 1; i <= 20; ++i) args.push_back(server.Url("/bytes/" + std::to_string(i * 4099)));
    ToolRun ok = RunTool(args);
    EXPECT_EQ(ok.exitCode, 0) << ok.err;
    for (int i = 1; i <= 20; ++i) {
        std::string name = std::to_string(i * 4099);
        EXPECT_EQ(ReadFile(dir + "/" + name), testsupport::DeterministicBytes(i * 4099)) << name;
    }
    EXPECT_NE(ok.out.find("URL"), std::string::npos);  // the summary table
    EXPECT_EQ(std::count(ok.out.begin(), ok.out.end(), '\n') >= 20, true);

    // One bad URL among good ones: the run fails and says which.
    ToolRun bad = RunTool({"get", "-o", dir, server.Url("/fixed"), server.Url("/status/500"), "http://127.0.0.1:1/"});
    EXPECT_NE(bad.exitCode, 0);
    EXPECT_NE(bad.out.find("Could not connect"), std::string::npos) << bad.out;

    // One URL without -o: the body on stdout, the report on stderr.
    ToolRun single = RunTool({"get", server.Url("/fixed")});
    EXPECT_EQ(single.exitCode, 0);
    EXPECT_EQ(single.out, "hello netloop");

    // Bad arguments: one line, exit status 2, no crash.
    for (const auto& badArgs : std::vector<std::vector<std::string>>{
             {"get"}, {"get", "--jobs"}, {"get", "-j", "zero", "http://x/"}, {"get", "--what", "http://x/"},
             {"post", "http://x/"}, {"udp", "localhost"}, {"udp", "localhost", "99999"}, {"nonsense"}}) {
        ToolRun r = RunTool(badArgs);
        EXPECT_EQ(r.exitCode, 2) << badArgs[0];
        EXPECT_FALSE(r.err.empty());
    }
    std::system(("rm -rf " + dir).c_str());
}

TEST(Tool, PostAndPutSendTheirBodies) {
    testsupport::HttpTestServer server;
    ToolRun post = RunTool({"post", server.Url("/echo"), "--data", "a=1&b=2", "-H", "X-Tool: yes"});
    EXPECT_EQ(post.exitCode, 0) << post.err;
    EXPECT_EQ(post.out.rfind("POST /echo\n", 0), 0u);
    EXPECT_NE(post.out.find("X-Tool: yes"), std::string::npos);
    EXPECT_EQ(post.out.substr(post.out.size() - 7), "a=1&b=2");

    std::string dir = TempDir();
    std::string body = testsupport::DeterministicBytes(3 << 20);
    std::ofstream(dir + "/up.bin", std::ios::binary) << body;
    ToolRun put = RunTool({"put", server.Url("/upload"), "--file", dir + "/up.bin"});
    EXPECT_EQ(put.exitCode, 0) << put.err;
    EXPECT_EQ(put.out, "size=" + std::to_string(body.size()) + " sha256=" + testsupport::Sha256Hex(body));
    std::system(("rm -rf " + dir).c_str());
}

TEST(Tool, WsAndUdpEchoStdinLines) {
    testsupport::WsTestServer ws;
    ToolRun wsRun = RunTool({"ws", ws.Url("/echo")}, "first line\nsecond line\n");
    EXPECT_EQ(wsRun.exitCode, 0) << wsRun.err;
    EXPECT_NE(wsRun.out.find("[text] first line\n[text] second line\n"), std::string::npos) << wsRun.out;

    ToolRun refused = RunTool({"ws", ws.Url("/refuse/403")}, "x\n");
    EXPECT_NE(refused.exitCode, 0);

    testsupport::UdpEchoPeer peer;
    ToolRun udp = RunTool({"udp", "127.0.0.1", std::to_string(peer.Port()), "--wait", "300"}, "one\ntwo\n");
    EXPECT_EQ(udp.exitCode, 0) << udp.err;
    EXPECT_NE(udp.out.find("from 127.0.0.1: one"), std::string::npos) << udp.out;
    EXPECT_NE(udp.out.find("from 127.0.0.1: two"), std::string::npos) << udp.out;
}

TEST(Tool, DemoShowsEveryCapabilityWorking) {
    ToolRun demo = RunTool({"demo"}, "", std::chrono::seconds(120));
    EXPECT_EQ(demo.exitCode, 0) << demo.out << demo.err;
    EXPECT_NE(demo.out.find("all capabilities working"), std::string::npos) << demo.out;
    EXPECT_EQ(demo.out.find("FAILED"), std::string::npos) << demo.out;
}

}  // namespace
