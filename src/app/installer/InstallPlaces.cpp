#include "app/installer/InstallPlaces.h"

#include <unistd.h>

#include <cstdlib>

#include "app/installer/InstallerError.h"

namespace velmora::AppInstaller {

std::filesystem::path dataHome() {
    const char* configured = std::getenv("XDG_DATA_HOME");
    if (configured && std::filesystem::path(configured).is_absolute()) return configured;
    const char* home = std::getenv("HOME");
    return std::filesystem::path(home ? home : "/") / ".local" / "share";
}

std::filesystem::path targetFolder(const std::filesystem::path& systemFolder,
                                   const std::filesystem::path& userFolder) {
    if (::access(systemFolder.c_str(), W_OK) == 0) return systemFolder;
    std::error_code error;
    std::filesystem::create_directories(userFolder, error);
    if (error) {
        throw InstallerError("Couldn't create the folder " + userFolder.string() + ": " +
                             error.message() + ".");
    }
    return userFolder;
}

}  // namespace velmora::AppInstaller
