#include "loopback/detail/AsioServer.h"

#include <openssl/ssl.h>

#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/strand.hpp>

#include <cstring>

#include "loopback/TestTls.h"

namespace testsupport::detail {

AsioServer::AsioServer(bool tls, bool ipv6, const std::string& alpn)
    : m_Ioc(std::make_unique<net::io_context>()) {
    if (tls) {
        const TlsFiles& files = TestTls();
        m_Ssl = std::make_unique<net::ssl::context>(net::ssl::context::tls_server);
        m_Ssl->set_options(net::ssl::context::default_workarounds | net::ssl::context::no_sslv2 |
                           net::ssl::context::no_sslv3);
        m_Ssl->use_certificate_chain_file(files.certFile);
        m_Ssl->use_private_key_file(files.keyFile, net::ssl::context::pem);
        if (!alpn.empty()) {
            m_Alpn.push_back(static_cast<char>(alpn.size()));
            m_Alpn += alpn;
            // Pick our one protocol when the client offers it; otherwise carry
            // on without ALPN rather than failing the handshake.
            SSL_CTX_set_alpn_select_cb(
                m_Ssl->native_handle(),
                [](SSL*, const unsigned char** out, unsigned char* outlen, const unsigned char* in,
                   unsigned int inlen, void* arg) -> int {
                    const std::string& ours = *static_cast<const std::string*>(arg);
                    unsigned char* selected = nullptr;
                    if (SSL_select_next_proto(&selected, outlen, reinterpret_cast<const unsigned char*>(ours.data()),
                                              static_cast<unsigned int>(ours.size()), in,
                                              inlen) != OPENSSL_NPN_NEGOTIATED)
                        return SSL_TLSEXT_ERR_NOACK;
                    *out = selected;
                    return SSL_TLSEXT_ERR_OK;
                },
                &m_Alpn);
        }
    }
    tcp::endpoint ep(ipv6 ? net::ip::address(net::ip::address_v6::loopback())
                          : net::ip::address(net::ip::address_v4::loopback()),
                     0);
    m_Acceptor = std::make_unique<tcp::acceptor>(*m_Ioc);
    m_Acceptor->open(ep.protocol());
    if (ipv6) m_Acceptor->set_option(net::ip::v6_only(true));
    m_Acceptor->bind(ep);
    m_Acceptor->listen(net::socket_base::max_listen_connections);
    m_Port = m_Acceptor->local_endpoint().port();
    m_Backoff = std::make_unique<net::steady_timer>(*m_Ioc);
}

AsioServer::~AsioServer() { Stop(); }

void AsioServer::Start(int threads, AcceptFn onAccept) {
    m_OnAccept = std::move(onAccept);
    Accept();
    for (int i = 0; i < (threads < 1 ? 1 : threads); ++i) m_Threads.emplace_back([this] { m_Ioc->run(); });
}

void AsioServer::Accept() {
    // Each connection gets its own strand so the pool's threads never run two
    // handlers of one connection at once.
    m_Acceptor->async_accept(net::make_strand(*m_Ioc), [this](boost::system::error_code ec, tcp::socket socket) {
        if (ec == net::error::operation_aborted || !m_Acceptor->is_open()) return;
        if (ec) {
            // Out of descriptors or similar: try again shortly instead of spinning.
            m_Backoff->expires_after(std::chrono::milliseconds(10));
            m_Backoff->async_wait([this](boost::system::error_code e) {
                if (!e) Accept();
            });
            return;
        }
        boost::system::error_code ignored;
        socket.set_option(tcp::no_delay(true), ignored);
        m_OnAccept(std::move(socket));
        Accept();
    });
}

void AsioServer::Stop() {
    if (!m_Ioc) return;
    m_Ioc->stop();
    for (auto& t : m_Threads) t.join();
    m_Threads.clear();
    // I/O objects go before the io_context that owns their services; then the
    // io_context destroys every handler still queued, and with them the
    // sessions and their sockets.
    m_Backoff.reset();
    m_Acceptor.reset();
    m_Ioc.reset();
    m_OnAccept = nullptr;
}

std::string UrlHost(bool tls, bool ipv6) {
    if (ipv6) return "[::1]";
    return tls ? "localhost" : "127.0.0.1";
}

}  // namespace testsupport::detail
