// Runs one page's whole session over an in-memory connection whose Nth operation at the helper's
// end fails, for every N until a run goes through untouched. At each failure point the session
// must end by itself, tell its handler exactly once, and leave nothing behind.

#include <gtest/gtest.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/beast/_experimental/test/fail_count.hpp>
#include <boost/beast/_experimental/test/stream.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "server/BasicWebSocketSession.h"

namespace velmora {
namespace {

namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;
using boost::system::error_code;
using InMemorySession = BasicWebSocketSession<beast::test::stream>;

// Greets the page, echoes what it sends, and records how the session ended.
class EchoingHandler final : public WebSocketSession::Handler {
  public:
    void opened(WebSocketSession& session) override { session.sendText("hello"); }
    void textReceived(WebSocketSession& session, std::string_view text) override {
        session.sendText(std::string(text));
    }
    void binaryReceived(WebSocketSession& session, std::span<const std::byte> data) override {
        session.sendBinary(
            std::make_shared<const WebSocketSession::Bytes>(data.begin(), data.end()));
    }
    void ended(WebSocketSession& session, const error_code& error) override {
        ++endings;
        endedOpen = session.isOpen();
        endError = error;
    }

    int endings = 0;
    bool endedOpen = false;
    error_code endError;
};

// The page: upgrades, reads the greeting, sends a text and a binary message and reads each
// echo, then closes. Stops at its first error.
class Page : public std::enable_shared_from_this<Page> {
  public:
    explicit Page(boost::asio::io_context& context) : socket(context) {}

    void run() {
        socket.async_handshake("127.0.0.1", "/", [self = shared_from_this()](error_code error) {
            if (!error) self->expect("hello", [self] { self->sendText(); });
        });
    }

    websocket::stream<beast::test::stream> socket;
    bool finished = false;

  private:
    template <class Next>
    void expect(std::string wanted, Next next) {
        socket.async_read(
            buffer_, [self = shared_from_this(), wanted, next](error_code error, std::size_t) {
                if (error) return;
                const std::string got = beast::buffers_to_string(self->buffer_.cdata());
                self->buffer_.consume(self->buffer_.size());
                if (got == wanted) next();
            });
    }

    void sendText() {
        socket.text(true);
        socket.async_write(boost::asio::buffer(text_),
                           [self = shared_from_this()](error_code error, std::size_t) {
                               if (!error)
                                   self->expect(self->text_, [self] { self->sendBinary(); });
                           });
    }

    void sendBinary() {
        socket.binary(true);
        socket.async_write(boost::asio::buffer(binary_),
                           [self = shared_from_this()](error_code error, std::size_t) {
                               if (!error) self->expect(self->binary_, [self] { self->close(); });
                           });
    }

    void close() {
        socket.async_close(
            websocket::close_code::normal,
            [self = shared_from_this()](error_code error) { self->finished = !error; });
    }

    beast::flat_buffer buffer_;
    const std::string text_ = R"({"type":"ping"})";
    const std::string binary_ = std::string("\x01\x02\x03", 3);
};

struct RunOutcome {
    bool pageFinished = false;
    error_code endError;
};

// One session whose helper end fails its `failOn`th operation (never, if there are fewer).
RunOutcome runSession(std::size_t failOn) {
    WebSocketLimits limits;
    // Short, so that a side left waiting by a failure is cut off quickly.
    limits.handshakeTimeout = std::chrono::milliseconds(200);
    limits.idleTimeout = std::chrono::milliseconds(200);

    boost::asio::io_context context;
    beast::test::fail_count failures(failOn);
    beast::test::stream helperEnd(context, failures);
    auto page = std::make_shared<Page>(context);
    helperEnd.connect(page->socket.next_layer());

    // The upgrade request arrives and is parsed as the listener does, outside the session.
    page->run();
    for (int round = 0; round < 100 && helperEnd.str().find("\r\n\r\n") == std::string::npos;
         ++round) {
        context.poll();
    }
    http::request_parser<http::empty_body> parser;
    error_code parseError;
    const auto used =
        parser.put(boost::asio::buffer(helperEnd.str().data(), helperEnd.str().size()), parseError);
    EXPECT_FALSE(parseError);
    EXPECT_TRUE(parser.is_done());
    helperEnd.buffer().consume(used);

    auto handler = std::make_shared<EchoingHandler>();
    std::weak_ptr<WebSocketSession> weakSession;
    int upgradeFinished = 0;
    {
        auto session = std::make_shared<InMemorySession>(std::move(helperEnd), limits);
        weakSession = session;
        session->accept(parser.release(), handler, [&] { ++upgradeFinished; });
    }

    context.run_for(std::chrono::seconds(10));
    EXPECT_TRUE(context.stopped()) << "the session was still running at failure point " << failOn;
    EXPECT_EQ(handler->endings, 1) << "at failure point " << failOn;
    EXPECT_FALSE(handler->endedOpen) << "at failure point " << failOn;
    EXPECT_EQ(upgradeFinished, 1) << "at failure point " << failOn;
    EXPECT_TRUE(weakSession.expired()) << "the session outlived its end at " << failOn;
    if (!page->finished) {
        EXPECT_TRUE(handler->endError) << "ended without a reason at failure point " << failOn;
    }
    return {page->finished, handler->endError};
}

TEST(SessionFailurePointsTest, EveryFailingOperationEndsTheSessionCleanly) {
    std::size_t failOn = 1;
    for (; failOn <= 200; ++failOn) {
        // Untouched, the session goes to its end: the page closes it and sees the close through.
        const RunOutcome outcome = runSession(failOn);
        if (outcome.pageFinished && outcome.endError == websocket::error::closed) break;
        if (::testing::Test::HasFailure()) return;
    }
    ASSERT_LE(failOn, 200u) << "no run got through without a failure";
    // The upgrade answer, the reads and the writes of a whole session: several distinct points.
    EXPECT_GE(failOn, 6u);
}

}  // namespace
}  // namespace velmora
