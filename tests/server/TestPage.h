#pragma once

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>

namespace velmora::testing {

inline constexpr std::chrono::milliseconds generousTimeout{20'000};

// The client side's event loop: one thread for all the pages of a test.
class PageNetwork {
  public:
    PageNetwork();
    ~PageNetwork();
    PageNetwork(const PageNetwork&) = delete;
    PageNetwork& operator=(const PageNetwork&) = delete;

    boost::asio::io_context& context() { return context_; }

  private:
    boost::asio::io_context context_;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard_;
    std::thread thread_;
};

struct PageMessage {
    bool binary = false;
    std::string data;
};

struct PageOptions {
    // The handshake's Origin header; none when absent.
    std::optional<std::string> origin = std::nullopt;
    // False: the page reads nothing after the handshake (so it answers no ping either).
    bool reading = true;
    // The socket's receive buffer, set before connecting; 0 keeps the system's.
    int receiveBufferBytes = 0;
};

// A web page's end of the helper's WebSocket, on a real socket. Received messages are kept in
// order; the test thread waits for them with deadlines.
class TestPage : public std::enable_shared_from_this<TestPage> {
  public:
    struct Opening {
        std::shared_ptr<TestPage> page;  // set when the handshake succeeded
        boost::system::error_code error;
        int httpStatus = 0;  // the server's answer to the upgrade request
    };

    // Connects and completes the handshake.
    static Opening open(PageNetwork& network, std::uint16_t port, PageOptions options = {},
                        std::chrono::milliseconds timeout = generousTimeout);
    // Starts connecting and returns at once; `opened` is called on the network's thread.
    static void openAsync(PageNetwork& network, std::uint16_t port, PageOptions options,
                          std::function<void(Opening)> opened);

    // Sends one message and waits until it is written.
    boost::system::error_code sendText(const std::string& text,
                                       std::chrono::milliseconds timeout = generousTimeout);
    boost::system::error_code sendBinary(const std::string& bytes,
                                         std::chrono::milliseconds timeout = generousTimeout);

    // The next message in arrival order; nothing when the connection ended first or time ran out.
    std::optional<PageMessage> next(std::chrono::milliseconds timeout = generousTimeout);
    // The next text message parsed as JSON, passing over binary ones.
    std::optional<nlohmann::json> nextJson(std::chrono::milliseconds timeout = generousTimeout);
    // The raw text of the next text message, passing over binary ones.
    std::optional<std::string> nextText(std::chrono::milliseconds timeout = generousTimeout);

    // Binary messages received so far (taken or not), and a wait for their number.
    int binaryCount();
    bool waitForBinaryCount(int count, std::chrono::milliseconds timeout = generousTimeout);
    // The sizes of every binary message received so far.
    std::vector<std::size_t> binarySizes();

    // Waits until the connection has ended (the server closed it, or it failed).
    bool waitClosed(std::chrono::milliseconds timeout = generousTimeout);
    bool isClosed();
    boost::system::error_code closeReason();
    // The close code the server sent, if it sent one.
    int closeCode();

    // Reads no further message after the one under way.
    void stopReading();
    // Cuts the TCP connection without a close frame.
    void abort();
    // Sends a close frame and waits for the connection to end.
    void close();

    TestPage(boost::asio::io_context& context, PageOptions options);

  private:
    boost::system::error_code send(const std::string& data, bool binary,
                                   std::chrono::milliseconds timeout);
    void readNext();

    PageOptions options_;
    boost::beast::websocket::stream<boost::beast::tcp_stream> socket_;
    boost::beast::flat_buffer readBuffer_;
    boost::beast::websocket::response_type response_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<PageMessage> received_;
    std::vector<std::size_t> binarySizes_;
    bool closed_ = false;
    bool stopReading_ = false;
    boost::system::error_code closeReason_;
    int closeCode_ = 0;
};

}  // namespace velmora::testing
