#include "server/HelperServer.h"

#include <boost/asio/error.hpp>
#include <boost/asio/ip/address_v4.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/websocket/error.hpp>
#include <boost/system/system_error.hpp>
#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>
#include <utility>

#include "config/AudioKit.h"
#include "config/HelperInfo.h"
#include "config/Log.h"
#include "server/DescriptorLimit.h"
#include "server/PageCommand.h"
#include "server/ProtocolMessages.h"
#include "server/SystemUptime.h"

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

double secondsSince1970() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

// The main queue receives copies of the status; the handler may be replaced from any thread.
struct HelperServer::StatusSlot {
    std::mutex mutex;
    StatusHandler handler;

    void deliver(const HelperStatus& status) {
        StatusHandler current;
        {
            std::lock_guard lock(mutex);
            current = handler;
        }
        if (current) current(status);
    }
};

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

// ---------------------------------------------------------------------------------------------
// Creation and public operations

std::shared_ptr<HelperServer> HelperServer::create(
    std::unique_ptr<AudioTap> tap, std::shared_ptr<AudioCapturePermission> permission,
    std::shared_ptr<MicrophoneUsers> microphoneUsers, SerialQueue& mainQueue,
    HelperServerTimings timings, std::vector<HelperPass::VerificationKey> passKeys,
    std::shared_ptr<PeerOwnerLookup> peerOwners) {
    std::shared_ptr<HelperServer> server(new HelperServer(
        std::move(tap), std::move(permission), std::move(microphoneUsers), mainQueue,
        std::move(timings), std::move(passKeys), std::move(peerOwners)));
    server->wireCapture();
    return server;
}

HelperServer::HelperServer(std::unique_ptr<AudioTap> tap,
                           std::shared_ptr<AudioCapturePermission> permission,
                           std::shared_ptr<MicrophoneUsers> microphoneUsers, SerialQueue& mainQueue,
                           HelperServerTimings timings,
                           std::vector<HelperPass::VerificationKey> passKeys,
                           std::shared_ptr<PeerOwnerLookup> peerOwners)
    : queue_(std::make_shared<SerialQueue>("com.velmora.audiohelper.server")),
      mainQueue_(mainQueue),
      timings_(std::move(timings)),
      passKeys_(std::move(passKeys)),
      permission_(std::move(permission)),
      microphoneUsers_(std::move(microphoneUsers)),
      onStatus_(std::make_shared<StatusSlot>()),
      capture_(SystemAudioCapture::create(std::move(tap), mainQueue, timings_.capture)),
      callWatch_(HelperInfo::bundleId, timings_.callGrace, timings_.minimumCall),
      peerAdmission_(std::move(peerOwners), timings_.limits) {}

HelperServer::~HelperServer() {
    // Whatever the teardown changes is nobody's news any more.
    setOnStatus(nullptr);
    if (!queue_->isCurrent()) {
        queue_->runAndWait([this] {
            publishing_ = false;
            closeEverythingLocked();
        });
        return;
    }
    // The last owner let go inside one of our own callbacks. The queue cannot join its own
    // thread, so another thread ends it once this callback has returned.
    publishing_ = false;
    closeEverythingLocked();
    queue_->stop();
    std::thread([queue = std::move(queue_)]() mutable { queue.reset(); }).detach();
}

void HelperServer::wireCapture() {
    std::weak_ptr<SerialQueue> queue = queue_;
    std::weak_ptr<HelperServer> server = weak_from_this();
    capture_->setOnFrame([queue, server](SystemAudioCapture::Frame frame) {
        auto shared = std::make_shared<const SystemAudioCapture::Frame>(std::move(frame));
        postWeakly(queue, server, [shared](HelperServer& self) { self.sendFrameLocked(shared); });
    });
    capture_->setOnFailed([queue, server](std::string text) {
        postWeakly(queue, server, [text = std::move(text)](HelperServer& self) {
            self.captureFailedLocked(text);
        });
    });
    capture_->setRestartHandler([queue, server] {
        postWeakly(queue, server, [](HelperServer& self) { self.capture_->rebuild(); });
    });
}

