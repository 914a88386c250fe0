#include <boost/asio/error.hpp>
#include <boost/asio/ip/address_v4.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/websocket/error.hpp>
#include <boost/system/system_error.hpp>
#include <nlohmann/json.hpp>
#include <utility>

#include "config/AudioKit.h"
#include "config/Log.h"
#include "server/HelperServer.h"
#include "server/ProtocolMessages.h"

// The listener on the loopback address with its retry, the admission of each connection (its
// peer's owner, Host and Origin), and the life of one connected page from ready to dropped.

namespace velmora {
namespace {

using boost::system::error_code;

// The page went away: it closed, the connection ended or was reset.
bool isPeerDisconnect(const error_code& error) {
    return error == boost::beast::websocket::error::closed || error == boost::asio::error::eof ||
           error == boost::beast::http::error::end_of_stream ||
           error == boost::asio::error::connection_reset ||
           error == boost::asio::error::broken_pipe;
}

}  // namespace

class HelperServer::ListenerEvents final : public WebSocketListenerDelegate {
  public:
    ListenerEvents(std::weak_ptr<HelperServer> server, std::uint16_t port)
        : server_(std::move(server)), port_(port) {}

    void stateChanged(WebSocketListener& listener, State state, const error_code& error) override {
        if (auto server = server_.lock()) {
            server->listenerStateChangedLocked(listener, state, error, port_);
        }
    }

    Admission admit(const WebSocketSession::UpgradeRequest& request,
                    const ConnectionEndpoints& endpoints) override {
        auto server = server_.lock();
        return server ? server->admitConnectionLocked(request, endpoints, port_)
                      : Admission::forbidden;
    }

    std::shared_ptr<WebSocketSession::Handler> sessionAdmitted(
        const std::shared_ptr<WebSocketSession>& session) override;

  private:
    std::weak_ptr<HelperServer> server_;
    std::uint16_t port_;
};

class HelperServer::ClientEvents final : public WebSocketSession::Handler {
  public:
    ClientEvents(std::weak_ptr<HelperServer> server, std::weak_ptr<Client> client)
        : server_(std::move(server)), client_(std::move(client)) {}

    void opened(WebSocketSession&) override {
        auto server = server_.lock();
        auto client = client_.lock();
        if (server && client) server->clientReadyLocked(client);
    }

    void textReceived(WebSocketSession&, std::string_view text) override {
        auto server = server_.lock();
        auto client = client_.lock();
        if (server && client) server->handleTextLocked(client, text);
    }

    void ended(WebSocketSession&, const error_code& error) override {
        auto server = server_.lock();
        auto client = client_.lock();
        if (server && client) server->clientEndedLocked(client, error);
    }

