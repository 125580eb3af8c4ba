#include "loopback/NginxServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "loopback/TempDir.h"
#include "loopback/TestData.h"
#include "loopback/TestTls.h"

extern char** environ;

namespace testsupport {

namespace {

using Clock = std::chrono::steady_clock;

// A port that was free a moment ago. nginx may still lose it to someone else;
// the caller retries with new ports then.
uint16_t PickPort() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error("NginxServer: socket failed");
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    uint16_t port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    close(fd);
    if (port == 0) throw std::runtime_error("NginxServer: no free port");
    return port;
}

bool Accepts(uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void WriteAll(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out.flush()) throw std::runtime_error("NginxServer: cannot write " + path);
}

void MakeParents(const std::string& root, const std::string& name) {
    for (size_t slash = name.find('/'); slash != std::string::npos; slash = name.find('/', slash + 1))
        mkdir((root + "/" + name.substr(0, slash)).c_str(), 0755);
}

std::string RelativeName(const std::string& name) {
    std::string n = name;
    while (!n.empty() && n[0] == '/') n.erase(0, 1);
    if (n.empty() || n.find("..") != std::string::npos)
        throw std::runtime_error("NginxServer: bad file name '" + name + "'");
    return n;
}

}  // namespace

struct NginxServer::Impl {
    Options options;
    std::string dir;
    pid_t pid = -1;
    uint16_t httpPort = 0, tlsPort = 0;

    std::string Config() const {
        const TlsFiles& tls = TestTls();
        std::ostringstream c;
        // Workers of a root master default to "nobody", who could not read
        // the private temp folder.
        if (geteuid() == 0) c << "user root;\n";
        c << "daemon off;\n"
             "master_process on;\n"
             "worker_processes 1;\n"
             "pid "
          << dir << "/nginx.pid;\n"
          << "lock_file " << dir << "/nginx.lock;\n"
          << "error_log " << dir << "/error.log warn;\n"
          << "events { worker_connections 8192; }\n"
             "http {\n"
             "  default_type application/octet-stream;\n"
             "  sendfile on;\n"
             "  tcp_nopush on;\n"
             "  keepalive_requests 1000000;\n"
             "  keepalive_timeout 120s;\n"
             "  log_format netloop '$connection $connection_requests $server_protocol $request_method "
             "$request_uri $status $body_bytes_sent';\n"
          << "  access_log " << dir << "/access.log netloop;\n"
          << "  client_body_temp_path " << dir << "/tmp/body;\n"
          << "  proxy_temp_path " << dir << "/tmp/proxy;\n"
          << "  fastcgi_temp_path " << dir << "/tmp/fastcgi;\n"
          << "  uwsgi_temp_path " << dir << "/tmp/uwsgi;\n"
          << "  scgi_temp_path " << dir << "/tmp/scgi;\n"
          << "  server {\n"
          << "    listen 127.0.0.1:" << httpPort << ";\n"
          << "    listen 127.0.0.1:" << tlsPort << " ssl http2;\n"
          << "    ssl_certificate " << tls.certFile << ";\n"
          << "    ssl_certificate_key " << tls.keyFile << ";\n"
          // nginx 1.22 leaves TLS 1.3 off unless asked.
          << "    ssl_protocols TLSv1.2 TLSv1.3;\n"
          << "    ssl_session_cache shared:netloop:4m;\n"
          << "    root " << dir << "/www;\n"
          << "    location = /small { default_type text/plain; return 200 \"" << SmallBody() << "\"; }\n"
          << "    location / { }\n"
             "  }\n"
             "}\n";
        return c.str();
    }

