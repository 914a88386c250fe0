#include "config/UserFolders.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include "config/HelperSettings.h"
#include "config/LogFile.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using testing::ScopedEnvironment;
using testing::TemporaryFolder;

TEST(UserFolders, AbsoluteXdgVariablesAreUsedAsGiven) {
    ScopedEnvironment config("XDG_CONFIG_HOME", "/srv/config");
    ScopedEnvironment data("XDG_DATA_HOME", "/srv/data");
    ScopedEnvironment state("XDG_STATE_HOME", "/srv/state");
    ScopedEnvironment runtime("XDG_RUNTIME_DIR", "/run/user/4242");
    EXPECT_EQ(UserFolders::configHome(), "/srv/config");
    EXPECT_EQ(UserFolders::dataHome(), "/srv/data");
    EXPECT_EQ(UserFolders::stateHome(), "/srv/state");
    EXPECT_EQ(UserFolders::runtimeFolder(), "/run/user/4242");
}

TEST(UserFolders, RelativeXdgVariablesFallBackToTheHomeFolder) {
    ScopedEnvironment home("HOME", "/home/someone");
    ScopedEnvironment config("XDG_CONFIG_HOME", "config");
    ScopedEnvironment data("XDG_DATA_HOME", "./data");
    ScopedEnvironment state("XDG_STATE_HOME", "");
    ScopedEnvironment runtime("XDG_RUNTIME_DIR", "run");
    EXPECT_EQ(UserFolders::configHome(), "/home/someone/.config");
    EXPECT_EQ(UserFolders::dataHome(), "/home/someone/.local/share");
    EXPECT_EQ(UserFolders::stateHome(), "/home/someone/.local/state");
    EXPECT_FALSE(UserFolders::runtimeFolder().has_value());
}

// The password database's home folder of this user, when it has one.
std::optional<std::filesystem::path> passwordHome() {
    passwd* entry = ::getpwuid(::getuid());
    if (entry == nullptr || entry->pw_dir == nullptr || entry->pw_dir[0] != '/') {
        return std::nullopt;
    }
    return std::filesystem::path(entry->pw_dir);
}

TEST(UserFolders, ARelativeHomeIsNeverUsedTheUsersEntryIs) {
    std::optional<std::filesystem::path> expected = passwordHome();
    if (!expected) GTEST_SKIP() << "this user has no home folder in the password database";
    ScopedEnvironment home("HOME", "relative/home");
    ScopedEnvironment state("XDG_STATE_HOME", std::nullopt);
    ScopedEnvironment config("XDG_CONFIG_HOME", std::nullopt);
    EXPECT_EQ(UserFolders::home(), *expected);
    EXPECT_EQ(LogFile::defaultFolder(), *expected / ".local/state/velmora-audio-helper");
    EXPECT_EQ(HelperSettings::defaultFile(),
              *expected / ".config/velmora-audio-helper/settings.json");
}

TEST(UserFolders, UnsetHomeFallsBackToTheUsersEntry) {
    std::optional<std::filesystem::path> expected = passwordHome();
    if (!expected) GTEST_SKIP() << "this user has no home folder in the password database";
    ScopedEnvironment home("HOME", std::nullopt);
    EXPECT_EQ(UserFolders::home(), *expected);
}

// A uid with no entry in the password database, for a child process to take.
std::optional<uid_t> uidWithoutEntry() {
    for (uid_t candidate = 61'000; candidate < 61'100; ++candidate) {
        if (::getpwuid(candidate) == nullptr) return candidate;
    }
    return std::nullopt;
}

// In a child that becomes a user without a home folder: with HOME unset or relative there is no
// folder at all, the log has no file and the settings live in memory, and nothing is written
// anywhere (in particular not under the temporary folder or the working folder).
TEST(UserFolders, WithoutAnyHomeThereIsNoFolderAndTheSettingsStayInMemory) {
    if (::geteuid() != 0) GTEST_SKIP() << "becoming a user without a home folder needs root";
    std::optional<uid_t> user = uidWithoutEntry();
    if (!user) GTEST_SKIP() << "no free uid without a password entry";
    TemporaryFolder work;
    ::chmod(work.path().c_str(), 0777);
    for (const char* homeValue : {static_cast<const char*>(nullptr), "relative/home"}) {
        pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            if (::setgid(*user) != 0 || ::setuid(*user) != 0) ::_exit(10);
            if (::chdir(work.path().c_str()) != 0) ::_exit(11);
            homeValue ? ::setenv("HOME", homeValue, 1) : ::unsetenv("HOME");
            for (const char* name : {"XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME"}) {
                ::unsetenv(name);
            }
            if (UserFolders::home() || UserFolders::configHome() || UserFolders::stateHome() ||
                UserFolders::dataHome()) {
                ::_exit(12);
            }
            if (!LogFile::defaultFolder().empty()) ::_exit(13);
            LogFile log(LogFile::defaultFolder(), "VelmoraAudioHelper.log");
            if (log.write("a line for the system log only")) ::_exit(14);
            HelperSettings settings(HelperSettings::defaultFile());
            if (!settings.isInMemory()) ::_exit(15);
            if (!settings.setPort(4321) || settings.port() != 4321) ::_exit(16);
            if (!settings.setExtraOrigins({"http://localhost:3000"}) ||
                settings.extraOrigins() != std::vector<std::string>{"http://localhost:3000"}) {
                ::_exit(17);
            }
            ::_exit(0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status));
        if (WEXITSTATUS(status) == 11) {
            GTEST_SKIP() << "a user without a password entry cannot reach " << work.path()
                         << " (a root folder closed to other users, as in some chroots)";
        }
        EXPECT_EQ(WEXITSTATUS(status), 0) << "HOME " << (homeValue ? homeValue : "unset");
        EXPECT_TRUE(std::filesystem::is_empty(work.path())) << "something was written";
    }
}

}  // namespace
}  // namespace velmora
