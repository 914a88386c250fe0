#include "server/WebSocketSession.h"

#include <boost/asio/error.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

#include "config/HelperInfo.h"

namespace velmora {
namespace {

namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
using boost::system::error_code;

class SessionCategory final : public boost::system::error_category {
  public:
    const char* name() const noexcept override { return "velmora.websocket"; }
    std::string message(int value) const override {
        switch (static_cast<WebSocketSessionError>(value)) {
            case WebSocketSessionError::sendBacklog:
                return "the peer stopped reading what it is sent";
        }
        return "unknown WebSocket session error";
    }
};

}  // namespace

const boost::system::error_category& webSocketSessionCategory() {
    static const SessionCategory category;
    return category;
}

boost::system::error_code make_error_code(WebSocketSessionError error) {
    return {static_cast<int>(error), webSocketSessionCategory()};
}

WebSocketSession::WebSocketSession(beast::tcp_stream stream, const WebSocketLimits& limits)
    : socket_(std::move(stream)), limits_(limits) {}

void WebSocketSession::accept(UpgradeRequest request, std::shared_ptr<Handler> handler,
                              std::function<void()> upgradeFinished) {
    request_ = std::move(request);
    handler_ = std::move(handler);
    upgradeFinished_ = std::move(upgradeFinished);
    if (!handler_) {
        // Nobody to serve it (its owner is gone): no upgrade.
        state_ = State::ended;
        beast::get_lowest_layer(socket_).close();
        finishUpgrade();
        return;
    }

    auto& tcp = beast::get_lowest_layer(socket_);
    // From here on the WebSocket layer keeps time: handshake, keep-alive pings, closing.
    tcp.expires_never();
    error_code ignored;
    tcp.socket().set_option(boost::asio::ip::tcp::no_delay(true), ignored);
    if (limits_.socketSendBufferBytes > 0) {
        tcp.socket().set_option(
            boost::asio::socket_base::send_buffer_size(limits_.socketSendBufferBytes), ignored);
    }

    websocket::stream_base::timeout timeout{};
    timeout.handshake_timeout = limits_.handshakeTimeout;
    timeout.idle_timeout = limits_.idleTimeout;
    timeout.keep_alive_pings = true;
    socket_.set_option(timeout);
    // The answer carries nothing beyond the upgrade itself. The library always names a server,
    // by default itself and its version; it names the helper instead.
    socket_.set_option(websocket::stream_base::decorator([](websocket::response_type& response) {
        response.set(beast::http::field::server, HelperInfo::appId);
    }));
    socket_.read_message_max(limits_.maxMessageBytes);
    // Each message goes out as one frame.
    socket_.auto_fragment(false);

    socket_.async_accept(request_, [self = shared_from_this()](const error_code& error) {
        self->finishUpgrade();
        if (error || self->state_ != State::handshaking) {
            self->finish(error);
            return;
        }
        self->state_ = State::open;
        self->handler_->opened(*self);
        // Exactly one read stays outstanding from now on; its failure ends the session.
        self->readNext();
    });
}

void WebSocketSession::finishUpgrade() {
    request_ = {};
    if (auto finished = std::move(upgradeFinished_)) {
        upgradeFinished_ = nullptr;
        finished();
    }
}

void WebSocketSession::sendText(std::string text) {
    auto owner = std::make_shared<const std::string>(std::move(text));
    enqueue({owner, owner->data(), owner->size(), false});
}

void WebSocketSession::sendBinary(std::shared_ptr<const Bytes> data) {
    const void* bytes = data->data();
    std::size_t size = data->size();
    enqueue({std::move(data), bytes, size, true});
}

void WebSocketSession::enqueue(Outgoing message) {
    if (state_ != State::open) return;
    if (!outgoing_.empty() && (outgoing_.size() + 1 > limits_.maxQueuedMessages ||
                               queuedBytes_ + message.size > limits_.maxQueuedBytes)) {
        fail(WebSocketSessionError::sendBacklog);
        return;
    }
    queuedBytes_ += message.size;
    outgoing_.push_back(std::move(message));
    if (!writing_) writeNext();
}

void WebSocketSession::writeNext() {
    const Outgoing& next = outgoing_.front();
    writing_ = true;
    socket_.binary(next.binary);
    socket_.async_write(boost::asio::buffer(next.data, next.size),
                        [self = shared_from_this()](const error_code& error, std::size_t) {
                            self->written(error);
                        });
}

void WebSocketSession::written(const error_code& error) {
    writing_ = false;
    if (state_ == State::ended) return;
    if (error) {
        fail(error);
        return;
    }
    queuedBytes_ -= outgoing_.front().size;
    outgoing_.pop_front();
    if (!outgoing_.empty()) {
        writeNext();
    } else if (state_ == State::closing) {
        startClose();
    }
}

void WebSocketSession::close() {
    if (state_ == State::handshaking) {
        abort();
        return;
    }
    if (state_ != State::open) return;
    state_ = State::closing;
    if (!endReason_) endReason_ = boost::asio::error::operation_aborted;
    closeDeadline_ = std::make_shared<boost::asio::steady_timer>(socket_.get_executor());
    closeDeadline_->expires_after(limits_.handshakeTimeout);
    closeDeadline_->async_wait([weak = weak_from_this()](const error_code& error) {
        if (error) return;
        if (auto self = weak.lock()) self->abort();
    });
    if (!writing_) startClose();
}

void WebSocketSession::startClose() {
    if (closeStarted_) return;
    closeStarted_ = true;
    socket_.async_close(websocket::close_code::going_away,
                        [self = shared_from_this()](const error_code& error) {
                            // Success: the outstanding read sees the peer's answer and ends us.
                            if (error) self->abort();
                        });
}

void WebSocketSession::abort() {
    if (state_ == State::ended) return;
    if (!endReason_) endReason_ = boost::asio::error::operation_aborted;
    // Outstanding operations complete with an error; the read's completion ends the session.
    beast::get_lowest_layer(socket_).close();
}

void WebSocketSession::fail(const error_code& reason) {
    if (!endReason_) endReason_ = reason;
    abort();
}

void WebSocketSession::readNext() {
    socket_.async_read(readBuffer_,
                       [self = shared_from_this()](const error_code& error, std::size_t) {
                           self->received(error);
                       });
}

void WebSocketSession::received(const error_code& error) {
    if (error) {
        finish(error);
        return;
    }
    if (state_ == State::open) {
        auto data = readBuffer_.cdata();
        if (socket_.got_text()) {
            handler_->textReceived(
                *this, std::string_view(static_cast<const char*>(data.data()), data.size()));
        } else {
            handler_->binaryReceived(
                *this, std::span(static_cast<const std::byte*>(data.data()), data.size()));
        }
    }
    readBuffer_.consume(readBuffer_.size());
    readNext();
}

void WebSocketSession::finish(const error_code& error) {
    if (state_ == State::ended) return;
    state_ = State::ended;
    if (closeDeadline_) closeDeadline_->cancel();
    // The queue stays: a write being cancelled may still refer to its front.
    beast::get_lowest_layer(socket_).close();
    auto handler = std::move(handler_);
    handler_ = nullptr;
    if (handler) handler->ended(*this, endReason_ ? endReason_ : error);
}

}  // namespace velmora
