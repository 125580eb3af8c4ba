#include "loopback/HttpTestServer.h"

#include <linux/sockios.h>
#include <strings.h>
#include <sys/ioctl.h>

#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/status.hpp>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <type_traits>

#include "loopback/detail/AsioServer.h"
#include "loopback/detail/RecordLog.h"

namespace testsupport {

namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = net::ip::tcp;
using error_code = boost::system::error_code;

constexpr size_t kPiece = 256 * 1024;     // body bytes per socket write / read
constexpr uint64_t kKeepBody = 1 << 20;   // request bodies below this are kept
constexpr auto kCloseGrace = std::chrono::seconds(3);

bool IEquals(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string PercentDecode(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 2 < s.size() && isxdigit(static_cast<unsigned char>(s[i + 1])) &&
            isxdigit(static_cast<unsigned char>(s[i + 2]))) {
            out.push_back(static_cast<char>(std::stoi(std::string(s.substr(i + 1, 2)), nullptr, 16)));
            i += 2;
        } else if (s[i] == '+') {
            out.push_back(' ');
        } else {
            out.push_back(s[i]);
        }
    }
    return out;
}

struct Target {
    std::string path;
    std::map<std::string, std::string> query;

    explicit Target(std::string_view target) {
        size_t q = target.find('?');
        path = std::string(target.substr(0, q));
        if (q == std::string_view::npos) return;
        std::string_view rest = target.substr(q + 1);
        while (!rest.empty()) {
            size_t amp = rest.find('&');
            std::string_view item = rest.substr(0, amp);
            size_t eq = item.find('=');
            if (eq == std::string_view::npos)
                query[PercentDecode(item)] = "";
            else
                query[PercentDecode(item.substr(0, eq))] = PercentDecode(item.substr(eq + 1));
            if (amp == std::string_view::npos) break;
            rest = rest.substr(amp + 1);
        }
    }
    bool Has(const std::string& name) const { return query.count(name) > 0; }
    std::string Str(const std::string& name, const std::string& def = "") const {
        auto it = query.find(name);
        return it == query.end() ? def : it->second;
    }
    uint64_t Num(const std::string& name, uint64_t def) const {
        auto it = query.find(name);
        if (it == query.end() || it->second.empty()) return def;
        return std::strtoull(it->second.c_str(), nullptr, 10);
    }
    // Number after `prefix` in the path ("/bytes/123" -> 123); nullopt if malformed.
    std::optional<uint64_t> PathNum(std::string_view prefix) const {
        if (path.size() <= prefix.size() || path.compare(0, prefix.size(), prefix) != 0) return std::nullopt;
        std::string digits = path.substr(prefix.size());
        if (digits.find_first_not_of("0123456789") != std::string::npos || digits.size() > 19) return std::nullopt;
        return std::strtoull(digits.c_str(), nullptr, 10);
    }
    bool StartsWith(std::string_view prefix) const { return path.compare(0, prefix.size(), prefix) == 0; }
};

enum class Fill { None, String, X, Deterministic };

// What to send back for one request, decided from its header and completed
// once its body has been read.
struct Plan {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    Fill fill = Fill::String;
    std::string body;
    uint64_t length = 0;  // body length for X / Deterministic
    bool chunked = false;
    uint64_t parts = 0, partSize = 0;
    std::chrono::milliseconds delay{0};
    std::chrono::milliseconds dripInterval{0};
    uint64_t dripPiece = 0;  // non-zero: drip the body
    bool reset = false;
    uint64_t resetAfter = 0;
    bool close = false;  // announce Connection: close and close afterwards
    bool silent = false;
    bool echo = false, echoBody = false;
    bool upload = false;
};

void SetBody(Plan& plan, int status, std::string body) {
    plan.status = status;
    plan.fill = Fill::String;
    plan.body = std::move(body);
}

