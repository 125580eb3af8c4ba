#include "loopback/WsTestServer.h"

#include "loopback/detail/AsioServer.h"
#include "loopback/detail/WsShared.h"

namespace testsupport {

using detail::WsShared;
using detail::WsSessionBase;
using tcp = boost::asio::ip::tcp;

struct WsTestServer::Impl {
    WsShared shared;
    detail::AsioServer io;

    explicit Impl(const Options& options) : shared(options), io(options.tls, options.ipv6, "http/1.1") {}
    ~Impl() { io.Stop(); }
};

WsTestServer::WsTestServer() : WsTestServer(Options{}) {}

WsTestServer::WsTestServer(const Options& options) : m_Impl(std::make_unique<Impl>(options)) {
    Impl* impl = m_Impl.get();
    impl->io.Start(options.threads, [impl](tcp::socket socket) {
        uint64_t id = impl->shared.connections.fetch_add(1) + 1;
        if (impl->io.Ssl())
            detail::StartWssSession(impl->shared, id, std::move(socket), *impl->io.Ssl());
        else
            detail::StartWsSession(impl->shared, id, std::move(socket));
    });
}

WsTestServer::~WsTestServer() = default;

uint16_t WsTestServer::Port() const { return m_Impl->io.Port(); }

std::string WsTestServer::Url(const std::string& path) const {
    const Options& o = m_Impl->shared.options;
    return std::string(o.tls ? "wss://" : "ws://") + detail::UrlHost(o.tls, o.ipv6) + ":" + std::to_string(Port()) +
           (path.empty() || path[0] != '/' ? "/" : "") + path;
}

uint64_t WsTestServer::ConnectionCount() const { return m_Impl->shared.connections.load(); }
uint64_t WsTestServer::UpgradeCount() const { return m_Impl->shared.upgrades.load(); }
uint64_t WsTestServer::ClosedCount() const { return m_Impl->shared.closed.load(); }
uint64_t WsTestServer::MessageCount() const { return m_Impl->shared.messages.load(); }

std::vector<WsConnectionInfo> WsTestServer::Connections() const {
    std::lock_guard<std::mutex> lock(m_Impl->shared.mutex);
    std::vector<WsConnectionInfo> out;
    for (const auto& [id, info] : m_Impl->shared.infos) out.push_back(info);
    return out;
}

std::vector<WsMessage> WsTestServer::Received() const {
    std::lock_guard<std::mutex> lock(m_Impl->shared.mutex);
    const auto& items = m_Impl->shared.records.Items();
    return {items.begin(), items.end()};
}

std::vector<WsMessage> WsTestServer::ReceivedOn(uint64_t connection) const {
    std::lock_guard<std::mutex> lock(m_Impl->shared.mutex);
    std::vector<WsMessage> out;
    for (const auto& m : m_Impl->shared.records.Items())
        if (m.connection == connection) out.push_back(m);
    return out;
}

namespace {
template <class Pred>
bool WaitOn(WsShared& s, std::chrono::milliseconds timeout, Pred pred) {
    std::unique_lock<std::mutex> lock(s.mutex);
    return s.cond.wait_for(lock, timeout, pred);
}
}  // namespace

bool WsTestServer::WaitForMessages(uint64_t n, std::chrono::milliseconds timeout) const {
    return WaitOn(m_Impl->shared, timeout, [&] { return m_Impl->shared.messages.load() >= n; });
}
bool WsTestServer::WaitForUpgrades(uint64_t n, std::chrono::milliseconds timeout) const {
    return WaitOn(m_Impl->shared, timeout, [&] { return m_Impl->shared.upgrades.load() >= n; });
}
bool WsTestServer::WaitForClosed(uint64_t n, std::chrono::milliseconds timeout) const {
    return WaitOn(m_Impl->shared, timeout, [&] { return m_Impl->shared.closed.load() >= n; });
}

void WsTestServer::SetEcho(bool on) { m_Impl->shared.echo.store(on); }

void WsTestServer::SetOnConnect(std::vector<std::string> items) {
    std::lock_guard<std::mutex> lock(m_Impl->shared.mutex);
    m_Impl->shared.onConnect = std::move(items);
}

size_t WsTestServer::CommandAll(const std::string& item) {
    // Take strong references under the lock, use them outside it: a session
    // whose last reference dies here must be able to unregister itself.
    std::vector<std::shared_ptr<WsSessionBase>> sessions;
    {
        std::lock_guard<std::mutex> lock(m_Impl->shared.mutex);
        for (auto& [id, weak] : m_Impl->shared.live)
            if (auto s = weak.lock()) sessions.push_back(std::move(s));
    }
    for (auto& s : sessions) s->Post(item);
    return sessions.size();
}

}  // namespace testsupport