  private:
    std::weak_ptr<HelperServer> server_;
    std::weak_ptr<Client> client_;
};

std::shared_ptr<WebSocketSession::Handler> HelperServer::ListenerEvents::sessionAdmitted(
    const std::shared_ptr<WebSocketSession>& session) {
    auto server = server_.lock();
    if (!server) return nullptr;
    return std::make_shared<ClientEvents>(server_, server->acceptLocked(session));
}

void HelperServer::serve(SessionMaker makeSession, WebSocketSession::UpgradeRequest request,
                         ConnectionEndpoints endpoints) {
    auto arrival = std::make_shared<std::pair<SessionMaker, WebSocketSession::UpgradeRequest>>(
        std::move(makeSession), std::move(request));
    post([arrival, endpoints](HelperServer& self) {
        VELMORA_ASSERT_ON_QUEUE(*self.queue_);
        auto& [makeSession, request] = *arrival;
        auto session = makeSession(self.queue_->context());
        std::shared_ptr<WebSocketSession::Handler> handler;
        if (self.admitConnectionLocked(request, endpoints, self.policy_.port()) ==
            Admission::admitted) {
            handler =
                std::make_shared<ClientEvents>(self.weak_from_this(), self.acceptLocked(session));
        }
        // Without a handler the session closes the connection unanswered.
        session->accept(std::move(request), std::move(handler), [] {});
    });
}

// ---------------------------------------------------------------------------------------------
// Listener and clients

void HelperServer::startListenerLocked() {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    if (listenerRetry_) {
        listenerRetry_->cancel();
        listenerRetry_.reset();
    }
    const std::uint16_t port = policy_.port();
    std::shared_ptr<WebSocketListener> listener;
    try {
        listener = WebSocketListener::create(
            queue_->context(), std::make_shared<ListenerEvents>(weak_from_this(), port),
            timings_.limits);
    } catch (const boost::system::system_error& error) {
        std::string message =
            "Could not listen on port " + std::to_string(port) + ": " + error.code().message();
        log(message);
        changeStatusLocked(
            [&](HelperStatus& status) { status.server = ServerState::failed(message); });
        return;
    }
    listener->start({boost::asio::ip::address_v4::loopback(), port});
    listener_ = std::move(listener);
}

void HelperServer::listenerStateChangedLocked(WebSocketListener& listener,
                                              WebSocketListener::State state,
                                              const error_code& error, std::uint16_t port) {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    using State = WebSocketListener::State;
    const std::string portText = std::to_string(port);
    switch (state) {
        case State::ready:
            if (&listener != listener_.get()) return;
            log("Listening on ws://127.0.0.1:" + portText + "/");
            changeStatusLocked(
                [](HelperStatus& status) { status.server = ServerState::listening(); });
            return;
        case State::cancelled:
            if (status_.server.kind() == ServerState::Kind::listening) {
                changeStatusLocked(
                    [](HelperStatus& status) { status.server = ServerState::stopped(); });
            }
            return;
        case State::failed: {
            if (&listener != listener_.get()) {
                listener.cancel();
                return;
            }
            std::string message =
                error == boost::asio::error::address_in_use
                    ? "Port " + portText + " is already in use (is another copy running?)"
                    : "Could not listen on port " + portText;
            log(message + ": " + error.message());
            changeStatusLocked(
                [&](HelperStatus& status) { status.server = ServerState::failed(message); });
            cancelListenerLocked();
            // A restart in between has created a listener, and wins.
            listenerRetry_ =
                queue_->runAfter(timings_.listenerRetryDelay, [server = weak_from_this()] {
                    auto self = server.lock();
                    if (!self) return;
                    VELMORA_ASSERT_ON_QUEUE(*self->queue_);
                    if (!self->listener_) {
                        self->startListenerLocked();
                    }
                });
            return;
        }
    }
}

void HelperServer::cancelListenerLocked() {
    if (listenerRetry_) {
        listenerRetry_->cancel();
        listenerRetry_.reset();
    }
    if (listener_) {
        listener_->cancel();
        listener_.reset();
    }
}

Admission HelperServer::admitConnectionLocked(const WebSocketSession::UpgradeRequest& request,
                                              const ConnectionEndpoints& endpoints,
                                              std::uint16_t port) {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    std::vector<std::uint64_t> openPeerSockets;
    openPeerSockets.reserve(clients_.size());
    for (const auto& [key, client] : clients_) openPeerSockets.push_back(client->peerSocket);
    const auto verdict = peerAdmission_.check(request, endpoints, port, openPeerSockets);
    if (verdict.admission != Admission::admitted) return verdict.admission;
    if (!admitLocked(request)) return Admission::forbidden;
    admittedPeerSocket_ = verdict.peerSocket;
    return Admission::admitted;
}

bool HelperServer::admitLocked(const WebSocketSession::UpgradeRequest& request) {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    std::optional<std::string> origin;
    for (const auto& field : request) {
        if (boost::beast::iequals(field.name_string(), "Origin")) {
            origin = std::string(field.value());
            break;
        }
    }
    if (!policy_.isOriginAllowed(origin)) {
        log("Rejected connection from origin " +
            (origin ? visibleInLog(*origin) : std::string("(none)")));
        return false;
    }
    lastAcceptedOrigin_ = origin.value_or("");
    return true;
}

HelperServer::ClientPointer HelperServer::acceptLocked(
    const std::shared_ptr<WebSocketSession>& connection) {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    auto client = std::make_shared<Client>();
    client->connection = connection;
    client->peerSocket = std::exchange(admittedPeerSocket_, 0);
    clients_.emplace(client.get(), client);
    return client;
}

void HelperServer::clientReadyLocked(const ClientPointer& client) {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    if (!clients_.contains(client.get())) return;
    client->open = true;
    // Attributed at ready time, not at handshake time: two handshakes accepted before either
    // connection is ready both get the later origin.
    client->origin = lastAcceptedOrigin_;
    log("Client connected (" + client->origin + ")");
    const int openClients = openClientCountLocked();
    changeStatusLocked([openClients](HelperStatus& status) { status.clients = openClients; });
    sendJSONLocked(*client, ProtocolMessages::hello(AudioKit::config().product));
}

void HelperServer::clientEndedLocked(const ClientPointer& client, const error_code& error) {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    if (client->open && error != boost::asio::error::operation_aborted) {
        if (error == WebSocketSessionError::sendBacklog) {
            log("Dropped client (" + client->origin + "): it stopped reading what it is sent");
        } else if (isPeerDisconnect(error)) {
            log("Client disconnected (" + client->origin + ")");
        } else {
            log("Receive error: " + error.message());
        }
    }
    dropLocked(client);
}

void HelperServer::dropLocked(const ClientPointer& client) {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    client->open = false;
    if (active_ == client) {
        active_.reset();
        stopCaptureLocked(false);
    }
    clients_.erase(client.get());
    const int openClients = openClientCountLocked();
    changeStatusLocked([openClients](HelperStatus& status) { status.clients = openClients; });
    client->connection->close();
}

int HelperServer::openClientCountLocked() const {
    int count = 0;
    for (const auto& [key, client] : clients_) count += client->open ? 1 : 0;
    return count;
}

void HelperServer::sendJSONLocked(const Client& client, const nlohmann::json& message) {
    if (!client.open) return;
    auto text = ProtocolMessages::serialize(message);
    if (!text) return;
    client.connection->sendText(std::move(*text));
}

}  // namespace velmora