Plan Route(const std::string& method, const std::string& target) {
    Target t(target);
    Plan plan;
    if (t.path == "/fixed") {
        if (t.Has("size")) {
            plan.fill = Fill::X;
            plan.length = t.Num("size", 0);
        } else {
            SetBody(plan, 200, "hello netloop");
        }
    } else if (auto code = t.PathNum("/status/")) {
        if (*code < 200 || *code > 599) {
            SetBody(plan, 400, "status must be 200..599\n");
        } else {
            SetBody(plan, static_cast<int>(*code), "status " + std::to_string(*code) + "\n");
            if (*code == 204 || *code == 304) plan.fill = Fill::None;
            if (t.Has("location")) plan.headers.emplace_back("Location", t.Str("location"));
        }
    } else if (auto ms = t.PathNum("/delay/")) {
        plan.delay = std::chrono::milliseconds(*ms);
        SetBody(plan, 200, "delayed " + std::to_string(*ms) + "\n");
    } else if (t.path == "/chunked") {
        plan.chunked = true;
        plan.fill = Fill::Deterministic;
        plan.parts = t.Num("parts", 4);
        plan.partSize = t.Num("size", 16);
        if (plan.partSize == 0) plan.parts = 0;  // a zero-size chunk would end the body
        plan.length = plan.parts * plan.partSize;
    } else if (auto n = t.PathNum("/bytes/")) {
        plan.fill = Fill::Deterministic;
        plan.length = *n;
    } else if (t.path == "/echo" || t.path == "/echo-headers") {
        plan.echo = true;
        plan.echoBody = t.path == "/echo";
        plan.headers.emplace_back("Content-Type", "text/plain");
    } else if (t.path == "/upload") {
        if (method == "PUT" || method == "POST") {
            plan.upload = true;
        } else {
            SetBody(plan, 405, "use PUT or POST\n");
            plan.headers.emplace_back("Allow", "PUT, POST");
        }
    } else if (t.path == "/drip") {
        plan.fill = Fill::Deterministic;
        plan.length = t.Num("bytes", 10);
        plan.dripInterval = std::chrono::milliseconds(t.Num("interval", 100));
        plan.dripPiece = std::max<uint64_t>(1, t.Num("piece", 1));
    } else if (t.path == "/cookie/set") {
        SetBody(plan, 200, "cookie set\n");
        plan.headers.emplace_back("Set-Cookie", t.Str("name") + "=" + t.Str("value") + "; Path=/");
    } else if (t.path == "/cookie/echo") {
        // filled in from the request's headers
    } else if (t.path == "/close") {
        SetBody(plan, 200, "closing\n");
        plan.close = true;
    } else if (t.path == "/reset") {
        plan.fill = Fill::Deterministic;
        plan.length = t.Num("bytes", 1024);
        plan.reset = true;
        plan.resetAfter = std::min(plan.length, t.Num("after", 0));
    } else if (t.path == "/silent") {
        plan.silent = true;
    } else {
        SetBody(plan, 404, "not found\n");
    }
    return plan;
}

// State shared by all connections of one server.
struct Shared {
    HttpTestServerOptions options;
    std::atomic<uint64_t> connections{0};
    std::atomic<int> open{0};
    std::atomic<uint64_t> requests{0};
    std::atomic<int> closeEveryNth{0};
    std::atomic<uint64_t> nthCounter{0};
    mutable std::mutex mutex;
    mutable std::condition_variable cond;
    detail::RecordLog<RecordedRequest> records;

    explicit Shared(const HttpTestServerOptions& o)
        : options(o), records(o.maxRecords, o.maxKeptBodyBytes, &RecordedRequest::body, &RecordedRequest::bodyKept) {}

    void Record(RecordedRequest rec) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            records.Add(std::move(rec));
            requests.fetch_add(1);
        }
        cond.notify_all();
    }
};

template <class Stream>
class Session : public std::enable_shared_from_this<Session<Stream>> {
    static constexpr bool kTls = !std::is_same_v<Stream, tcp::socket>;

public:
    template <class... Args>
    Session(Shared& shared, uint64_t id, Args&&... streamArgs)
        : m_Shared(shared), m_Id(id), m_Stream(std::forward<Args>(streamArgs)...), m_Timer(m_Stream.get_executor()) {
        m_Shared.open.fetch_add(1);
    }
    ~Session() { m_Shared.open.fetch_sub(1); }

