// The peer users would pick instead of netloop for small GETs: Boost.Beast on
// one io_context thread, C keep-alive connections each running its requests
// one after the other, against the same nginx as the other small-GET programs.
//
//   --impl=beast       plain HTTP/1.1 (nginx /small)
//   --impl=beast_tls   HTTPS over HTTP/1.1 (Beast has no HTTP/2), certificate
//                      verified against the loopback CA
//   --concurrency=C (16)  --n=N transfers per round (20000)  --warmup=W (200)
//   --min-seconds=S rounds go on until S seconds have passed (1)
// Figure: requests per second, with CPU time and system calls per request.
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/BenchUtil.h"
#include "common/NetloopGets.h"
#include "loopback/NginxServer.h"
#include "loopback/TestTls.h"

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

struct Shared {
    uint64_t total = 0;
    uint64_t claimed = 0;
    uint64_t finished = 0;
    bench::GetTally tally;
    size_t bodySize = 0;
};

// One connection and its request loop. Stream is a tcp socket or a TLS stream.
template <typename Stream>
class Session {
public:
    Session(Stream stream, Shared& shared, const std::string& host, const std::string& target)
        : m_Stream(std::move(stream)), m_Shared(shared) {
        m_Request.method(http::verb::get);
        m_Request.target(target);
        m_Request.version(11);
        m_Request.set(http::field::host, host);
        m_Request.set(http::field::accept, "*/*");
        m_Request.keep_alive(true);
    }

    // Takes the next request of the round, if any is left.
    void Next() {
        if (m_Shared.claimed >= m_Shared.total) return;
        ++m_Shared.claimed;
        http::async_write(m_Stream, m_Request, [this](beast::error_code ec, size_t) {
            if (ec) return Done(false);
            m_Response.emplace();
            http::async_read(m_Stream, m_Buffer, *m_Response, [this](beast::error_code ec, size_t) {
                Done(!ec && m_Response->result_int() == 200 && m_Response->body().size() == m_Shared.bodySize);
            });
        });
    }

private:
    void Done(bool good) {
        ++(good ? m_Shared.tally.ok : m_Shared.tally.bad);
        ++m_Shared.finished;
        if (good) Next();
    }

    Stream m_Stream;
    Shared& m_Shared;
    beast::flat_buffer m_Buffer;
    http::request<http::empty_body> m_Request;
    std::optional<http::response<http::string_body>> m_Response;
};

using TlsStream = beast::ssl_stream<tcp::socket>;

class BeastGets {
public:
    BeastGets(uint16_t port, bool tls, size_t bodySize)
        : m_Port(port), m_Tls(tls), m_TlsContext(asio::ssl::context::tls_client) {
        m_Shared.bodySize = bodySize;
        if (m_Tls) {
            m_TlsContext.load_verify_file(testsupport::TestTls().caFile);
            m_TlsContext.set_verify_mode(asio::ssl::verify_peer);
        }
    }

    bool Run(uint64_t n, int concurrency, double) {
        if (!Connect(concurrency)) return false;
        m_Shared.total = n;
        m_Shared.claimed = m_Shared.finished = 0;
        for (auto& s : m_Plain) s->Next();
        for (auto& s : m_Secure) s->Next();
        m_Io.restart();
        m_Io.run();
        return m_Shared.finished == n;
    }
    bench::GetTally Counts() const { return m_Shared.tally; }

private:
    // The connections are made once, before the first round's clock matters
    // (the warm-up round), and kept open like libcurl's pool keeps its own.
    bool Connect(int concurrency) {
        const std::string host = m_Tls ? "localhost" : "127.0.0.1";
        const tcp::endpoint peer(asio::ip::make_address("127.0.0.1"), m_Port);
        while (static_cast<int>(m_Plain.size() + m_Secure.size()) < concurrency) {
            beast::error_code ec;
            tcp::socket socket(m_Io);
            socket.connect(peer, ec);
            if (ec) return false;
            socket.set_option(tcp::no_delay(true));
            const std::string hostPort = host + ":" + std::to_string(m_Port);
            if (!m_Tls) {
                m_Plain.push_back(std::make_unique<Session<tcp::socket>>(std::move(socket), m_Shared, hostPort,
                                                                         "/small"));
                continue;
            }
            TlsStream stream(std::move(socket), m_TlsContext);
            SSL_set_tlsext_host_name(stream.native_handle(), host.c_str());
            stream.set_verify_callback(asio::ssl::host_name_verification(host));
            stream.handshake(asio::ssl::stream_base::client, ec);
            if (ec) return false;
            m_Secure.push_back(std::make_unique<Session<TlsStream>>(std::move(stream), m_Shared, hostPort, "/small"));
        }
        return true;
    }

    uint16_t m_Port;
    bool m_Tls;
    asio::io_context m_Io{1};
    asio::ssl::context m_TlsContext;
    Shared m_Shared;
    std::vector<std::unique_ptr<Session<tcp::socket>>> m_Plain;
    std::vector<std::unique_ptr<Session<TlsStream>>> m_Secure;
};

}  // namespace

int main(int argc, char** argv) {
    bench::Args args(argc, argv);
    const std::string impl = args.Str("impl", "beast");
    const int concurrency = static_cast<int>(args.Int("concurrency", 16));
    const uint64_t n = static_cast<uint64_t>(args.Int("n", 20000));
    const uint64_t warmup = static_cast<uint64_t>(args.Int("warmup", 200));
    const double minSeconds = args.Num("min-seconds", 1.0);
    const int timeout = static_cast<int>(args.Int("timeout", 120));
    bench::StartWatchdog("beast_get", impl, timeout);
    bench::Result res("beast_get", impl);
    res.Param("concurrency", concurrency).Param("n", static_cast<int64_t>(n));
    if (impl != "beast" && impl != "beast_tls") return res.Fail("unknown --impl (beast, beast_tls)");
    if (concurrency < 1) return res.Fail("--concurrency must be at least 1");

    testsupport::NginxServer nginx;
    if (!nginx.Running()) return res.Skip("nginx is not installed");
    const bool tls = impl == "beast_tls";
    BeastGets gets(tls ? nginx.TlsPort() : nginx.HttpPort(), tls, testsupport::NginxServer::SmallBody().size());
    try {
        return bench::MeasureGets(res, gets, warmup, n, concurrency, timeout, minSeconds);
    } catch (const std::exception& e) {
        return res.Fail(e.what());
    }
}
