#include "app/installer/SelfInstaller.h"

#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeInstallerFrontEnd.h"
#include "ScratchMounts.h"
#include "app/installer/AutostartEntry.h"
#include "app/installer/InstallerError.h"
#include "app/installer/ToolRun.h"
#include "config/OwnFileChecks.h"
#include "config/PlatformTexts.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using ::testing::ElementsAre;
using testing::FakeInstallerFrontEnd;
using ::testing::IsEmpty;
using testing::TemporaryFolder;

// A portable folder as the tarball and the disk image hold it, and the places it installs to.
class SelfInstaller : public ::testing::Test {
  protected:
    void SetUp() override {
        testing::writeText(portable() / "share/doc/velmora-audio-helper/copyright", "c");
        std::filesystem::create_directories(portable() / "bin");
        std::filesystem::copy_file("/bin/true", portable() / "bin/velmora-audio-helper");
    }

    InstallOptions options() {
        return InstallOptions{
            .systemFolder = folder_ / "opt",
            .userFolder = folder_ / "home/.local/share",
            .applicationsFolder = folder_ / "home/.local/share/applications",
            .copyTool = "/bin/cp",
            .runningCopiesFolder = folder_ / "run/velmora-audio-helper",
            .handOver =
                [this](const std::filesystem::path& executable,
                       const std::optional<DiskImageVolume>& volume) {
                    handedOverTo = executable;
                    handedOverVolume = volume;
                },
            .systemApplicationsFolder = folder_ / "usr/local/share/applications",
            .systemCommandFolder = folder_ / "usr/local/bin",
            .autostartFolder = folder_ / "home/.config/autostart",
        };
    }

    std::filesystem::path portable() const { return folder_ / "image/velmora-audio-helper"; }
    std::filesystem::path executable() const { return portable() / "bin/velmora-audio-helper"; }

    TemporaryFolder folder_;
    std::optional<std::filesystem::path> handedOverTo;
    std::optional<DiskImageVolume> handedOverVolume;
};

TEST_F(SelfInstaller, AWritableLocationMakesNoOffer) {
    FakeInstallerFrontEnd frontEnd(true);
    EXPECT_FALSE(AppInstaller::runInstallOffer({}, executable(), frontEnd, options()));
    EXPECT_THAT(frontEnd.offers, IsEmpty());
    EXPECT_FALSE(handedOverTo.has_value());
}

TEST_F(SelfInstaller, AnUnknownLocationMakesNoOffer) {
    FakeInstallerFrontEnd frontEnd(true);
    EXPECT_FALSE(AppInstaller::runInstallOffer({}, std::nullopt, frontEnd, options()));
    EXPECT_FALSE(AppInstaller::runInstallOffer({}, folder_ / "gone", frontEnd, options()));
    EXPECT_THAT(frontEnd.offers, IsEmpty());
}

TEST_F(SelfInstaller, NoInstallFromAReadOnlyLocationMakesNoOffer) {
    testing::ReadOnlyBindMount image(folder_ / "image");
    if (!image.mounted()) GTEST_SKIP() << testing::mountSkipReason;
    FakeInstallerFrontEnd frontEnd(true);
    const auto onImage = image.path() / "velmora-audio-helper/bin/velmora-audio-helper";
    EXPECT_FALSE(AppInstaller::runInstallOffer({"--no-welcome", "--no-install"}, onImage, frontEnd,
                                               options()));
    EXPECT_THAT(frontEnd.offers, IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(folder_ / "opt"));
}

TEST_F(SelfInstaller, AReadOnlyLocationIsOfferedEveryLaunchUntilInstalled) {
    testing::ReadOnlyBindMount image(folder_ / "image");
    if (!image.mounted()) GTEST_SKIP() << testing::mountSkipReason;
    FakeInstallerFrontEnd notNow(false);
    const auto onImage = image.path() / "velmora-audio-helper/bin/velmora-audio-helper";
    EXPECT_FALSE(AppInstaller::runInstallOffer({}, onImage, notNow, options()));
    EXPECT_FALSE(AppInstaller::runInstallOffer({}, onImage, notNow, options()));
    const std::string offer = "Install Velmora Audio Helper?|" +
                              std::string(PlatformTexts::current().installOfferInformative);
    EXPECT_THAT(notNow.offers, ElementsAre(offer, offer));
    EXPECT_FALSE(handedOverTo.has_value());
}

TEST_F(SelfInstaller, InstallFromAReadOnlyLocationCopiesAndHandsOver) {
    testing::ReadOnlyBindMount image(folder_ / "image");
    if (!image.mounted()) GTEST_SKIP() << testing::mountSkipReason;
    std::filesystem::create_directories(folder_ / "opt");
    FakeInstallerFrontEnd install(true);
    const auto onImage = image.path() / "velmora-audio-helper/bin/velmora-audio-helper";
    EXPECT_TRUE(AppInstaller::runInstallOffer({}, onImage, install, options()));

    const auto installed = folder_ / "opt/velmora-audio-helper";
    EXPECT_EQ(handedOverTo, installed / "bin/velmora-audio-helper");
    // A bind mount of a local folder is no disk image: nothing to detach.
    EXPECT_FALSE(handedOverVolume.has_value());
    EXPECT_EQ(testing::readText(installed / "share/doc/velmora-audio-helper/copyright"), "c");
    EXPECT_THAT(install.failures, IsEmpty());
}

