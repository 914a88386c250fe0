#include "app/installer/InstallPlaces.h"

#include <unistd.h>

#include "app/installer/InstallerError.h"
#include "config/UserFolders.h"

namespace velmora::AppInstaller {

std::filesystem::path dataHome() {
    return UserFolders::dataHome().value_or(std::filesystem::path());
}

std::filesystem::path targetFolder(const std::filesystem::path& systemFolder,
                                   const std::filesystem::path& userFolder) {
    if (::access(systemFolder.c_str(), W_OK) == 0) return systemFolder;
    if (userFolder.empty()) throw InstallerError("No home folder was found to install into.");
    std::error_code error;
    std::filesystem::create_directories(userFolder, error);
    if (error) {
        throw InstallerError("Couldn't create the folder " + userFolder.string() + ": " +
                             error.message() + ".");
    }
    return userFolder;
}

}  // namespace velmora::AppInstaller