    void Start() {
        if constexpr (kTls) {
            m_Stream.async_handshake(net::ssl::stream_base::server, [self = this->shared_from_this()](error_code ec) {
                if (ec) return self->Abort();
                self->ReadHeader();
            });
        } else {
            ReadHeader();
        }
    }

private:
    tcp::socket& Socket() {
        if constexpr (kTls)
            return m_Stream.next_layer();
        else
            return m_Stream;
    }

    void Abort() {
        error_code ignored;
        m_Timer.cancel();
        Socket().close(ignored);
    }

    void ReadHeader() {
        m_Parser.emplace();
        m_Parser->header_limit(1 << 20);
        // Not boost::none: Boost 1.74 compares a length against an empty
        // optional as "over the limit".
        m_Parser->body_limit(std::numeric_limits<std::uint64_t>::max());
        http::async_read_header(m_Stream, m_Buffer, *m_Parser,
                                [self = this->shared_from_this()](error_code ec, size_t) { self->OnHeader(ec); });
    }

    void OnHeader(error_code ec) {
        if (ec) return Abort();  // the client went away, or sent garbage
        const auto& req = m_Parser->get();
        m_Rec = RecordedRequest{};
        m_Rec.connection = m_Id;
        m_Rec.method = std::string(req.method_string());
        m_Rec.target = std::string(req.target());
        m_Rec.version = req.version();
        for (const auto& field : req) m_Rec.headers.emplace_back(field.name_string(), field.value());
        m_Rec.chunked = m_Parser->chunked();
        m_KeepAlive = req.keep_alive();
        m_Sha.emplace();
        m_EchoBody.clear();
        m_Plan = Route(m_Rec.method, m_Rec.target);

        bool expectContinue = IEquals(std::string_view(req[http::field::expect].data(), req[http::field::expect].size()),
                                      "100-continue");
        if (expectContinue && !m_Parser->is_done()) {
            static const std::string kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
            net::async_write(m_Stream, net::buffer(kContinue),
                             [self = this->shared_from_this()](error_code ec, size_t) {
                                 if (ec) return self->Abort();
                                 self->ReadBody();
                             });
            return;
        }
        ReadBody();
    }

    void ReadBody() {
        if (m_Parser->is_done()) return OnRequest();
        if (m_ReadBuf.size() < kPiece) m_ReadBuf.resize(kPiece);
        m_Parser->get().body().data = m_ReadBuf.data();
        m_Parser->get().body().size = m_ReadBuf.size();
        http::async_read(m_Stream, m_Buffer, *m_Parser, [self = this->shared_from_this()](error_code ec, size_t) {
            if (ec == http::error::need_buffer) ec = {};
            if (ec) return self->Abort();
            size_t got = self->m_ReadBuf.size() - self->m_Parser->get().body().size;
            self->Consume(self->m_ReadBuf.data(), got);
            self->ReadBody();
        });
    }

    void Consume(const char* data, size_t n) {
        m_Sha->Update(data, n);
        if (m_Rec.bodySize + n < kKeepBody) m_Rec.body.append(data, n);
        m_Rec.bodySize += n;
        if (m_Plan.echoBody) m_EchoBody.append(data, n);
    }

