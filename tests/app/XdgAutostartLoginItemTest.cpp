#include "app/XdgAutostartLoginItem.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "config/OwnFileChecks.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using testing::readText;
using testing::ScopedEnvironment;
using testing::TemporaryFolder;
using testing::writeText;
using Status = LoginItemService::Status;

class XdgAutostartLoginItemTest : public ::testing::Test {
  protected:
    TemporaryFolder configHome;
    ScopedEnvironment environment{"XDG_CONFIG_HOME", configHome.path().string()};
    // A program that is there to be started, in a folder whose name needs quoting.
    std::filesystem::path executable = installProgram(configHome / "Velmora Audio");
    XdgAutostartLoginItem item{XdgAutostartLoginItem::defaultAutostartFolder(), executable};
    std::filesystem::path entry = configHome / "autostart" / "velmora-audio-helper.desktop";

    static std::filesystem::path installProgram(const std::filesystem::path& folder) {
        std::filesystem::path program = folder / "velmora-audio-helper";
        writeText(program, "#!/bin/sh\n");
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
        return program;
    }
    std::string ownEntry(const std::string& exec) {
        return "[Desktop Entry]\nType=Application\nExec=" + exec + "\n" +
               XdgAutostartLoginItem::markerKey + "=true\n";
    }
};

TEST_F(XdgAutostartLoginItemTest, TheEntryLivesInTheConfigHomesAutostartFolder) {
    EXPECT_EQ(item.entryFile(), entry);
}

TEST_F(XdgAutostartLoginItemTest, OffWhenThereIsNoEntry) {
    EXPECT_EQ(item.status(), Status::notRegistered);
}

