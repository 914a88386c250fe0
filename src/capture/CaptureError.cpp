#include "capture/CaptureError.h"

#include "config/AudioKit.h"
#include "config/PlatformTexts.h"

namespace velmora {

CaptureError::CaptureError(Kind kind, std::string detail)
    : kind_(kind), detail_(std::move(detail)), what_(message()) {}

CaptureError CaptureError::device(std::string message) {
    return CaptureError(Kind::device, std::move(message));
}

CaptureError CaptureError::permissionDenied() {
    return CaptureError(Kind::permissionDenied, {});
}

std::string CaptureError::code() const {
    switch (kind_) {
        case Kind::device:
            return "device_error";
        case Kind::permissionDenied:
            return "permission_denied";
    }
    return "device_error";
}

std::string CaptureError::message() const {
    switch (kind_) {
        case Kind::device:
            return detail_;
        case Kind::permissionDenied:
            return PlatformTexts::current().permissionDenied(AudioKit::config().appName);
    }
    return detail_;
}

std::string osStatusString(std::int32_t status) {
    const auto bits = static_cast<std::uint32_t>(status);
    char characters[4];
    bool printable = true;
    for (int index = 0; index < 4; ++index) {
        // Most significant byte first, as four-character codes are written.
        const auto byte = static_cast<unsigned char>((bits >> (24 - 8 * index)) & 0xFFu);
        printable = printable && byte >= 0x20 && byte <= 0x7E;
        characters[index] = static_cast<char>(byte);
    }
    std::string decimal = std::to_string(status);
    if (!printable) return decimal;
    std::string text = "'";
    text.append(characters, 4);
    text += "' (";
    text += decimal;
    text += ')';
    return text;
}

}  // namespace velmora
