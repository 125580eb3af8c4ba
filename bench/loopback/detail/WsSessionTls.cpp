// WebSocket connections over TLS, built apart from the other kind so the two
// heavy instantiations compile in parallel.
#include "loopback/detail/WsSession.h"

namespace testsupport::detail {

void StartWssSession(WsShared& shared, uint64_t id, boost::asio::ip::tcp::socket socket,
                     boost::asio::ssl::context& ssl) {
    using Stream = boost::asio::ssl::stream<boost::asio::ip::tcp::socket>;
    std::make_shared<wsimpl::WsSession<Stream>>(shared, id, std::move(socket), ssl)->Start();
}

}  // namespace testsupport::detail
