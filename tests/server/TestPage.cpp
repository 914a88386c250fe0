#include "TestPage.h"

#include <boost/asio/ip/address_v4.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/http/field.hpp>
#include <future>

namespace velmora::testing {
namespace {

namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
using boost::system::error_code;
using tcp = boost::asio::ip::tcp;

// Runs work on the page network's thread and waits for its result.
template <class Result, class Work>
std::optional<Result> onNetwork(boost::asio::any_io_executor executor, Work work,
                                std::chrono::milliseconds timeout) {
    auto promise = std::make_shared<std::promise<Result>>();
    auto future = promise->get_future();
    boost::asio::post(executor, [promise, work = std::move(work)]() mutable { work(promise); });
    if (future.wait_for(timeout) != std::future_status::ready) return std::nullopt;
    return future.get();
}

}  // namespace

PageNetwork::PageNetwork() : guard_(context_.get_executor()) {
    thread_ = std::thread([this] { context_.run(); });
}

PageNetwork::~PageNetwork() {
    guard_.reset();
    context_.stop();
    thread_.join();
}

TestPage::TestPage(boost::asio::io_context& context, PageOptions options)
    : options_(std::move(options)), socket_(context) {}

TestPage::Opening TestPage::open(PageNetwork& network, std::uint16_t port, PageOptions options,
                                 std::chrono::milliseconds timeout) {
    auto promise = std::make_shared<std::promise<Opening>>();
    auto future = promise->get_future();
    openAsync(network, port, std::move(options),
              [promise](Opening opening) { promise->set_value(std::move(opening)); });
    if (future.wait_for(timeout) != std::future_status::ready) {
        return {nullptr, make_error_code(boost::system::errc::timed_out), 0};
    }
    return future.get();
}

void TestPage::openAsync(PageNetwork& network, std::uint16_t port, PageOptions options,
                         std::function<void(Opening)> opened) {
    auto page = std::make_shared<TestPage>(network.context(), std::move(options));
    boost::asio::post(network.context(), [page, port, opened = std::move(opened)]() mutable {
        auto& stream = beast::get_lowest_layer(page->socket_);
        error_code error;
        stream.socket().open(tcp::v4(), error);
        if (!error && page->options_.receiveBufferBytes > 0) {
            stream.socket().set_option(
                boost::asio::socket_base::receive_buffer_size(page->options_.receiveBufferBytes),
                error);
        }
        if (error) {
            opened({nullptr, error, 0});
            return;
        }
        stream.expires_after(generousTimeout);
        stream.async_connect(
            tcp::endpoint(boost::asio::ip::address_v4::loopback(), port),
            [page, port, opened = std::move(opened)](const error_code& connectError) mutable {
                if (connectError) {
                    opened({nullptr, connectError, 0});
                    return;
                }
                beast::get_lowest_layer(page->socket_).expires_never();
                websocket::stream_base::timeout timeout{};
                timeout.handshake_timeout = generousTimeout;
                timeout.idle_timeout = websocket::stream_base::none();
                timeout.keep_alive_pings = false;
                page->socket_.set_option(timeout);
                page->socket_.set_option(websocket::stream_base::decorator(
                    [origin = page->options_.origin](websocket::request_type& request) {
                        if (origin) request.set(beast::http::field::origin, *origin);
                    }));
                page->socket_.read_message_max(64 * 1024 * 1024);
                page->socket_.async_handshake(
                    page->response_, "127.0.0.1:" + std::to_string(port), "/",
                    [page, opened = std::move(opened)](const error_code& handshakeError) mutable {
                        Opening opening{nullptr, handshakeError,
                                        static_cast<int>(page->response_.result_int())};
                        if (!handshakeError) {
                            opening.page = page;
                            if (page->options_.reading) page->readNext();
                        }
                        opened(std::move(opening));
                    });
            });
    });
}

void TestPage::readNext() {
    socket_.async_read(
        readBuffer_, [self = shared_from_this()](const error_code& error, std::size_t) {
            bool again = false;
            {
                std::lock_guard lock(self->mutex_);
                if (error) {
                    self->closed_ = true;
                    self->closeReason_ = error;
                    self->closeCode_ = self->socket_.reason().code;
                } else {
                    PageMessage message{!self->socket_.got_text(),
                                        beast::buffers_to_string(self->readBuffer_.data())};
                    self->readBuffer_.consume(self->readBuffer_.size());
                    if (message.binary) self->binarySizes_.push_back(message.data.size());
                    self->received_.push_back(std::move(message));
                    again = !self->stopReading_;
                }
            }
            self->changed_.notify_all();
            if (again) self->readNext();
        });
}

error_code TestPage::send(const std::string& data, bool binary, std::chrono::milliseconds timeout) {
    auto copy = std::make_shared<std::string>(data);
    auto result = onNetwork<error_code>(
        socket_.get_executor(),
        [self = shared_from_this(), copy, binary](auto promise) {
            self->socket_.binary(binary);
            self->socket_.async_write(boost::asio::buffer(*copy),
                                      [copy, promise](const error_code& error, std::size_t) {
                                          promise->set_value(error);
                                      });
        },
        timeout);
    return result ? *result : make_error_code(boost::system::errc::timed_out);
}

error_code TestPage::sendText(const std::string& text, std::chrono::milliseconds timeout) {
    return send(text, false, timeout);
}

error_code TestPage::sendBinary(const std::string& bytes, std::chrono::milliseconds timeout) {
    return send(bytes, true, timeout);
}

std::optional<PageMessage> TestPage::next(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, timeout, [&] { return !received_.empty() || closed_; });
    if (received_.empty()) return std::nullopt;
    PageMessage message = std::move(received_.front());
    received_.pop_front();
    return message;
}

std::optional<std::string> TestPage::nextText(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() < 0) return std::nullopt;
        auto message = next(left);
        if (!message) return std::nullopt;
        if (!message->binary) return message->data;
    }
}

std::optional<nlohmann::json> TestPage::nextJson(std::chrono::milliseconds timeout) {
    auto text = nextText(timeout);
    if (!text) return std::nullopt;
    return nlohmann::json::parse(*text, nullptr, false);
}

int TestPage::binaryCount() {
    std::lock_guard lock(mutex_);
    return static_cast<int>(binarySizes_.size());
}

bool TestPage::waitForBinaryCount(int count, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout,
                             [&] { return static_cast<int>(binarySizes_.size()) >= count; });
}

std::vector<std::size_t> TestPage::binarySizes() {
    std::lock_guard lock(mutex_);
    return binarySizes_;
}

bool TestPage::waitClosed(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return closed_; });
}

bool TestPage::isClosed() {
    std::lock_guard lock(mutex_);
    return closed_;
}

error_code TestPage::closeReason() {
    std::lock_guard lock(mutex_);
    return closeReason_;
}

int TestPage::closeCode() {
    std::lock_guard lock(mutex_);
    return closeCode_;
}

void TestPage::stopReading() {
    std::lock_guard lock(mutex_);
    stopReading_ = true;
}

void TestPage::abort() {
    onNetwork<bool>(
        socket_.get_executor(),
        [self = shared_from_this()](auto promise) {
            beast::get_lowest_layer(self->socket_).close();
            promise->set_value(true);
        },
        generousTimeout);
}

void TestPage::close() {
    onNetwork<error_code>(
        socket_.get_executor(),
        [self = shared_from_this()](auto promise) {
            self->socket_.async_close(
                websocket::close_code::normal,
                [promise](const error_code& error) { promise->set_value(error); });
        },
        generousTimeout);
}

}  // namespace velmora::testing
