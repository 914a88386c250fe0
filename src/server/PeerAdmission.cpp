#include "server/PeerAdmission.h"

#include <unistd.h>

#include <algorithm>
#include <boost/beast/http/field.hpp>
#include <string>
#include <unordered_set>

#include "config/Log.h"
#include "server/HostHeader.h"

namespace velmora {

PeerAdmission::PeerAdmission(std::shared_ptr<PeerOwnerLookup> lookup, WebSocketLimits limits)
    : lookup_(std::move(lookup)),
      limits_(limits),
      ownUid_(static_cast<std::uint32_t>(::getuid())) {}

PeerAdmission::Verdict PeerAdmission::check(const WebSocketSession::UpgradeRequest& request,
                                            const ConnectionEndpoints& endpoints,
                                            std::uint16_t port,
                                            const std::vector<std::uint64_t>& openPeerSockets) {
    // Another account's process is refused whatever it sends, so this comes first.
    const std::optional<PeerSocket> peer =
        lookup_ ? lookup_->find(endpoints.local, endpoints.remote) : std::nullopt;
    if (!peer) {
        log("Rejected connection whose owner could not be found");
        return {};
    }
    if (peer->ownerUid != ownUid_) {
        log("Rejected connection from another user (uid " + std::to_string(peer->ownerUid) + ")");
        return {};
    }
    if (!isOwnHost(request[boost::beast::http::field::host], port)) {
        // The value is the page's to choose, so it stays out of the log.
        log("Rejected connection: its Host header names another address");
        return {};
    }
    if (!hasRoom(peer->inode, openPeerSockets)) return {Admission::unavailable, 0};
    return {Admission::admitted, peer->inode};
}

bool PeerAdmission::hasRoom(std::uint64_t peerSocket,
                            const std::vector<std::uint64_t>& openPeerSockets) {
    if (openPeerSockets.size() >= limits_.maxConnections) {
        if (!refusingAll_) {
            log("Refusing connections: " + std::to_string(openPeerSockets.size()) +
                " are open, the most this helper keeps");
        }
        refusingAll_ = true;
        return false;
    }
    refusingAll_ = false;
    // Finding processes reads /proc, so it waits until one process could have reached its cap.
    if (openPeerSockets.size() >= limits_.maxConnectionsPerProcess) {
        std::unordered_set<std::uint64_t> inodes(openPeerSockets.begin(), openPeerSockets.end());
        inodes.insert(peerSocket);
        const auto holders = lookup_->processesHolding(inodes);
        const auto holder = holders.find(peerSocket);
        // A peer whose process cannot be seen is held to the overall cap only.
        if (holder != holders.end()) {
            const int process = holder->second;
            const auto held = static_cast<std::size_t>(std::count_if(
                openPeerSockets.begin(), openPeerSockets.end(), [&](std::uint64_t inode) {
                    const auto found = holders.find(inode);
                    return found != holders.end() && found->second == process;
                }));
            if (held >= limits_.maxConnectionsPerProcess) {
                if (refusingProcess_ != process) {
                    log("Refusing connections from process " + std::to_string(process) +
                        ": it has " + std::to_string(held) +
                        " open, the most one process may keep");
                }
                refusingProcess_ = process;
                return false;
            }
        }
    }
    refusingProcess_.reset();
    return true;
}

}  // namespace velmora
