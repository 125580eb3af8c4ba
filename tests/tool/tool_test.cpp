// The netloop tool as its users run it, a child process against loopback
// servers: what it promises, and nothing lost or failed reported as success.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/Servers.h"

namespace {

using namespace testsupport;

struct ToolRun {
    int code = -1;
    std::string out, err;
    std::string all() const { return out + err; }
};

// Runs the tool through the shell, `input` piped to stdin, stdout to
// `stdoutPath` (default: a file read back), killed after 120 s.
ToolRun Tool(const std::vector<std::string>& args, const std::string& input = "", std::string stdoutPath = "") {
    static testsupport::TempDir dir;
    std::ofstream(dir.Path() + "/in", std::ios::binary) << input;
    const bool captured = stdoutPath.empty();
    if (captured) stdoutPath = dir.Path() + "/out";
    std::string cmd = "cat " + dir.Path() + "/in | timeout -k 5 120 " NETLOOP_TOOL;
    for (std::string a : args) {
        for (size_t at = 0; (at = a.find('\'', at)) != std::string::npos; at += 4) a.replace(at, 1, "'\\''");
        cmd += " '" + a + "'";
    }
    cmd += " >" + stdoutPath + " 2>" + dir.Path() + "/err";
    int status = std::system(cmd.c_str());
    ToolRun run;
    run.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (captured) run.out = ReadFile(stdoutPath);
    run.err = ReadFile(dir.Path() + "/err");
    return run;
}

TEST(ToolOptions, GetFailuresLeaveNoFileAndExitNonZero) {
    testsupport::Nginx nginx({Loopback::V4, "location = /chain { return 302 /redirect; }"});
    testsupport::TempDir out;
    struct Case {
        std::vector<std::string> args;
        std::string stdoutPath;
        int code;
        std::string body;  // stdout, when it is captured
    } cases[] = {
        {{"get", nginx.Url("/status/200")}, "/dev/full", 1, ""},
        {{"get", "-o", out.Path(), "http://127.0.0.1:1/refused.bin"}, "", 1, ""},
        {{"get", "-o", out.Path(), nginx.Url("/status/404")}, "", 1, ""},
        {{"get", "-s", nginx.Url("/chain")}, "", 1, "<html>"},
        {{"get", "-s", "-L", nginx.Url("/chain")}, "", 0, "status 200\n"},
        {{"get", "-s", "--max-size", "1K", nginx.Url("/big")}, "", 1, ""},
    };
    nginx.CreateFile("big", 4096);
    for (const Case& c : cases) {
        ToolRun r = Tool(c.args, "", c.stdoutPath);
        EXPECT_EQ(r.code, c.code) << c.args.back() << "\n" << r.err;
        EXPECT_EQ(r.out.compare(0, c.body.size(), c.body), 0) << c.args.back() << ": " << r.out;
    }
    EXPECT_EQ(std::system(("test -z \"$(ls -A " + out.Path() + ")\"").c_str()), 0) << "files were left";
}

TEST(ToolOptions, WriteOutMatchesWhatTheServerLogged) {
    testsupport::Nginx nginx;
    testsupport::TempDir out;
    const std::string ca = testsupport::TestCa().caFile;
    const std::string format = "%{http_version} %{http_code} %{size_download} %{url_effective}";
    struct Case { std::string url, version, logged; } cases[] = {
        {nginx.Url("/redirect"), "1.1", "HTTP/1.1 GET /status/200 200 11"},
        {nginx.TlsUrl("/redirect"), "2", "HTTP/2.0 GET /status/200 200 11"},
    };
    for (const Case& c : cases) {
        ToolRun r = Tool({"get", "-s", "-L", "--cacert", ca, "-o", out.Path(), "-w", format, c.url});
        const std::string final = c.url.substr(0, c.url.rfind('/')) + "/status/200";
        EXPECT_EQ(r.out, c.version + " 200 11 " + final) << r.err;
        // The last request without its connection number, logged once the response is out.
        auto last = [&] {
            auto log = nginx.AccessLog();
            return log.empty() ? std::string() : log.back().substr(log.back().find(' ') + 1);
        };
        for (int i = 0; i < 40 && last() != c.logged; ++i) ::usleep(50000);
        EXPECT_EQ(last(), c.logged);
    }
}

TEST(ToolOptions, BodiesFromPipesArriveWhole) {
    testsupport::Faults faults;
    const std::string body = testsupport::Pattern(200000) + std::string("\0tail", 5);
    const std::string length = "%header{x-body-length} %header{x-method}";
    const std::vector<std::vector<std::string>> runs = {
        {"put", faults.Url("/echo"), "--file", "-", "-s", "-w", length},
        {"put", faults.Url("/echo"), "--file", "/dev/stdin", "-s", "-w", length},
        {"post", faults.Url("/echo"), "--data", "@-", "-s", "-w", length},
    };
    for (const auto& args : runs) {
        ToolRun r = Tool(args, body);
        EXPECT_EQ(r.code, 0) << r.err;
        const std::string method = args[0] == "put" ? "PUT" : "POST";
        EXPECT_EQ(r.out, body + std::to_string(body.size()) + " " + method) << args[3];
    }
}

TEST(ToolOptions, UdpPrintsEveryByteAndReportsSendErrors) {
    testsupport::UdpEcho v4, v6(Loopback::V6);
    const std::string dead = std::to_string(testsupport::FreePort("127.0.0.1", SOCK_DGRAM));
    struct Case {
        std::string host, port, input;
        int code;
        std::string out;
    } cases[] = {
        {"127.0.0.1", std::to_string(v4.Port()), std::string("a\0b\n", 4), 0, std::string("from 127.0.0.1: a\0b\n", 20)},
        {"[::1]", std::to_string(v6.Port()), "six\n", 0, "from ::1: six\n"},
        {"127.0.0.1", dead, "x\ny\n", 1, ""},
        {"127.0.0.1", std::to_string(v4.Port()), std::string(66000, 'z') + "\n", 1, ""},
    };
    for (const Case& c : cases) {
        ToolRun r = Tool({"udp", c.host, c.port, "--wait", "500"}, c.input);
        EXPECT_EQ(r.code, c.code) << c.host << " " << c.port << ": " << r.err;
        EXPECT_EQ(r.out, c.out);
    }
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
    EXPECT_EQ(get.code, 0) << get.all();
    for (int i = 1; i <= 12; ++i) EXPECT_TRUE(ReadFile(dir.Path() + "/f" + std::to_string(i)) == Pattern(i * 4099)) << i;

    nginx.WriteFile("/hello", "hello netloop");
    ToolRun single = Tool({"get", nginx.Url("/hello")});
    EXPECT_EQ(single.code, 0) << single.all();
    EXPECT_NE(single.all().find("hello netloop"), std::string::npos) << single.all();
    ToolRun bad = Tool({"get", "-o", dir.Path(), nginx.Url("/hello"), "http://127.0.0.1:" + std::to_string(FreePort()) + "/"});
    EXPECT_NE(bad.code, 0);
    EXPECT_NE(bad.all().find("Could not connect"), std::string::npos) << bad.all();

    ToolRun post = Tool({"post", faults.Url("/echo"), "--data", "a=1&b=2"});
    EXPECT_EQ(post.code, 0) << post.all();
    EXPECT_NE(post.all().find("a=1&b=2"), std::string::npos) << post.all();
    ToolRun headers = Tool({"post", faults.Url("/headers"), "--data", "x", "-H", "X-Tool: yes"});
    EXPECT_NE(headers.all().find("X-Tool: yes"), std::string::npos) << headers.all();
    std::ofstream(dir.Path() + "/up.bin", std::ios::binary) << Pattern(3 << 20);
    ToolRun put = Tool({"put", nginx.Url("/dav/up.bin"), "--file", dir.Path() + "/up.bin"});
    EXPECT_EQ(put.code, 0) << put.all();
    EXPECT_TRUE(ReadFile(nginx.Root() + "/dav/up.bin") == Pattern(3 << 20));

    // Bad arguments: a message and exit status 2.
    for (const auto& a : std::vector<std::vector<std::string>>{
             {"get"}, {"get", "--jobs"}, {"get", "-j", "zero", "http://x/"}, {"get", "--what", "http://x/"},
             {"post", "http://x/"}, {"udp", "localhost"}, {"udp", "localhost", "99999"}, {"nonsense"}}) {
        ToolRun r = Tool(a);
        EXPECT_EQ(r.code, 2) << a[0] << " " << r.all();
        EXPECT_FALSE(r.all().empty());
    }
}

TEST(Tool, WsUdpAndDemo) {
    WsServer ws;
    Faults faults;
    // Exit 0 only for a clean close; every other end says why.
    for (const auto& [args, input, code, want] : std::vector<std::tuple<std::vector<std::string>, std::string, int, std::string>>{
             {{ws.Url("/echo")}, std::string("x\0y\n", 4), 0, std::string("[text] x\0y", 10)},
             {{ws.Url("/fragments")}, "", 0, "[text] fragmented message\n"},
             {{ws.Url("/close/1001/away")}, "", 0, "[close] 1001 away"},
             {{ws.Url("/report/close/away"), "--wait", "15000"}, "x\n", 0, "[text] answered 10"},
             {{"ws" + faults.Url("/silent").substr(4), "--connect-timeout", "1000"}, "", 1, "no answer to the upgrade"},
             {{ws.Url("/close/1011/broken")}, "", 1, "closed with 1011 broken"},
             {{ws.Url("/refuse")}, "x\n", 1, "upgrade refused: HTTP 403"},
             {{ws.Url("/drop")}, "x\n", 1, "connection lost without a close frame"},
             {{ws.Url("/hostile/endless/t"), "--max-message", "1M"}, "", 1, "message too big (limit 1 MiB,"}}) {
        std::vector<std::string> argv{"ws"};
        argv.insert(argv.end(), args.begin(), args.end());
        ToolRun r = Tool(argv, input);
        EXPECT_EQ(r.code, code) << args[0] << ": " << r.all();
        EXPECT_NE(r.all().find(want), std::string::npos) << args[0] << ": " << r.all();
    }

    UdpEcho udp;
    ToolRun u = Tool({"udp", "127.0.0.1", std::to_string(udp.Port()), "--wait", "1000"}, "one\ntwo\n");
    EXPECT_EQ(u.code, 0) << u.all();
    EXPECT_NE(u.all().find("from 127.0.0.1: one"), std::string::npos) << u.all();
    EXPECT_NE(u.all().find("from 127.0.0.1: two"), std::string::npos) << u.all();

    ToolRun demo = Tool({"demo"});
    EXPECT_EQ(demo.code, 0) << demo.all();
    EXPECT_NE(demo.all().find("all capabilities working"), std::string::npos) << demo.all();
}

}  // namespace
