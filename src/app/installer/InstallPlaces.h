#pragma once

#include <filesystem>

namespace velmora::AppInstaller {

// The folder the installed copy is named after inside its target folder.
inline constexpr const char* installedFolderName = "velmora-audio-helper";

// The system-wide target folder, used when this user may write to it.
inline constexpr const char* systemTargetFolder = "/opt";

// $XDG_DATA_HOME, or ~/.local/share when it is unset or not absolute; empty without a home
// folder.
std::filesystem::path dataHome();

// Where the installed copy goes: `systemFolder` when this user can write to it, otherwise
// `userFolder`, created with any missing parents. Throws InstallerError when it can't be made
// (or is empty: there is no home folder).
std::filesystem::path targetFolder(const std::filesystem::path& systemFolder,
                                   const std::filesystem::path& userFolder);

}  // namespace velmora::AppInstaller
