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

inline constexpr const char* mountSkipReason =
    "mounting is not allowed here (needs root, bind mounts and loop devices); the read-only "
    "launch location is checked where CI runs as root";

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

// A disk image holding a copy of `contents`, mounted read-only through a loop device, the way a
// desktop mounts a downloaded disk image: the helper's own ISO 9660 kind, or a small ext4 one
// for kernels without ISO 9660. Needs root and loop devices; why it isn't mounted is in problem().
class LoopMountedImage {
  public:
    enum class Kind { iso9660, ext4 };

    LoopMountedImage(const std::filesystem::path& contents, Kind kind)
        : image_(folder_ / "disk.img"), mountPoint_(folder_ / "volume") {
        std::filesystem::create_directories(mountPoint_);
        if (::geteuid() != 0) {
            problem_ = mountSkipReason;
            return;
        }
        const bool made =
            kind == Kind::iso9660
                ? shell("xorriso -as mkisofs -rational-rock -volid VELMORA -output " +
                        quoted(image_) + " " + quoted(contents))
                : shell("mkfs.ext4 -q -F -d " + quoted(contents) + " " + quoted(image_) + " 8M");
        if (!made) {
            problem_ = kind == Kind::iso9660 ? "xorriso couldn't make the ISO image"
                                             : "mkfs.ext4 couldn't make the image";
            return;
        }
        mounted_ = shell("mount -o loop,ro " + quoted(image_) + " " + quoted(mountPoint_));
        if (!mounted_) {
            problem_ = kind == Kind::iso9660 && !shell("grep -qw iso9660 /proc/filesystems")
                           ? "this kernel can't mount ISO 9660 images"
                           : "the image could not be loop-mounted here";
        }
    }
    ~LoopMountedImage() {
        if (mounted_) shell("umount " + quoted(mountPoint_));
    }
    LoopMountedImage(const LoopMountedImage&) = delete;
    LoopMountedImage& operator=(const LoopMountedImage&) = delete;

    bool mounted() const { return mounted_; }
    const std::string& problem() const { return problem_; }
    const std::filesystem::path& path() const { return mountPoint_; }

  private:
    TemporaryFolder folder_;
    std::filesystem::path image_;
    std::filesystem::path mountPoint_;
    bool mounted_ = false;
    std::string problem_;
};

}  // namespace velmora::testing