    void OnRequest() {
        m_Rec.bodySha256 = m_Sha->Hex();
        m_Rec.bodyKept = m_Rec.bodySize < kKeepBody;
        if (!m_Rec.bodyKept) m_Rec.body.clear();
        if (m_Plan.echo) {
            std::string text = m_Rec.method + " " + m_Rec.target + "\n";
            for (const auto& [name, value] : m_Rec.headers) text += name + ": " + value + "\n";
            text += "\n";
            if (m_Plan.echoBody) text += m_EchoBody;
            SetBody(m_Plan, 200, std::move(text));
            std::string().swap(m_EchoBody);
        } else if (m_Plan.upload) {
            SetBody(m_Plan, 200, "size=" + std::to_string(m_Rec.bodySize) + " sha256=" + m_Rec.bodySha256);
        } else if (Target(m_Rec.target).path == "/cookie/echo") {
            SetBody(m_Plan, 200, m_Rec.Header("Cookie"));
        }
        m_HeadOnly = m_Rec.method == "HEAD";
        m_Shared.Record(m_Rec);

        if (m_Plan.silent) return Hold();
        if (m_Plan.delay.count() > 0) {
            m_Timer.expires_after(m_Plan.delay);
            m_Timer.async_wait([self = this->shared_from_this()](error_code ec) {
                if (ec) return;
                self->WriteHead();
            });
            return;
        }
        WriteHead();
    }

    // /silent: keep reading (and dropping) whatever comes until the client leaves.
    void Hold() {
        if (m_ReadBuf.size() < kPiece) m_ReadBuf.resize(kPiece);
        m_Stream.async_read_some(net::buffer(m_ReadBuf), [self = this->shared_from_this()](error_code ec, size_t) {
            if (ec) return self->Abort();
            self->Hold();
        });
    }

    uint64_t BodyLength() const { return m_Plan.fill == Fill::String ? m_Plan.body.size() : m_Plan.length; }

    void WriteHead() {
        const Plan& p = m_Plan;
        std::string& out = m_Out;
        out.clear();
        out += "HTTP/1.1 " + std::to_string(p.status) + " ";
        auto reason = http::obsolete_reason(static_cast<http::status>(p.status));
        out += reason.empty() || reason[0] == '<' ? std::string("Status") : std::string(reason);
        out += "\r\nServer: netloop-test\r\n";
        if (p.fill == Fill::None) {
            // 204 / 304: no body and no length
        } else if (p.chunked) {
            out += "Transfer-Encoding: chunked\r\n";
        } else {
            out += "Content-Length: " + std::to_string(BodyLength()) + "\r\n";
        }
        bool hasType = false;
        for (const auto& [name, value] : p.headers) {
            out += name + ": " + value + "\r\n";
            hasType = hasType || IEquals(name, "Content-Type");
        }
        if (!hasType && p.fill != Fill::None)
            out += p.fill == Fill::String ? "Content-Type: text/plain\r\n" : "Content-Type: application/octet-stream\r\n";
        if (p.close || !m_KeepAlive)
            out += "Connection: close\r\n";
        else if (m_Rec.version == 10)
            out += "Connection: keep-alive\r\n";
        out += "\r\n";

        // Counted before the answer leaves, so a client that has seen it can
        // rely on the count (e.g. to call SetCloseEveryNth in between).
        int nth = m_Shared.closeEveryNth.load();
        m_DropAfter = nth > 0 && m_Shared.nthCounter.fetch_add(1) % static_cast<uint64_t>(nth) ==
                                     static_cast<uint64_t>(nth) - 1;

        m_Sent = 0;
        m_Part = 0;
        m_PartSent = 0;
        m_BodyDone = m_HeadOnly || p.fill == Fill::None;
        // Small answers go out in the same write as their header; dripped
        // bodies start after the first interval.
        if (!m_BodyDone && p.dripPiece == 0) AppendBody(kPiece > out.size() ? kPiece - out.size() : 0);
        Write();
    }

    // Appends up to `max` body bytes (plus chunk framing) to m_Out.
    void AppendBody(size_t max) {
        const Plan& p = m_Plan;
        if (p.reset) max = static_cast<size_t>(std::min<uint64_t>(max, p.resetAfter - m_Sent));
        if (p.chunked) {
            while (max > 0 && !m_BodyDone) {
                if (m_Part == p.parts) {
                    m_Out += "0\r\n\r\n";
                    m_BodyDone = true;
                    break;
                }
                if (m_PartSent == 0) {
                    char head[32];
                    snprintf(head, sizeof head, "%llx\r\n", static_cast<unsigned long long>(p.partSize));
                    m_Out += head;
                }
                size_t n = static_cast<size_t>(std::min<uint64_t>(max, p.partSize - m_PartSent));
                AppendFill(n);
                m_PartSent += n;
                max -= n;
                if (m_PartSent == p.partSize) {
                    m_Out += "\r\n";
                    ++m_Part;
                    m_PartSent = 0;
                }
            }
            return;
        }
        size_t n = static_cast<size_t>(std::min<uint64_t>(max, BodyLength() - m_Sent));
        AppendFill(n);
        if (m_Sent == BodyLength()) m_BodyDone = true;
    }

