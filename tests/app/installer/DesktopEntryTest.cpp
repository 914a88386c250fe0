#include "app/installer/DesktopEntry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/installer/InstallerError.h"
#include "config/OwnFileChecks.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using ::testing::HasSubstr;
using testing::TemporaryFolder;

TEST(DesktopEntry, NamesTheInstalledExecutableAndIconByFullPath) {
    std::string text = AppInstaller::desktopEntryText("/opt/velmora-audio-helper");
    EXPECT_THAT(text, ::testing::StartsWith("[Desktop Entry]\nType=Application\n"));
    EXPECT_THAT(text, HasSubstr("\nName=Velmora Audio Helper\n"));
    EXPECT_THAT(text, HasSubstr("\nExec=/opt/velmora-audio-helper/bin/velmora-audio-helper\n"));
    EXPECT_THAT(text, HasSubstr("\nIcon=/opt/velmora-audio-helper/share/icons/hicolor/scalable/"
                                "apps/velmora-audio-helper.svg\n"));
    EXPECT_THAT(text, HasSubstr("\nCategories=AudioVideo;Audio;\n"));
    EXPECT_THAT(text, HasSubstr("\nStartupNotify=false\n"));
}

TEST(DesktopEntry, QuotesAnExecutablePathWithBlanks) {
    std::string text =
        AppInstaller::desktopEntryText("/home/a b/.local/share/velmora-audio-helper");
    EXPECT_THAT(text, HasSubstr("\nExec=\"/home/a b/.local/share/velmora-audio-helper/bin/"
                                "velmora-audio-helper\"\n"));
}

TEST(DesktopEntry, EscapesAPathAsTheAutostartEntryDoes) {
    std::string text = AppInstaller::desktopEntryText("/home/a\\b/100%");
    EXPECT_THAT(text, HasSubstr("\nExec=\"/home/a\\\\\\\\b/100%%/bin/velmora-audio-helper\"\n"));
    EXPECT_THAT(text, HasSubstr("\nIcon=/home/a\\\\b/100%/share/"));
}

TEST(DesktopEntry, IsWrittenIntoTheApplicationsFolderCreatingIt) {
    TemporaryFolder data;
    std::filesystem::path file =
        AppInstaller::writeDesktopEntry("/opt/velmora-audio-helper", data / "applications");
    EXPECT_EQ(file, data / "applications/velmora-audio-helper.desktop");
    EXPECT_EQ(testing::readText(file), AppInstaller::desktopEntryText("/opt/velmora-audio-helper"));
}

TEST(DesktopEntry, AnUnwritableFolderIsThrown) {
    TemporaryFolder data;
    testing::writeText(data / "applications", "a file in the way");
    EXPECT_THROW(AppInstaller::writeDesktopEntry("/opt/x", data / "applications"), InstallerError);
}

TEST(DesktopEntry, IsReadableByTheDesktopAndReplacedNotWrittenThrough) {
    TemporaryFolder data;
    std::filesystem::path file =
        AppInstaller::writeDesktopEntry("/opt/velmora-audio-helper", data / "applications");
    EXPECT_EQ(testing::modeOf(file), 0644u);
    EXPECT_EQ(testing::modeOf(data / "applications"), 0700u) << "a folder it makes is private";

    std::filesystem::remove(file);
    testing::writeText(data / "victim.txt", "precious");
    std::filesystem::create_symlink(data / "victim.txt", file);
    EXPECT_THROW(AppInstaller::writeDesktopEntry("/opt/x", data / "applications"), InstallerError);
    EXPECT_EQ(testing::readText(data / "victim.txt"), "precious");
}

}  // namespace
}  // namespace velmora
