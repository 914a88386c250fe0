#pragma once

#include <filesystem>
#include <string>

namespace velmora::AppInstaller {

// The applications-menu entry of a copy installed in `installedFolder` (the portable folder's
// layout: bin/ and share/), naming its executable and icon by their full paths.
std::string desktopEntryText(const std::filesystem::path& installedFolder);

// Writes that entry into `applicationsFolder` (created when missing) as
// "velmora-audio-helper.desktop", so it takes the place of a packaged entry for this user.
// Returns the file written; throws InstallerError when it can't be written.
std::filesystem::path writeDesktopEntry(const std::filesystem::path& installedFolder,
                                        const std::filesystem::path& applicationsFolder);

}  // namespace velmora::AppInstaller
