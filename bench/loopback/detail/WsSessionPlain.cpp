// WebSocket connections over plain TCP, built apart from the other kind so the two
// heavy instantiations compile in parallel.
#include "loopback/detail/WsSession.h"

namespace testsupport::detail {

void StartWsSession(WsShared& shared, uint64_t id, boost::asio::ip::tcp::socket socket) {
    std::make_shared<wsimpl::WsSession<boost::asio::ip::tcp::socket>>(shared, id, std::move(socket))->Start();
}

}  // namespace testsupport::detail