TEST_F(SelfInstaller, AFailedInstallIsShownAndTheHelperGoesOnFromWhereItIs) {
    testing::ReadOnlyBindMount image(folder_ / "image");
    if (!image.mounted()) GTEST_SKIP() << testing::mountSkipReason;
    std::filesystem::create_directories(folder_ / "opt");
    FakeInstallerFrontEnd install(true);
    InstallOptions failing = options();
    failing.copyTool = "/bin/false";
    const auto onImage = image.path() / "velmora-audio-helper/bin/velmora-audio-helper";
    EXPECT_FALSE(AppInstaller::runInstallOffer({}, onImage, install, failing));
    EXPECT_THAT(install.failures,
                ElementsAre("Couldn't install Velmora Audio Helper|/bin/false failed\n\n" +
                            std::string(PlatformTexts::current().installInsteadTip)));
    EXPECT_FALSE(handedOverTo.has_value());
}

TEST_F(SelfInstaller, AFailingCopyToolWithEmptyErrorOutputYieldsItsPathAndFailed) {
    FakeInstallerFrontEnd frontEnd(true);
    InstallOptions failing = options();
    failing.copyTool = "/bin/false";
    std::filesystem::create_directories(folder_ / "opt");
    try {
        AppInstaller::install(portable(), frontEnd, failing);
        FAIL() << "the install did not fail";
    } catch (const InstallerError& error) {
        EXPECT_EQ(std::string(error.what()), "/bin/false failed");
        EXPECT_EQ(error.code(), 1);
    }
}

// An install into the system folder is for everyone on the machine: the menu entry goes where
// every user's menu reads it, and the command onto everyone's PATH.
TEST_F(SelfInstaller, ASystemInstallPutsItsMenuEntryAndCommandWhereEveryUserSeesThem) {
    std::filesystem::create_directories(folder_ / "opt");
    std::filesystem::create_directories(folder_ / "usr/local");
    FakeInstallerFrontEnd frontEnd(true);
    const auto installed = AppInstaller::install(portable(), frontEnd, options());
    EXPECT_EQ(installed, folder_ / "opt/velmora-audio-helper");
    const auto executable = installed / "bin/velmora-audio-helper";
    struct stat info {};
    ASSERT_EQ(::stat(executable.c_str(), &info), 0);
    EXPECT_NE(info.st_mode & S_IXUSR, 0u);

    const auto menu = folder_ / "usr/local/share/applications";
    EXPECT_THAT(testing::readText(menu / "velmora-audio-helper.desktop"),
                ::testing::HasSubstr("\nExec=" + executable.string() + "\n"));
    EXPECT_EQ(testing::modeOf(menu), 0755u) << "other users' menus must read it";
    EXPECT_EQ(testing::modeOf(menu.parent_path()), 0755u);
    EXPECT_EQ(testing::modeOf(menu / "velmora-audio-helper.desktop"), 0644u);
    EXPECT_FALSE(std::filesystem::exists(folder_ / "home/.local/share/applications"));

    const auto command = folder_ / "usr/local/bin/velmora-audio-helper";
    ASSERT_TRUE(std::filesystem::is_symlink(command));
    EXPECT_EQ(std::filesystem::read_symlink(command), executable);
    EXPECT_NO_THROW(AppInstaller::run(command.string(), {}));  // /bin/true runs
    EXPECT_THAT(frontEnd.trashed, IsEmpty());
}

TEST_F(SelfInstaller, APerUserInstallPutsItsMenuEntryInTheUsersFolderAndNoCommand) {
    FakeInstallerFrontEnd frontEnd(true);
    const auto installed = AppInstaller::install(portable(), frontEnd, options());
    EXPECT_EQ(installed, folder_ / "home/.local/share/velmora-audio-helper");
    EXPECT_THAT(
        testing::readText(folder_ / "home/.local/share/applications/"
                                    "velmora-audio-helper.desktop"),
        ::testing::HasSubstr("\nExec=" + (installed / "bin/velmora-audio-helper").string() + "\n"));
    EXPECT_FALSE(std::filesystem::exists(folder_ / "usr"));
}

