#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/system/error_code.hpp>
#include <cstdint>
#include <functional>
#include <memory>

#include "server/WebSocketLimits.h"
#include "server/WebSocketListener.h"

namespace velmora::conformance {

// The helper's own WebSocket stack (WebSocketListener, WebSocketUpgrade, WebSocketSession)
// serving an echo in place of the page protocol: every text or binary message comes back as it
// arrived. Every upgrade is admitted (no origin or pass check); the limits are the helper's.
// Standard WebSocket conformance suites run against it. Everything runs on the io_context's
// thread.
class EchoServer {
  public:
    // Told when the listener is ready (with its port) or has failed (with the error).
    using StateHandler =
        std::function<void(WebSocketListener::State state, const boost::system::error_code& error,
                           std::uint16_t port)>;

    EchoServer(boost::asio::io_context& context, StateHandler onState, WebSocketLimits limits = {});
    ~EchoServer();
    EchoServer(const EchoServer&) = delete;
    EchoServer& operator=(const EchoServer&) = delete;

    // Listens on 127.0.0.1:port (0: any free port); the outcome reaches the state handler.
    void start(std::uint16_t port);
    // Stops listening and closes every open connection.
    void stop();

  private:
    class Events;

    boost::asio::io_context& context_;
    WebSocketLimits limits_;
    std::shared_ptr<Events> events_;
    std::shared_ptr<WebSocketListener> listener_;
};

}  // namespace velmora::conformance
