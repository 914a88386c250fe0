#pragma once

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

namespace velmora::testing {

// The permission bits of a path, not following a link.
inline mode_t modeOf(const std::filesystem::path& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return 0;
    return info.st_mode & 07777;
}

// Hands `path` to the user "nobody", for tests of another user's file; absent (with the test
// skipped by the caller) when this process can't, i.e. does not run as root.
inline std::optional<uid_t> giveToNobody(const std::filesystem::path& path) {
    if (::geteuid() != 0) return std::nullopt;
    passwd* nobody = ::getpwnam("nobody");
    if (nobody == nullptr) return std::nullopt;
    if (::lchown(path.c_str(), nobody->pw_uid, nobody->pw_gid) != 0) return std::nullopt;
    return nobody->pw_uid;
}

}  // namespace velmora::testing
