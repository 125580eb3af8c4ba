#include "support/Servers.h"

#include <arpa/inet.h>
#include <netdb.h>
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

void WriteAll(const std::string& path, const std::string& content) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), 0755);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!(out << content).flush()) throw std::runtime_error("cannot write " + path);
}

// A socket of `type` bound to (port 0: any free port) or connected to host:port.
int Socket(const std::string& host, uint16_t port, int type, bool connectIt, uint16_t* boundPort = nullptr) {
    addrinfo hints{}, *ai = nullptr;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = type;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &ai) != 0) return -1;
    int fd = socket(ai->ai_family, type | SOCK_CLOEXEC, 0);
    if (fd >= 0 && (connectIt ? connect(fd, ai->ai_addr, ai->ai_addrlen) : bind(fd, ai->ai_addr, ai->ai_addrlen)) == 0) {
        sockaddr_in6 a{};  // the port has the same place in both families
        socklen_t len = sizeof a;
        if (boundPort && getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0) *boundPort = ntohs(a.sin6_port);
    } else if (fd >= 0) {
        close(fd);
        fd = -1;
    }
    freeaddrinfo(ai);
    return fd;
}

// A TCP connect succeeds, or a UDP probe comes back.
bool Answers(const std::string& host, uint16_t port, int type) {
    int fd = Socket(host, port, type, true);
    char buf[8];
    pollfd p{fd, POLLIN, 0};
    bool ok = fd >= 0 && (type == SOCK_STREAM || (send(fd, "probe", 5, 0) == 5 && poll(&p, 1, 200) == 1 &&
                                                  recv(fd, buf, sizeof buf, 0) == 5));
    if (fd >= 0) close(fd);
    return ok;
}

std::string UrlHost(const std::string& host) { return host.find(':') != std::string::npos ? "[" + host + "]" : host; }
std::string HostOf(Loopback l) { return l == Loopback::V6 ? "::1" : "127.0.0.1"; }
std::string MakeUrl(const char* scheme, const std::string& host, uint16_t port, const std::string& path) {
    return scheme + ("://" + UrlHost(host)) + ":" + std::to_string(port) + path;
}

// A python server of tests/support that prints "<key> <port>" lines.
std::unique_ptr<ChildProcess> Python(const char* script, const std::string& host, const TempDir& dir,
                                     std::vector<std::string> more = {}) {
    std::vector<std::string> argv{kPython, NETLOOP_TEST_SUPPORT_DIR + std::string("/") + script, "--host", host};
    argv.insert(argv.end(), more.begin(), more.end());
    return std::make_unique<ChildProcess>(argv, dir.Path() + "/out.log");
}

}  // namespace

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

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
        dup2(in, 0), dup2(out, 1), dup2(out, 2);
        execve(args[0], args.data(), environ);
        _exit(127);
    }
    close(out), close(in);
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
    kill(-m_Pid, SIGTERM), kill(m_Pid, SIGTERM);
    for (auto end = Clock::now() + std::chrono::seconds(5); !Exited() && Clock::now() < end;)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (m_Pid <= 0) return;
    kill(-m_Pid, SIGKILL), kill(m_Pid, SIGKILL);
    waitpid(m_Pid, nullptr, 0);
    m_Pid = -1;
}

int ChildProcess::Wait(int seconds) {
    int status = -1;
    for (auto end = Clock::now() + std::chrono::seconds(seconds); !Exited(&status) && Clock::now() < end;)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    Stop();  // nothing left to stop when it exited
    return status;
}

std::string ChildProcess::Log() const { return ReadFile(m_LogFile); }

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
    uint64_t x = 88172645463325252u;  // xorshift: no period a shift or a cut could hide
    for (char& c : s) x ^= x << 13, x ^= x >> 7, x ^= x << 17, c = static_cast<char>('a' + x % 26);
    return s;
}

// ---- nginx ----

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
    const std::string h = UrlHost(HostOf(m_Options.listen));
    c << "    listen " << h << ":" << m_HttpPort << ";\n    listen " << h << ":" << m_TlsPort << " ssl http2;\n";
    c << "    ssl_certificate " << tls.certFile << ";\n    ssl_certificate_key " << tls.keyFile << ";\n"
      << "    ssl_protocols TLSv1.2 TLSv1.3;\n    root " << d << "/www;\n    location / { }\n"
      << "    location /dav/ { dav_methods PUT DELETE; create_full_put_path on; }\n"
      << "    location /slow/ { limit_rate 2k; }\n    location = /redirect { return 302 /status/200; }\n";
    for (int code : {200, 201, 204, 400, 401, 403, 404, 409, 429, 500, 502, 503})
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
            if (Answers(host, m_HttpPort, SOCK_STREAM) && Answers(host, m_TlsPort, SOCK_STREAM)) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        m_Process->Stop();
        // Someone may have taken a port meanwhile: try others.
        std::string log = ErrorLog() + m_Process->Log();
        if (attempt == 4 || log.find("Address already in use") == std::string::npos)
            throw std::runtime_error("nginx did not start; its log:\n" + log);
    }
}

std::string Nginx::Url(const std::string& path) const { return MakeUrl("http", HostOf(m_Options.listen), m_HttpPort, path); }
std::string Nginx::TlsUrl(const std::string& path) const {
    return MakeUrl("https", HostOf(m_Options.listen), m_TlsPort, path);
}
std::string Nginx::Root() const { return m_Dir.Path() + "/www"; }

std::string Nginx::WriteFile(const std::string& name, const std::string& content) {
    std::string path = Root() + (name.empty() || name[0] != '/' ? "/" : "") + name;
    WriteAll(path, content);
    return path;
}

std::string Nginx::CreateFile(const std::string& name, size_t size) { return WriteFile(name, Pattern(size)); }
std::string Nginx::ErrorLog() const { return ReadFile(m_Dir.Path() + "/error.log"); }

std::vector<std::string> Nginx::AccessLog() const {
    std::vector<std::string> lines;
    std::istringstream in(ReadFile(m_Dir.Path() + "/access.log"));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// ---- python servers and socat ----

WsServer::WsServer(Loopback host) : LoopbackServer(host) {
    m_Process = Python("ws_server.py", m_Host, m_Dir, {"--cert", TestCa().certFile, "--key", TestCa().keyFile});
    m_Port = m_Process->WaitForPort("ws");
    m_TlsPort = m_Process->WaitForPort("wss");
}
std::string WsServer::Url(const std::string& path) const { return MakeUrl("ws", m_Host, m_Port, path); }
std::string WsServer::TlsUrl(const std::string& path) const { return MakeUrl("wss", m_Host, m_TlsPort, path); }

Faults::Faults(Loopback host) : LoopbackServer(host) {
    m_Process = Python("faults.py", m_Host, m_Dir);
    m_Port = m_Process->WaitForPort("http");
}
std::string Faults::Url(const std::string& path) const { return MakeUrl("http", m_Host, m_Port, path); }

UdpEcho::UdpEcho(Loopback host) : LoopbackServer(host) {
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
            if (Answers(m_Host, m_Port, SOCK_DGRAM)) return;
        std::string log = m_Process->Log();
        m_Process->Stop();
        if (attempt == 4) throw std::runtime_error("socat did not echo; its log:\n" + log);
    }
}

}  // namespace testsupport
