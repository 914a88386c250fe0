// A page served by the whole server over an in-memory connection whose Nth operation at the
// helper's end fails, for every N until a run goes through untouched: the page's session must
// end by itself each time, and the server count no client afterwards.

#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address_v4.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/_experimental/test/fail_count.hpp>
#include <boost/beast/_experimental/test/stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/read.hpp>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ServerFixture.h"
#include "server/BasicWebSocketSession.h"
#include "support/FakePeerOwnerLookup.h"

namespace velmora::testing {
namespace {

namespace beast = boost::beast;
namespace http = boost::beast::http;
using boost::system::error_code;

// The page's end, spoken frame by frame: every read and write is blocking and stops the page at
// its first error.
class RawPage {
  public:
    explicit RawPage(boost::asio::io_context& context) : end(context) {}

    bool readUpgradeAnswer() {
        http::response<http::empty_body> response;
        error_code error;
        http::read(end, buffer_, response, error);
        return !error && response.result() == http::status::switching_protocols;
    }

    // One whole frame from the helper: its opcode and payload.
    std::optional<std::pair<int, std::string>> readFrame() {
        std::uint8_t header[2];
        if (!take(header, 2)) return std::nullopt;
        std::size_t length = header[1] & 0x7F;
        if (length == 126) {
            std::uint8_t extended[2];
            if (!take(extended, 2)) return std::nullopt;
            length = (std::size_t{extended[0]} << 8) | extended[1];
        } else if (length == 127) {
            return std::nullopt;  // nothing this page is sent is that long
        }
        std::string payload(length, '\0');
        if (!take(payload.data(), length)) return std::nullopt;
        return std::pair{header[0] & 0x0F, payload};
    }

    // One masked frame, as a browser sends it.
    bool writeFrame(int opcode, const std::string& payload) {
        std::string frame;
        frame.push_back(static_cast<char>(0x80 | opcode));
        frame.push_back(static_cast<char>(0x80 | payload.size()));  // short payloads only
        const char mask[4] = {0x11, 0x22, 0x33, 0x44};
        frame.append(mask, 4);
        for (std::size_t i = 0; i < payload.size(); ++i) frame.push_back(payload[i] ^ mask[i % 4]);
        error_code error;
        boost::asio::write(end, boost::asio::buffer(frame), error);
        return !error;
    }

    beast::test::stream end;

  private:
    bool take(void* into, std::size_t size) {
        // What the HTTP read took beyond the answer comes first.
        auto* bytes = static_cast<char*>(into);
        const std::size_t buffered = std::min(size, buffer_.size());
        boost::asio::buffer_copy(boost::asio::buffer(bytes, buffered), buffer_.data());
        buffer_.consume(buffered);
        error_code error;
        boost::asio::read(end, boost::asio::buffer(bytes + buffered, size - buffered), error);
        return !error;
    }

    beast::flat_buffer buffer_;
};

class ServedSessionFailureTest : public ServerFixture {
  protected:
    WebSocketSession::UpgradeRequest upgradeRequest() const {
        WebSocketSession::UpgradeRequest request{http::verb::get, "/", 11};
        request.set(http::field::host, "127.0.0.1:" + std::to_string(port()));
        request.set(http::field::upgrade, "websocket");
        request.set(http::field::connection, "Upgrade");
        request.set(http::field::sec_websocket_key, "dGhlIHNhbXBsZSBub25jZQ==");
        request.set(http::field::sec_websocket_version, "13");
        request.set(http::field::origin, pageA);
        return request;
    }

    ConnectionEndpoints endpoints() const {
        const auto loopback = boost::asio::ip::address_v4::loopback();
        return {{loopback, port()}, {loopback, 50000}};
    }

    // Serves one page whose helper end fails its `failOn`th operation; returns whether the page
    // got through its whole conversation.
    bool runPage(std::size_t failOn) {
        WebSocketLimits limits;
        // Short, so that a side left waiting by a failure is cut off quickly.
        limits.handshakeTimeout = std::chrono::milliseconds(200);
        limits.idleTimeout = std::chrono::milliseconds(200);

        failures_.push_back(std::make_unique<beast::test::fail_count>(failOn));
        auto& failures = *failures_.back();
        boost::asio::io_context pageContext;
        RawPage page(pageContext);
        std::promise<std::weak_ptr<WebSocketSession>> made;
        server_->serve(
            [&](boost::asio::io_context& context) {
                beast::test::stream helperEnd(context, failures);
                helperEnd.connect(page.end);
                auto session = std::make_shared<BasicWebSocketSession<beast::test::stream>>(
                    std::move(helperEnd), limits);
                made.set_value(session);
                return session;
            },
            upgradeRequest(), endpoints());
        const std::weak_ptr<WebSocketSession> session = made.get_future().get();

        bool finished = false;
        if (page.readUpgradeAnswer()) {
            auto hello = page.readFrame();
            if (hello && hello->second.find(R"("type":"hello")") != std::string::npos &&
                page.writeFrame(0x1, R"({"type":"ping"})")) {
                auto pong = page.readFrame();
                if (pong && pong->second == R"({"type":"pong"})" &&
                    page.writeFrame(0x8, std::string("\x03\xE8", 2))) {
                    auto closing = page.readFrame();
                    finished = closing && closing->first == 0x8;
                }
            }
        }
        page.end.close();

        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!session.expired() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_TRUE(session.expired()) << "the session outlived its page at " << failOn;
        EXPECT_EQ(server_->status().clients, 0) << "a client was left at " << failOn;
        return finished;
    }

  private:
    // A stream refers to its count until it is gone, which may be after its run.
    std::vector<std::unique_ptr<beast::test::fail_count>> failures_;
};

TEST_F(ServedSessionFailureTest, EveryFailingOperationOfAPageLeavesNoClient) {
    peerOwners_ = std::make_shared<FakePeerOwnerLookup>(::getuid());
    createServer();
    std::size_t failOn = 1;
    for (; failOn <= 200; ++failOn) {
        if (runPage(failOn)) break;
        if (HasFailure()) return;
    }
    ASSERT_LE(failOn, 200u) << "no run got through without a failure";
    // The upgrade answer, the greeting, the reply and the close: several distinct points.
    EXPECT_GE(failOn, 4u);
    settleStatuses();
    EXPECT_EQ(statuses_.latest().value_or(HelperStatus{}).clients, 0);
}

}  // namespace
}  // namespace velmora::testing
