// Internal to WsTestServer: one WebSocket connection, as a template over the
// next layer (TCP socket or TLS stream). Included by WsSessionPlain.cpp and
// WsSessionTls.cpp only.
#pragma once

#include <boost/asio/post.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/stream_traits.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>

#include <optional>
#include <sstream>
#include <type_traits>

#include "loopback/TestData.h"
#include "loopback/detail/WsShared.h"

namespace testsupport::detail {

namespace wsimpl {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;
using error_code = boost::system::error_code;

constexpr size_t kReadPiece = 256 * 1024;
constexpr uint64_t kKeepPayload = 1 << 20;        // records keep payloads below this
constexpr uint64_t kSingleFrameMax = 16ull << 20;  // cmd:big up to this goes as one frame
constexpr size_t kBigFrame = 1 << 20;
constexpr uint64_t kQueueHigh = 16ull << 20;  // stop reading while this much waits to be sent

enum class Mode { Echo, SlowRead, Silent };

// One thing to send, in order with everything else the connection sends.
struct Out {
    enum Kind { Message, Frag, Ping, Close, Drop, Reset, Big } kind = Message;
    bool text = true;
    std::string data;    // message payload, text to fragment, ping payload, close reason
    uint64_t n = 0;      // frame count (Frag), size (Big), close code (Close)
    bool emptyLast = false;
};

template <class NextLayer>
class WsSession : public WsSessionBase, public std::enable_shared_from_this<WsSession<NextLayer>> {
    static constexpr bool kTls = !std::is_same_v<NextLayer, tcp::socket>;

public:
    template <class... Args>
    WsSession(WsShared& shared, uint64_t id, Args&&... args)
        : m_Shared(shared), m_Id(id), m_Ws(std::forward<Args>(args)...), m_Timer(m_Ws.get_executor()) {}

    ~WsSession() override {
        std::lock_guard<std::mutex> lock(m_Shared.mutex);
        m_Shared.live.erase(m_Id);
    }

    void Start() {
        m_Shared.Update(m_Id, [&](WsConnectionInfo& info) { info.id = m_Id; });
        if constexpr (kTls) {
            m_Ws.next_layer().async_handshake(net::ssl::stream_base::server,
                                              [self = this->shared_from_this()](error_code ec) {
                                                  if (ec) return self->Kill();
                                                  self->ReadUpgrade();
                                              });
        } else {
            ReadUpgrade();
        }
    }

    void Post(std::string item) override {
        net::post(m_Ws.get_executor(),
                  [self = this->shared_from_this(), item = std::move(item)] { self->RunItem(item, false); });
    }

private:
    tcp::socket& Socket() { return beast::get_lowest_layer(m_Ws); }

    void Kill() {
        error_code ignored;
        m_Timer.cancel();
        Socket().close(ignored);
        // The queue stays: a write in progress may still refer to its front.
        m_Dead = true;
    }

    void ReadUpgrade() {
        m_Req.body_limit(1 << 20);
        m_Req.header_limit(1 << 20);
        http::async_read(m_Ws.next_layer(), m_Buffer, m_Req,
                         [self = this->shared_from_this()](error_code ec, size_t) {
                             if (ec) return self->Kill();
                             self->OnUpgradeRequest();
                         });
    }

    static uint64_t Num(const std::map<std::string, std::string>& q, const char* name, uint64_t def) {
        auto it = q.find(name);
        return it == q.end() || it->second.empty() ? def : std::strtoull(it->second.c_str(), nullptr, 10);
    }

