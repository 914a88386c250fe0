#pragma once

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <boost/system/error_code.hpp>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "server/WebSocketLimits.h"

namespace velmora {

// Why a session ended on our side rather than the peer's.
enum class WebSocketSessionError {
    // The peer let more outgoing data pile up than WebSocketLimits allows.
    sendBacklog = 1,
};

const boost::system::error_category& webSocketSessionCategory();
boost::system::error_code make_error_code(WebSocketSessionError error);

// One accepted WebSocket connection: answers the upgrade that the listener admitted, then reads
// messages one at a time and writes queued messages one at a time. Every member, and every
// handler call, runs on the thread of the io_context the connection belongs to. The server serves
// pages over TCP (overTcp); BasicWebSocketSession runs the same session over any other stream,
// such as an in-memory one whose operations can be made to fail.
class WebSocketSession : public std::enable_shared_from_this<WebSocketSession> {
  public:
    using UpgradeRequest = boost::beast::http::request<boost::beast::http::empty_body>;
    using Bytes = std::vector<std::byte>;

    // What a session reports. The session holds its handler strongly, so a handler holds its
    // own owner weakly.
    class Handler {
      public:
        virtual ~Handler() = default;
        // The upgrade is complete; messages may be sent.
        virtual void opened(WebSocketSession& session) = 0;
        // One complete text message. Binary and control messages never arrive here.
        virtual void textReceived(WebSocketSession& session, std::string_view text) = 0;
        // One complete binary message. The helper ignores what pages send in binary; an echo
        // server (for WebSocket conformance runs) takes them here.
        virtual void binaryReceived(WebSocketSession&, std::span<const std::byte>) {}
        // Called once, last: the upgrade failed or the connection is over. `error` says why:
        // boost::asio::error::operation_aborted after our own close() or abort(),
        // WebSocketSessionError::sendBacklog, or the read or write error.
        virtual void ended(WebSocketSession& session, const boost::system::error_code& error) = 0;
    };

    // A session over an accepted TCP connection.
    static std::shared_ptr<WebSocketSession> overTcp(boost::beast::tcp_stream stream,
                                                     const WebSocketLimits& limits);

    virtual ~WebSocketSession() = default;

    // Answers the upgrade and reports to `handler` from then on. `upgradeFinished` is called
    // once the answer is written or has failed.
    virtual void accept(UpgradeRequest request, std::shared_ptr<Handler> handler,
                        std::function<void()> upgradeFinished) = 0;

    // Queue one complete message; ignored unless the session is open.
    virtual void sendText(std::string text) = 0;
    virtual void sendBinary(std::shared_ptr<const Bytes> data) = 0;

    // Ends the connection after what is already queued has been written, with a close frame;
    // a peer that does not finish the close within the handshake time is cut off.
    virtual void close() = 0;
    // Cuts the connection at once.
    virtual void abort() = 0;

    virtual bool isOpen() const = 0;
    virtual std::size_t queuedBytes() const = 0;
    virtual std::size_t queuedMessages() const = 0;
};

// The TCP options a page connection gets once admitted; other streams have none.
void tuneTransport(boost::beast::tcp_stream& stream, const WebSocketLimits& limits);
template <class Stream>
void tuneTransport(Stream&, const WebSocketLimits&) {}

}  // namespace velmora

namespace boost::system {
template <>
struct is_error_code_enum<velmora::WebSocketSessionError> : std::true_type {};
}  // namespace boost::system
