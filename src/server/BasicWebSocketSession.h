#pragma once

#include <boost/asio/error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <deque>
#include <memory>

#include "config/HelperInfo.h"
#include "server/WebSocketSession.h"

namespace velmora {

// WebSocketSession over the stream type `Stream` (a Beast AsyncStream whose lowest layer can be
// closed). The server's TCP sessions are instantiated once, in WebSocketSession.cpp.
template <class Stream>
class BasicWebSocketSession final : public WebSocketSession {
  public:
    BasicWebSocketSession(Stream stream, const WebSocketLimits& limits)
        : socket_(std::move(stream)), limits_(limits) {}

    void accept(UpgradeRequest request, std::shared_ptr<Handler> handler,
                std::function<void()> upgradeFinished) override;
    void sendText(std::string text) override;
    void sendBinary(std::shared_ptr<const Bytes> data) override;
    void close() override;
    void abort() override;

    bool isOpen() const override { return state_ == State::open; }
    std::size_t queuedBytes() const override { return queuedBytes_; }
    std::size_t queuedMessages() const override { return outgoing_.size(); }

  private:
    enum class State { handshaking, open, closing, ended };

    struct Outgoing {
        std::shared_ptr<const void> owner;
        const void* data;
        std::size_t size;
        bool binary;
    };

    std::shared_ptr<BasicWebSocketSession> self() {
        return std::static_pointer_cast<BasicWebSocketSession>(shared_from_this());
    }

    void enqueue(Outgoing message);
    void writeNext();
    void written(const boost::system::error_code& error);
    void startClose();
    void readNext();
    void received(const boost::system::error_code& error);
    void fail(const boost::system::error_code& reason);
    void finish(const boost::system::error_code& error);
    void finishUpgrade();

    boost::beast::websocket::stream<Stream> socket_;
    WebSocketLimits limits_;
    std::shared_ptr<Handler> handler_;
    UpgradeRequest request_;
    std::function<void()> upgradeFinished_;
    boost::beast::flat_buffer readBuffer_;
    std::deque<Outgoing> outgoing_;
    std::size_t queuedBytes_ = 0;
    bool writing_ = false;
    bool closeStarted_ = false;
    State state_ = State::handshaking;
    // The first reason we ended the session for; it wins over the read error that follows.
    boost::system::error_code endReason_;
    std::shared_ptr<boost::asio::steady_timer> closeDeadline_;
};

template <class Stream>
void BasicWebSocketSession<Stream>::accept(UpgradeRequest request, std::shared_ptr<Handler> handler,
                                           std::function<void()> upgradeFinished) {
    request_ = std::move(request);
    handler_ = std::move(handler);
    upgradeFinished_ = std::move(upgradeFinished);
    if (!handler_) {
        // Nobody to serve it (its owner is gone): no upgrade.
        state_ = State::ended;
        boost::beast::get_lowest_layer(socket_).close();
        finishUpgrade();
        return;
    }

    // From here on the WebSocket layer keeps time: handshake, keep-alive pings, closing.
    tuneTransport(socket_.next_layer(), limits_);

    boost::beast::websocket::stream_base::timeout timeout{};
    timeout.handshake_timeout = limits_.handshakeTimeout;
    timeout.idle_timeout = limits_.idleTimeout;
    timeout.keep_alive_pings = true;
    socket_.set_option(timeout);
    // The answer carries nothing beyond the upgrade itself. The library always names a server,
    // by default itself and its version; it names the helper instead.
    socket_.set_option(boost::beast::websocket::stream_base::decorator(
        [](boost::beast::websocket::response_type& response) {
            response.set(boost::beast::http::field::server, HelperInfo::appId);
        }));
    socket_.read_message_max(limits_.maxMessageBytes);
    // Each message goes out as one frame.
    socket_.auto_fragment(false);

    socket_.async_accept(request_, [self = self()](const boost::system::error_code& error) {
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

template <class Stream>
void BasicWebSocketSession<Stream>::finishUpgrade() {
    request_ = {};
    if (auto finished = std::move(upgradeFinished_)) {
        upgradeFinished_ = nullptr;
        finished();
    }
}

template <class Stream>
void BasicWebSocketSession<Stream>::sendText(std::string text) {
    auto owner = std::make_shared<const std::string>(std::move(text));
    enqueue({owner, owner->data(), owner->size(), false});
}

template <class Stream>
void BasicWebSocketSession<Stream>::sendBinary(std::shared_ptr<const Bytes> data) {
    const void* bytes = data->data();
    std::size_t size = data->size();
    enqueue({std::move(data), bytes, size, true});
}

template <class Stream>
void BasicWebSocketSession<Stream>::enqueue(Outgoing message) {
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

template <class Stream>
void BasicWebSocketSession<Stream>::writeNext() {
    const Outgoing& next = outgoing_.front();
    writing_ = true;
    socket_.binary(next.binary);
    socket_.async_write(boost::asio::buffer(next.data, next.size),
                        [self = self()](const boost::system::error_code& error, std::size_t) {
                            self->written(error);
                        });
}

template <class Stream>
void BasicWebSocketSession<Stream>::written(const boost::system::error_code& error) {
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

template <class Stream>
void BasicWebSocketSession<Stream>::close() {
    if (state_ == State::handshaking) {
        abort();
        return;
    }
    if (state_ != State::open) return;
    state_ = State::closing;
    if (!endReason_) endReason_ = boost::asio::error::operation_aborted;
    closeDeadline_ = std::make_shared<boost::asio::steady_timer>(socket_.get_executor());
    closeDeadline_->expires_after(limits_.handshakeTimeout);
    closeDeadline_->async_wait([weak = std::weak_ptr<BasicWebSocketSession>(self())](
                                   const boost::system::error_code& error) {
        if (error) return;
        if (auto self = weak.lock()) self->abort();
    });
    if (!writing_) startClose();
}

template <class Stream>
void BasicWebSocketSession<Stream>::startClose() {
    if (closeStarted_) return;
    closeStarted_ = true;
    socket_.async_close(boost::beast::websocket::close_code::going_away,
                        [self = self()](const boost::system::error_code& error) {
                            // Success: the outstanding read sees the peer's answer and ends us.
                            if (error) self->abort();
                        });
}

template <class Stream>
void BasicWebSocketSession<Stream>::abort() {
    if (state_ == State::ended) return;
    if (!endReason_) endReason_ = boost::asio::error::operation_aborted;
    // Outstanding operations complete with an error; the read's completion ends the session.
    boost::beast::get_lowest_layer(socket_).close();
}

template <class Stream>
void BasicWebSocketSession<Stream>::fail(const boost::system::error_code& reason) {
    if (!endReason_) endReason_ = reason;
    abort();
}

template <class Stream>
void BasicWebSocketSession<Stream>::readNext() {
    socket_.async_read(readBuffer_, [self = self()](const boost::system::error_code& error,
                                                    std::size_t) { self->received(error); });
}

template <class Stream>
void BasicWebSocketSession<Stream>::received(const boost::system::error_code& error) {
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

template <class Stream>
void BasicWebSocketSession<Stream>::finish(const boost::system::error_code& error) {
    if (state_ == State::ended) return;
    state_ = State::ended;
    if (closeDeadline_) closeDeadline_->cancel();
    // The queue stays: a write being cancelled may still refer to its front.
    boost::beast::get_lowest_layer(socket_).close();
    auto handler = std::move(handler_);
    handler_ = nullptr;
    if (handler) handler->ended(*this, endReason_ ? endReason_ : error);
}

}  // namespace velmora
