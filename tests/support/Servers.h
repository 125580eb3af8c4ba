// Real servers for tests, each a child process on loopback, on ports that were
// free at start, stopped by PID when the object goes. A server that cannot
// start throws std::runtime_error with its log.
//
//   Nginx     the system nginx from a generated configuration.
//               Url(p)     http://<host>:<port>p      (HTTP/1.1)
//               TlsUrl(p)  https://<host>:<port>p     (TLS 1.2/1.3, HTTP/2 by ALPN)
//             Locations:
//               /<name>          files the test wrote with WriteFile/CreateFile
//               /status/<code>   `return <code> "status <code>\n"` for the codes
//                                in Nginx::kStatusCodes
//               /redirect        302 to /status/200
//               /dav/            PUT and DELETE (dav module), folders made as needed;
//                                GET reads back what was put
//               /slow/           files under <root>/slow sent at 2 KB/s (limit_rate)
//               + NginxOptions::extraLocations, pasted into the server block
//             Options pick 127.0.0.1 only (default), [::1] only, or both; Url
//             and TlsUrl use the first of them.
//   WsServer  tests/support/ws_server.py (python3-websockets), ws and wss; the
//             path picks the behaviour, see that script: /echo, /fragments,
//             /ping, /close/<code>/<reason>, /drop, /refuse.
//   Faults    tests/support/faults.py (Python standard library): /reset,
//             /silent, /echo (POST/PUT body back with X-Body-Sha256), /headers.
//   UdpEcho   socat echoing each datagram back to its sender, 127.0.0.1 or ::1.
//
// TLS: TestCa() makes, once per process and with the openssl command, a CA and
// a server certificate for localhost, 127.0.0.1 and ::1 signed by it. Give
// TestCa().caFile to SetCaPath.
//
// Every child gets SIGKILL when the thread that started it ends (prctl
// PR_SET_PDEATHSIG), so start servers from the test's own thread, not from a
// short-lived helper thread. Nothing outlives a crashed test process.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace testsupport {

struct TestCaFiles {
    std::string caFile;    // PEM, the CA that signed certFile
    std::string certFile;  // PEM, CN localhost, SAN localhost 127.0.0.1 ::1
    std::string keyFile;
};
const TestCaFiles& TestCa();

// One child process in its own process group; stdin comes from `stdinFile`,
// stdout and stderr go to a log file. The destructor sends SIGTERM to the
// group, SIGKILL after 5 s.
class ChildProcess {
public:
    ChildProcess(const std::vector<std::string>& argv, const std::string& logFile,
                 const std::string& stdinFile = "/dev/null");
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Pid() const { return m_Pid; }
    bool Exited();  // reaps it when it has
    void Stop();
    // Waits for the exit, at most `seconds`; the exit status, or -1 when it had
    // to be killed or ended by a signal.
    int Wait(int seconds);
    std::string Log() const;
    // The number after "<key> " on a line of the log, waited for (30 s at
    // most); throws when it does not come or the child ends first.
    uint16_t WaitForPort(const std::string& key);

private:
    pid_t m_Pid = -1;
    std::string m_LogFile;
};

// A private temporary folder, removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& Path() const { return m_Path; }

private:
    std::string m_Path;
};

enum class Loopback { V4, V6, Both };

struct NginxOptions {
    Loopback listen = Loopback::V4;
    std::string extraLocations;  // nginx text, e.g. "location /x { return 200; }"
};

class Nginx {
public:
    static const std::vector<int> kStatusCodes;

    explicit Nginx(NginxOptions options = {});
    ~Nginx();

    uint16_t HttpPort() const { return m_HttpPort; }
    uint16_t TlsPort() const { return m_TlsPort; }
    std::string Url(const std::string& path = "/") const;
    std::string TlsUrl(const std::string& path = "/") const;
    std::string Root() const;  // document root
    // Writes <root>/<name> (folders made as needed); returns its path.
    std::string WriteFile(const std::string& name, const std::string& content);
    // <root>/<name> with `size` bytes of Pattern(size).
    std::string CreateFile(const std::string& name, size_t size);
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
    uint16_t Port() const { return m_Port; }

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

// A TCP (or, with SOCK_DGRAM, UDP) port on `host` that was free a moment ago:
// a port nobody listens on, for refused connections.
uint16_t FreePort(const std::string& host = "127.0.0.1", int type = 1 /* SOCK_STREAM */);

// `size` bytes of a fixed pattern that no shift or truncation maps onto itself.
std::string Pattern(size_t size);

}  // namespace testsupport
