#include "app/installer/InstallPlaces.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

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

void makeSharedFolder(const std::filesystem::path& folder) {
    std::error_code error;
    std::filesystem::path missing = folder;
    std::vector<std::filesystem::path> made;
    while (!missing.empty() &&
           !std::filesystem::exists(std::filesystem::symlink_status(missing, error))) {
        made.push_back(missing);
        if (missing == missing.parent_path()) break;
        missing = missing.parent_path();
    }
    for (auto it = made.rbegin(); it != made.rend(); ++it) {
        if (::mkdir(it->c_str(), 0755) != 0 && errno != EEXIST) {
            throw InstallerError("Couldn't create the folder " + it->string() + ": " +
                                 std::strerror(errno) + ".");
        }
        // Not narrowed by this process's umask: every user's desktop reads it.
        std::filesystem::permissions(*it, std::filesystem::perms(0755), error);
    }
    if (!std::filesystem::is_directory(folder, error)) {
        throw InstallerError("Couldn't use " + folder.string() + ": it is not a folder.");
    }
}

void linkCommand(const std::filesystem::path& commandFolder,
                 const std::filesystem::path& executable) {
    makeSharedFolder(commandFolder);
    const std::filesystem::path link = commandFolder / executable.filename();
    std::error_code error;
    const auto status = std::filesystem::symlink_status(link, error);
    if (std::filesystem::exists(status) && !std::filesystem::is_symlink(status)) {
        throw InstallerError(link.string() +
                             " is not a link the helper made; it was left as it is.");
    }
    // Made beside it and renamed over it, so the command is never missing in between.
    const std::filesystem::path fresh = commandFolder / ("." + executable.filename().string() +
                                                         ".new-" + std::to_string(::getpid()));
    std::filesystem::remove(fresh, error);
    if (::symlink(executable.c_str(), fresh.c_str()) != 0 ||
        ::rename(fresh.c_str(), link.c_str()) != 0) {
        const std::string reason = std::strerror(errno);
        std::filesystem::remove(fresh, error);
        throw InstallerError("Couldn't link " + link.string() + " to " + executable.string() +
                             ": " + reason + ".");
    }
}

}  // namespace velmora::AppInstaller
