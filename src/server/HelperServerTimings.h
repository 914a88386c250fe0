#pragma once

#include <chrono>

#include "capture/SystemAudioCapture.h"
#include "server/WebSocketLimits.h"

namespace velmora {

// The server's delays and limits. The defaults are the product's; tests shorten them.
struct HelperServerTimings {
    // How long a start waits for the recording permission before the page is told to answer
    // the prompt and try again.
    std::chrono::milliseconds permissionTimeout{110'000};
    // How long after a listener failure the next attempt is made.
    std::chrono::milliseconds listenerRetryDelay{5'000};
    // The call-end watch's polling period while a page receives audio, and the lateness a tick
    // may have.
    std::chrono::milliseconds callInterval{2'000};
    std::chrono::milliseconds callLeeway{500};
    // The call-end watch's grace and minimum call length, in seconds.
    double callGrace = 15.0;
    double minimumCall = 10.0;
    CaptureTimings capture;
    WebSocketLimits limits;
};

}  // namespace velmora
