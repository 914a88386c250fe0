#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "TestPage.h"

namespace velmora::testing {

// A plain TCP connection to the helper, for peers that do not speak WebSocket properly: silent,
// slow, oversized or plain HTTP ones.
class RawConnection {
  public:
    // Connects to 127.0.0.1:port; connected() tells whether it worked.
    explicit RawConnection(std::uint16_t port);
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    bool connected() const { return fd_ >= 0 && connectError_ == 0; }
    int connectError() const { return connectError_; }

    bool send(std::string_view bytes);
    // Reads until the peer closes, `until` appears in what was read, or time runs out; returns
    // everything read so far.
    std::string receive(std::chrono::milliseconds timeout = generousTimeout,
                        std::string_view until = {});
    // Waits until the peer has closed the connection (end of stream or reset).
    bool waitForClose(std::chrono::milliseconds timeout = generousTimeout);
    // Without waiting: whether the peer has closed the connection yet.
    bool closedByPeer();
    void close();

  private:
    // Reads what is there within `timeout`; false once the peer has closed.
    bool readSome(std::chrono::milliseconds timeout);

    int fd_ = -1;
    int connectError_ = 0;
    bool peerClosed_ = false;
    std::string received_;
};

// A WebSocket upgrade request with the given extra header lines (each ending in "\r\n").
std::string upgradeRequest(std::uint16_t port, std::string_view extraHeaders);

}  // namespace velmora::testing
