#include "server/WebSocketListener.h"

#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <chrono>
#include <string>

#include "config/Log.h"
#include "server/WebSocketUpgrade.h"

namespace velmora {
namespace {

using boost::system::error_code;
using tcp = boost::asio::ip::tcp;

// After a failed accept that is not about one connection (descriptors exhausted, say), wait a
// little before the next, rather than spinning.
constexpr std::chrono::milliseconds acceptRetryPause{100};

bool concernsOneConnection(const error_code& error) {
    return error == boost::asio::error::connection_aborted ||
           error == boost::asio::error::connection_reset;
}

}  // namespace

std::shared_ptr<WebSocketListener> WebSocketListener::create(boost::asio::io_context& context,
                                                             std::shared_ptr<Delegate> delegate,
                                                             const WebSocketLimits& limits) {
    std::shared_ptr<WebSocketListener> listener(
        new WebSocketListener(context, std::move(delegate), limits));
    listener->acceptor_.open(tcp::v4());
    listener->acceptor_.set_option(tcp::acceptor::reuse_address(true));
    return listener;
}

WebSocketListener::WebSocketListener(boost::asio::io_context& context,
                                     std::shared_ptr<Delegate> delegate,
                                     const WebSocketLimits& limits)
    : context_(context),
      acceptor_(context),
      acceptPause_(context),
      delegate_(std::move(delegate)),
      limits_(limits) {}

void WebSocketListener::start(const tcp::endpoint& endpoint) {
    error_code error;
    acceptor_.bind(endpoint, error);
    if (!error) acceptor_.listen(tcp::acceptor::max_listen_connections, error);
    if (!error) port_ = acceptor_.local_endpoint(error).port();
    if (error) {
        report(State::failed, error);
        return;
    }
    report(State::ready, {});
    acceptNext();
}

void WebSocketListener::report(State state, const error_code& error) {
    boost::asio::post(context_, [self = shared_from_this(), state, error] {
        // A cancelled listener tells only that it was cancelled.
        if (self->cancelled_ && state != State::cancelled) return;
        self->delegate_->stateChanged(*self, state, error);
    });
}

void WebSocketListener::cancel() {
    if (cancelled_) return;
    cancelled_ = true;
    error_code ignored;
    acceptor_.close(ignored);
    acceptPause_.cancel();
    auto pending = std::move(pending_);
    pending_.clear();
    for (auto& [raw, weak] : pending) {
        if (auto upgrade = weak.lock()) upgrade->cancel();
    }
    report(State::cancelled, {});
}

void WebSocketListener::acceptNext() {
    if (cancelled_) return;
    acceptor_.async_accept(
        [self = shared_from_this()](const error_code& error, tcp::socket socket) {
            self->accepted(error, std::move(socket));
        });
}

void WebSocketListener::accepted(const error_code& error, tcp::socket socket) {
    if (cancelled_ || error == boost::asio::error::operation_aborted) return;
    if (error) {
        if (concernsOneConnection(error)) {
            acceptNext();
            return;
        }
        if (error != lastAcceptError_) log("Could not accept a connection: " + error.message());
        lastAcceptError_ = error;
        acceptPause_.expires_after(acceptRetryPause);
        acceptPause_.async_wait([self = shared_from_this()](const error_code& waitError) {
            if (!waitError) self->acceptNext();
        });
        return;
    }
    lastAcceptError_ = {};
    if (pending_.size() >= limits_.maxPendingUpgrades) {
        // Too many connections are still to finish their upgrade: this one gets none.
        error_code ignored;
        socket.close(ignored);
    } else {
        auto upgrade = std::make_shared<WebSocketUpgrade>(std::move(socket), limits_, delegate_);
        WebSocketUpgrade* key = upgrade.get();
        pending_.emplace(key, upgrade);
        upgrade->run([weak = weak_from_this(), key] {
            if (auto self = weak.lock()) self->pending_.erase(key);
        });
    }
    acceptNext();
}

}  // namespace velmora
