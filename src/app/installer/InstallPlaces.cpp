#include "app/installer/InstallPlaces.h"

#include <unistd.h>

#include "app/installer/InstallerError.h"
#include "config/PrivateFiles.h"
#include "config/UserFolders.h"

namespace velmora::AppInstaller {

std::filesystem::path dataHome() {
    return UserFolders::dataHome().value_or(std::filesystem::path());
}

std::filesystem::path targetFolder(const std::filesystem::path& systemFolder,
                                   const std::filesystem::path& userFolder) {
    if (::access(systemFolder.c_str(), W_OK) == 0) return systemFolder;
    if (userFolder.empty()) throw InstallerError("No home folder was found to install into.");
    // Missing folders are made private, as any per-user folder the helper makes; an existing one
    // (~/.local/share, shared with other programs) keeps its mode.
    if (auto problem = PrivateFiles::makeFolder(userFolder, /*narrowExisting=*/false)) {
        throw InstallerError("Couldn't create the folder " + userFolder.string() + ": it " +
                             *problem + ".");
    }
    return userFolder;
}

}  // namespace velmora::AppInstaller