TEST_F(XdgAutostartLoginItemTest, RegisteringWritesAnEntryThatStartsThisExecutable) {
    item.registerItem();
    EXPECT_EQ(item.status(), Status::enabled);
    std::string text = readText(entry);
    EXPECT_EQ(text.rfind("[Desktop Entry]\n", 0), 0u) << text;
    EXPECT_NE(text.find("\nType=Application\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nExec=\"" + executable.string() + "\" --no-welcome\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("\nTryExec=" + executable.string() + "\n"), std::string::npos) << text;
    EXPECT_FALSE(std::filesystem::exists(entry.string() + ".partial"));
}

TEST_F(XdgAutostartLoginItemTest, UnregisteringRemovesOurEntry) {
    item.registerItem();
    item.unregisterItem();
    EXPECT_EQ(item.status(), Status::notRegistered);
    EXPECT_FALSE(std::filesystem::exists(entry));
}

TEST_F(XdgAutostartLoginItemTest, OtherEntriesInTheFolderAreLeftAlone) {
    auto other = configHome / "autostart" / "someone-else.desktop";
    writeText(other, "[Desktop Entry]\nType=Application\nExec=someone-else\n");
    item.registerItem();
    item.unregisterItem();
    EXPECT_EQ(readText(other), "[Desktop Entry]\nType=Application\nExec=someone-else\n");
}

TEST_F(XdgAutostartLoginItemTest, AForeignEntryUnderOurNameIsNeverChanged) {
    const std::string foreign =
        "[Desktop Entry]\nType=Application\nExec=" + executable.string() + "\n";
    writeText(entry, foreign);
    // Not ours, so not shown as on, whatever it starts.
    EXPECT_EQ(item.status(), Status::notRegistered);
    EXPECT_THROW(item.unregisterItem(), LoginItemError);
    EXPECT_EQ(readText(entry), foreign);
    EXPECT_THROW(item.registerItem(), LoginItemError);
    EXPECT_EQ(readText(entry), foreign);
}

// Turned on from a disk image that was ejected since, or from a copy that was removed: nothing
// would start at login, so it reads as off, and switching on points it at this copy.
TEST_F(XdgAutostartLoginItemTest, OurEntryForAProgramThatIsGoneReadsAsOff) {
    writeText(entry, ownEntry("\"/media/user/VELMORA/velmora-audio-helper/bin/"
                              "velmora-audio-helper\" --no-welcome"));
    EXPECT_EQ(item.status(), Status::notRegistered);
    item.registerItem();
    EXPECT_EQ(item.status(), Status::enabled);
    EXPECT_NE(readText(entry).find(executable.string()), std::string::npos);
}

TEST_F(XdgAutostartLoginItemTest, OurEntryForAFileThatCannotRunReadsAsOff) {
    writeText(configHome / "not-a-program", "text");
    writeText(entry, ownEntry((configHome / "not-a-program").string()));
    EXPECT_EQ(item.status(), Status::notRegistered);
    writeText(entry, ownEntry("velmora-audio-helper"));  // not a full path: whichever PATH finds
    EXPECT_EQ(item.status(), Status::notRegistered);
    writeText(entry, ownEntry("\"" + executable.string()));  // an unfinished quote
    EXPECT_EQ(item.status(), Status::notRegistered);
}

TEST_F(XdgAutostartLoginItemTest, HiddenEntryReadsAsOff) {
    writeText(entry, "[Desktop Entry]\nType=Application\nExec=x\nHidden=true\n");
    EXPECT_EQ(item.status(), Status::notRegistered);
}

TEST_F(XdgAutostartLoginItemTest, GnomeAutostartDisabledReadsAsOff) {
    writeText(entry,
              "[Desktop Entry]\nType=Application\nExec=x\nX-GNOME-Autostart-enabled=false\n");
    EXPECT_EQ(item.status(), Status::notRegistered);
}

TEST_F(XdgAutostartLoginItemTest, KeysOutsideTheMainGroupDoNotSwitchItOff) {
    item.registerItem();
    writeText(entry, readText(entry) + "[Desktop Action x]\nHidden=true\n");
    EXPECT_EQ(item.status(), Status::enabled);
}

TEST_F(XdgAutostartLoginItemTest, RegisteringReplacesOurOwnSwitchedOffEntry) {
    item.registerItem();
    writeText(entry, readText(entry) + "Hidden=true\n");
    EXPECT_EQ(item.status(), Status::notRegistered);
    item.registerItem();
    EXPECT_EQ(item.status(), Status::enabled);
}

TEST_F(XdgAutostartLoginItemTest, AForeignSwitchedOffEntryIsReportedNotOverwritten) {
    const std::string foreign = "[Desktop Entry]\nType=Application\nExec=x\nHidden=true\n";
    writeText(entry, foreign);
    EXPECT_THROW(item.registerItem(), LoginItemError);
    EXPECT_EQ(readText(entry), foreign);
}

TEST_F(XdgAutostartLoginItemTest, AnUnwritableFolderIsReportedAsAFailure) {
    // A plain file where the folder should be stops even the superuser.
    writeText(configHome / "autostart", "not a folder");
    try {
        item.registerItem();
        FAIL() << "registering succeeded";
    } catch (const LoginItemError& error) {
        EXPECT_NE(std::string(error.what()).find((configHome / "autostart").string()),
                  std::string::npos)
            << error.what();
    }
    EXPECT_EQ(item.status(), Status::notRegistered);
}

TEST_F(XdgAutostartLoginItemTest, WithoutConfigHomeTheFolderIsUnderHome) {
    ScopedEnvironment noConfigHome("XDG_CONFIG_HOME", std::nullopt);
    ScopedEnvironment home("HOME", "/home/someone");
    EXPECT_EQ(XdgAutostartLoginItem::defaultAutostartFolder(),
              std::filesystem::path("/home/someone/.config/autostart"));
}

TEST_F(XdgAutostartLoginItemTest, TheEntryIsReadableByTheDesktopAndItsNewFolderPrivate) {
    item.registerItem();
    EXPECT_EQ(testing::modeOf(entry), 0644u);
    EXPECT_EQ(testing::modeOf(entry.parent_path()), 0700u);
    for (const auto& file : std::filesystem::directory_iterator(entry.parent_path())) {
        EXPECT_EQ(file.path(), entry) << "a temporary file was left behind";
    }
}

// A link planted where the entry goes is never written through: the file it points at (here a
// file of the user's that the helper must not touch) keeps its content.
TEST_F(XdgAutostartLoginItemTest, APlantedLinkIsNotWrittenThrough) {
    writeText(configHome / "victim.txt", "precious");
    std::filesystem::create_directories(entry.parent_path());
    std::filesystem::create_symlink(configHome / "victim.txt", entry);
    EXPECT_THROW(item.registerItem(), LoginItemError);
    EXPECT_EQ(readText(configHome / "victim.txt"), "precious");
    EXPECT_TRUE(std::filesystem::is_symlink(entry));
}

// The autostart folder is the desktop's, and may be the user's own link into a dotfiles
// checkout; the entry itself is still never reached through a link.
TEST_F(XdgAutostartLoginItemTest, AnAutostartFolderLinkedByTheUserIsUsed) {
    std::filesystem::create_directories(configHome / "dotfiles/autostart");
    std::filesystem::create_directory_symlink(configHome / "dotfiles/autostart",
                                              entry.parent_path());
    item.registerItem();
    EXPECT_EQ(item.status(), Status::enabled);
    EXPECT_TRUE(std::filesystem::is_regular_file(
        std::filesystem::symlink_status(configHome / "dotfiles/autostart" / entry.filename())));
}

}  // namespace
}  // namespace velmora
