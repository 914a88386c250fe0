#pragma once

#include <string>
#include <vector>

#include "capture/AudioCapturePermission.h"

namespace velmora {

// The capture permission on a Linux desktop. The sound server has no privacy database, so the
// status is never known ahead and a request is granted at once: capture is attempted, and a
// real refusal by the server surfaces as permission denied when the tap connects.
class DesktopCapturePermission final : public AudioCapturePermission {
  public:
    // A program that shows the desktop's sound settings, with its arguments.
    using SettingsCommand = std::vector<std::string>;

    // The usual sound settings of GNOME, KDE Plasma and any desktop with a PulseAudio mixer,
    // looked up on $PATH at the time of asking.
    DesktopCapturePermission();
    // The same lookup over `searchPath` (a colon-separated list of folders).
    DesktopCapturePermission(std::vector<SettingsCommand> candidates, std::string searchPath);

    Status status() override;
    void request(std::function<void(bool granted)> completion) override;
    // Starts the first candidate found, detached from this process; does nothing when none is.
    void openSystemSettings() override;

    static std::vector<SettingsCommand> defaultCandidates();

  private:
    std::vector<SettingsCommand> candidates_;
    std::string searchPath_;
    bool useEnvironmentPath_;
};

}  // namespace velmora
