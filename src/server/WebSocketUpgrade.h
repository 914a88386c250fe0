#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/status.hpp>
#include <functional>
#include <memory>
#include <optional>

#include "server/WebSocketLimits.h"
#include "server/WebSocketListenerDelegate.h"
#include "server/WebSocketSession.h"

namespace velmora {

// One accepted TCP connection in its upgrade phase: reads the HTTP request (within the handshake
// time, headers capped), answers anything that is not a WebSocket upgrade with an HTTP error,
// asks the delegate to admit it, and hands an admitted one to a new WebSocketSession. The phase
// ends when the session's upgrade answer is written or the connection is closed.
class WebSocketUpgrade final : public std::enable_shared_from_this<WebSocketUpgrade> {
  public:
    WebSocketUpgrade(boost::asio::ip::tcp::socket socket, const WebSocketLimits& limits,
                     std::shared_ptr<WebSocketListenerDelegate> delegate);

    // `finished` is called once, when the phase is over either way.
    void run(std::function<void()> finished);
    // Closes the connection, whatever stage it is in.
    void cancel();

  private:
    void requestRead(const boost::system::error_code& error);
    void decide(WebSocketSession::UpgradeRequest request);
    void refuse(boost::beast::http::status status);
    void finish();

    boost::beast::tcp_stream stream_;
    WebSocketLimits limits_;
    std::shared_ptr<WebSocketListenerDelegate> delegate_;
    boost::beast::flat_buffer buffer_;
    std::optional<boost::beast::http::request_parser<boost::beast::http::empty_body>> parser_;
    boost::beast::http::response<boost::beast::http::empty_body> refusal_;
    std::shared_ptr<WebSocketSession> session_;  // during the upgrade answer
    bool handedOver_ = false;                    // stream_ now belongs to the session
    std::function<void()> finished_;
};

}  // namespace velmora
