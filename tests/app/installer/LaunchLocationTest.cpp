#include "app/installer/LaunchLocation.h"

#include <gtest/gtest.h>

#include "ScratchMounts.h"
#include "config/RunningExecutable.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using testing::TemporaryFolder;

TEST(LaunchLocation, WritableFolderIsNotReadOnly) {
    TemporaryFolder folder;
    testing::writeText(folder / "bin/velmora-audio-helper", "x");
    EXPECT_FALSE(AppInstaller::isOnReadOnlyFileSystem(folder / "bin/velmora-audio-helper"));
}

TEST(LaunchLocation, TheBuildFolderIsNotReadOnly) {
    std::optional<std::filesystem::path> executable = runningExecutable();
    ASSERT_TRUE(executable.has_value());
    EXPECT_FALSE(AppInstaller::isOnReadOnlyFileSystem(*executable));
}

TEST(LaunchLocation, AnUnknownAnswerIsNotReadOnly) {
    EXPECT_FALSE(AppInstaller::isOnReadOnlyFileSystem("/no/such/folder/velmora-audio-helper"));
}

TEST(LaunchLocation, ReadOnlyBindMountIsReadOnly) {
    TemporaryFolder folder;
    testing::writeText(folder / "bin/velmora-audio-helper", "x");
    testing::ReadOnlyBindMount mount(folder.path());
    if (!mount.mounted()) GTEST_SKIP() << testing::mountSkipReason;
    EXPECT_TRUE(AppInstaller::isOnReadOnlyFileSystem(mount.path() / "bin/velmora-audio-helper"));
    EXPECT_FALSE(AppInstaller::isOnReadOnlyFileSystem(folder / "bin/velmora-audio-helper"));
}

TEST(LaunchLocation, PortableFolderHoldsTheBinFolder) {
    EXPECT_EQ(AppInstaller::portableFolderOf("/media/user/VELMORA/velmora-audio-helper/bin/"
                                             "velmora-audio-helper"),
              "/media/user/VELMORA/velmora-audio-helper");
    EXPECT_EQ(AppInstaller::portableFolderOf("/home/user/build/velmora-audio-helper"),
              "/home/user/build");
}

}  // namespace
}  // namespace velmora
