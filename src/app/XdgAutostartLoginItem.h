#pragma once

#include <filesystem>

#include "app/LoginItemService.h"

namespace velmora {

// Start at login on freedesktop desktops: an autostart entry named velmora-audio-helper.desktop
// in $XDG_CONFIG_HOME/autostart (~/.config/autostart when unset). The entry is ours when it
// carries our marker key; an entry someone else wrote under the same name is never changed or
// removed. Entries with Hidden=true or X-GNOME-Autostart-enabled=false count as off.
class XdgAutostartLoginItem final : public LoginItemService {
  public:
    // The entry for the running executable in the user's autostart folder.
    XdgAutostartLoginItem();
    XdgAutostartLoginItem(std::filesystem::path autostartFolder, std::filesystem::path executable);

    static std::filesystem::path defaultAutostartFolder();
    const std::filesystem::path& entryFile() const { return entryFile_; }

    Status status() override;
    void registerItem() override;
    void unregisterItem() override;
    // Freedesktop autostart needs no approval; there is nothing to open.
    void openSettings() override {}

    // The key that marks an entry as written by the helper.
    static constexpr const char* markerKey = "X-Velmora-Audio-Helper-Autostart";

  private:
    std::filesystem::path folder_;
    std::filesystem::path entryFile_;
    std::filesystem::path executable_;
};

}  // namespace velmora