    void AppendFill(size_t n) {
        size_t at = m_Out.size();
        m_Out.resize(at + n);
        char* dst = m_Out.data() + at;
        switch (m_Plan.fill) {
            case Fill::String: m_Plan.body.copy(dst, n, static_cast<size_t>(m_Sent)); break;
            case Fill::X: std::memset(dst, 'x', n); break;
            case Fill::Deterministic: FillDeterministicBytes(m_Sent, dst, n); break;
            case Fill::None: break;
        }
        m_Sent += n;
    }

    void Write() {
        net::async_write(m_Stream, net::buffer(m_Out),
                         [self = this->shared_from_this()](error_code ec, size_t) { self->OnWritten(ec); });
    }

    void OnWritten(error_code ec) {
        if (ec) return Abort();
        const Plan& p = m_Plan;
        if (p.reset && !m_HeadOnly && m_Sent >= p.resetAfter) return ResetWhenDrained(std::chrono::steady_clock::now());
        if (m_BodyDone) return Finish();
        m_Out.clear();
        if (p.dripPiece > 0) {
            m_Timer.expires_after(p.dripInterval);
            m_Timer.async_wait([self = this->shared_from_this()](error_code ec) {
                if (ec) return;
                self->AppendBody(static_cast<size_t>(self->m_Plan.dripPiece));
                self->Write();
            });
            return;
        }
        AppendBody(kPiece);
        Write();
    }

    // Waits (bounded) until the kernel has sent everything written so far, so
    // the client really gets the announced bytes before the reset.
    void ResetWhenDrained(std::chrono::steady_clock::time_point since) {
        int queued = 0;
        if (ioctl(Socket().native_handle(), SIOCOUTQ, &queued) == 0 && queued > 0 &&
            std::chrono::steady_clock::now() - since < std::chrono::seconds(2)) {
            m_Timer.expires_after(std::chrono::milliseconds(1));
            m_Timer.async_wait([self = this->shared_from_this(), since](error_code ec) {
                if (ec) return;
                self->ResetWhenDrained(since);
            });
            return;
        }
        error_code ignored;
        Socket().set_option(net::socket_base::linger(true, 0), ignored);
        Socket().close(ignored);
    }

    void Finish() {
        if (m_DropAfter) {
            // Dropped without notice, as a server that times out idle
            // connections would do.
            error_code ignored;
            Socket().shutdown(tcp::socket::shutdown_both, ignored);
            return Abort();
        }
        if (m_Plan.close || !m_KeepAlive) return CloseGracefully();
        ReadHeader();
    }

    // Send our end-of-stream and give the client a moment to read everything
    // and close its side, so no unread data turns our close into a reset.
    void CloseGracefully() {
        m_Timer.expires_after(kCloseGrace);
        m_Timer.async_wait([self = this->shared_from_this()](error_code ec) {
            if (!ec) self->Abort();
        });
        if constexpr (kTls) {
            m_Stream.async_shutdown([self = this->shared_from_this()](error_code) { self->Abort(); });
        } else {
            error_code ignored;
            Socket().shutdown(tcp::socket::shutdown_send, ignored);
            Drain();
        }
    }

    void Drain() {
        if (m_ReadBuf.size() < kPiece) m_ReadBuf.resize(kPiece);
        Socket().async_read_some(net::buffer(m_ReadBuf), [self = this->shared_from_this()](error_code ec, size_t) {
            if (ec) return self->Abort();
            self->Drain();
        });
    }