    void OnUpgradeRequest() {
        const auto& req = m_Req.get();
        std::string target(req.target());
        m_Shared.Update(m_Id, [&](WsConnectionInfo& info) {
            info.target = target;
            for (const auto& f : req) info.headers.emplace_back(f.name_string(), f.value());
        });

        std::string path = target.substr(0, target.find('?'));
        std::map<std::string, std::string> query;
        if (size_t q = target.find('?'); q != std::string::npos) {
            std::istringstream items(target.substr(q + 1));
            for (std::string item; std::getline(items, item, '&');) {
                size_t eq = item.find('=');
                query[item.substr(0, eq)] = eq == std::string::npos ? "" : item.substr(eq + 1);
            }
        }

        if (path.rfind("/refuse/", 0) == 0) {
            int code = std::atoi(path.c_str() + 8);
            if (code < 100 || code > 599 || code == 101) code = 400;
            return Refuse(code, "refused");
        }
        if (!websocket::is_upgrade(req)) return Refuse(400, "expected a WebSocket upgrade\n");

        if (path == "/slowread") {
            m_Mode = Mode::SlowRead;
            m_SlowPause = std::chrono::milliseconds(Num(query, "pause", 500));
            m_SlowPiece = std::max<size_t>(1, Num(query, "piece", 16384));
            m_SlowInterval = std::chrono::milliseconds(Num(query, "interval", 2));
            error_code ignored;
            Socket().set_option(net::socket_base::receive_buffer_size(64 * 1024), ignored);
        } else if (path == "/silent") {
            m_Mode = Mode::Silent;
        }

        m_Ws.auto_fragment(false);    // one frame per message unless asked otherwise
        m_Ws.read_message_max(0);     // no limit; big messages are streamed, not kept
        std::string protocol(req[http::field::sec_websocket_protocol]);
        protocol = protocol.substr(0, protocol.find(','));
        while (!protocol.empty() && protocol.back() == ' ') protocol.pop_back();
        m_Ws.set_option(websocket::stream_base::decorator([protocol](websocket::response_type& res) {
            res.set(http::field::server, "netloop-test");
            if (!protocol.empty()) res.set(http::field::sec_websocket_protocol, protocol);
        }));
        m_Ws.control_callback([this](websocket::frame_type kind, beast::string_view) {
            if (kind == websocket::frame_type::pong) m_Shared.Update(m_Id, [](WsConnectionInfo& i) { ++i.pongs; });
        });
        m_Ws.async_accept(req, [self = this->shared_from_this()](error_code ec) {
            if (ec) return self->Kill();
            self->OnUpgraded();
        });
    }

    void Refuse(int code, const char* body) {
        auto res = std::make_shared<http::response<http::string_body>>(static_cast<http::status>(code),
                                                                       m_Req.get().version());
        res->set(http::field::server, "netloop-test");
        res->set(http::field::content_type, "text/plain");
        res->body() = body;
        res->keep_alive(false);
        res->prepare_payload();
        http::async_write(m_Ws.next_layer(), *res, [self = this->shared_from_this(), res](error_code ec, size_t) {
            if (ec) return self->Kill();
            self->CloseAfterRefusal();
        });
    }

    void CloseAfterRefusal() {
        m_Timer.expires_after(std::chrono::seconds(1));
        m_Timer.async_wait([self = this->shared_from_this()](error_code ec) {
            if (!ec) self->Kill();
        });
        if constexpr (kTls) {
            m_Ws.next_layer().async_shutdown([self = this->shared_from_this()](error_code) { self->Kill(); });
        } else {
            error_code ignored;
            Socket().shutdown(tcp::socket::shutdown_send, ignored);
            // Wait for the client's close so our close cannot reset the reply.
            Socket().async_wait(tcp::socket::wait_read,
                                [self = this->shared_from_this()](error_code) { self->Kill(); });
        }
    }

    void OnUpgraded() {
        m_Upgraded = true;
        std::vector<std::string> onConnect;
        {
            std::lock_guard<std::mutex> lock(m_Shared.mutex);
            m_Shared.live[m_Id] = this->shared_from_this();
            m_Shared.infos[m_Id].upgraded = true;
            m_Shared.upgrades.fetch_add(1);
            onConnect = m_Shared.onConnect;
        }
        m_Shared.cond.notify_all();
        if (m_Mode != Mode::Silent)
            for (const auto& item : onConnect) RunItem(item, false);
        if (m_Mode == Mode::SlowRead) {
            m_Timer.expires_after(m_SlowPause);
            m_Timer.async_wait([self = this->shared_from_this()](error_code ec) {
                if (!ec) self->Read();
            });
        } else {
            Read();
        }
    }

    // ---- reading ----

    void Read() {
        if (m_Reading || m_Dead || (m_ReadPaused && !m_Closing)) return;
        m_Reading = true;
        size_t want = m_Mode == Mode::SlowRead ? m_SlowPiece : kReadPiece;
        if (m_ReadBuf.size() < want) m_ReadBuf.resize(want);
        m_Ws.async_read_some(net::buffer(m_ReadBuf.data(), want),
                             [self = this->shared_from_this()](error_code ec, size_t n) { self->OnRead(ec, n); });
    }

    uint64_t KeepLimit() const { return m_Mode == Mode::Echo ? m_Shared.options.maxEchoBytes : kKeepPayload; }