TEST_F(SelfInstaller, ASystemInstallReplacesItsOldCommandLinkButNotSomeoneElsesCommand) {
    std::filesystem::create_directories(folder_ / "opt");
    std::filesystem::create_directories(folder_ / "usr/local/bin");
    const auto command = folder_ / "usr/local/bin/velmora-audio-helper";
    std::filesystem::create_symlink(folder_ / "old/bin/velmora-audio-helper", command);
    FakeInstallerFrontEnd frontEnd(true, folder_ / "trash");
    const auto installed = AppInstaller::install(portable(), frontEnd, options());
    EXPECT_EQ(std::filesystem::read_symlink(command), installed / "bin/velmora-audio-helper");

    std::filesystem::remove(command);
    testing::writeText(command, "#!/bin/sh\n# someone else's\n");
    AppInstaller::install(portable(), frontEnd, options());
    EXPECT_EQ(testing::readText(command), "#!/bin/sh\n# someone else's\n");
    for (const auto& entry : std::filesystem::directory_iterator(command.parent_path())) {
        EXPECT_EQ(entry.path(), command) << "a temporary link was left behind";
    }
}

// Start at login turned on while running from the image follows the helper to its installed
// copy; the next login starts that one.
TEST_F(SelfInstaller, AnAutostartEntryOfOursFollowsTheInstalledCopy) {
    testing::ReadOnlyBindMount image(folder_ / "image");
    if (!image.mounted()) GTEST_SKIP() << testing::mountSkipReason;
    const auto onImage = image.path() / "velmora-audio-helper/bin/velmora-audio-helper";
    ASSERT_EQ(AutostartEntry::write(folder_ / "home/.config/autostart", onImage), std::nullopt);
    FakeInstallerFrontEnd install(true);
    EXPECT_TRUE(AppInstaller::runInstallOffer({}, onImage, install, options()));
    ASSERT_TRUE(handedOverTo.has_value());
    std::optional<AutostartEntry::Keys> keys =
        AutostartEntry::read(folder_ / "home/.config/autostart/velmora-audio-helper.desktop");
    ASSERT_TRUE(keys.has_value());
    EXPECT_EQ(AutostartEntry::runnableProgram(*keys), *handedOverTo);
    EXPECT_TRUE(AutostartEntry::isOurs(*keys));
}

TEST_F(SelfInstaller, AnExistingCopyGoesToTheTrashBeforeTheNewOneIsCopied) {
    testing::writeText(folder_ / "opt/velmora-audio-helper/old-marker", "old");
    FakeInstallerFrontEnd frontEnd(true, folder_ / "trash");
    const auto installed = AppInstaller::install(portable(), frontEnd, options());
    EXPECT_THAT(frontEnd.trashed, ElementsAre(installed));
    EXPECT_EQ(testing::readText(folder_ / "trash/velmora-audio-helper/old-marker"), "old");
    EXPECT_FALSE(std::filesystem::exists(installed / "old-marker"));
    EXPECT_TRUE(std::filesystem::exists(installed / "bin/velmora-audio-helper"));
}

// Makes every file and folder under `root` read-only, as on a disk image.
void makeReadOnlyTree(const std::filesystem::path& root) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        std::filesystem::permissions(entry.path(),
                                     std::filesystem::perms::owner_write |
                                         std::filesystem::perms::group_write |
                                         std::filesystem::perms::others_write,
                                     std::filesystem::perm_options::remove);
    }
    std::filesystem::permissions(root,
                                 std::filesystem::perms::owner_write |
                                     std::filesystem::perms::group_write |
                                     std::filesystem::perms::others_write,
                                 std::filesystem::perm_options::remove);
}

// The image's files are read-only; the installed copy is its user's to change and, at the next
// install, to move to the Trash.
TEST_F(SelfInstaller, ACopyFromAReadOnlyTreeIsTheUsersOwnAndTheNextInstallReplacesIt) {
    makeReadOnlyTree(portable());
    FakeInstallerFrontEnd first(true, folder_ / "trash");
    const auto installed = AppInstaller::install(portable(), first, options());
    EXPECT_EQ(installed, folder_ / "home/.local/share/velmora-audio-helper") << "a per-user copy";
    for (const auto& entry : std::filesystem::recursive_directory_iterator(installed)) {
        struct stat info {};
        ASSERT_EQ(::lstat(entry.path().c_str(), &info), 0);
        EXPECT_NE(info.st_mode & S_IWUSR, 0u) << entry.path() << " is read-only";
    }
    struct stat info {};
    ASSERT_EQ(::stat(installed.c_str(), &info), 0);
    EXPECT_NE(info.st_mode & S_IWUSR, 0u);
    ASSERT_EQ(::stat((installed / "bin/velmora-audio-helper").c_str(), &info), 0);
    EXPECT_NE(info.st_mode & S_IXUSR, 0u) << "still runs";

    FakeInstallerFrontEnd second(true, folder_ / "trash");
    EXPECT_EQ(AppInstaller::install(portable(), second, options()), installed);
    EXPECT_THAT(second.trashed, ElementsAre(installed));
    EXPECT_EQ(testing::readText(folder_ / "trash/velmora-audio-helper/share/doc/"
                                          "velmora-audio-helper/copyright"),
              "c");
    EXPECT_EQ(testing::readText(installed / "share/doc/velmora-audio-helper/copyright"), "c");
}

}  // namespace
}  // namespace velmora
