#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "server/WebSocketSession.h"

namespace velmora {

// One page connection the server has admitted. Confined to the server's queue.
struct Client {
    // Fixed at creation.
    std::shared_ptr<WebSocketSession> connection;
    // The socket at the page's end, as the peer check found it; counts the page towards its
    // process's connections.
    std::uint64_t peerSocket = 0;
    // Empty until the connection is ready; then the server's last accepted origin.
    std::string origin;
    // From ready until dropped; only open clients are sent anything.
    bool open = false;
};

}  // namespace velmora
