#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "access/HelperPass.h"
#include "capture/AudioCapturePermission.h"
#include "capture/AudioTap.h"
#include "capture/CaptureError.h"
#include "capture/SystemAudioCapture.h"
#include "config/SerialQueue.h"
#include "config/ThreadSafety.h"
#include "meetings/CallEndWatch.h"
#include "meetings/MicrophoneUsers.h"
#include "server/Client.h"
#include "server/HelperServerTimings.h"
#include "server/HelperStatus.h"
#include "server/PeerAdmission.h"
#include "server/PeerOwnerLookup.h"
#include "server/ServerPolicy.h"
#include "server/WebSocketListener.h"

namespace velmora {

// The local WebSocket server: admits pages by origin on 127.0.0.1, greets them, starts the
// system audio capture for the one active page that shows a valid start pass, streams its
// frames to that page only, and tells it when a watched call has ended. Every field lives on the
// server's own serial queue; the public operations post onto it (shutdown waits for it).
// One class over several files, one per concern: the three share every field and the queue that
// confines them, so splitting the state into collaborators would only pass it back and forth.
class HelperServer final : public std::enable_shared_from_this<HelperServer> {
  public:
    using StatusHandler = std::function<void(const HelperStatus&)>;

    // The server captures through `tap` (wrapped in its own SystemAudioCapture), asks
    // `permission` before a first start, polls `microphoneUsers` while streaming, and calls the
    // status handler on `mainQueue`, which must outlive the server. `policy` gives the port to
    // listen on and the origins to admit; both of its functions must be set (std::invalid_argument
    // otherwise). `passKeys` are the keys start passes must be signed with (the built-in ones
    // unless a test supplies its own). `peerOwners` tells who holds the other end of each
    // connection: only the user running the helper is admitted, and a peer it cannot tell about is
    // refused.
    static std::shared_ptr<HelperServer> create(
        std::unique_ptr<AudioTap> tap, std::shared_ptr<AudioCapturePermission> permission,
        std::shared_ptr<MicrophoneUsers> microphoneUsers, SerialQueue& mainQueue,
        ServerPolicy policy, HelperServerTimings timings = {},
        std::vector<HelperPass::VerificationKey> passKeys = HelperPass::keys(),
        std::shared_ptr<PeerOwnerLookup> peerOwners = PeerOwnerLookup::platform());

    ~HelperServer();
    HelperServer(const HelperServer&) = delete;
    HelperServer& operator=(const HelperServer&) = delete;

    // Called on the main queue with each distinct status, in order. Safe from any thread.
    void setOnStatus(StatusHandler onStatus);

    // Starts listening on the policy's port (asynchronously).
    void start();
    // Stops any capture with notice to its page, closes every connection and listens again on
    // the port the policy gives now (asynchronously). For a port change.
    void restart();
    // Stops any capture without notice, closes the listener and every connection; waits until
    // done. Nothing is published after it returns, so the owner may then take the main queue
    // down. Must not be called from the server's queue.
    void shutdown();

    // One frame from the capture pipeline, from any thread: goes to the active page only.
    void sendFrame(SystemAudioCapture::Frame frame);

    // The current status, read on the server's queue (not callable from it).
    HelperStatus status();

    // The identifier the call-end watch ignores as the helper itself; fixed at creation, so it
    // may be read from any thread although the watch lives on the queue.
    const std::string& ownBundleId() const VELMORA_NO_THREAD_SAFETY_ANALYSIS {
        return callWatch_.ownBundleId();
    }

    // Makes a page's session on the server's io_context, for a connection that reaches the helper
    // other than through its listener.
    using SessionMaker = std::function<std::shared_ptr<WebSocketSession>(boost::asio::io_context&)>;
    // Serves one such connection, whose upgrade `request` has been read and whose ends are
    // `endpoints`: admitted as the listener's connections are (peer, Host, origin, room), then
    // answered and served by the session `makeSession` makes; a refused one is closed.
    // Asynchronous.
    void serve(SessionMaker makeSession, WebSocketSession::UpgradeRequest request,
               ConnectionEndpoints endpoints);

  private:
    HelperServer(std::unique_ptr<AudioTap> tap, std::shared_ptr<AudioCapturePermission> permission,
                 std::shared_ptr<MicrophoneUsers> microphoneUsers, SerialQueue& mainQueue,
                 ServerPolicy policy, HelperServerTimings timings,
                 std::vector<HelperPass::VerificationKey> passKeys,
                 std::shared_ptr<PeerOwnerLookup> peerOwners);

    class ListenerEvents;
    class ClientEvents;
    struct StatusSlot;
    using ClientPointer = std::shared_ptr<Client>;

    using Work = std::function<void(HelperServer&)>;

