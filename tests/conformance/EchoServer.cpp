#include "conformance/EchoServer.h"

#include <boost/asio/ip/address_v4.hpp>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace velmora::conformance {
namespace {

using boost::system::error_code;

class Echo final : public WebSocketSession::Handler {
  public:
    void opened(WebSocketSession&) override {}

    void textReceived(WebSocketSession& session, std::string_view text) override {
        session.sendText(std::string(text));
    }

    void binaryReceived(WebSocketSession& session, std::span<const std::byte> data) override {
        session.sendBinary(
            std::make_shared<const WebSocketSession::Bytes>(data.begin(), data.end()));
    }

    void ended(WebSocketSession&, const error_code&) override {}
};

}  // namespace

// Admits everything and keeps the open sessions, so that stop() can close them.
class EchoServer::Events final : public WebSocketListenerDelegate {
  public:
    explicit Events(StateHandler onState) : onState_(std::move(onState)) {}

    void stateChanged(WebSocketListener& listener, State state, const error_code& error) override {
        if (onState_) onState_(state, error, listener.port());
    }

    Admission admit(const WebSocketSession::UpgradeRequest&, const ConnectionEndpoints&) override {
        return Admission::admitted;
    }

    std::shared_ptr<WebSocketSession::Handler> sessionAdmitted(
        const std::shared_ptr<WebSocketSession>& session) override {
        // Sessions that have ended are let go as new ones come.
        std::erase_if(sessions,
                      [](const std::weak_ptr<WebSocketSession>& weak) { return weak.expired(); });
        sessions.push_back(session);
        return std::make_shared<Echo>();
    }

    std::vector<std::weak_ptr<WebSocketSession>> sessions;

  private:
    StateHandler onState_;
};

EchoServer::EchoServer(boost::asio::io_context& context, StateHandler onState,
                       WebSocketLimits limits)
    : context_(context), limits_(limits), events_(std::make_shared<Events>(std::move(onState))) {}

EchoServer::~EchoServer() {
    stop();
}

void EchoServer::start(std::uint16_t port) {
    listener_ = WebSocketListener::create(context_, events_, limits_);
    listener_->start({boost::asio::ip::address_v4::loopback(), port});
}

void EchoServer::stop() {
    if (listener_) {
        listener_->cancel();
        listener_.reset();
    }
    for (auto& weak : events_->sessions) {
        if (auto session = weak.lock()) session->close();
    }
    events_->sessions.clear();
}

}  // namespace velmora::conformance
