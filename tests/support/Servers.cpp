#include "support/Servers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
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
    if (!(out << content).flush()) throw std::runtime_error("cannot write " + path);
}

// A socket of `type` on `host`:`port`, bound (port 0: any) or connected.
int Socket(const std::string& host, uint16_t port, int type, bool connectIt, uint16_t* boundPort = nullptr) {
    sockaddr_storage s{};
    socklen_t len = sizeof(sockaddr_in);
    auto* a4 = reinterpret_cast<sockaddr_in*>(&s);
    auto* a6 = reinterpret_cast<sockaddr_in6*>(&s);
    if (host.find(':') != std::string::npos) {
        a6->sin6_family = AF_INET6;
        a6->sin6_port = htons(port);
        inet_pton(AF_INET6, host.c_str(), &a6->sin6_addr);
        len = sizeof *a6;
    } else {
        a4->sin_family = AF_INET;
        a4->sin_port = htons(port);
        inet_pton(AF_INET, host.c_str(), &a4->sin_addr);
    }
    int fd = socket(s.ss_family, type | SOCK_CLOEXEC, 0);
    auto* sa = reinterpret_cast<sockaddr*>(&s);
    if (fd >= 0 && (connectIt ? connect(fd, sa, len) : bind(fd, sa, len)) == 0) {
        if (boundPort && getsockname(fd, sa, &len) == 0) *boundPort = ntohs(a4->sin_port);  // same offset in both
        return fd;
    }
    if (fd >= 0) close(fd);
    return -1;
}

bool Accepts(const std::string& host, uint16_t port) {
    int fd = Socket(host, port, SOCK_STREAM, true);
    if (fd >= 0) close(fd);
    return fd >= 0;
}

bool Echoes(const std::string& host, uint16_t port) {
    int fd = Socket(host, port, SOCK_DGRAM, true);
    char buf[8];
    pollfd p{fd, POLLIN, 0};
    bool ok = fd >= 0 && send(fd, "probe", 5, 0) == 5 && poll(&p, 1, 200) == 1 && recv(fd, buf, sizeof buf, 0) == 5;
    if (fd >= 0) close(fd);
    return ok;
}

std::string UrlHost(const std::string& host) { return host.find(':') != std::string::npos ? "[" + host + "]" : host; }
std::string HostOf(Loopback l) { return l == Loopback::V6 ? "::1" : "127.0.0.1"; }

}  // namespace

uint16_t FreePort(const std::string& host, int type) {
    uint16_t port = 0;
    int fd = Socket(host, 0, type, false, &port);
    if (fd < 0 || port == 0) throw std::runtime_error("no free port on " + host);
    close(fd);
    return port;
}

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

bool ChildProcess::Exited(int* status) {
    int s = 0;
    if (m_Pid > 0 && waitpid(m_Pid, &s, WNOHANG) == m_Pid) {
        m_Pid = -1;
        if (status) *status = WIFEXITED(s) ? WEXITSTATUS(s) : -1;
    }
    return m_Pid <= 0;
}

void ChildProcess::Stop() {
    if (m_Pid <= 0) return;
    kill(-m_Pid, SIGTERM);
    kill(m_Pid, SIGTERM);
    for (auto end = Clock::now() + std::chrono::seconds(5); !Exited() && Clock::now() < end;)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (m_Pid <= 0) return;
    kill(-m_Pid, SIGKILL);
    kill(m_Pid, SIGKILL);
    waitpid(m_Pid, nullptr, 0);
    m_Pid = -1;
}

