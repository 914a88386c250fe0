#include "server/WebSocketUpgrade.h"

#include <boost/asio/error.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

namespace velmora {
namespace {

namespace beast = boost::beast;
namespace http = boost::beast::http;
using boost::system::error_code;

// A Sec-WebSocket-Key is the base64 text of 16 random bytes: 24 characters.
constexpr std::size_t longestKey = 24;

// A request the HTTP parser rejected (as opposed to a connection that timed out or went away).
bool isMalformedRequest(const error_code& error) {
    if (error == http::error::end_of_stream || error == http::error::partial_message) return false;
    return error.category() == error_code(http::error::bad_target).category();
}

}  // namespace

WebSocketUpgrade::WebSocketUpgrade(boost::asio::ip::tcp::socket socket,
                                   const WebSocketLimits& limits,
                                   std::shared_ptr<WebSocketListenerDelegate> delegate)
    : stream_(std::move(socket)), limits_(limits), delegate_(std::move(delegate)) {}

void WebSocketUpgrade::run(std::function<void()> finished) {
    finished_ = std::move(finished);
    parser_.emplace();
    parser_->header_limit(static_cast<std::uint32_t>(limits_.maxHeaderBytes));
    // The whole request, however slowly it trickles in, must be here in time.
    stream_.expires_after(limits_.handshakeTimeout);
    http::async_read(stream_, buffer_, *parser_,
                     [self = shared_from_this()](const error_code& error, std::size_t bytes) {
                         // The parser applies its limit to what it has not yet consumed, so a
                         // request arriving in pieces can pass it by a few hundred bytes; the
                         // cap is on the whole request.
                         const bool tooLarge = !error && bytes > self->limits_.maxHeaderBytes;
                         self->requestRead(tooLarge ? http::error::header_limit : error);
                     });
}

void WebSocketUpgrade::requestRead(const error_code& error) {
    if (error == http::error::header_limit) {
        refuse(http::status::request_header_fields_too_large);
    } else if (isMalformedRequest(error)) {
        refuse(http::status::bad_request);
    } else if (error) {
        stream_.close();
        finish();
    } else {
        decide(parser_->release());
    }
}

void WebSocketUpgrade::decide(WebSocketSession::UpgradeRequest request) {
    if (!beast::websocket::is_upgrade(request) ||
        request[http::field::sec_websocket_version] != "13") {
        refuse(http::status::upgrade_required);
        return;
    }
    // The WebSocket layer answers these with 400 too, but only after admission; refused here,
    // they never reach admission, nor change the origin it remembers.
    const auto key = request[http::field::sec_websocket_key];
    if (key.empty() || key.size() > longestKey || request.count(http::field::host) == 0) {
        refuse(http::status::bad_request);
        return;
    }
    // Both ends as they are now: a peer that has gone already is found by no one.
    ConnectionEndpoints endpoints;
    error_code ignored;
    endpoints.local = stream_.socket().local_endpoint(ignored);
    endpoints.remote = stream_.socket().remote_endpoint(ignored);
    switch (delegate_->admit(request, endpoints)) {
        case Admission::admitted:
            break;
        case Admission::forbidden:
            refuse(http::status::forbidden);
            return;
        case Admission::unavailable:
            refuse(http::status::service_unavailable);
            return;
    }
    handedOver_ = true;
    session_ = WebSocketSession::overTcp(std::move(stream_), limits_);
    auto handler = delegate_->sessionAdmitted(session_);
    session_->accept(std::move(request), std::move(handler),
                     [self = shared_from_this()] { self->finish(); });
}

void WebSocketUpgrade::refuse(http::status status) {
    refusal_ = {status, 11};
    refusal_.keep_alive(false);
    if (status == http::status::upgrade_required) {
        refusal_.set(http::field::upgrade, "websocket");
        refusal_.set(http::field::sec_websocket_version, "13");
    }
    refusal_.prepare_payload();
    stream_.expires_after(limits_.handshakeTimeout);
    http::async_write(
        stream_, refusal_, [self = shared_from_this()](const error_code&, std::size_t) {
            error_code ignored;
            self->stream_.socket().shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
            self->stream_.close();
            self->finish();
        });
}

void WebSocketUpgrade::cancel() {
    if (session_) {
        session_->abort();
    } else if (!handedOver_) {
        stream_.close();
    }
}

void WebSocketUpgrade::finish() {
    session_.reset();
    if (auto finished = std::move(finished_)) {
        finished_ = nullptr;
        finished();
    }
}

}  // namespace velmora
