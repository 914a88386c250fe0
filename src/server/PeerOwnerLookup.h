#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <unordered_set>

namespace velmora {

// The socket at the other end of an accepted loopback connection.
struct PeerSocket {
    std::uint32_t ownerUid = 0;
    // Identifies the socket among those the peer's processes hold.
    std::uint64_t inode = 0;
};

// Finds who holds the client end of a TCP connection on this machine. The platform supplies
// the implementation; tests substitute their own. Calls may block briefly on the kernel.
class PeerOwnerLookup {
  public:
    virtual ~PeerOwnerLookup() = default;

    // The socket whose own address is `remote` and whose peer is `local`, as the accepted
    // socket sees them. Nothing when no process holds such a socket or the system would not
    // tell: such a peer has no owner that could be admitted.
    virtual std::optional<PeerSocket> find(const boost::asio::ip::tcp::endpoint& local,
                                           const boost::asio::ip::tcp::endpoint& remote) = 0;

    // For each of `inodes` that one of this user's processes holds, the id of one such process.
    // Sockets that no visible process holds are left out.
    virtual std::unordered_map<std::uint64_t, int> processesHolding(
        const std::unordered_set<std::uint64_t>& inodes) = 0;

    // This platform's lookup.
    static std::shared_ptr<PeerOwnerLookup> platform();
};

}  // namespace velmora
