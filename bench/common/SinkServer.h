// A minimal HTTP/1.1 server that takes request bodies and throws them away, for
// upload benchmarks where the server must not be the bottleneck: plain blocking
// sockets, one thread per connection, a 1 MiB receive buffer, no hashing.
//
// Each request must carry Content-Length (chunked bodies are not understood).
// "Expect: 100-continue" is answered at once. The answer is 200 with the body
// "size=<bytes received>". Connections are kept alive. Bound to 127.0.0.1 on an
// ephemeral port; the destructor stops everything.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace bench {

class SinkServer {
public:
    SinkServer();
    ~SinkServer();
    SinkServer(const SinkServer&) = delete;
    SinkServer& operator=(const SinkServer&) = delete;

    uint16_t Port() const { return m_Port; }
    std::string Url(const std::string& path = "/upload") const;
    uint64_t BodyBytes() const { return m_BodyBytes.load(); }

private:
    void AcceptLoop();
    void Serve(int fd);

    int m_Listen = -1;
    uint16_t m_Port = 0;
    std::atomic<bool> m_Stop{false};
    std::atomic<uint64_t> m_BodyBytes{0};
    std::thread m_Acceptor;
    std::mutex m_Mutex;
    std::vector<int> m_Fds;
    std::vector<std::thread> m_Workers;
};

}  // namespace bench