    void OnRead(error_code ec, size_t n) {
        m_Reading = false;
        if (ec) return OnEnded(ec);
        if (!m_InMessage) {
            m_InMessage = true;
            m_CurText = m_Ws.got_text();
            m_CurSha.emplace();
            m_CurSize = 0;
            m_Cur.clear();
            m_CurKept = true;
        }
        m_CurSha->Update(m_ReadBuf.data(), n);
        m_CurSize += n;
        if (m_CurKept) {
            if (m_CurSize <= KeepLimit()) {
                m_Cur.append(m_ReadBuf.data(), n);
            } else {
                m_CurKept = false;
                std::string().swap(m_Cur);
            }
        }
        if (m_Ws.is_message_done()) {
            m_InMessage = false;
            OnMessage();
        }
        if (m_Mode == Mode::SlowRead && !m_Dead) {
            m_Timer.expires_after(m_SlowInterval);
            m_Timer.async_wait([self = this->shared_from_this()](error_code ec) {
                if (!ec) self->Read();
            });
            return;
        }
        Read();
    }

    void OnMessage() {
        WsMessage msg;
        msg.connection = m_Id;
        msg.index = m_Received++;
        msg.text = m_CurText;
        msg.size = m_CurSize;
        msg.sha256 = m_CurSha->Hex();
        if (m_CurSize < kKeepPayload) msg.payload = m_Cur;
        msg.payloadKept = m_CurSize < kKeepPayload;
        m_Shared.Record(std::move(msg));

        if (m_Mode == Mode::Silent) return;
        if (m_CurText && m_CurKept && m_Cur.compare(0, 4, "cmd:") == 0) return RunItem(m_Cur, true);
        if (m_Shared.echo.load() && m_CurKept) {
            Out out;
            out.kind = Out::Message;
            out.text = m_CurText;
            out.data = std::move(m_Cur);
            Enqueue(std::move(out));
        }
        m_Cur.clear();
    }

    void OnEnded(error_code ec) {
        bool wasOpen = !m_Ended;
        m_Ended = true;
        int code = -1;
        std::string reason;
        if (ec == websocket::error::closed && m_Ws.reason().code != websocket::close_code::none) {
            code = m_Ws.reason().code;
            reason = std::string(m_Ws.reason().reason.data(), m_Ws.reason().reason.size());
        } else if (ec == websocket::error::closed) {
            code = 1005;  // a close frame without status
        }
        Kill();
        if (wasOpen && m_Upgraded) {
            {
                std::lock_guard<std::mutex> lock(m_Shared.mutex);
                WsConnectionInfo& info = m_Shared.infos[m_Id];
                info.closed = true;
                info.closeCode = code;
                info.closeReason = reason;
                m_Shared.live.erase(m_Id);
                m_Shared.closed.fetch_add(1);
            }
            m_Shared.cond.notify_all();
        }
    }

    // ---- commands ----

    // `fromPeer`: the item arrived as a message (cmd:count leaves itself out).
    void RunItem(const std::string& item, bool fromPeer) {
        if (m_Dead || m_Closing) return;
        Out out;
        if (item.compare(0, 4, "cmd:") != 0) {
            out.data = item;
            return Enqueue(std::move(out));
        }
        std::istringstream in(item.substr(4));
        std::string name;
        in >> name;
        auto rest = [&in] {
            std::string r;
            std::getline(in >> std::ws, r);
            return r;
        };
        uint64_t n = 0;
        if (name == "frag" || name == "fragempty") {
            in >> n;
            out.kind = Out::Frag;
            out.emptyLast = name == "fragempty";
            out.n = std::max<uint64_t>(out.emptyLast ? 2 : 1, n);
            out.data = rest();
        } else if (name == "ping") {
            out.kind = Out::Ping;
            out.data = rest().substr(0, 125);
        } else if (name == "close") {
            in >> n;
            out.kind = Out::Close;
            out.n = n;
            out.data = rest().substr(0, 123);
        } else if (name == "big" || name == "bigtext") {
            in >> n;
            out.kind = Out::Big;
            out.text = name == "bigtext";
            out.n = n;
        } else if (name == "empty") {
            // empty text message
        } else if (name == "text") {
            out.data = rest();
        } else if (name == "drop") {
            out.kind = Out::Drop;
        } else if (name == "reset") {
            out.kind = Out::Reset;
        } else if (name == "count") {
            out.data = std::to_string(fromPeer ? m_Received - 1 : m_Received);
        } else {
            out.data = "unknown command: " + item;
        }
        Enqueue(std::move(out));
    }

    // ---- writing ----

    void Enqueue(Out out) {
        if (m_Dead || m_Closing) return;
        m_Queued += out.data.size();
        m_Queue.push_back(std::move(out));
        if (m_Queued > kQueueHigh) m_ReadPaused = true;  // the client is not reading: neither do we
        Pump();
    }

