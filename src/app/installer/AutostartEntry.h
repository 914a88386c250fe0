#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace velmora::AutostartEntry {

// The helper's entry in a freedesktop autostart folder; ours when it carries the marker key.
inline constexpr const char* fileName = "velmora-audio-helper.desktop";
inline constexpr const char* markerKey = "X-Velmora-Audio-Helper-Autostart";

using Keys = std::map<std::string, std::string>;

// $XDG_CONFIG_HOME/autostart (~/.config/autostart when unset); empty without a home folder.
std::filesystem::path defaultFolder();

// The keys of the entry's [Desktop Entry] group; absent when the file can't be read or is not
// this user's regular file.
std::optional<Keys> read(const std::filesystem::path& file);

bool isOurs(const Keys& keys);
// Hidden=true or X-GNOME-Autostart-enabled=false.
bool isSwitchedOff(const Keys& keys);
// The program the entry's command runs, when it names one by its full path that is there and
// may be run; an entry pointing into an ejected disk image or a removed copy has none.
std::optional<std::filesystem::path> runnableProgram(const Keys& keys);

// The entry that starts `executable` at login.
std::string text(const std::filesystem::path& executable);

// Writes that entry into `folder` (made when missing); when it couldn't, a sentence saying why.
std::optional<std::string> write(const std::filesystem::path& folder,
                                 const std::filesystem::path& executable);

// After an install: an entry of ours that is switched on is rewritten to start `executable`,
// the installed copy. Someone else's entry, and one switched off, are left alone. Why it couldn't
// be rewritten, when it couldn't.
std::optional<std::string> followInstalledCopy(const std::filesystem::path& folder,
                                               const std::filesystem::path& executable);

}  // namespace velmora::AutostartEntry
