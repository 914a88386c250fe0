// Peer owners from the kernel's socket diagnostics (NETLINK_SOCK_DIAG with inet_diag), asked
// for one exact connection; processes from the socket links under /proc/<pid>/fd.

#include <dirent.h>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <charconv>
#include <cstring>
#include <string>
#include <string_view>

#include "server/PeerOwnerLookup.h"

namespace velmora {
namespace {

using boost::asio::ip::tcp;

// A descriptor closed when it goes out of scope.
class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

struct DiagRequest {
    nlmsghdr header;
    inet_diag_req_v2 body;
};

// One side of the connection in the kernel's terms: the address family and the address words
// as inet_diag carries them (network byte order). IPv4 peers of an IPv6 socket are asked for
// as IPv4, which is how the kernel files them.
struct DiagAddress {
    std::uint8_t family = AF_INET;
    std::array<std::uint32_t, 4> words{};
};

DiagAddress diagAddress(const boost::asio::ip::address& address) {
    DiagAddress result;
    if (address.is_v6() && address.to_v6().is_v4_mapped()) {
        return diagAddress(
            boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, address.to_v6()));
    }
    if (address.is_v4()) {
        const auto bytes = address.to_v4().to_bytes();
        std::memcpy(result.words.data(), bytes.data(), bytes.size());
    } else {
        result.family = AF_INET6;
        const auto bytes = address.to_v6().to_bytes();
        std::memcpy(result.words.data(), bytes.data(), bytes.size());
    }
    return result;
}

// NLMSG_OK, with the remaining length and the message's length compared as one type: the macro
// mixes signed and unsigned, which clang rejects here.
bool holdsMessage(const nlmsghdr* message, int remaining) {
    return remaining >= static_cast<int>(sizeof(nlmsghdr)) &&
           message->nlmsg_len >= sizeof(nlmsghdr) &&
           message->nlmsg_len <= static_cast<unsigned int>(remaining);
}

// Whether an address in a reply is `address`. A reply about an IPv6 socket connected over
// IPv4 gives its addresses in the IPv4-mapped IPv6 form.
bool sameAddress(std::uint8_t replyFamily, const __be32 (&reply)[4], const DiagAddress& address) {
    if (replyFamily == address.family) {
        const std::size_t count = address.family == AF_INET ? 1 : 4;
        return std::memcmp(reply, address.words.data(), count * sizeof(std::uint32_t)) == 0;
    }
    if (replyFamily != AF_INET6 || address.family != AF_INET) return false;
    return reply[0] == 0 && reply[1] == 0 && reply[2] == htonl(0xffff) &&
           reply[3] == address.words[0];
}

class SocketDiagPeerOwnerLookup final : public PeerOwnerLookup {
  public:
    std::optional<PeerSocket> find(const tcp::endpoint& local,
                                   const tcp::endpoint& remote) override {
        const DiagAddress source = diagAddress(remote.address());
        const DiagAddress destination = diagAddress(local.address());
        if (source.family != destination.family) return std::nullopt;

        Descriptor netlink(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
        if (netlink.get() < 0) return std::nullopt;
        // The kernel answers at once; the timeout only guards against the unforeseen.
        timeval timeout{1, 0};
        ::setsockopt(netlink.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

        DiagRequest request{};
        request.header.nlmsg_len = sizeof request;
        request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
        // No NLM_F_DUMP: one exact socket, found by the kernel's own connection lookup.
        request.header.nlmsg_flags = NLM_F_REQUEST;
        request.header.nlmsg_seq = nextSequence_.fetch_add(1);
        request.body.sdiag_family = source.family;
        request.body.sdiag_protocol = IPPROTO_TCP;
        request.body.idiag_states = ~0u;
        // The peer's socket: its source is the client's address, its destination ours.
        request.body.id.idiag_sport = htons(remote.port());
        request.body.id.idiag_dport = htons(local.port());
        std::memcpy(request.body.id.idiag_src, source.words.data(), sizeof source.words);
        std::memcpy(request.body.id.idiag_dst, destination.words.data(), sizeof destination.words);
        request.body.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
        request.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;

        sockaddr_nl kernel{};
        kernel.nl_family = AF_NETLINK;
        if (::sendto(netlink.get(), &request, sizeof request, 0,
                     reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel) < 0) {
            return std::nullopt;
        }
        alignas(nlmsghdr) std::array<char, 8192> buffer;
        const ssize_t received = ::recv(netlink.get(), buffer.data(), buffer.size(), 0);
        if (received <= 0) return std::nullopt;
        auto remaining = static_cast<int>(received);
        for (auto* message = reinterpret_cast<nlmsghdr*>(buffer.data());
             holdsMessage(message, remaining); message = NLMSG_NEXT(message, remaining)) {
            if (message->nlmsg_seq != request.header.nlmsg_seq) continue;
            if (message->nlmsg_type != SOCK_DIAG_BY_FAMILY) return std::nullopt;  // an error
            if (message->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) return std::nullopt;
            const auto* found = static_cast<const inet_diag_msg*>(NLMSG_DATA(message));
            // The kernel's lookup falls back to listening sockets; only this very connection
            // counts.
            if (found->id.idiag_sport != request.body.id.idiag_sport ||
                found->id.idiag_dport != request.body.id.idiag_dport ||
                !sameAddress(found->idiag_family, found->id.idiag_src, source) ||
                !sameAddress(found->idiag_family, found->id.idiag_dst, destination) ||
                found->idiag_state == TCP_LISTEN) {
                return std::nullopt;
            }
            // A socket that no process holds any more (closed, or waiting out TIME_WAIT) has no
            // inode, and its uid means nothing.
            if (found->idiag_inode == 0) return std::nullopt;
            return PeerSocket{found->idiag_uid, found->idiag_inode};
        }
        return std::nullopt;
    }

    std::unordered_map<std::uint64_t, int> processesHolding(
        const std::unordered_set<std::uint64_t>& inodes) override {
        std::unordered_map<std::uint64_t, int> holders;
        if (inodes.empty()) return holders;
        DIR* processes = ::opendir("/proc");
        if (!processes) return holders;
        while (const dirent* process = ::readdir(processes)) {
            int pid = 0;
            const std::string_view name = process->d_name;
            if (std::from_chars(name.data(), name.data() + name.size(), pid).ptr !=
                name.data() + name.size()) {
                continue;
            }
            // Only processes whose descriptors this user may read are visible: its own.
            scanDescriptors(pid, inodes, holders);
            if (holders.size() == inodes.size()) break;
        }
        ::closedir(processes);
        return holders;
    }

  private:
    static void scanDescriptors(int pid, const std::unordered_set<std::uint64_t>& inodes,
                                std::unordered_map<std::uint64_t, int>& holders) {
        const std::string folder = "/proc/" + std::to_string(pid) + "/fd";
        const int folderFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (folderFd < 0) return;
        DIR* descriptors = ::fdopendir(folderFd);
        if (!descriptors) {
            ::close(folderFd);
            return;
        }
        constexpr std::string_view prefix = "socket:[";
        while (const dirent* entry = ::readdir(descriptors)) {
            if (entry->d_name[0] == '.') continue;
            std::array<char, 64> target;
            const ssize_t length =
                ::readlinkat(folderFd, entry->d_name, target.data(), target.size());
            if (length <= static_cast<ssize_t>(prefix.size())) continue;
            const std::string_view link(target.data(), static_cast<std::size_t>(length));
            if (!link.starts_with(prefix)) continue;
            std::uint64_t inode = 0;
            const char* digits = link.data() + prefix.size();
            if (std::from_chars(digits, link.data() + link.size(), inode).ec != std::errc{}) {
                continue;
            }
            if (inodes.contains(inode)) holders.emplace(inode, pid);
        }
        ::closedir(descriptors);
    }

    std::atomic<std::uint32_t> nextSequence_{1};
};

}  // namespace

std::shared_ptr<PeerOwnerLookup> PeerOwnerLookup::platform() {
    return std::make_shared<SocketDiagPeerOwnerLookup>();
}

}  // namespace velmora
