#pragma once

#include <boost/system/error_code.hpp>
#include <memory>

#include "server/WebSocketSession.h"

namespace velmora {

class WebSocketListener;

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

    // Decides on an upgrade request from its headers. False refuses it: the peer is answered 403
    // and closed, and no session exists.
    virtual bool admit(const WebSocketSession::UpgradeRequest& request) = 0;

    // An admitted connection whose upgrade is about to be answered: returns its handler.
    virtual std::shared_ptr<WebSocketSession::Handler> sessionAdmitted(
        const std::shared_ptr<WebSocketSession>& session) = 0;
};

}  // namespace velmora
