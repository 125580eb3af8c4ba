#include "support/Servers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ftw.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace testsupport {

namespace {

using Clock = std::chrono::steady_clock;
const char* const kPython = "/usr/bin/python3";

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void WriteAll(const std::string& path, const std::string& content) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), 0755);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

sockaddr_storage Address(const std::string& host, uint16_t port, socklen_t& len) {
    sockaddr_storage s{};
    if (host.find(':') != std::string::npos) {
        auto* a = reinterpret_cast<sockaddr_in6*>(&s);
        a->sin6_family = AF_INET6;
        a->sin6_port = htons(port);
        inet_pton(AF_INET6, host.c_str(), &a->sin6_addr);
        len = sizeof *a;
    } else {
        auto* a = reinterpret_cast<sockaddr_in*>(&s);
        a->sin_family = AF_INET;
        a->sin_port = htons(port);
        inet_pton(AF_INET, host.c_str(), &a->sin_addr);
        len = sizeof *a;
    }
    return s;
}

}  // namespace

// Whoever binds it may still lose it, so the servers retry with another.
uint16_t FreePort(const std::string& host, int type) {
    socklen_t len = 0;
    sockaddr_storage s = Address(host, 0, len);
    int fd = socket(s.ss_family, type | SOCK_CLOEXEC, 0);
    uint16_t port = 0;
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&s), len) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&s), &len) == 0)
        port = ntohs(s.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&s)->sin6_port
                                             : reinterpret_cast<sockaddr_in*>(&s)->sin_port);
    if (fd >= 0) close(fd);
    if (port == 0) throw std::runtime_error("no free port on " + host);
    return port;
}

namespace {

bool Accepts(const std::string& host, uint16_t port) {
    socklen_t len = 0;
    sockaddr_storage s = Address(host, port, len);
    int fd = socket(s.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&s), len) == 0;
    if (fd >= 0) close(fd);
    return ok;
}

bool Echoes(const std::string& host, uint16_t port) {
    socklen_t len = 0;
    sockaddr_storage s = Address(host, port, len);
    int fd = socket(s.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool ok = false;
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&s), len) == 0 && send(fd, "probe", 5, 0) == 5) {
        pollfd p{fd, POLLIN, 0};
        char buf[16];
        ok = poll(&p, 1, 200) == 1 && recv(fd, buf, sizeof buf, 0) == 5;
    }
    if (fd >= 0) close(fd);
    return ok;
}

std::string UrlHost(const std::string& host) { return host.find(':') != std::string::npos ? "[" + host + "]" : host; }

std::string Run(const std::string& command) {
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
    return command;
}

}  // namespace

// ---- processes and folders ----

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& logFile,
                           const std::string& stdinFile)
    : m_LogFile(logFile) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    int out = open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    int in = open(stdinFile.c_str(), O_RDONLY | O_CLOEXEC);
    if (out < 0 || in < 0) throw std::runtime_error("cannot open " + logFile + " or " + stdinFile);
    pid_t parent = getpid();
    m_Pid = fork();
    if (m_Pid == 0) {
        // Only async-signal-safe calls until exec: the test process has threads.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        setpgid(0, 0);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        signal(SIGPIPE, SIG_DFL);
        dup2(in, 0);
        dup2(out, 1);
        dup2(out, 2);
        execve(args[0], args.data(), environ);
        _exit(127);
    }
    close(out);
    close(in);
    if (m_Pid < 0) throw std::runtime_error("fork failed for " + argv[0]);
}

ChildProcess::~ChildProcess() { Stop(); }

bool ChildProcess::Exited() {
    if (m_Pid <= 0) return true;
    int status = 0;
    if (waitpid(m_Pid, &status, WNOHANG) != m_Pid) return false;
    m_Pid = -1;
    return true;
}

