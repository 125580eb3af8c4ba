// The netloop tool as its users run it: a child process against loopback servers.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "support/Servers.h"

namespace {

using namespace testsupport;

struct ToolRun {
    int exit;
    std::string out;  // stdout and stderr together
};

ToolRun Tool(const std::vector<std::string>& args, const std::string& input = "") {
    TempDir dir;
    std::ofstream(dir.Path() + "/in") << input;
    std::vector<std::string> argv{NETLOOP_TOOL};
    argv.insert(argv.end(), args.begin(), args.end());
    ChildProcess tool(argv, dir.Path() + "/out", dir.Path() + "/in");
    int exit = tool.Wait(120);
    return {exit, tool.Log()};
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

TEST(Tool, HttpCommands) {
    Nginx nginx;
    Faults faults;
    TempDir dir;
    std::vector<std::string> args{"get", "-j", "4", "-o", dir.Path()};
    for (int i = 1; i <= 12; ++i) {
        nginx.CreateFile("/f" + std::to_string(i), i * 4099);
        args.push_back(nginx.Url("/f" + std::to_string(i)));
    }
    ToolRun get = Tool(args);
    EXPECT_EQ(get.exit, 0) << get.out;
    for (int i = 1; i <= 12; ++i) EXPECT_TRUE(ReadFile(dir.Path() + "/f" + std::to_string(i)) == Pattern(i * 4099)) << i;

    nginx.WriteFile("/hello", "hello netloop");
    ToolRun single = Tool({"get", nginx.Url("/hello")});
    EXPECT_EQ(single.exit, 0) << single.out;
    EXPECT_NE(single.out.find("hello netloop"), std::string::npos) << single.out;
    ToolRun bad = Tool({"get", "-o", dir.Path(), nginx.Url("/hello"), "http://127.0.0.1:" + std::to_string(FreePort()) + "/"});
    EXPECT_NE(bad.exit, 0);
    EXPECT_NE(bad.out.find("Could not connect"), std::string::npos) << bad.out;

    ToolRun post = Tool({"post", faults.Url("/echo"), "--data", "a=1&b=2"});
    EXPECT_EQ(post.exit, 0) << post.out;
    EXPECT_NE(post.out.find("a=1&b=2"), std::string::npos) << post.out;
    ToolRun headers = Tool({"post", faults.Url("/headers"), "--data", "x", "-H", "X-Tool: yes"});
    EXPECT_NE(headers.out.find("X-Tool: yes"), std::string::npos) << headers.out;
    std::ofstream(dir.Path() + "/up.bin", std::ios::binary) << Pattern(3 << 20);
    ToolRun put = Tool({"put", nginx.Url("/dav/up.bin"), "--file", dir.Path() + "/up.bin"});
    EXPECT_EQ(put.exit, 0) << put.out;
    EXPECT_TRUE(ReadFile(nginx.Root() + "/dav/up.bin") == Pattern(3 << 20));

    // Bad arguments: a message and exit status 2.
    for (const auto& a : std::vector<std::vector<std::string>>{
             {"get"}, {"get", "--jobs"}, {"get", "-j", "zero", "http://x/"}, {"get", "--what", "http://x/"},
             {"post", "http://x/"}, {"udp", "localhost"}, {"udp", "localhost", "99999"}, {"nonsense"}}) {
        ToolRun r = Tool(a);
        EXPECT_EQ(r.exit, 2) << a[0] << " " << r.out;
        EXPECT_FALSE(r.out.empty());
    }
}

TEST(Tool, WsUdpAndDemo) {
    WsServer ws;
    ToolRun echo = Tool({"ws", ws.Url("/echo")}, "first line\nsecond line\n");
    EXPECT_EQ(echo.exit, 0) << echo.out;
    EXPECT_NE(echo.out.find("[text] first line\n[text] second line\n"), std::string::npos) << echo.out;
    EXPECT_NE(Tool({"ws", ws.Url("/refuse")}, "x\n").exit, 0);

    UdpEcho udp;
    ToolRun u = Tool({"udp", "127.0.0.1", std::to_string(udp.Port()), "--wait", "1000"}, "one\ntwo\n");
    EXPECT_EQ(u.exit, 0) << u.out;
    EXPECT_NE(u.out.find("from 127.0.0.1: one"), std::string::npos) << u.out;
    EXPECT_NE(u.out.find("from 127.0.0.1: two"), std::string::npos) << u.out;

    ToolRun demo = Tool({"demo"});
    EXPECT_EQ(demo.exit, 0) << demo.out;
    EXPECT_NE(demo.out.find("all capabilities working"), std::string::npos) << demo.out;
}

}  // namespace
