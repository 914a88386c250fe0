#include "server/WebSocketSession.h"

#include "server/BasicWebSocketSession.h"

namespace velmora {
namespace {

namespace beast = boost::beast;
using boost::system::error_code;

class SessionCategory final : public boost::system::error_category {
  public:
    const char* name() const noexcept override { return "velmora.websocket"; }
    std::string message(int value) const override {
        switch (static_cast<WebSocketSessionError>(value)) {
            case WebSocketSessionError::sendBacklog:
                return "the peer stopped reading what it is sent";
        }
        return "unknown WebSocket session error";
    }
};

}  // namespace

const boost::system::error_category& webSocketSessionCategory() {
    static const SessionCategory category;
    return category;
}

boost::system::error_code make_error_code(WebSocketSessionError error) {
    return {static_cast<int>(error), webSocketSessionCategory()};
}

std::shared_ptr<WebSocketSession> WebSocketSession::overTcp(beast::tcp_stream stream,
                                                            const WebSocketLimits& limits) {
    return std::make_shared<BasicWebSocketSession<beast::tcp_stream>>(std::move(stream), limits);
}

void tuneTransport(beast::tcp_stream& tcp, const WebSocketLimits& limits) {
    tcp.expires_never();
    error_code ignored;
    tcp.socket().set_option(boost::asio::ip::tcp::no_delay(true), ignored);
    if (limits.socketSendBufferBytes > 0) {
        tcp.socket().set_option(
            boost::asio::socket_base::send_buffer_size(limits.socketSendBufferBytes), ignored);
    }
}

template class BasicWebSocketSession<beast::tcp_stream>;

}  // namespace velmora