    Shared& m_Shared;
    const uint64_t m_Id;
    Stream m_Stream;
    net::steady_timer m_Timer;
    beast::flat_buffer m_Buffer;
    std::optional<http::request_parser<http::buffer_body>> m_Parser;
    std::vector<char> m_ReadBuf;
    std::string m_Out;

    RecordedRequest m_Rec;
    std::optional<Sha256> m_Sha;
    std::string m_EchoBody;
    Plan m_Plan;
    bool m_KeepAlive = true;
    bool m_HeadOnly = false;
    bool m_BodyDone = false;
    bool m_DropAfter = false;
    uint64_t m_Sent = 0;  // body bytes sent (decoded, without chunk framing)
    uint64_t m_Part = 0, m_PartSent = 0;
};

}  // namespace

std::string RecordedRequest::Header(std::string_view name) const {
    for (const auto& [n, v] : headers)
        if (IEquals(n, name)) return v;
    return {};
}

bool RecordedRequest::HasHeader(std::string_view name) const {
    for (const auto& h : headers)
        if (IEquals(h.first, name)) return true;
    return false;
}

struct HttpTestServer::Impl {
    Shared shared;
    detail::AsioServer io;

    explicit Impl(const Options& options) : shared(options), io(options.tls, options.ipv6, "http/1.1") {}
    // Sessions refer to `shared`: end them all before it goes.
    ~Impl() { io.Stop(); }
};

HttpTestServer::HttpTestServer() : HttpTestServer(Options{}) {}

HttpTestServer::HttpTestServer(const Options& options) : m_Impl(std::make_unique<Impl>(options)) {
    Impl* impl = m_Impl.get();
    impl->io.Start(options.threads, [impl](tcp::socket socket) {
        uint64_t id = impl->shared.connections.fetch_add(1) + 1;
        if (impl->io.Ssl()) {
            std::make_shared<Session<net::ssl::stream<tcp::socket>>>(impl->shared, id, std::move(socket),
                                                                     *impl->io.Ssl())
                ->Start();
        } else {
            std::make_shared<Session<tcp::socket>>(impl->shared, id, std::move(socket))->Start();
        }
    });
}

HttpTestServer::~HttpTestServer() = default;

uint16_t HttpTestServer::Port() const { return m_Impl->io.Port(); }

std::string HttpTestServer::Url(const std::string& path) const {
    const Options& o = m_Impl->shared.options;
    return std::string(o.tls ? "https://" : "http://") + detail::UrlHost(o.tls, o.ipv6) + ":" +
           std::to_string(Port()) + (path.empty() || path[0] != '/' ? "/" : "") + path;
}

uint64_t HttpTestServer::ConnectionCount() const { return m_Impl->shared.connections.load(); }
int HttpTestServer::OpenConnections() const { return m_Impl->shared.open.load(); }
uint64_t HttpTestServer::RequestCount() const { return m_Impl->shared.requests.load(); }

RecordedRequest HttpTestServer::LastRequest() const {
    std::lock_guard<std::mutex> lock(m_Impl->shared.mutex);
    const auto& items = m_Impl->shared.records.Items();
    return items.empty() ? RecordedRequest{} : items.back();
}

std::vector<RecordedRequest> HttpTestServer::Requests() const {
    std::lock_guard<std::mutex> lock(m_Impl->shared.mutex);
    const auto& items = m_Impl->shared.records.Items();
    return {items.begin(), items.end()};
}

void HttpTestServer::ClearRequests() {
    std::lock_guard<std::mutex> lock(m_Impl->shared.mutex);
    m_Impl->shared.records.Clear();
}

bool HttpTestServer::WaitForRequests(uint64_t n, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_Impl->shared.mutex);
    return m_Impl->shared.cond.wait_for(lock, timeout, [&] { return m_Impl->shared.requests.load() >= n; });
}

void HttpTestServer::SetCloseEveryNth(int n) {
    m_Impl->shared.nthCounter.store(0);
    m_Impl->shared.closeEveryNth.store(n < 0 ? 0 : n);
}

}  // namespace testsupport
