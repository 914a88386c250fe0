#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>
#include <memory>

#include "server/WebSocketSession.h"

namespace velmora {

class WebSocketListener;

// The two ends of an accepted connection as its socket sees them.
struct ConnectionEndpoints {
    boost::asio::ip::tcp::endpoint local;
    boost::asio::ip::tcp::endpoint remote;
};

// What an upgrade request is answered.
enum class Admission {
    admitted,     // 101, and a session
    forbidden,    // 403
    unavailable,  // 503: the server holds as many connections as it takes
};

// What a WebSocketListener asks and tells its owner; every call comes from the listener's
// io_context thread. The listener holds its delegate strongly, so a delegate holds its own owner
// weakly.
class WebSocketListenerDelegate {
  public:
    enum class State {
        ready,      // listening
        failed,     // binding or listening failed (the error says why); nothing is accepted
        cancelled,  // cancel() was called
    };

    virtual ~WebSocketListenerDelegate() = default;

    virtual void stateChanged(WebSocketListener& listener, State state,
                              const boost::system::error_code& error) = 0;

    // Decides on an upgrade request from its headers and the connection it came on. A refused
    // peer is answered with the HTTP error and closed, and no session exists.
    virtual Admission admit(const WebSocketSession::UpgradeRequest& request,
                            const ConnectionEndpoints& endpoints) = 0;

    // An admitted connection whose upgrade is about to be answered: returns its handler.
    virtual std::shared_ptr<WebSocketSession::Handler> sessionAdmitted(
        const std::shared_ptr<WebSocketSession>& session) = 0;
};

}  // namespace velmora
