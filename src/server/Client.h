#pragma once

#include <memory>
#include <string>
#include <vector>

#include "server/WebSocketSession.h"

namespace velmora {

// One page connection the server has admitted. Confined to the server's queue.
struct Client {
    // Fixed at creation.
    std::shared_ptr<WebSocketSession> connection;
    // Empty until the connection is ready; then the server's last accepted origin.
    std::string origin;
    // From ready until dropped; only open clients are sent anything.
    bool open = false;
    // A page handled without a connection (HelperServer::handleTextWithoutConnection) is sent
    // its messages here instead.
    std::vector<std::string>* outbox = nullptr;
};

}  // namespace velmora
