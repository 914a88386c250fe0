#include "app/tray/StatusIcons.h"

#include "app/TrayAppearance.h"

namespace velmora {

QString statusIconThemeName(std::string_view symbolName) {
    if (symbolName == TrayIcons::sending) return "velmora-waveform-circle-fill-symbolic";
    if (symbolName == TrayIcons::warning) return "velmora-exclamationmark-triangle-symbolic";
    return "velmora-waveform-symbolic";
}

QIcon statusIcon(std::string_view symbolName) {
    QString name = statusIconThemeName(symbolName);
    QIcon icon = QIcon::fromTheme(name, QIcon(":/icons/status/" + name + ".svg"));
    icon.setIsMask(true);
    return icon;
}

}  // namespace velmora
