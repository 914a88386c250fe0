#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// The mounted disk image (or removable medium) a program runs from: where it is mounted and the
// block device behind it, which is what the desktop's disk tools detach.
struct DiskImageVolume {
    std::filesystem::path mountPoint;
    std::string device;

    bool operator==(const DiskImageVolume&) const = default;
};

// One line of /proc/self/mountinfo, reduced to what the installer asks about.
struct MountEntry {
    std::filesystem::path mountPoint;
    std::string deviceNumber;  // "major:minor"
    std::string source;        // the device or other source the file system was mounted from
};

namespace AppInstaller {

// The mount that holds `path` (an absolute path with links resolved) among the lines of a
// mountinfo text: the longest mount point containing it, the later one when a mount hides
// another. Nothing when no line applies.
std::optional<MountEntry> mountHolding(const std::filesystem::path& path,
                                       std::string_view mountinfo);

// Whether a block device ("major:minor") is a loop device or a removable medium, from the
// kernel's block device folders.
bool isLoopOrRemovable(const std::string& deviceNumber);

// The disk image `location` runs from: its mount when that sits on a loop device or a
// removable medium; nothing otherwise or when the mounts can't be read.
std::optional<DiskImageVolume> diskImageVolume(const std::filesystem::path& location);

}  // namespace AppInstaller
}  // namespace velmora
