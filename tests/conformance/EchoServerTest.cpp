// The conformance server, run as its own process, over real sockets with a Beast client.

#include <gtest/gtest.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/error.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <string>

#include "conformance/ServerProcess.h"

namespace velmora::conformance {
namespace {

namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
using tcp = boost::asio::ip::tcp;

constexpr std::size_t largestMessage = 65'536;

class EchoServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(server_.port(), 0) << "the server printed: " << server_.output();
        socket_.next_layer().connect({boost::asio::ip::address_v4::loopback(), server_.port()});
        socket_.handshake("127.0.0.1:" + std::to_string(server_.port()), "/");
        // The client may receive more than the server accepts.
        socket_.read_message_max(4 * largestMessage);
    }

    // Sends one message and returns the one that comes back, with whether it was binary.
    std::pair<std::string, bool> echo(const std::string& message, bool binary) {
        socket_.binary(binary);
        socket_.write(boost::asio::buffer(message));
        beast::flat_buffer buffer;
        socket_.read(buffer);
        return {beast::buffers_to_string(buffer.data()), socket_.got_binary()};
    }

    // The server ends cleanly after every test (under the sanitizers: without findings).
    void TearDown() override { EXPECT_EQ(server_.stop(), 0); }

    ServerProcess server_{VELMORA_CONFORMANCE_SERVER};
    boost::asio::io_context context_;
    websocket::stream<tcp::socket> socket_{context_};
};

TEST_F(EchoServerTest, EchoesATextMessage) {
    const std::string text = R"({"type":"ping","note":"h\u00e9llo"})";
    auto [answer, binary] = echo(text, false);
    EXPECT_EQ(answer, text);
    EXPECT_FALSE(binary);
}

TEST_F(EchoServerTest, EchoesABinaryMessage) {
    std::string bytes(6400, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 37 % 256);
    auto [answer, binary] = echo(bytes, true);
    EXPECT_EQ(answer, bytes);
    EXPECT_TRUE(binary);
}

TEST_F(EchoServerTest, EchoesAMessageOfTheLargestAcceptedSize) {
    const std::string bytes(largestMessage, 'x');
    auto [answer, binary] = echo(bytes, true);
    EXPECT_EQ(answer.size(), largestMessage);
    EXPECT_TRUE(binary);
}

TEST_F(EchoServerTest, ClosesTheConnectionOnALargerMessage) {
    socket_.binary(true);
    const std::string bytes(largestMessage + 1, 'x');
    socket_.write(boost::asio::buffer(bytes));
    beast::flat_buffer buffer;
    beast::error_code error;
    socket_.read(buffer, error);
    EXPECT_EQ(error, websocket::error::closed) << error.message();
    EXPECT_EQ(socket_.reason().code, websocket::close_code::too_big);
}

TEST_F(EchoServerTest, StopsCleanlyOnTerminate) {
    EXPECT_EQ(echo("still there", false).first, "still there");
    EXPECT_EQ(server_.stop(), 0);
}

}  // namespace
}  // namespace velmora::conformance
