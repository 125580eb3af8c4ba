// The system nginx as a reference server for tests and benchmarks: started as a
// child process (master + one worker, in the foreground) from a configuration
// generated into a private temp folder, which also holds its pid file, logs,
// temp paths and document root. Only the test's own loopback ports are used.
//
// Two listeners on 127.0.0.1, on free ports picked at start:
//   HttpPort()  plain HTTP/1.1, keep-alive (up to 1,000,000 requests per
//               connection).
//   TlsPort()   HTTPS (TLS 1.2 and 1.3) with TestTls(), HTTP/2 offered by ALPN
//               (HTTP/1.1 too).
// Both serve:
//   /small      200 with the 100-byte body SmallBody().
//   /<name>     files written into the document root with CreateFile() or
//               WriteFile(); anything else is nginx's own 404.
// Every request is logged, one line each, as
//   "$connection $connection_requests $server_protocol $request_method $request_uri $status $body_bytes_sent"
// so tests can tell HTTP/2 from HTTP/1.1 and see connection reuse.
//
// The constructor waits (bounded) until both ports accept connections and
// throws std::runtime_error if nginx cannot be started. If nginx is not
// installed, the constructor does nothing: check Available() and skip.
// The destructor stops nginx (SIGTERM, then SIGKILL after a few seconds) and
// removes the folder.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace testsupport {

struct NginxServerOptions {
    std::string binary = "/usr/sbin/nginx";
};

struct NginxLogEntry {
    uint64_t connection = 0;          // nginx's connection serial number
    uint64_t connectionRequests = 0;  // 1 for the first request on a connection
    std::string protocol;             // "HTTP/1.1", "HTTP/2.0", ...
    std::string method;
    std::string uri;
    int status = 0;
    uint64_t bytesSent = 0;           // body bytes
};

class NginxServer {
public:
    using Options = NginxServerOptions;

    NginxServer();
    explicit NginxServer(const Options& options);
    ~NginxServer();
    NginxServer(const NginxServer&) = delete;
    NginxServer& operator=(const NginxServer&) = delete;

    // The nginx binary exists and is executable.
    static bool Available(const std::string& binary = "/usr/sbin/nginx");
    // The 100-byte body of /small.
    static const std::string& SmallBody();

    bool Running() const;  // false when nginx is not installed
    uint16_t HttpPort() const;
    uint16_t TlsPort() const;
    std::string Url(const std::string& path = "/") const;     // http://127.0.0.1:P/path
    std::string TlsUrl(const std::string& path = "/") const;  // https://localhost:P/path

    std::string Root() const;  // document root
    // Writes `size` bytes of DeterministicBytes into <root>/<name> (parent
    // folders are created), in pieces, so large files are fine. Returns the path.
    std::string CreateFile(const std::string& name, uint64_t size);
    std::string WriteFile(const std::string& name, const std::string& content);

    std::string AccessLogPath() const;
    std::vector<std::string> AccessLogLines() const;
    std::vector<NginxLogEntry> AccessLog() const;
    // nginx writes a line once a request is finished, which may be just after
    // the client has its response: wait for it (bounded). False on timeout.
    bool WaitForAccessLogLines(size_t n, std::chrono::milliseconds timeout) const;
    std::string ErrorLog() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_Impl;
};

}  // namespace testsupport
