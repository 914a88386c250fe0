#include "server/HelperStatus.h"

namespace velmora {

std::ostream& operator<<(std::ostream& stream, const ServerState& state) {
    switch (state.kind()) {
        case ServerState::Kind::failed:
            return stream << "failed(" << state.message() << ")";
        case ServerState::Kind::stopped:
            return stream << "stopped";
        case ServerState::Kind::listening:
            return stream << "listening";
    }
    return stream;
}

std::ostream& operator<<(std::ostream& stream, const HelperStatus& status) {
    stream << "{server: " << status.server << ", clients: " << status.clients
           << ", capturingFor: " << status.capturingFor.value_or("(none)")
           << ", permissionDenied: " << (status.permissionDenied ? "true" : "false")
           << ", lastError: " << status.lastError.value_or("(none)") << "}";
    return stream;
}

}  // namespace velmora