void HelperServer::post(Work work) {
    postWeakly(queue_, weak_from_this(), std::move(work));
}

void HelperServer::postWeakly(const std::weak_ptr<SerialQueue>& queue,
                              const std::weak_ptr<HelperServer>& server, Work work) {
    if (auto target = queue.lock()) {
        target->post([server, work = std::move(work)] {
            if (auto self = server.lock()) work(*self);
        });
    }
}

void HelperServer::setOnStatus(StatusHandler onStatus) {
    std::lock_guard lock(onStatus_->mutex);
    onStatus_->handler = std::move(onStatus);
}

void HelperServer::start() {
    // Connections up to the cap, and those still in their upgrade.
    ensureDescriptorsFor(timings_.limits.maxConnections + timings_.limits.maxPendingUpgrades);
    post([](HelperServer& self) { self.startListenerLocked(); });
}

void HelperServer::restart() {
    post([](HelperServer& self) {
        self.stopCaptureLocked(true);
        for (auto& [key, client] : self.clients_) {
            client->open = false;
            client->connection->close();
        }
        self.clients_.clear();
        self.changeStatusLocked([](HelperStatus& status) { status.clients = 0; });
        self.cancelListenerLocked();
        self.startListenerLocked();
    });
}

void HelperServer::shutdown() {
    queue_->runAndWait([this] {
        stopCaptureLocked(false);
        cancelListenerLocked();
        for (auto& [key, client] : clients_) client->connection->close();
        // The owner may take the main queue down once this returns: the connections that are
        // still closing, and the cancelled listener, publish nothing any more.
        publishing_ = false;
    });
}

void HelperServer::sendFrame(SystemAudioCapture::Frame frame) {
    auto shared = std::make_shared<const SystemAudioCapture::Frame>(std::move(frame));
    post([shared](HelperServer& self) { self.sendFrameLocked(shared); });
}

HelperStatus HelperServer::status() {
    return queue_->sync([this] { return status_; });
}

bool HelperServer::admits(const WebSocketSession::UpgradeRequest& request) {
    return queue_->sync([&] { return admitLocked(request); });
}

std::vector<std::string> HelperServer::handleTextWithoutConnection(const std::string& origin,
                                                                   std::string_view text) {
    return queue_->sync([&] {
        std::vector<std::string> sent;
        auto client = std::make_shared<Client>();
        client->origin = origin;
        client->open = true;
        client->outbox = &sent;
        handleTextLocked(client, text);
        // The drop of a page that closes, minus the connection it does not have.
        client->open = false;
        if (active_ == client) {
            active_.reset();
            stopCaptureLocked(false);
        }
        return sent;
    });
}

void HelperServer::closeEverythingLocked() {
    stopCaptureLocked(false);
    cancelListenerLocked();
    for (auto& [key, client] : clients_) {
        client->open = false;
        client->connection->abort();
    }
    clients_.clear();
    active_.reset();
}

// ---------------------------------------------------------------------------------------------
// Listener and clients

