#pragma once

#include <filesystem>

namespace velmora::AppInstaller {

// The folder the installed copy is named after inside its target folder.
inline constexpr const char* installedFolderName = "velmora-audio-helper";

// The system-wide target folder, used when this user may write to it.
inline constexpr const char* systemTargetFolder = "/opt";

// Where an install for every user puts its menu entry, and the link that puts its command on
// PATH.
inline constexpr const char* systemApplicationsFolder = "/usr/local/share/applications";
inline constexpr const char* systemCommandFolder = "/usr/local/bin";

// $XDG_DATA_HOME, or ~/.local/share when it is unset or not absolute; empty without a home
// folder.
std::filesystem::path dataHome();

// Where the installed copy goes: `systemFolder` when this user can write to it, otherwise
// `userFolder`, created with any missing parents. Throws InstallerError when it can't be made
// (or is empty: there is no home folder).
std::filesystem::path targetFolder(const std::filesystem::path& systemFolder,
                                   const std::filesystem::path& userFolder);

// Makes `folder` and its missing parents readable by every user (0755); an existing folder keeps
// its mode. Throws InstallerError when it can't.
void makeSharedFolder(const std::filesystem::path& folder);

// Puts a symbolic link to `executable` into `commandFolder` under the executable's name, in place
// of an earlier link but never of a file someone else put there. Throws InstallerError when it
// can't.
void linkCommand(const std::filesystem::path& commandFolder,
                 const std::filesystem::path& executable);

}  // namespace velmora::AppInstaller
