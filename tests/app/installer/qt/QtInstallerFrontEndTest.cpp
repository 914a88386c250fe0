#include "app/installer/QtInstallerFrontEnd.h"

#include <signal.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/installer/InstallerError.h"
#include "app/installer/RunningCopy.h"
#include "app/installer/SelfInstaller.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using testing::RunningCopy;
using testing::ScopedEnvironment;
using testing::TemporaryFolder;

// A private home: the Trash is $XDG_DATA_HOME/Trash for files on the home's file system.
class QtInstaller : public ::testing::Test {
  protected:
    QtInstaller()
        : home_("HOME", (folder_ / "home").string()),
          data_("XDG_DATA_HOME", (folder_ / "home/.local/share").string()) {
        std::filesystem::create_directories(folder_ / "home/.local/share");
    }

    std::filesystem::path trash() const { return folder_ / "home/.local/share/Trash"; }

    TemporaryFolder folder_;
    ScopedEnvironment home_;
    ScopedEnvironment data_;
};

TEST_F(QtInstaller, InstallingOverAnExistingCopyTrashesItAndKillsTheOldCopyIgnoringSigterm) {
    const std::string name = "velmora-audio-helper";
    const std::filesystem::path old = folder_ / "opt/velmora-audio-helper";
    testing::writeText(old / "old-marker", "old");
    RunningCopy oldCopy(folder_ / "run/velmora-audio-helper", true);

    const std::filesystem::path portable = folder_ / "image/velmora-audio-helper";
    std::filesystem::create_directories(portable / "bin");
    std::filesystem::copy_file("/bin/true", portable / "bin" / name);

    InstallOptions options = InstallOptions::standard();
    options.systemFolder = folder_ / "opt";
    options.runningCopiesFolder = folder_ / "run/velmora-audio-helper";
    // A system install's menu entry and command are for every user: kept in the test's folder.
    options.systemApplicationsFolder = folder_ / "usr/local/share/applications";
    options.systemCommandFolder = folder_ / "usr/local/bin";
    options.autostartFolder = folder_ / "home/.config/autostart";
    QtInstallerFrontEnd frontEnd(true);
    const auto start = std::chrono::steady_clock::now();
    const std::filesystem::path installed = AppInstaller::install(portable, frontEnd, options);

    EXPECT_EQ(installed, old);
    EXPECT_EQ(oldCopy.endingSignal(), SIGKILL);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    // The old folder is in the freedesktop Trash, with the record of where it came from.
    EXPECT_EQ(testing::readText(trash() / "files/velmora-audio-helper/old-marker"), "old");
    EXPECT_THAT(testing::readText(trash() / "info/velmora-audio-helper.trashinfo"),
                ::testing::HasSubstr("Path=" + old.string()));
    EXPECT_FALSE(std::filesystem::exists(installed / "old-marker"));
    EXPECT_TRUE(std::filesystem::exists(installed / "bin" / name));
    EXPECT_TRUE(std::filesystem::exists(folder_ / "usr/local/share/applications/"
                                                  "velmora-audio-helper.desktop"));
}

TEST_F(QtInstaller, SomethingThatCannotBeTrashedIsThrown) {
    QtInstallerFrontEnd frontEnd(true);
    EXPECT_THROW(frontEnd.moveToTrash(folder_ / "no-such-folder"), InstallerError);
}

#ifdef VELMORA_TEST_SWITCHES
TEST(QtInstallerAnswer, TheEnvironmentScriptsTheAnswer) {
    {
        ScopedEnvironment answer("VELMORA_INSTALLER_ANSWER", "install");
        EXPECT_EQ(QtInstallerFrontEnd::scriptedAnswerFromEnvironment(), true);
    }
    {
        ScopedEnvironment answer("VELMORA_INSTALLER_ANSWER", "not-now");
        EXPECT_EQ(QtInstallerFrontEnd::scriptedAnswerFromEnvironment(), false);
    }
    {
        ScopedEnvironment answer("VELMORA_INSTALLER_ANSWER", "yes please");
        EXPECT_EQ(QtInstallerFrontEnd::scriptedAnswerFromEnvironment(), std::nullopt);
    }
    ScopedEnvironment unset("VELMORA_INSTALLER_ANSWER", std::nullopt);
    EXPECT_EQ(QtInstallerFrontEnd::scriptedAnswerFromEnvironment(), std::nullopt);
}
#else
// A release build takes no answer from its environment: only a person installs.
TEST(QtInstallerAnswer, AReleaseBuildIgnoresTheEnvironment) {
    ScopedEnvironment answer("VELMORA_INSTALLER_ANSWER", "install");
    EXPECT_EQ(QtInstallerFrontEnd::scriptedAnswerFromEnvironment(), std::nullopt);
}
#endif

TEST(QtInstallerAnswer, WithoutADialogApplicationTheOfferIsNotAccepted) {
    QtInstallerFrontEnd frontEnd(std::nullopt);
    EXPECT_FALSE(frontEnd.askToInstall("Install Velmora Audio Helper?", "text"));
}

}  // namespace
}  // namespace velmora
