#pragma once

#include <cstdint>
#include <string>

#include "server/HelperStatus.h"

namespace velmora {

// What the tray shows for one status: the status line, the icon, whether the permission item is
// offered, and the tool tip. Icon names are the symbol names "waveform", "waveform.circle.fill"
// and "exclamationmark.triangle"; the tray maps them to its icon files.
struct TrayAppearance {
    std::string statusText;
    std::string iconName;
    bool permissionItemVisible = false;
    std::string toolTip;

    bool operator==(const TrayAppearance&) const = default;
};

namespace TrayIcons {
inline constexpr const char* idle = "waveform";
inline constexpr const char* sending = "waveform.circle.fill";
inline constexpr const char* warning = "exclamationmark.triangle";
}  // namespace TrayIcons

// The tray's name: the tool tip before the first status, the icon's accessible name, and the
// lead of every later tool tip.
inline constexpr const char* trayName = "Velmora Audio Helper";

// Pure: the same status and port always give the same appearance. `port` is the port the user
// has saved, shown while the helper waits for a page.
TrayAppearance render(const HelperStatus& status, std::uint16_t port);

}  // namespace velmora
