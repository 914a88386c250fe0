#include "support/SocketPair.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace velmora::fuzzing {

SocketPair::SocketPair(boost::asio::io_context& context) : server(context) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
        std::perror("velmora fuzzing: socketpair");
        std::abort();
    }
    peer_ = ends[1];
    server.assign(boost::asio::ip::tcp::v4(), ends[0]);
}

SocketPair::~SocketPair() {
    if (peer_ >= 0) ::close(peer_);
}

std::size_t SocketPair::writeSome(std::string_view bytes) {
    std::size_t written = 0;
    while (written < bytes.size() && !serverClosed_) {
        const ssize_t result =
            ::send(peer_, bytes.data() + written, bytes.size() - written, MSG_NOSIGNAL);
        if (result > 0) {
            written += static_cast<std::size_t>(result);
        } else if (result < 0 && errno == EINTR) {
            continue;
        } else {
            if (result < 0 && errno != EAGAIN && errno != EWOULDBLOCK) serverClosed_ = true;
            break;
        }
    }
    return written;
}

bool SocketPair::readAvailable() {
    char chunk[16 * 1024];
    while (!serverClosed_) {
        const ssize_t result = ::recv(peer_, chunk, sizeof chunk, 0);
        if (result > 0) {
            received_.append(chunk, static_cast<std::size_t>(result));
        } else if (result < 0 && errno == EINTR) {
            continue;
        } else {
            if (result == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) serverClosed_ = true;
            break;
        }
    }
    return !serverClosed_;
}

void SocketPair::finishWriting() {
    ::shutdown(peer_, SHUT_WR);
}

}  // namespace velmora::fuzzing