    // One attempt with the current ports; false when nginx exited (likely
    // because a port was taken meanwhile).
    bool Launch() {
        WriteAll(dir + "/nginx.conf", Config());
        std::string out = dir + "/stdout.log";
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        // Own process group, so a last-resort SIGKILL reaches the worker too;
        // default signal mask and SIGPIPE whatever the test process set.
        sigset_t none, defaults;
        sigemptyset(&none);
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        posix_spawnattr_setsigmask(&attr, &none);
        posix_spawnattr_setsigdefault(&attr, &defaults);
        posix_spawnattr_setpgroup(&attr, 0);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        std::string conf = dir + "/nginx.conf", err = dir + "/error.log", prefix = dir + "/";
        const char* argv[] = {options.binary.c_str(), "-p", prefix.c_str(), "-c", conf.c_str(), "-e",
                              err.c_str(), nullptr};
        int rc = posix_spawn(&pid, options.binary.c_str(), &actions, &attr, const_cast<char**>(argv), environ);
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attr);
        if (rc != 0) {
            pid = -1;
            throw std::runtime_error("NginxServer: posix_spawn: " + std::string(std::strerror(rc)));
        }
        auto deadline = Clock::now() + std::chrono::seconds(10);
        while (Clock::now() < deadline) {
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                return false;
            }
            if (Accepts(httpPort) && Accepts(tlsPort)) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        Stop();
        throw std::runtime_error("NginxServer: not accepting connections after 10 s; error log:\n" +
                                 ReadAll(dir + "/error.log") + ReadAll(out));
    }

    void Stop() {
        if (pid <= 0) return;
        // SIGTERM is nginx's fast shutdown: open connections are closed, not
        // waited for.
        kill(pid, SIGTERM);
        auto deadline = Clock::now() + std::chrono::seconds(5);
        int status = 0;
        while (Clock::now() < deadline) {
            if (waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        kill(-pid, SIGKILL);
        waitpid(pid, &status, 0);
        pid = -1;
    }
};

NginxServer::NginxServer() : NginxServer(Options{}) {}

NginxServer::NginxServer(const Options& options) : m_Impl(std::make_unique<Impl>()) {
    Impl& d = *m_Impl;
    d.options = options;
    if (!Available(options.binary)) return;
    d.dir = MakeTempDir("netloop-nginx");
    try {
        for (const char* sub : {"/www", "/tmp"}) mkdir((d.dir + sub).c_str(), 0755);
        for (int attempt = 0;; ++attempt) {
            d.httpPort = PickPort();
            d.tlsPort = PickPort();
            if (d.tlsPort == d.httpPort) continue;
            if (d.Launch()) break;
            std::string log = ReadAll(d.dir + "/error.log") + ReadAll(d.dir + "/stdout.log");
            if (attempt == 4 || log.find("Address already in use") == std::string::npos)
                throw std::runtime_error("NginxServer: nginx exited at start:\n" + log);
        }
    } catch (...) {
        d.Stop();
        RemoveTree(d.dir);
        throw;
    }
}

NginxServer::~NginxServer() {
    m_Impl->Stop();
    RemoveTree(m_Impl->dir);
}

bool NginxServer::Available(const std::string& binary) { return access(binary.c_str(), X_OK) == 0; }

const std::string& NginxServer::SmallBody() {
    static const std::string body = DeterministicText(100);
    return body;
}

bool NginxServer::Running() const { return m_Impl->pid > 0; }
uint16_t NginxServer::HttpPort() const { return m_Impl->httpPort; }
uint16_t NginxServer::TlsPort() const { return m_Impl->tlsPort; }

std::string NginxServer::Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(HttpPort()) + (path.empty() || path[0] != '/' ? "/" : "") + path;
}

std::string NginxServer::TlsUrl(const std::string& path) const {
    return "https://localhost:" + std::to_string(TlsPort()) + (path.empty() || path[0] != '/' ? "/" : "") + path;
}

std::string NginxServer::Root() const { return m_Impl->dir + "/www"; }

std::string NginxServer::CreateFile(const std::string& name, uint64_t size) {
    std::string rel = RelativeName(name);
    MakeParents(Root(), rel);
    std::string path = Root() + "/" + rel;
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw std::runtime_error("NginxServer: cannot create " + path);
    std::vector<char> buf(1 << 20);
    for (uint64_t off = 0; off < size;) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(buf.size(), size - off));
        FillDeterministicBytes(off, buf.data(), n);
        for (size_t done = 0; done < n;) {
            ssize_t w = write(fd, buf.data() + done, n - done);
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) {
                close(fd);
                throw std::runtime_error("NginxServer: write failed for " + path);
            }
            done += static_cast<size_t>(w);
        }
        off += n;
    }
    close(fd);
    return path;
}

std::string NginxServer::WriteFile(const std::string& name, const std::string& content) {
    std::string rel = RelativeName(name);
    MakeParents(Root(), rel);
    std::string path = Root() + "/" + rel;
    WriteAll(path, content);
    return path;
}

std::string NginxServer::AccessLogPath() const { return m_Impl->dir + "/access.log"; }

std::vector<std::string> NginxServer::AccessLogLines() const {
    std::vector<std::string> lines;
    std::istringstream in(ReadAll(AccessLogPath()));
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) lines.push_back(line);
    return lines;
}

std::vector<NginxLogEntry> NginxServer::AccessLog() const {
    std::vector<NginxLogEntry> entries;
    for (const std::string& line : AccessLogLines()) {
        std::istringstream in(line);
        NginxLogEntry e;
        in >> e.connection >> e.connectionRequests >> e.protocol >> e.method >> e.uri >> e.status >> e.bytesSent;
        entries.push_back(e);
    }
    return entries;
}

bool NginxServer::WaitForAccessLogLines(size_t n, std::chrono::milliseconds timeout) const {
    auto deadline = Clock::now() + timeout;
    for (;;) {
        if (AccessLogLines().size() >= n) return true;
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

std::string NginxServer::ErrorLog() const { return ReadAll(m_Impl->dir + "/error.log"); }

}  // namespace testsupport
