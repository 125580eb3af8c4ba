// Real servers for tests, each a child process on loopback, on ports that were
// free at start, stopped by PID when the object goes (SIGTERM to its process
// group, SIGKILL after 5 s). A server that cannot start throws
// std::runtime_error with its log. Each child also gets SIGKILL when the thread
// that started it ends (PR_SET_PDEATHSIG): start servers from the test's own
// thread, never from a short-lived helper thread.
//
//   Nginx     the system nginx from a generated configuration. Url(p) is
//             http://host:port/p (HTTP/1.1), TlsUrl(p) https://... (TLS 1.2
//             and 1.3, HTTP/2 by ALPN). Locations:
//               /<name>          files written with WriteFile/CreateFile
//               /status/<code>   `return <code> "status <code>\n"`, codes in kStatusCodes
//               /redirect        302 to /status/200
//               /dav/            PUT and DELETE (dav module), folders made as needed
//               /slow/           files under <root>/slow at 2 KB/s (limit_rate)
//               + NginxOptions::extraLocations, pasted into the server block
//             It listens on 127.0.0.1 (default), [::1] or both; the URLs use
//             the first.
//   WsServer  tests/support/ws_server.py (python3-websockets), ws and wss; the
//             path picks the behaviour: /echo, /fragments, /ping,
//             /close/<code>/<reason>, /drop, /refuse (see the script).
//   Faults    tests/support/faults.py (Python standard library): /reset,
//             /silent, /echo (POST/PUT body back with X-Body-Sha256), /headers.
//             New behaviours go there, one handler per path.
//   UdpEcho   socat sending each datagram back to its sender, 127.0.0.1 or ::1.
//
// The python servers print "<scheme> <port>" once listening (port 0 binding),
// so the port is theirs before anyone connects.
// TLS: TestCa() makes, once per process with the openssl command, a CA and a
// server certificate for localhost, 127.0.0.1 and ::1; give caFile to SetCaPath.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace testsupport {

struct TestCaFiles {
    std::string caFile, certFile, keyFile;  // PEM
};
const TestCaFiles& TestCa();

// A TCP (or, with type 2 = SOCK_DGRAM, UDP) port that was free a moment ago:
// also a port nobody listens on, for refused connections.
uint16_t FreePort(const std::string& host = "127.0.0.1", int type = 1 /* SOCK_STREAM */);

// `size` bytes of a fixed pattern that no shift or cut maps onto itself.
std::string Pattern(size_t size);

// A private temporary folder, removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string& Path() const { return m_Path; }

private:
    std::string m_Path;
};

// A child process in its own process group; stdin from `stdinFile`, stdout
// and stderr into `logFile`. The destructor stops it.
class ChildProcess {
public:
    ChildProcess(const std::vector<std::string>& argv, const std::string& logFile,
                 const std::string& stdinFile = "/dev/null");
    ~ChildProcess();
    bool Exited(int* status = nullptr);  // reaps it when it has
    void Stop();
    int Wait(int seconds);  // exit status; -1 when killed at the limit or by a signal
    std::string Log() const;
    uint16_t WaitForPort(const std::string& key);  // "<key> <port>" in the log, 30 s at most

private:
    pid_t m_Pid = -1;
    std::string m_LogFile;
};

enum class Loopback { V4, V6, Both };

struct NginxOptions {
    Loopback listen = Loopback::V4;
    std::string extraLocations;  // e.g. "location /x { return 200; }"
};

class Nginx {
public:
    static const std::vector<int> kStatusCodes;
    explicit Nginx(NginxOptions options = {});
    uint16_t HttpPort() const { return m_HttpPort; }
    uint16_t TlsPort() const { return m_TlsPort; }
    std::string Url(const std::string& path = "/") const;
    std::string TlsUrl(const std::string& path = "/") const;
    std::string Root() const;
    std::string WriteFile(const std::string& name, const std::string& content);  // returns its path
    std::string CreateFile(const std::string& name, size_t size);              // Pattern(size)
    std::string ErrorLog() const;
    // One line per finished request: "<connection> <protocol> <method> <uri> <status> <body bytes>".
    std::vector<std::string> AccessLog() const;

private:
    std::string Config() const;
    NginxOptions m_Options;
    TempDir m_Dir;
    uint16_t m_HttpPort = 0, m_TlsPort = 0;
    std::unique_ptr<ChildProcess> m_Process;
};

class WsServer {
public:
    explicit WsServer(Loopback host = Loopback::V4);
    std::string Url(const std::string& path = "/echo") const;     // ws://
    std::string TlsUrl(const std::string& path = "/echo") const;  // wss://

private:
    std::string m_Host;
    TempDir m_Dir;
    std::unique_ptr<ChildProcess> m_Process;
    uint16_t m_Port = 0, m_TlsPort = 0;
};

class Faults {
public:
    explicit Faults(Loopback host = Loopback::V4);
    std::string Url(const std::string& path) const;
    uint16_t Port() const { return m_Port; }

private:
    std::string m_Host;
    TempDir m_Dir;
    std::unique_ptr<ChildProcess> m_Process;
    uint16_t m_Port = 0;
};

class UdpEcho {
public:
    explicit UdpEcho(Loopback host = Loopback::V4);  // V4 or V6
    const std::string& Host() const { return m_Host; }  // "127.0.0.1" or "::1"
    uint16_t Port() const { return m_Port; }

private:
    std::string m_Host;
    TempDir m_Dir;
    std::unique_ptr<ChildProcess> m_Process;
    uint16_t m_Port = 0;
};

}  // namespace testsupport
