#include <chrono>
#include <nlohmann/json.hpp>

#include "config/Log.h"
#include "server/HelperServer.h"
#include "server/ProtocolMessages.h"
#include "server/SystemUptime.h"

// While a page receives audio: poll who uses the microphone and tell that page when a call in a
// known meeting app has ended.

namespace velmora {

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

}  // namespace velmora
