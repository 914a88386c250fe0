#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>

#include "config/AudioKit.h"
#include "config/Log.h"
#include "server/HelperServer.h"
#include "server/PageCommand.h"
#include "server/ProtocolMessages.h"

// The command side: a page's text messages, the start pass, the one active page, the permission
// wait with its time limit, audio frames to the active page, and stopping or failing capture.

namespace velmora {
namespace {

double secondsSince1970() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

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

}  // namespace velmora
