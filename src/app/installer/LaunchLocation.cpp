#include "app/installer/LaunchLocation.h"

#include <sys/statvfs.h>

namespace velmora::AppInstaller {

std::optional<std::filesystem::path> runningExecutable() {
    std::error_code error;
    std::filesystem::path resolved = std::filesystem::canonical("/proc/self/exe", error);
    if (error) return std::nullopt;
    return resolved;
}

bool isOnReadOnlyFileSystem(const std::filesystem::path& path) {
    struct statvfs info {};
    if (::statvfs(path.c_str(), &info) != 0) return false;
    return (info.f_flag & ST_RDONLY) != 0;
}

std::filesystem::path portableFolderOf(const std::filesystem::path& executable) {
    std::filesystem::path folder = executable.parent_path();
    if (folder.filename() == "bin" && folder.has_parent_path() && folder.parent_path() != folder) {
        return folder.parent_path();
    }
    return folder;
}

}  // namespace velmora::AppInstaller
