#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "config/TemporaryFolder.h"

namespace velmora::testing {

// Runs a shell command quietly; true when it succeeded.
inline bool shell(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

inline std::string quoted(const std::filesystem::path& path) {
    return "'" + path.string() + "'";
}

// A folder's contents shown read-only at another place through a bind mount. Needs root; the
// caller skips when mounted() is false.
class ReadOnlyBindMount {
  public:
    explicit ReadOnlyBindMount(const std::filesystem::path& source)
        : mountPoint_(folder_ / "read-only") {
        std::filesystem::create_directories(mountPoint_);
        if (::geteuid() != 0) return;
        if (!shell("mount --bind " + quoted(source) + " " + quoted(mountPoint_))) return;
        mounted_ = true;
        if (!shell("mount -o remount,bind,ro " + quoted(mountPoint_))) unmount();
    }
    ~ReadOnlyBindMount() { unmount(); }
    ReadOnlyBindMount(const ReadOnlyBindMount&) = delete;
    ReadOnlyBindMount& operator=(const ReadOnlyBindMount&) = delete;

    bool mounted() const { return mounted_; }
    const std::filesystem::path& path() const { return mountPoint_; }

  private:
    void unmount() {
        if (mounted_) shell("umount " + quoted(mountPoint_));
        mounted_ = false;
    }

    TemporaryFolder folder_;
    std::filesystem::path mountPoint_;
    bool mounted_ = false;
};

// A small ext4 image holding a copy of `contents`, mounted read-only through a loop device, the
// way a desktop mounts a downloaded disk image. Needs root and loop devices.
class LoopMountedImage {
  public:
    explicit LoopMountedImage(const std::filesystem::path& contents)
        : image_(folder_ / "disk.img"), mountPoint_(folder_ / "volume") {
        std::filesystem::create_directories(mountPoint_);
        if (::geteuid() != 0) return;
        if (!shell("mkfs.ext4 -q -F -d " + quoted(contents) + " " + quoted(image_) + " 8M")) return;
        mounted_ = shell("mount -o loop,ro " + quoted(image_) + " " + quoted(mountPoint_));
    }
    ~LoopMountedImage() {
        if (mounted_) shell("umount " + quoted(mountPoint_));
    }
    LoopMountedImage(const LoopMountedImage&) = delete;
    LoopMountedImage& operator=(const LoopMountedImage&) = delete;

    bool mounted() const { return mounted_; }
    const std::filesystem::path& path() const { return mountPoint_; }

  private:
    TemporaryFolder folder_;
    std::filesystem::path image_;
    std::filesystem::path mountPoint_;
    bool mounted_ = false;
};

inline constexpr const char* mountSkipReason =
    "mounting is not allowed here (needs root, bind mounts and loop devices); the read-only "
    "launch location is checked where CI runs as root";

}  // namespace velmora::testing
