#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cstddef>
#include <string>
#include <string_view>

namespace velmora::fuzzing {

// Two connected stream sockets in memory: `server` for the code under test, as the TCP socket
// it expects (Unix stream sockets behave alike for reads and writes; TCP-only options simply
// fail, and our code ignores that), and `peer`, a plain non-blocking descriptor the fuzzer
// writes the input to and reads the answers from. Nothing touches the network, so inputs run
// fast and no ports or TIME_WAIT entries are used up.
class SocketPair {
  public:
    explicit SocketPair(boost::asio::io_context& context);
    ~SocketPair();
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;

    // The server end, to be moved into the code under test.
    boost::asio::ip::tcp::socket server;

    // Writes as much of `bytes` as the socket takes now; returns how much. Stops early once the
    // server end is gone.
    std::size_t writeSome(std::string_view bytes);
    // Reads and keeps whatever is there now; false once the server end has closed.
    bool readAvailable();
    // No more input: the server reads end-of-stream after what was written.
    void finishWriting();
    bool serverClosed() const { return serverClosed_; }

    std::string_view received() const { return received_; }
    void discardReceived() { received_.clear(); }

  private:
    int peer_ = -1;
    bool serverClosed_ = false;
    std::string received_;
};

}  // namespace velmora::fuzzing