    // In create(), before any work reaches the queue: the capture it wires is not yet shared.
    void wireCapture() VELMORA_NO_THREAD_SAFETY_ANALYSIS;
    // Runs work on the queue if the server still exists then. postWeakly is for callbacks from
    // other threads: it does not keep the server alive, so the server is never destroyed there.
    void post(Work work);
    static void postWeakly(const std::weak_ptr<SerialQueue>& queue,
                           const std::weak_ptr<HelperServer>& server, Work work);

    // The ...Locked functions run on queue_. Those entered from callbacks check that they do
    // (VELMORA_ASSERT_ON_QUEUE); the rest require it of their callers.

    // Listener, admission and clients (HelperServerListenerAndAdmission.cpp).
    void startListenerLocked();
    void listenerStateChangedLocked(WebSocketListener& listener, WebSocketListener::State state,
                                    const boost::system::error_code& error, std::uint16_t port);
    void cancelListenerLocked() VELMORA_REQUIRES(*queue_);
    Admission admitConnectionLocked(const WebSocketSession::UpgradeRequest& request,
                                    const ConnectionEndpoints& endpoints, std::uint16_t port);
    bool admitLocked(const WebSocketSession::UpgradeRequest& request) VELMORA_REQUIRES(*queue_);
    ClientPointer acceptLocked(const std::shared_ptr<WebSocketSession>& connection);
    void clientReadyLocked(const ClientPointer& client);
    void clientEndedLocked(const ClientPointer& client, const boost::system::error_code& error);
    void dropLocked(const ClientPointer& client) VELMORA_REQUIRES(*queue_);
    void sendJSONLocked(const Client& client, const nlohmann::json& message)
        VELMORA_REQUIRES(*queue_);

    // Capture sessions (HelperServerCaptureSessions.cpp).
    void handleTextLocked(const ClientPointer& client, std::string_view text);
    void handleStartLocked(const ClientPointer& client) VELMORA_REQUIRES(*queue_);
    void permissionAnsweredLocked(bool granted, std::uint64_t token);
    void permissionTimedOutLocked(std::uint64_t token);
    void sendErrorLocked(const Client& client, const CaptureError& error) VELMORA_REQUIRES(*queue_);
    void stopCaptureLocked(bool notify) VELMORA_REQUIRES(*queue_);
    void captureFailedLocked(const std::string& text);
    void sendFrameLocked(const std::shared_ptr<const SystemAudioCapture::Frame>& frame);

    // Call-end notices (HelperServerCallEndNotices.cpp).
    void watchCallsLocked(bool on) VELMORA_REQUIRES(*queue_);
    void callTickLocked();

    // Status.
    void changeStatusLocked(const std::function<void(HelperStatus&)>& change)
        VELMORA_REQUIRES(*queue_);
    void publishLocked() VELMORA_REQUIRES(*queue_);
    int openClientCountLocked() const VELMORA_REQUIRES(*queue_);

    void closeEverythingLocked() VELMORA_REQUIRES(*queue_);

    std::shared_ptr<SerialQueue> queue_;
    SerialQueue& mainQueue_;
    const ServerPolicy policy_;
    const HelperServerTimings timings_;
    const std::vector<HelperPass::VerificationKey> passKeys_;
    const std::shared_ptr<AudioCapturePermission> permission_;
    const std::shared_ptr<MicrophoneUsers> microphoneUsers_;
    const std::shared_ptr<StatusSlot> onStatus_;

    // Everything below is confined to queue_.
    std::shared_ptr<WebSocketListener> listener_ VELMORA_GUARDED_BY(*queue_);
    std::shared_ptr<QueueTimer> listenerRetry_ VELMORA_GUARDED_BY(*queue_);
    std::unordered_map<const Client*, ClientPointer> clients_ VELMORA_GUARDED_BY(*queue_);
    ClientPointer active_ VELMORA_GUARDED_BY(*queue_);
    bool starting_ VELMORA_GUARDED_BY(*queue_) = false;
    std::shared_ptr<SystemAudioCapture> capture_ VELMORA_GUARDED_BY(*queue_);
    HelperStatus status_ VELMORA_GUARDED_BY(*queue_);
    CallEndWatch callWatch_ VELMORA_GUARDED_BY(*queue_);
    std::shared_ptr<QueueTimer> callTimer_ VELMORA_GUARDED_BY(*queue_);
    std::string lastAcceptedOrigin_ VELMORA_GUARDED_BY(*queue_);
    PeerAdmission peerAdmission_ VELMORA_GUARDED_BY(*queue_);
    // The peer socket of the connection admitted last, taken by the session made for it next.
    std::uint64_t admittedPeerSocket_ VELMORA_GUARDED_BY(*queue_) = 0;
    std::uint64_t startToken_ VELMORA_GUARDED_BY(*queue_) = 0;
    bool publishing_ VELMORA_GUARDED_BY(*queue_) = true;  // false from shutdown on
};

}  // namespace velmora
