#include "app/installer/LaunchLocation.h"

#include <sys/statvfs.h>

namespace velmora::AppInstaller {

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
