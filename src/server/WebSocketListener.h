#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <memory>
#include <unordered_map>

#include "server/WebSocketLimits.h"
#include "server/WebSocketListenerDelegate.h"

namespace velmora {

class WebSocketUpgrade;

// A TCP listener for WebSocket connections: accepts, keeps at most maxPendingUpgrades
// connections in their upgrade phase, and lets the delegate admit each upgrade. Not
// thread-safe: every member runs on the io_context's one thread.
class WebSocketListener final : public std::enable_shared_from_this<WebSocketListener> {
  public:
    using Delegate = WebSocketListenerDelegate;
    using State = WebSocketListenerDelegate::State;

    // Creates the TCP socket with address reuse on. Throws boost::system::system_error when
    // the socket cannot be created.
    static std::shared_ptr<WebSocketListener> create(boost::asio::io_context& context,
                                                     std::shared_ptr<Delegate> delegate,
                                                     const WebSocketLimits& limits);

    // Binds and listens, then accepts until cancelled. The outcome (ready or failed) reaches the
    // delegate later, from the io_context, never from inside this call.
    void start(const boost::asio::ip::tcp::endpoint& endpoint);

    // Stops accepting, closes the connections still in their upgrade phase, and reports
    // cancelled (later, from the io_context). Established sessions are not touched.
    void cancel();

    // The bound port once started; 0 before.
    std::uint16_t port() const { return port_; }
    std::size_t pendingUpgrades() const { return pending_.size(); }

  private:
    WebSocketListener(boost::asio::io_context& context, std::shared_ptr<Delegate> delegate,
                      const WebSocketLimits& limits);

    void report(State state, const boost::system::error_code& error);
    void acceptNext();
    void accepted(const boost::system::error_code& error, boost::asio::ip::tcp::socket socket);

    boost::asio::io_context& context_;
    boost::asio::ip::tcp::acceptor acceptor_;
    boost::asio::steady_timer acceptPause_;
    std::shared_ptr<Delegate> delegate_;
    WebSocketLimits limits_;
    std::unordered_map<WebSocketUpgrade*, std::weak_ptr<WebSocketUpgrade>> pending_;
    std::uint16_t port_ = 0;
    bool cancelled_ = false;
    boost::system::error_code lastAcceptError_;
};

}  // namespace velmora
