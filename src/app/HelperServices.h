#pragma once

#include <memory>

#include "capture/AudioCapturePermission.h"
#include "capture/AudioTap.h"
#include "config/HelperSettings.h"
#include "config/SerialQueue.h"
#include "meetings/MicrophoneUsers.h"
#include "server/HelperServer.h"
#include "server/ServerPolicy.h"

namespace velmora {

// This platform's system audio tap, capture permission and source of microphone users.
struct PlatformBackends {
    std::unique_ptr<AudioTap> tap;
    std::shared_ptr<AudioCapturePermission> permission;
    std::shared_ptr<MicrophoneUsers> microphoneUsers;
};

// Defined once per platform, beside that platform's other code.
PlatformBackends makePlatformBackends();

// What the helper runs on, whether with a tray or without one. The tray asks the permission for
// its menu, so it is kept beside the server that uses it.
struct HelperServices {
    std::shared_ptr<AudioCapturePermission> permission;
    std::shared_ptr<HelperServer> server;
};

// The port and the admitted origins as `settings` holds them, read anew at every use, so a saved
// port applies at the next restart and a saved origin at the next handshake. `settings` must
// outlive every server given the result.
ServerPolicy serverPolicyFrom(HelperSettings& settings);

// The server over this platform's backends, listening and admitting as `settings` says, with its
// statuses posted on `mainQueue` (which must outlive it). Not started.
HelperServices makeHelperServices(SerialQueue& mainQueue, HelperSettings& settings);

}  // namespace velmora
