#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "server/PeerOwnerLookup.h"
#include "server/WebSocketLimits.h"
#include "server/WebSocketListenerDelegate.h"
#include "server/WebSocketSession.h"

namespace velmora {

// The checks on a connection that come before its origin is looked at: the peer's process
// belongs to the user running the helper, the request names the helper's own address, and the
// server has room for one more connection overall and from that process. Not thread-safe: runs
// on the server's queue.
class PeerAdmission {
  public:
    struct Verdict {
        Admission admission = Admission::forbidden;
        // The peer's socket, for an admitted connection.
        std::uint64_t peerSocket = 0;
    };

    PeerAdmission(std::shared_ptr<PeerOwnerLookup> lookup, WebSocketLimits limits);

    // `port` is the port the server listens on; `openPeerSockets` are the peer sockets of the
    // connections admitted and not yet closed. Logs why a connection is refused (refusals for
    // want of room once per burst).
    Verdict check(const WebSocketSession::UpgradeRequest& request,
                  const ConnectionEndpoints& endpoints, std::uint16_t port,
                  const std::vector<std::uint64_t>& openPeerSockets);

  private:
    bool hasRoom(std::uint64_t peerSocket, const std::vector<std::uint64_t>& openPeerSockets);

    std::shared_ptr<PeerOwnerLookup> lookup_;
    WebSocketLimits limits_;
    std::uint32_t ownUid_;
    // Set while refusals for want of room go on; the first one of a burst is logged.
    bool refusingAll_ = false;
    std::optional<int> refusingProcess_;
};

}  // namespace velmora
