#include "support/InMemoryPage.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/address_v4.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/read.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>

#include "server/BasicWebSocketSession.h"

namespace velmora::fuzzing {

namespace http = boost::beast::http;
using boost::system::error_code;

InMemoryPage::InMemoryPage(HelperServer& server, WebSocketSession::UpgradeRequest request,
                           std::uint16_t port, const WebSocketLimits& limits)
    : end_(context_) {
    std::promise<std::weak_ptr<WebSocketSession>> made;
    const auto loopback = boost::asio::ip::address_v4::loopback();
    server.serve(
        [&](boost::asio::io_context& context) {
            boost::beast::test::stream helperEnd(context);
            helperEnd.connect(end_);
            auto session = std::make_shared<BasicWebSocketSession<boost::beast::test::stream>>(
                std::move(helperEnd), limits);
            made.set_value(session);
            return session;
        },
        std::move(request), ConnectionEndpoints{{loopback, port}, {loopback, 50000}});
    session_ = made.get_future().get();
}

InMemoryPage::~InMemoryPage() {
    closeAndWait();
}

std::optional<int> InMemoryPage::readUpgradeAnswer() {
    http::response<http::empty_body> response;
    error_code error;
    http::read(end_, buffer_, response, error);
    if (error) return std::nullopt;
    return response.result_int();
}

std::optional<std::pair<int, std::string>> InMemoryPage::readFrame() {
    std::uint8_t header[2];
    if (!take(header, 2)) return std::nullopt;
    std::size_t length = header[1] & 0x7F;
    const int extendedBytes = length == 126 ? 2 : length == 127 ? 8 : 0;
    if (extendedBytes > 0) {
        std::uint8_t extended[8];
        if (!take(extended, extendedBytes)) return std::nullopt;
        length = 0;
        for (int i = 0; i < extendedBytes; ++i) length = (length << 8) | extended[i];
    }
    std::string payload(length, '\0');
    if (!take(payload.data(), length)) return std::nullopt;
    return std::pair{header[0] & 0x0F, payload};
}

bool InMemoryPage::writeFrame(int opcode, const std::string& payload) {
    std::string frame;
    frame.push_back(static_cast<char>(0x80 | opcode));
    if (payload.size() < 126) {
        frame.push_back(static_cast<char>(0x80 | payload.size()));
    } else {
        frame.push_back(static_cast<char>(0x80 | 126));
        frame.push_back(static_cast<char>((payload.size() >> 8) & 0xFF));
        frame.push_back(static_cast<char>(payload.size() & 0xFF));
    }
    const char mask[4] = {0x11, 0x22, 0x33, 0x44};
    frame.append(mask, 4);
    for (std::size_t i = 0; i < payload.size(); ++i) frame.push_back(payload[i] ^ mask[i % 4]);
    error_code error;
    boost::asio::write(end_, boost::asio::buffer(frame), error);
    return !error;
}

void InMemoryPage::closeAndWait() {
    end_.close();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!session_.expired()) {
        if (std::chrono::steady_clock::now() > deadline) {
            std::fprintf(stderr, "velmora fuzzing: a session outlived its page\n");
            std::abort();
        }
        std::this_thread::yield();
    }
}

bool InMemoryPage::take(void* into, std::size_t size) {
    // What the HTTP read took beyond the answer comes first.
    auto* bytes = static_cast<char*>(into);
    const std::size_t buffered = std::min(size, buffer_.size());
    boost::asio::buffer_copy(boost::asio::buffer(bytes, buffered), buffer_.data());
    buffer_.consume(buffered);
    error_code error;
    boost::asio::read(end_, boost::asio::buffer(bytes + buffered, size - buffered), error);
    return !error;
}

}  // namespace velmora::fuzzing
