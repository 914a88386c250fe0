#include "RawConnection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace velmora::testing {

RawConnection::RawConnection(std::uint16_t port) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        connectError_ = errno;
        return;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        connectError_ = errno;
    }
}

RawConnection::~RawConnection() {
    close();
}

void RawConnection::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

bool RawConnection::send(std::string_view bytes) {
    while (!bytes.empty()) {
        auto written = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (written <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

bool RawConnection::readSome(std::chrono::milliseconds timeout) {
    if (peerClosed_) return false;
    pollfd entry{fd_, POLLIN, 0};
    if (::poll(&entry, 1, static_cast<int>(timeout.count())) <= 0) return true;
    char buffer[4096];
    auto count = ::recv(fd_, buffer, sizeof buffer, 0);
    if (count <= 0) {
        peerClosed_ = true;
        return false;
    }
    received_.append(buffer, static_cast<std::size_t>(count));
    return true;
}

std::string RawConnection::receive(std::chrono::milliseconds timeout, std::string_view until) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        if (!until.empty() && received_.find(until) != std::string::npos) break;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        if (!readSome(left)) break;
    }
    return received_;
}

bool RawConnection::waitForClose(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!peerClosed_) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        readSome(left);
    }
    return true;
}

bool RawConnection::closedByPeer() {
    while (readSome(std::chrono::milliseconds(0))) {
        pollfd entry{fd_, POLLIN, 0};
        if (::poll(&entry, 1, 0) <= 0) break;
    }
    return peerClosed_;
}

std::string upgradeRequest(std::uint16_t port, std::string_view extraHeaders) {
    std::string request = "GET / HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                          "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                          "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
                          "Sec-WebSocket-Version: 13\r\n";
    request += extraHeaders;
    request += "\r\n";
    return request;
}

}  // namespace velmora::testing
