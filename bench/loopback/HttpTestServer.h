// An HTTP/1.1 (optionally HTTPS) server for tests, running in-process on its
// own threads and bound to a loopback address on an ephemeral port. It starts
// in the constructor and the destructor stops it promptly, whatever state its
// connections are in (stalled clients, pending delays, half-sent bodies).
//
// Connections are persistent (keep-alive) unless the client asks otherwise;
// requests on one connection are answered one after another (no pipelining).
// Request bodies may be sent with Content-Length or chunked, of any size; they
// are read in pieces and never held whole unless noted. "Expect: 100-continue"
// is answered with 100 Continue at once. HEAD gets the headers GET would get.
//
// Routes (query values are percent-decoded; numbers are decimal):
//   /fixed                 200, body "hello netloop".
//   /fixed?size=N          200, N bytes of 'x'.
//   /status/CODE           that status (200..599) with body "status CODE\n"
//                          (no body for 204 and 304); ?location=URL adds a
//                          Location header (for redirects).
//   /delay/MS              waits MS milliseconds, then 200 "delayed MS\n".
//   /chunked?parts=N&size=M
//                          200 with Transfer-Encoding: chunked, N chunks of M
//                          bytes; the decoded body is DeterministicBytes(N*M)
//                          (defaults N=4, M=16).
//   /bytes/N               200, Content-Length N, DeterministicBytes(N),
//                          written in 256 KiB pieces (fine for gigabytes).
//   /echo                  any method: 200, text/plain, body
//                              "METHOD TARGET\n"
//                              "Name: value\n"   one line per request header,
//                                                in the order and spelling sent
//                              "\n"
//                              request body, verbatim
//                          The request body is buffered for this route.
//   /echo-headers          the same without the request body (ends with the
//                          empty line).
//   /upload                PUT or POST (else 405): reads the body in pieces,
//                          answers 200 "size=<n> sha256=<hex>".
//   /drip?bytes=N&interval=MS&piece=K
//                          200, Content-Length N, then DeterministicBytes(N) in
//                          K-byte pieces, one per MS milliseconds (defaults
//                          N=10, MS=100, K=1), the first after one interval.
//   /cookie/set?name=NAME&value=VALUE
//                          200 "cookie set\n" with "Set-Cookie: NAME=VALUE; Path=/".
//   /cookie/echo           200, body = the request's Cookie header ("" if none).
//   /close                 200 "closing\n" with Connection: close, then the
//                          server closes the connection.
//   /reset?bytes=N&after=K 200 announcing Content-Length N, sends the first K
//                          bytes of DeterministicBytes(N), waits until they left
//                          the socket, then resets the connection (RST).
//   /silent                reads the request and never answers; the connection
//                          stays open until the client leaves or the server stops.
//   anything else          404 "not found\n".
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "loopback/TestData.h"

namespace testsupport {

struct HttpTestServerOptions {
    bool tls = false;          // HTTPS with TestTls()
    bool ipv6 = false;         // bind ::1 instead of 127.0.0.1
    int threads = 2;           // I/O threads
    size_t maxRecords = 4096;  // most recent requests kept by Requests()
    uint64_t maxKeptBodyBytes = 64ull << 20;  // beyond this, older records lose their body
};

struct RecordedRequest {
    uint64_t connection = 0;  // 1-based number of the connection, in accept order
    std::string method;
    std::string target;       // as sent, e.g. "/echo?x=1"
    int version = 11;         // 10 or 11
    std::vector<std::pair<std::string, std::string>> headers;  // in order, as sent
    bool chunked = false;     // the body came with chunked transfer encoding
    uint64_t bodySize = 0;
    std::string bodySha256;   // lowercase hex, also for an empty body
    std::string body;         // the body when bodySize < 1 MiB, else empty
    bool bodyKept = true;     // false: body too big, or dropped (see maxKeptBodyBytes)

    // First value of header `name` (case-insensitive), "" when absent.
    std::string Header(std::string_view name) const;
    bool HasHeader(std::string_view name) const;
};

class HttpTestServer {
public:
    using Options = HttpTestServerOptions;

    HttpTestServer();
    explicit HttpTestServer(const Options& options);
    ~HttpTestServer();
    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    uint16_t Port() const;
    // http://127.0.0.1:P/path, https://localhost:P/path (tls), http(s)://[::1]:P/path (ipv6).
    std::string Url(const std::string& path = "/") const;

    uint64_t ConnectionCount() const;  // connections accepted so far
    int OpenConnections() const;       // connections currently open
    uint64_t RequestCount() const;     // requests read completely (body included)

    // Requests are recorded once their body has been read, before the answer
    // is sent: a client that has a response can look at its request at once.
    RecordedRequest LastRequest() const;  // empty record when none yet
    std::vector<RecordedRequest> Requests() const;
    void ClearRequests();  // forgets the records; RequestCount() goes on counting
    // Waits until RequestCount() >= n; false on timeout.
    bool WaitForRequests(uint64_t n, std::chrono::milliseconds timeout) const;

    // After every n-th response from now on (counted over all connections), the
    // server closes that connection right after the response, without having
    // announced it: a kept-alive connection lost under the client's feet.
    // 0 turns it off.
    void SetCloseEveryNth(int n);

private:
    struct Impl;
    std::unique_ptr<Impl> m_Impl;
};

}  // namespace testsupport
