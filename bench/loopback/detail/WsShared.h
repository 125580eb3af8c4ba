// Internal to WsTestServer: state shared by the server object and its
// connections, and the two ways to start a connection (plain or TLS), each
// compiled in its own file because Beast's WebSocket templates are slow to
// build. Includes Boost: never include it from a public support header.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "loopback/WsTestServer.h"
#include "loopback/detail/RecordLog.h"

namespace testsupport::detail {

class WsSessionBase {
public:
    virtual ~WsSessionBase() = default;
    virtual void Post(std::string item) = 0;
};

struct WsShared {
    explicit WsShared(const WsTestServerOptions& o)
        : options(o), records(o.maxRecords, o.maxKeptPayloadBytes, &WsMessage::payload, &WsMessage::payloadKept) {}

    WsTestServerOptions options;
    std::atomic<uint64_t> connections{0};
    std::atomic<uint64_t> upgrades{0};
    std::atomic<uint64_t> closed{0};
    std::atomic<uint64_t> messages{0};
    std::atomic<bool> echo{true};
    mutable std::mutex mutex;
    mutable std::condition_variable cond;
    RecordLog<WsMessage> records;
    std::map<uint64_t, WsConnectionInfo> infos;
    std::map<uint64_t, std::weak_ptr<WsSessionBase>> live;
    std::vector<std::string> onConnect;

    template <class F>
    void Update(uint64_t id, F&& f) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            f(infos[id]);
        }
        cond.notify_all();
    }
    void Record(WsMessage msg) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            ++infos[msg.connection].messages;
            records.Add(std::move(msg));
            messages.fetch_add(1);
        }
        cond.notify_all();
    }
};

void StartWsSession(WsShared& shared, uint64_t id, boost::asio::ip::tcp::socket socket);
void StartWssSession(WsShared& shared, uint64_t id, boost::asio::ip::tcp::socket socket,
                     boost::asio::ssl::context& ssl);

}  // namespace testsupport::detail
