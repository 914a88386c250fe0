#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "server/ServerState.h"

namespace velmora {

// The snapshot of the server that the application shows; published whenever it changes.
struct HelperStatus {
    ServerState server = ServerState::stopped();
    // Pages whose connection is open (ready and not yet dropped).
    int clients = 0;
    // Origin of the page that receives audio; absent while no capture runs.
    std::optional<std::string> capturingFor;
    // A start was refused the recording permission; cleared by the next successful start.
    bool permissionDenied = false;
    // Text of the last capture failure; cleared by the next successful start.
    std::optional<std::string> lastError;

    bool operator==(const HelperStatus&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const HelperStatus& status);

}  // namespace velmora
