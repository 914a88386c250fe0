#include "server/HelperServer.h"

#include <stdexcept>
#include <utility>

#include "config/EndingThread.h"
#include "config/HelperInfo.h"
#include "server/DescriptorLimit.h"

// Creation, the public operations and status publishing. The listener and admission, capture
// sessions and call-end notices each have a file of their own beside this one.

namespace velmora {

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

// ---------------------------------------------------------------------------------------------
// Creation and public operations

std::shared_ptr<HelperServer> HelperServer::create(
    std::unique_ptr<AudioTap> tap, std::shared_ptr<AudioCapturePermission> permission,
    std::shared_ptr<MicrophoneUsers> microphoneUsers, SerialQueue& mainQueue, ServerPolicy policy,
    HelperServerTimings timings, std::vector<HelperPass::VerificationKey> passKeys,
    std::shared_ptr<PeerOwnerLookup> peerOwners) {
    if (!policy.port || !policy.isOriginAllowed) {
        throw std::invalid_argument("the server needs a port and an origin check");
    }
    std::shared_ptr<HelperServer> server(new HelperServer(
        std::move(tap), std::move(permission), std::move(microphoneUsers), mainQueue,
        std::move(policy), std::move(timings), std::move(passKeys), std::move(peerOwners)));
    server->wireCapture();
    return server;
}

HelperServer::HelperServer(std::unique_ptr<AudioTap> tap,
                           std::shared_ptr<AudioCapturePermission> permission,
                           std::shared_ptr<MicrophoneUsers> microphoneUsers, SerialQueue& mainQueue,
                           ServerPolicy policy, HelperServerTimings timings,
                           std::vector<HelperPass::VerificationKey> passKeys,
                           std::shared_ptr<PeerOwnerLookup> peerOwners)
    : queue_(std::make_shared<SerialQueue>("com.velmora.audiohelper.server")),
      mainQueue_(mainQueue),
      policy_(std::move(policy)),
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
            VELMORA_ASSERT_ON_QUEUE(*queue_);
            publishing_ = false;
            closeEverythingLocked();
        });
        return;
    }
    // The last owner let go inside one of our own callbacks. The queue cannot join its own
    // thread, so the ending thread ends it once this callback has returned. Not the main queue:
    // an owner may already have ended that one.
    VELMORA_ASSERT_ON_QUEUE(*queue_);
    publishing_ = false;
    closeEverythingLocked();
    queue_->stop();
    endOnEndingThread(std::move(queue_));
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
        postWeakly(queue, server, [](HelperServer& self) {
            VELMORA_ASSERT_ON_QUEUE(*self.queue_);
            self.capture_->rebuild();
        });
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
        VELMORA_ASSERT_ON_QUEUE(*self.queue_);
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
        VELMORA_ASSERT_ON_QUEUE(*queue_);
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
    return queue_->sync([this] {
        VELMORA_ASSERT_ON_QUEUE(*queue_);
        return status_;
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
