#include "app/installer/DiskImageVolume.h"

#include <gtest/gtest.h>

#include "ScratchMounts.h"
#include "app/installer/LaunchLocation.h"
#include "config/RunningExecutable.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using testing::TemporaryFolder;

constexpr const char* mountinfo =
    "22 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
    "30 22 0:25 / /media rw shared:5 - tmpfs tmpfs rw\n"
    "41 30 7:0 / /media/user/VELMORA\\040HELPER ro,relatime shared:9 - iso9660 /dev/loop0 ro\n"
    "42 30 7:1 / /media/user/VELMORA ro master:3 - iso9660 /dev/loop1 ro\n"
    "43 42 7:2 / /media/user/VELMORA ro - iso9660 /dev/loop2 ro\n";

TEST(MountHolding, TheLongestMountPointHoldingThePathWins) {
    auto entry = AppInstaller::mountHolding("/media/user/VELMORA HELPER/bin/x", mountinfo);
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->mountPoint, "/media/user/VELMORA HELPER");
    EXPECT_EQ(entry->deviceNumber, "7:0");
    EXPECT_EQ(entry->source, "/dev/loop0");
}

TEST(MountHolding, AMountOnTopOfAnotherHidesIt) {
    auto entry = AppInstaller::mountHolding("/media/user/VELMORA/bin/x", mountinfo);
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->source, "/dev/loop2");
}

TEST(MountHolding, ANameThatOnlyStartsLikeAMountPointIsNotInside) {
    auto entry = AppInstaller::mountHolding("/media/user/VELMORA2/x", mountinfo);
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->mountPoint, "/media");
}

TEST(MountHolding, RootHoldsEverythingElse) {
    auto entry = AppInstaller::mountHolding("/usr/bin/velmora-audio-helper", mountinfo);
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->mountPoint, "/");
    EXPECT_EQ(entry->source, "/dev/vda");
}

TEST(MountHolding, MalformedLinesAreSkipped) {
    EXPECT_FALSE(AppInstaller::mountHolding("/x", "garbage\n\n1 2 3\n").has_value());
}

TEST(DiskImageVolume, AFolderOnTheLocalDiskIsNoDiskImage) {
    TemporaryFolder folder;
    EXPECT_FALSE(AppInstaller::diskImageVolume(folder.path()).has_value());
    EXPECT_FALSE(AppInstaller::diskImageVolume(*runningExecutable()).has_value());
}

// The volume and device of a helper started from a mounted image of the given kind.
void expectTheImagesVolumeIsFound(testing::LoopMountedImage::Kind kind) {
    TemporaryFolder contents;
    testing::writeText(contents / "velmora-audio-helper/bin/velmora-audio-helper", "x");
    testing::LoopMountedImage image(contents.path(), kind);
    if (!image.mounted()) GTEST_SKIP() << image.problem();

    const std::filesystem::path folder = image.path() / "velmora-audio-helper";
    std::optional<DiskImageVolume> volume = AppInstaller::diskImageVolume(folder);
    ASSERT_TRUE(volume.has_value());
    EXPECT_EQ(volume->mountPoint, image.path());
    EXPECT_TRUE(volume->device.starts_with("/dev/loop")) << volume->device;
    EXPECT_TRUE(AppInstaller::isOnReadOnlyFileSystem(folder / "bin/velmora-audio-helper"));
}

TEST(DiskImageVolume, TheIsoImagesVolumeIsFoundForTheHandOver) {
    expectTheImagesVolumeIsFound(testing::LoopMountedImage::Kind::iso9660);
}

TEST(DiskImageVolume, AnExt4ImagesVolumeIsFoundForTheHandOver) {
    expectTheImagesVolumeIsFound(testing::LoopMountedImage::Kind::ext4);
}

TEST(DiskImageVolume, ABindMountOfALocalFolderIsNoDiskImage) {
    TemporaryFolder folder;
    testing::ReadOnlyBindMount mount(folder.path());
    if (!mount.mounted()) GTEST_SKIP() << testing::mountSkipReason;
    EXPECT_FALSE(AppInstaller::diskImageVolume(mount.path()).has_value());
}

}  // namespace
}  // namespace velmora