void ChildProcess::Stop() {
    if (m_Pid <= 0) return;
    kill(-m_Pid, SIGTERM);
    kill(m_Pid, SIGTERM);
    for (auto deadline = Clock::now() + std::chrono::seconds(5); Clock::now() < deadline;) {
        if (Exited()) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (m_Pid > 0) {
        kill(-m_Pid, SIGKILL);
        kill(m_Pid, SIGKILL);
        waitpid(m_Pid, nullptr, 0);
        m_Pid = -1;
    }
}

int ChildProcess::Wait(int seconds) {
    for (auto deadline = Clock::now() + std::chrono::seconds(seconds); Clock::now() < deadline;) {
        int status = 0;
        if (waitpid(m_Pid, &status, WNOHANG) == m_Pid) {
            m_Pid = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    Stop();
    return -1;
}

std::string ChildProcess::Log() const { return ReadAll(m_LogFile); }

uint16_t ChildProcess::WaitForPort(const std::string& key) {
    for (auto deadline = Clock::now() + std::chrono::seconds(30); Clock::now() < deadline;) {
        std::istringstream in(Log());
        for (std::string line; std::getline(in, line);)
            if (line.rfind(key + " ", 0) == 0) return static_cast<uint16_t>(std::stoi(line.substr(key.size() + 1)));
        if (Exited()) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw std::runtime_error("no \"" + key + " <port>\" line from the server within 30 s; its output:\n" + Log());
}

TempDir::TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/netloop-test-XXXXXX";
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    m_Path = pattern;
}

TempDir::~TempDir() {
    nftw(m_Path.c_str(), [](const char* p, const struct stat*, int, FTW*) { return remove(p); }, 16,
         FTW_DEPTH | FTW_PHYS);
}

const TestCaFiles& TestCa() {
    static TempDir dir;
    static const TestCaFiles files = [] {
        const std::string d = dir.Path();
        const std::string quiet = " >>" + d + "/openssl.log 2>&1";
        const std::string key = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
        WriteAll(d + "/server.ext",
                 "basicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n"
                 "subjectAltName=DNS:localhost,IP:127.0.0.1,IP:::1\n");
        Run("openssl req -x509" + key + " -keyout " + d + "/ca.key -out " + d +
            "/ca.pem -days 3 -subj /CN=netloop-test-ca" + quiet);
        Run("openssl req" + key + " -keyout " + d + "/server.key -out " + d + "/server.csr -subj /CN=localhost" +
            quiet);
        Run("openssl x509 -req -in " + d + "/server.csr -CA " + d + "/ca.pem -CAkey " + d +
            "/ca.key -set_serial 2 -days 3 -extfile " + d + "/server.ext -out " + d + "/server.pem" + quiet);
        return TestCaFiles{d + "/ca.pem", d + "/server.pem", d + "/server.key"};
    }();
    return files;
}

std::string Pattern(size_t size) {
    std::string s(size, '\0');
    uint32_t x = 2463534242u;
    for (size_t i = 0; i < size; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        s[i] = static_cast<char>('a' + x % 26);
    }
    return s;
}

// ---- nginx ----

const std::vector<int> Nginx::kStatusCodes = {200, 201, 204, 400, 401, 403, 404, 409, 429, 500, 502, 503};

std::string Nginx::Config() const {
    const TestCaFiles& tls = TestCa();
    const std::string d = m_Dir.Path();
    std::ostringstream c;
    if (geteuid() == 0) c << "user root;\n";
    c << "daemon off;\nmaster_process off;\npid " << d << "/nginx.pid;\nerror_log " << d << "/error.log warn;\n"
      << "events { worker_connections 1024; }\nhttp {\n"
      << "  default_type application/octet-stream;\n"
      << "  log_format t '$connection $server_protocol $request_method $request_uri $status $body_bytes_sent';\n"
      << "  access_log " << d << "/access.log t;\n"
      << "  client_max_body_size 0;\n";
    for (const char* temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
        c << "  " << temp << "_temp_path " << d << "/" << temp << ";\n";
    c << "  server {\n";
    std::vector<std::string> hosts;
    if (m_Options.listen != Loopback::V6) hosts.push_back("127.0.0.1");
    if (m_Options.listen != Loopback::V4) hosts.push_back("[::1]");
    for (const std::string& h : hosts)
        c << "    listen " << h << ":" << m_HttpPort << ";\n    listen " << h << ":" << m_TlsPort << " ssl http2;\n";
    c << "    ssl_certificate " << tls.certFile << ";\n    ssl_certificate_key " << tls.keyFile << ";\n"
      << "    ssl_protocols TLSv1.2 TLSv1.3;\n"
      << "    root " << d << "/www;\n"
      << "    location / { }\n"
      << "    location /dav/ { dav_methods PUT DELETE; create_full_put_path on; }\n"
      << "    location /slow/ { limit_rate 2k; }\n"
      << "    location = /redirect { return 302 /status/200; }\n";
    for (int code : kStatusCodes)
        c << "    location = /status/" << code << " { default_type text/plain; return " << code << " \"status "
          << code << "\\n\"; }\n";
    c << m_Options.extraLocations << "\n  }\n}\n";
    return c.str();
}

Nginx::Nginx(NginxOptions options) : m_Options(std::move(options)) {
    const std::string host = m_Options.listen == Loopback::V6 ? "::1" : "127.0.0.1";
    mkdir((m_Dir.Path() + "/www").c_str(), 0755);
    for (int attempt = 0;; ++attempt) {
        m_HttpPort = FreePort(host, SOCK_STREAM);
        m_TlsPort = FreePort(host, SOCK_STREAM);
        if (m_HttpPort == m_TlsPort) continue;
        WriteAll(m_Dir.Path() + "/nginx.conf", Config());
        m_Process = std::make_unique<ChildProcess>(
            std::vector<std::string>{"/usr/sbin/nginx", "-p", m_Dir.Path() + "/", "-c", m_Dir.Path() + "/nginx.conf",
                                     "-e", m_Dir.Path() + "/error.log"},
            m_Dir.Path() + "/stdout.log");
        for (auto deadline = Clock::now() + std::chrono::seconds(30); Clock::now() < deadline;) {
            if (Accepts(host, m_HttpPort) && Accepts(host, m_TlsPort)) return;
            if (m_Process->Exited()) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        m_Process->Stop();
        std::string log = ErrorLog() + m_Process->Log();
        if (attempt == 4 || log.find("Address already in use") == std::string::npos)
            throw std::runtime_error("nginx did not start; its log:\n" + log);
    }
}

Nginx::~Nginx() { m_Process.reset(); }

std::string Nginx::Url(const std::string& path) const {
    return "http://" + std::string(m_Options.listen == Loopback::V6 ? "[::1]" : "127.0.0.1") + ":" +
           std::to_string(m_HttpPort) + path;
}

std::string Nginx::TlsUrl(const std::string& path) const {
    return "https://" + std::string(m_Options.listen == Loopback::V6 ? "[::1]" : "127.0.0.1") + ":" +
           std::to_string(m_TlsPort) + path;
}

std::string Nginx::Root() const { return m_Dir.Path() + "/www"; }

std::string Nginx::WriteFile(const std::string& name, const std::string& content) {
    std::string path = Root() + (name.empty() || name[0] != '/' ? "/" : "") + name;
    WriteAll(path, content);
    return path;
}

std::string Nginx::CreateFile(const std::string& name, size_t size) { return WriteFile(name, Pattern(size)); }

std::string Nginx::ErrorLog() const { return ReadAll(m_Dir.Path() + "/error.log"); }

std::vector<std::string> Nginx::AccessLog() const {
    std::vector<std::string> lines;
    std::istringstream in(ReadAll(m_Dir.Path() + "/access.log"));
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) lines.push_back(line);
    return lines;
}

// ---- python servers and socat ----

WsServer::WsServer(Loopback host) : m_Host(host == Loopback::V6 ? "::1" : "127.0.0.1") {
    const TestCaFiles& tls = TestCa();
    m_Process = std::make_unique<ChildProcess>(
        std::vector<std::string>{kPython, NETLOOP_TEST_SUPPORT_DIR "/ws_server.py", "--host", m_Host, "--cert",
                                 tls.certFile, "--key", tls.keyFile},
        m_Dir.Path() + "/out.log");
    m_Port = m_Process->WaitForPort("ws");
    m_TlsPort = m_Process->WaitForPort("wss");
}

std::string WsServer::Url(const std::string& path) const {
    return "ws://" + UrlHost(m_Host) + ":" + std::to_string(m_Port) + path;
}

std::string WsServer::TlsUrl(const std::string& path) const {
    return "wss://" + UrlHost(m_Host) + ":" + std::to_string(m_TlsPort) + path;
}

Faults::Faults(Loopback host) : m_Host(host == Loopback::V6 ? "::1" : "127.0.0.1") {
    m_Process = std::make_unique<ChildProcess>(
        std::vector<std::string>{kPython, NETLOOP_TEST_SUPPORT_DIR "/faults.py", "--host", m_Host},
        m_Dir.Path() + "/out.log");
    m_Port = m_Process->WaitForPort("http");
}

std::string Faults::Url(const std::string& path) const {
    return "http://" + UrlHost(m_Host) + ":" + std::to_string(m_Port) + path;
}

UdpEcho::UdpEcho(Loopback host) : m_Host(host == Loopback::V6 ? "::1" : "127.0.0.1") {
    for (int attempt = 0;; ++attempt) {
        m_Port = FreePort(m_Host, SOCK_DGRAM);
        // One socat child per peer; the datagram socketpair to cat keeps each
        // datagram whole. Idle children end after 30 s.
        std::string listen = (host == Loopback::V6 ? "UDP6-LISTEN:" : "UDP4-LISTEN:") + std::to_string(m_Port) +
                             ",bind=" + UrlHost(m_Host) + ",fork,reuseaddr";
        m_Process = std::make_unique<ChildProcess>(
            std::vector<std::string>{"/usr/bin/socat", "-T", "30", "-b", "65536", listen, "EXEC:cat,socktype=2"},
            m_Dir.Path() + "/out.log");
        for (auto deadline = Clock::now() + std::chrono::seconds(30); Clock::now() < deadline;) {
            if (Echoes(m_Host, m_Port)) return;
            if (m_Process->Exited()) break;
        }
        std::string log = m_Process->Log();
        m_Process->Stop();
        if (attempt == 4) throw std::runtime_error("socat did not echo; its log:\n" + log);
    }
}

}  // namespace testsupport
