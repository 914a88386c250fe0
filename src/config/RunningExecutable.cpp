#include "config/RunningExecutable.h"

#include <sys/stat.h>

#include <string>
#include <system_error>

namespace velmora {
namespace {

bool isSameFile(const std::filesystem::path& first, const std::filesystem::path& second) {
    struct stat a {
    }, b{};
    if (::stat(first.c_str(), &a) != 0 || ::stat(second.c_str(), &b) != 0) return false;
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

std::optional<std::filesystem::path> executableBehind(const std::filesystem::path& executableLink) {
    std::error_code error;
    std::filesystem::path target = std::filesystem::read_symlink(executableLink, error);
    if (error || target.empty()) return std::nullopt;
    const std::string text = target.string();
    // A file that merely ends with the mark in its name is still the running one; otherwise the
    // mark says the file is gone from that path, and the path is what is wanted.
    if (text.ends_with(deletedMark) && !isSameFile(target, executableLink)) {
        target = text.substr(0, text.size() - deletedMark.size());
    }
    return target;
}

std::optional<std::filesystem::path> runningExecutable() {
    // Linux names the executable of each process in /proc; other systems ask their own way.
    return executableBehind("/proc/self/exe");
}

}  // namespace velmora