void HelperServer::startListenerLocked() {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    if (listenerRetry_) {
        listenerRetry_->cancel();
        listenerRetry_.reset();
    }
    const std::uint16_t port = AudioKit::config().port();
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
                    if (self && !self->listener_) {
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
    auto isOriginAllowed = AudioKit::config().isOriginAllowed;
    if (!isOriginAllowed || !isOriginAllowed(origin)) {
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
    changeStatusLocked([&](HelperStatus& status) { status.clients = openClientCountLocked(); });
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
    changeStatusLocked([&](HelperStatus& status) { status.clients = openClientCountLocked(); });
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
    if (client.outbox) {
        client.outbox->push_back(std::move(*text));
    } else {
        client.connection->sendText(std::move(*text));
    }
}

// ---------------------------------------------------------------------------------------------
// Capture sessions

void HelperServer::handleTextLocked(const ClientPointer& client, std::string_view text) {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    if (!client->open) return;
    PageCommand command = PageCommand::parse(text);
    switch (command.kind) {
        case PageCommand::Kind::malformed:
            sendJSONLocked(*client, ProtocolMessages::error(
                                        "bad_request", ProtocolMessages::malformedRequestText));
            return;
        case PageCommand::Kind::unknownType:
            sendJSONLocked(
                *client, ProtocolMessages::error("bad_request",
                                                 ProtocolMessages::unknownTypeText(command.type)));
            return;
        case PageCommand::Kind::ping:
            sendJSONLocked(*client, ProtocolMessages::pong());
            return;
        case PageCommand::Kind::stop:
            if (active_ == client) {
                active_.reset();
                stopCaptureLocked(false);
            }
            sendJSONLocked(*client, ProtocolMessages::stopped());
            return;
        case PageCommand::Kind::start:
            break;
    }

    if (!HelperPass::required(client->origin)) {
        handleStartLocked(client);
        return;
    }
    auto verdict = HelperPass::check(command.pass, client->origin, secondsSince1970(), passKeys_);
    switch (verdict.kind()) {
        case HelperPass::Verdict::Kind::ok:
            handleStartLocked(client);
            return;
        case HelperPass::Verdict::Kind::missing:
            log("Start refused for " + client->origin + ": no pass");
            sendJSONLocked(*client, ProtocolMessages::error("pass_required",
                                                            ProtocolMessages::passRequiredText(
                                                                AudioKit::config().appName)));
            return;
        case HelperPass::Verdict::Kind::invalid:
            log("Start refused for " + client->origin + ": pass " + verdict.reason());
            sendJSONLocked(
                *client, ProtocolMessages::error("pass_invalid", ProtocolMessages::passInvalidText(
                                                                     AudioKit::config().appName)));
            return;
    }
}

void HelperServer::handleStartLocked(const ClientPointer& client) {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    if (active_ && active_ != client) sendJSONLocked(*active_, ProtocolMessages::takenOver());
    active_ = client;

    if (capture_->isRunning()) {
        // A running capture simply goes to the new page: no new permission, no gap.
        changeStatusLocked([&](HelperStatus& status) { status.capturingFor = client->origin; });
        sendJSONLocked(*client, ProtocolMessages::started());
        watchCallsLocked(true);
        return;
    }
    // The request under way serves whichever page is active when it is answered.
    if (starting_) return;

    starting_ = true;
    const std::uint64_t token = ++startToken_;
    log("Start requested by " + client->origin + "; permission preflight: " +
        std::string(AudioCapturePermission::rawValue(permission_->status())));

    std::weak_ptr<SerialQueue> queue = queue_;
    std::weak_ptr<HelperServer> server = weak_from_this();
    permission_->request([queue, server, token](bool granted) {
        // Any thread, any time, possibly never.
        log(granted ? "Permission result: granted" : "Permission result: denied");
        postWeakly(queue, server, [granted, token](HelperServer& self) {
            self.permissionAnsweredLocked(granted, token);
        });
    });
    queue_->runAfter(timings_.permissionTimeout, [server, token] {
        if (auto self = server.lock()) self->permissionTimedOutLocked(token);
    });
}

void HelperServer::permissionAnsweredLocked(bool granted, std::uint64_t token) {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    // Superseded or timed out.
    if (token != startToken_ || !starting_) return;
    starting_ = false;

    ClientPointer client = active_;
    if (!client || !client->open) return;

    if (!granted) {
        changeStatusLocked([](HelperStatus& status) { status.permissionDenied = true; });
        active_.reset();
        sendErrorLocked(*client, CaptureError::permissionDenied());
        return;
    }

    try {
        capture_->start();
    } catch (const CaptureError& error) {
        if (error.kind() == CaptureError::Kind::permissionDenied) {
            changeStatusLocked([](HelperStatus& status) { status.permissionDenied = true; });
        }
        changeStatusLocked([&](HelperStatus& status) { status.lastError = error.message(); });
        active_.reset();
        sendErrorLocked(*client, error);
        return;
    } catch (const std::exception& error) {
        active_.reset();
        sendErrorLocked(*client, CaptureError::device(error.what()));
        return;
    }

    changeStatusLocked([](HelperStatus& status) { status.permissionDenied = false; });
    changeStatusLocked([](HelperStatus& status) { status.lastError.reset(); });
    changeStatusLocked([&](HelperStatus& status) { status.capturingFor = client->origin; });
    sendJSONLocked(*client, ProtocolMessages::started());
    watchCallsLocked(true);
}

void HelperServer::permissionTimedOutLocked(std::uint64_t token) {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    // Answered in time.
    if (token != startToken_ || !starting_) return;
    starting_ = false;
    // An answer that still comes is ignored.
    startToken_ = token + 1;
    if (ClientPointer client = std::exchange(active_, nullptr)) {
        sendJSONLocked(*client, ProtocolMessages::error("permission_timeout",
                                                        ProtocolMessages::permissionTimeoutText(
                                                            AudioKit::config().appName)));
    }
}

void HelperServer::sendErrorLocked(const Client& client, const CaptureError& error) {
    const std::string code = error.code();
    const std::string message = error.message();
    log("Start failed: " + code + " \u2014 " + message);
    sendJSONLocked(client, ProtocolMessages::error(code, message));
}

void HelperServer::stopCaptureLocked(bool notify) {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    capture_->stop();
    watchCallsLocked(false);
    if (notify) {
        if (active_) sendJSONLocked(*active_, ProtocolMessages::stopped());
        active_.reset();
    }
    changeStatusLocked([](HelperStatus& status) { status.capturingFor.reset(); });
}

void HelperServer::captureFailedLocked(const std::string& text) {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    // The capture has already torn itself down.
    log("Capture failed: " + text);
    changeStatusLocked([&](HelperStatus& status) { status.lastError = text; });
    changeStatusLocked([](HelperStatus& status) { status.capturingFor.reset(); });
    watchCallsLocked(false);
    if (ClientPointer client = std::exchange(active_, nullptr)) {
        sendJSONLocked(*client, ProtocolMessages::error("device_error", text));
    }
}

void HelperServer::sendFrameLocked(const std::shared_ptr<const SystemAudioCapture::Frame>& frame) {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    // Never to any other page; without an active page the frame is dropped.
    if (active_ && active_->open) active_->connection->sendBinary(frame);
}

// ---------------------------------------------------------------------------------------------
// Call-end notices

void HelperServer::watchCallsLocked(bool on) {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    if (callTimer_) {
        callTimer_->cancel();
        callTimer_.reset();
    }
    // Every start of streaming tracks calls afresh.
    callWatch_.reset();
    if (!on) {
        microphoneUsers_->stopWatching();
        return;
    }
    // Ticks then read microphone users at once, without waiting on the audio system.
    microphoneUsers_->startWatching();
    callTimer_ = queue_->repeat(std::chrono::milliseconds::zero(), timings_.callInterval,
                                timings_.callLeeway, [server = weak_from_this()] {
                                    if (auto self = server.lock()) self->callTickLocked();
                                });
}

void HelperServer::callTickLocked() {
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    if (!active_ || !capture_->isRunning()) return;
    auto ended = callWatch_.update(microphoneUsers_->bundleIds(), systemUptimeSeconds());
    for (const MeetingApp& app : ended) {
        log("Call ended: " + app.name);
        sendJSONLocked(*active_, ProtocolMessages::callEnded(app));
    }
}

// ---------------------------------------------------------------------------------------------
// Status

void HelperServer::changeStatusLocked(const std::function<void(HelperStatus&)>& change) {
    HelperStatus before = status_;
    change(status_);
    if (status_ != before) publishLocked();
}

void HelperServer::publishLocked() {
    if (!publishing_) return;
    mainQueue_.post([slot = onStatus_, status = status_] { slot->deliver(status); });
}

}  // namespace velmora