int ChildProcess::Wait(int seconds) {
    int status = -1;
    for (auto end = Clock::now() + std::chrono::seconds(seconds); Clock::now() < end;) {
        if (Exited(&status)) return status;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    Stop();
    return -1;
}

std::string ChildProcess::Log() const { return ReadAll(m_LogFile); }

uint16_t ChildProcess::WaitForPort(const std::string& key) {
    for (auto end = Clock::now() + std::chrono::seconds(30); Clock::now() < end;) {
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
    m_Path = std::string(base && *base ? base : "/tmp") + "/netloop-test-XXXXXX";
    if (!mkdtemp(m_Path.data())) throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir() {
    nftw(m_Path.c_str(), [](const char* p, const struct stat*, int, FTW*) { return remove(p); }, 16,
         FTW_DEPTH | FTW_PHYS);
}

const TestCaFiles& TestCa() {
    static TempDir dir;
    static const TestCaFiles files = [] {
        const std::string d = dir.Path() + "/", quiet = " >>" + d + "openssl.log 2>&1",
                          key = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + d;
        WriteAll(d + "server.ext", "basicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n"
                                   "subjectAltName=DNS:localhost,IP:127.0.0.1,IP:::1\n");
        for (const std::string& c :
             {"openssl req -x509" + key + "ca.key -out " + d + "ca.pem -days 3 -subj /CN=netloop-test-ca",
              "openssl req" + key + "server.key -out " + d + "server.csr -subj /CN=localhost",
              "openssl x509 -req -in " + d + "server.csr -CA " + d + "ca.pem -CAkey " + d + "ca.key -set_serial 2" +
                  " -days 3 -extfile " + d + "server.ext -out " + d + "server.pem"})
            if (std::system((c + quiet).c_str()) != 0) throw std::runtime_error("failed: " + c);
        return TestCaFiles{d + "ca.pem", d + "server.pem", d + "server.key"};
    }();
    return files;
}

std::string Pattern(size_t size) {
    std::string s(size, '\0');
    uint32_t x = 2463534242u;  // xorshift: no period a shift or a cut could hide
    for (char& c : s) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        c = static_cast<char>('a' + x % 26);
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
      << "events { worker_connections 1024; }\nhttp {\n  default_type application/octet-stream;\n"
      << "  log_format t '$connection $server_protocol $request_method $request_uri $status $body_bytes_sent';\n"
      << "  access_log " << d << "/access.log t;\n  client_max_body_size 0;\n";
    for (const char* temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
        c << "  " << temp << "_temp_path " << d << "/" << temp << ";\n";
    c << "  server {\n";
    for (const char* h : {"127.0.0.1", "[::1]"})
        if (m_Options.listen == Loopback::Both || (m_Options.listen == Loopback::V6) == (h[0] == '['))
            c << "    listen " << h << ":" << m_HttpPort << ";\n    listen " << h << ":" << m_TlsPort << " ssl http2;\n";
    c << "    ssl_certificate " << tls.certFile << ";\n    ssl_certificate_key " << tls.keyFile << ";\n"
      << "    ssl_protocols TLSv1.2 TLSv1.3;\n    root " << d << "/www;\n    location / { }\n"
      << "    location /dav/ { dav_methods PUT DELETE; create_full_put_path on; }\n"
      << "    location /slow/ { limit_rate 2k; }\n    location = /redirect { return 302 /status/200; }\n";
    for (int code : kStatusCodes)
        c << "    location = /status/" << code << " { default_type text/plain; return " << code << " \"status "
          << code << "\\n\"; }\n";
    c << m_Options.extraLocations << "\n  }\n}\n";
    return c.str();
}

Nginx::Nginx(NginxOptions options) : m_Options(std::move(options)) {
    const std::string host = HostOf(m_Options.listen), d = m_Dir.Path();
    mkdir((d + "/www").c_str(), 0755);
    for (int attempt = 0;; ++attempt) {
        m_HttpPort = FreePort(host);
        m_TlsPort = FreePort(host);
        if (m_HttpPort == m_TlsPort) continue;
        WriteAll(d + "/nginx.conf", Config());
        m_Process = std::make_unique<ChildProcess>(
            std::vector<std::string>{"/usr/sbin/nginx", "-p", d + "/", "-c", d + "/nginx.conf", "-e", d + "/error.log"},
            d + "/stdout.log");
        for (auto end = Clock::now() + std::chrono::seconds(30); Clock::now() < end && !m_Process->Exited();) {
            if (Accepts(host, m_HttpPort) && Accepts(host, m_TlsPort)) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        m_Process->Stop();
        // Someone may have taken a port meanwhile: try others.
        std::string log = ErrorLog() + m_Process->Log();
        if (attempt == 4 || log.find("Address already in use") == std::string::npos)
            throw std::runtime_error("nginx did not start; its log:\n" + log);
    }
}

std::string Nginx::Url(const std::string& path) const {
    return "http://" + UrlHost(HostOf(m_Options.listen)) + ":" + std::to_string(m_HttpPort) + path;
}

std::string Nginx::TlsUrl(const std::string& path) const {
    return "https://" + UrlHost(HostOf(m_Options.listen)) + ":" + std::to_string(m_TlsPort) + path;
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

WsServer::WsServer(Loopback host) : m_Host(HostOf(host)) {
    m_Process = std::make_unique<ChildProcess>(
        std::vector<std::string>{kPython, NETLOOP_TEST_SUPPORT_DIR "/ws_server.py", "--host", m_Host, "--cert",
                                 TestCa().certFile, "--key", TestCa().keyFile},
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

Faults::Faults(Loopback host) : m_Host(HostOf(host)) {
    m_Process = std::make_unique<ChildProcess>(
        std::vector<std::string>{kPython, NETLOOP_TEST_SUPPORT_DIR "/faults.py", "--host", m_Host},
        m_Dir.Path() + "/out.log");
    m_Port = m_Process->WaitForPort("http");
}

std::string Faults::Url(const std::string& path) const {
    return "http://" + UrlHost(m_Host) + ":" + std::to_string(m_Port) + path;
}

UdpEcho::UdpEcho(Loopback host) : m_Host(HostOf(host)) {
    for (int attempt = 0;; ++attempt) {
        m_Port = FreePort(m_Host, SOCK_DGRAM);
        // One socat child per peer; the datagram socketpair to cat keeps each
        // datagram whole. Idle children end after 30 s.
        std::string listen = (host == Loopback::V6 ? "UDP6-LISTEN:" : "UDP4-LISTEN:") + std::to_string(m_Port) +
                             ",bind=" + UrlHost(m_Host) + ",fork,reuseaddr";
        m_Process = std::make_unique<ChildProcess>(
            std::vector<std::string>{"/usr/bin/socat", "-T", "30", "-b", "65536", listen, "EXEC:cat,socktype=2"},
            m_Dir.Path() + "/out.log");
        for (auto end = Clock::now() + std::chrono::seconds(30); Clock::now() < end && !m_Process->Exited();)
            if (Echoes(m_Host, m_Port)) return;
        std::string log = m_Process->Log();
        m_Process->Stop();
        if (attempt == 4) throw std::runtime_error("socat did not echo; its log:\n" + log);
    }
}

}  // namespace testsupport