    void Pump() {
        if (m_Writing || m_Queue.empty() || m_Dead) return;
        m_Writing = true;
        m_Step = 0;
        Out& out = m_Queue.front();
        auto done = [self = this->shared_from_this()](error_code ec, size_t) { self->OnWritten(ec); };
        switch (out.kind) {
            case Out::Message:
                m_Ws.text(out.text);
                m_Ws.async_write(net::buffer(out.data), done);
                break;
            case Out::Frag:
            case Out::Big:
                m_Ws.text(out.text);
                WriteStep();
                break;
            case Out::Ping:
                m_Ws.async_ping(websocket::ping_data(out.data.c_str()),
                                [self = this->shared_from_this()](error_code ec) { self->OnWritten(ec); });
                break;
            case Out::Close: {
                m_Closing = true;
                m_ReadPaused = false;
                websocket::close_reason cr;
                if (out.n != 0) {
                    cr.code = static_cast<std::uint16_t>(out.n);
                    cr.reason = out.data;
                }
                // The read loop sees the peer's close frame and ends the session.
                m_Ws.async_close(cr, [self = this->shared_from_this()](error_code ec) {
                    if (ec) self->OnEnded(ec);
                });
                m_Queue.clear();
                m_Queued = 0;
                Read();
                break;
            }
            case Out::Drop:
            case Out::Reset: {
                error_code ignored;
                if (out.kind == Out::Reset) Socket().set_option(net::socket_base::linger(true, 0), ignored);
                else Socket().shutdown(tcp::socket::shutdown_both, ignored);
                Socket().close(ignored);
                m_Dead = true;
                break;
            }
        }
    }

    // One frame of a fragmented or generated message per step.
    void WriteStep() {
        Out& out = m_Queue.front();
        auto next = [self = this->shared_from_this()](error_code ec, size_t) {
            if (ec) return self->OnWritten(ec);
            ++self->m_Step;
            if (self->m_StepLast) return self->OnWritten({});
            self->WriteStep();
        };
        if (out.kind == Out::Frag) {
            uint64_t pieces = out.emptyLast ? out.n - 1 : out.n;
            size_t len = out.data.size();
            if (m_Step < pieces) {
                size_t from = static_cast<size_t>(len * m_Step / pieces);
                size_t to = static_cast<size_t>(len * (m_Step + 1) / pieces);
                m_StepLast = !out.emptyLast && m_Step + 1 == pieces;
                m_Ws.async_write_some(m_StepLast, net::buffer(out.data.data() + from, to - from), next);
            } else {
                m_StepLast = true;
                m_Ws.async_write_some(true, net::const_buffer(), next);
            }
            return;
        }
        // Big: generated on the fly, so gigabytes cost no memory.
        uint64_t from = out.n <= kSingleFrameMax ? 0 : m_Step * kBigFrame;
        uint64_t piece = out.n <= kSingleFrameMax ? out.n : std::min<uint64_t>(kBigFrame, out.n - from);
        m_Gen.resize(static_cast<size_t>(piece));
        if (out.text)
            FillDeterministicText(from, m_Gen.data(), m_Gen.size());
        else
            FillDeterministicBytes(from, m_Gen.data(), m_Gen.size());
        m_StepLast = from + piece == out.n;
        m_Ws.async_write_some(m_StepLast, net::buffer(m_Gen), next);
    }

    void OnWritten(error_code ec) {
        m_Writing = false;
        if (m_Gen.capacity() > kBigFrame) std::string().swap(m_Gen);
        if (ec) return;  // the read side notices the broken connection and ends the session
        if (!m_Queue.empty()) {
            m_Queued -= m_Queue.front().data.size();
            m_Queue.pop_front();
        }
        if (m_ReadPaused && m_Queued < kQueueHigh / 2) {
            m_ReadPaused = false;
            Read();
        }
        Pump();
    }

    WsShared& m_Shared;
    const uint64_t m_Id;
    websocket::stream<NextLayer> m_Ws;
    net::steady_timer m_Timer;
    beast::flat_buffer m_Buffer;
    http::request_parser<http::string_body> m_Req;
    Mode m_Mode = Mode::Echo;
    std::chrono::milliseconds m_SlowPause{0}, m_SlowInterval{0};
    size_t m_SlowPiece = 0;
    bool m_Upgraded = false, m_Ended = false, m_Dead = false, m_Closing = false;

    std::vector<char> m_ReadBuf;
    bool m_Reading = false, m_ReadPaused = false;
    bool m_InMessage = false, m_CurText = false, m_CurKept = true;
    std::optional<Sha256> m_CurSha;
    uint64_t m_CurSize = 0;
    std::string m_Cur;
    uint64_t m_Received = 0;

    std::deque<Out> m_Queue;
    uint64_t m_Queued = 0;
    bool m_Writing = false, m_StepLast = false;
    uint64_t m_Step = 0;
    std::string m_Gen;
};


}  // namespace wsimpl

}  // namespace testsupport::detail
