// The tool's promises about output and errors, run as a child process against
// loopback servers: nothing lost or failed is reported as success.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/Servers.h"

namespace {

using testsupport::Loopback;

struct ToolRun { int code = -1; std::string out, err; };

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Runs the tool through the shell, `input` piped to stdin, stdout to
// `stdoutPath` (default: a file read back), killed after 60 s.
ToolRun Tool(const std::vector<std::string>& args, const std::string& input = "", std::string stdoutPath = "") {
    static testsupport::TempDir dir;
    std::ofstream(dir.Path() + "/in", std::ios::binary) << input;
    const bool captured = stdoutPath.empty();
    if (captured) stdoutPath = dir.Path() + "/out";
    std::string cmd = "cat " + dir.Path() + "/in | timeout -k 5 60 " NETLOOP_TOOL;
    for (std::string a : args) {
        for (size_t at = 0; (at = a.find('\'', at)) != std::string::npos; at += 4) a.replace(at, 1, "'\\''");
        cmd += " '" + a + "'";
    }
    cmd += " >" + stdoutPath + " 2>" + dir.Path() + "/err";
    int status = std::system(cmd.c_str());
    ToolRun run;
    run.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (captured) run.out = ReadAll(stdoutPath);
    run.err = ReadAll(dir.Path() + "/err");
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

}  // namespace
