#include "capture/AudioCapturePermission.h"

namespace velmora {

std::string_view AudioCapturePermission::rawValue(Status status) {
    switch (status) {
        case Status::authorized:
            return "authorized";
        case Status::denied:
            return "denied";
        case Status::unknown:
            return "unknown";
    }
    return "unknown";
}

std::optional<AudioCapturePermission::Status> AudioCapturePermission::fromRawValue(
    std::string_view raw) {
    for (Status status : {Status::authorized, Status::denied, Status::unknown}) {
        if (raw == rawValue(status)) return status;
    }
    return std::nullopt;
}

}  // namespace velmora
