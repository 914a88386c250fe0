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
    std::filesystem::path executable = "/opt/Velmora Audio/velmora-audio-helper";
    XdgAutostartLoginItem item{XdgAutostartLoginItem::defaultAutostartFolder(), executable};
    std::filesystem::path entry = configHome / "autostart" / "velmora-audio-helper.desktop";
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
    EXPECT_NE(text.find("\nExec=\"/opt/Velmora Audio/velmora-audio-helper\" --no-welcome\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\nTryExec=/opt/Velmora Audio/velmora-audio-helper\n"), std::string::npos)
        << text;
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

TEST_F(XdgAutostartLoginItemTest, AForeignEntryUnderOurNameIsNeverRemoved) {
    const std::string foreign = "[Desktop Entry]\nType=Application\nExec=/usr/bin/velmora\n";
    writeText(entry, foreign);
    EXPECT_EQ(item.status(), Status::enabled);
    EXPECT_THROW(item.unregisterItem(), LoginItemError);
    EXPECT_EQ(readText(entry), foreign);
    // It starts the helper already, so switching on leaves it as it is too.
    item.registerItem();
    EXPECT_EQ(readText(entry), foreign);
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
    writeText(entry,
              "[Desktop Entry]\nType=Application\nExec=x\n[Desktop Action x]\nHidden=true\n");
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
