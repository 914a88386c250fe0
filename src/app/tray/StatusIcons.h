#pragma once

#include <QIcon>
#include <string_view>

namespace velmora {

// The icon for one of the tray's symbol names ("waveform", "waveform.circle.fill",
// "exclamationmark.triangle"): the desktop theme's copy when one is installed, so the panel can
// tint it like its other symbolic icons, otherwise the copy compiled into the program. Marked
// as a mask, so platforms that tint templates do. An unknown name gives "waveform".
QIcon statusIcon(std::string_view symbolName);

// The icon's theme name, such as "velmora-waveform-symbolic".
QString statusIconThemeName(std::string_view symbolName);

}  // namespace velmora
