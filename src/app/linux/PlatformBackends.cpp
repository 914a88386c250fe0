#include "app/HelperServices.h"
#include "capture/pulse/DesktopCapturePermission.h"
#include "capture/pulse/PulseAudioTap.h"
#include "meetings/pulse/PulseMicrophoneUsers.h"

// Linux: the sound server's monitor for the tap and its recording streams for the microphone
// users; the permission is the desktop's.

namespace velmora {

PlatformBackends makePlatformBackends() {
    return {
        .tap = std::make_unique<PulseAudioTap>(),
        .permission = std::make_shared<DesktopCapturePermission>(),
        .microphoneUsers = std::make_shared<PulseMicrophoneUsers>(),
    };
}

}  // namespace velmora
