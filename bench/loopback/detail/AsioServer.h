// Internal to the test servers (includes Boost, so never include it from a
// public support header): the io_context, its threads, the listening socket
// and the TLS context every asio-based test server needs.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace testsupport::detail {

namespace net = boost::asio;
using tcp = net::ip::tcp;

class AsioServer {
public:
    using AcceptFn = std::function<void(tcp::socket)>;

    // Binds 127.0.0.1 (or ::1) on an ephemeral port and listens; `tls` loads
    // TestTls() into Ssl(), offering ALPN `alpn` when not empty.
    AsioServer(bool tls, bool ipv6, const std::string& alpn);
    ~AsioServer();

    // Starts `threads` threads running the io_context and accepting; every
    // accepted socket (bound to its own strand) goes to `onAccept`.
    void Start(int threads, AcceptFn onAccept);
    // Stops the io_context, joins the threads and destroys everything still
    // pending (sessions included). Must run while whatever the sessions refer
    // to is alive; idempotent.
    void Stop();

    net::io_context& Ioc() { return *m_Ioc; }
    net::ssl::context* Ssl() { return m_Ssl.get(); }
    uint16_t Port() const { return m_Port; }

private:
    void Accept();

    std::unique_ptr<net::io_context> m_Ioc;
    std::unique_ptr<net::ssl::context> m_Ssl;
    std::unique_ptr<tcp::acceptor> m_Acceptor;
    std::unique_ptr<net::steady_timer> m_Backoff;
    std::vector<std::thread> m_Threads;
    std::string m_Alpn;  // wire format: length-prefixed protocol name
    AcceptFn m_OnAccept;
    uint16_t m_Port = 0;
};

// Host part of a URL for this server: "127.0.0.1", "localhost" (TLS, so the
// certificate name matches) or "[::1]".
std::string UrlHost(bool tls, bool ipv6);

}  // namespace testsupport::detail
