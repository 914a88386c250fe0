#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/beast/_experimental/test/stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "server/HelperServer.h"
#include "server/WebSocketLimits.h"

namespace velmora::fuzzing {

// A page connected to a HelperServer over an in-memory stream, served as a page on a socket is;
// the page speaks WebSocket frame by frame with blocking calls, each false (or empty) from the
// connection's end on.
class InMemoryPage {
  public:
    // Serves the page with this upgrade request; its ends count as a loopback connection.
    InMemoryPage(HelperServer& server, WebSocketSession::UpgradeRequest request, std::uint16_t port,
                 const WebSocketLimits& limits = {});
    ~InMemoryPage();
    InMemoryPage(const InMemoryPage&) = delete;
    InMemoryPage& operator=(const InMemoryPage&) = delete;

    // The helper's answer to the upgrade: its status, or nothing once the connection is closed.
    std::optional<int> readUpgradeAnswer();
    // One whole frame: its opcode and payload.
    std::optional<std::pair<int, std::string>> readFrame();
    // One masked frame, as a browser sends it.
    bool writeFrame(int opcode, const std::string& payload);
    // Closes the page's end and waits until the helper's session is gone.
    void closeAndWait();

  private:
    bool take(void* into, std::size_t size);

    boost::asio::io_context context_;
    boost::beast::test::stream end_;
    boost::beast::flat_buffer buffer_;
    std::weak_ptr<WebSocketSession> session_;
};

}  // namespace velmora::fuzzing
