#include "app/installer/InstallPlaces.h"

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "app/installer/InstallerError.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using testing::ScopedEnvironment;
using testing::TemporaryFolder;

constexpr uid_t nobody = 65534;

// Runs `decide` as a standard user (nobody, when this test runs as root) in a child process and
// returns what it printed, or the exception's text prefixed with "error: ".
std::string asStandardUser(const std::function<std::string()>& decide) {
    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0) return "error: pipe";
    pid_t child = ::fork();
    if (child == 0) {
        ::close(pipeEnds[0]);
        std::string answer;
        if (::geteuid() == 0 && (::setresgid(nobody, nobody, nobody) != 0 ||
                                 ::setresuid(nobody, nobody, nobody) != 0)) {
            answer = "error: couldn't become a standard user";
        } else {
            try {
                answer = decide();
            } catch (const std::exception& error) {
                answer = std::string("error: ") + error.what();
            }
        }
        (void)!::write(pipeEnds[1], answer.data(), answer.size());
        ::_exit(0);
    }
    ::close(pipeEnds[1]);
    std::string answer;
    char buffer[512];
    for (ssize_t count; (count = ::read(pipeEnds[0], buffer, sizeof buffer)) > 0;) {
        answer.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(pipeEnds[0]);
    ::waitpid(child, nullptr, 0);
    return answer;
}

TEST(InstallPlaces, AWritableSystemFolderIsTheTarget) {
    TemporaryFolder system;
    TemporaryFolder user;
    EXPECT_EQ(AppInstaller::targetFolder(system.path(), user / "data"), system.path());
    EXPECT_FALSE(std::filesystem::exists(user / "data"));
}

TEST(InstallPlaces, AStandardUserWithoutWriteAccessToOptGetsTheCopyUnderXdgDataHome) {
    TemporaryFolder home;
    std::filesystem::permissions(home.path(), std::filesystem::perms::all);
    const std::filesystem::path dataHome = home / "deep/missing/.local/share";
    std::string answer = asStandardUser([&] {
        if (::access("/opt", W_OK) == 0) return std::string("skip: /opt is writable");
        // A root folder closed to other users (some chroots) leaves no place to try this in.
        if (::access(home.path().c_str(), W_OK | X_OK) != 0)
            return "skip: a standard user cannot reach " + home.path().string();
        return AppInstaller::targetFolder(AppInstaller::systemTargetFolder, dataHome).string();
    });
    if (answer.starts_with("skip: ")) GTEST_SKIP() << answer;
    EXPECT_EQ(answer, dataHome.string());
    EXPECT_TRUE(std::filesystem::is_directory(dataHome));
}

TEST(InstallPlaces, AUserFolderThatCannotBeCreatedIsThrown) {
    TemporaryFolder home;
    testing::writeText(home / "file", "not a folder");
    try {
        AppInstaller::targetFolder(home / "no-such-system-folder", home / "file/share");
        FAIL() << "no error thrown";
    } catch (const InstallerError& error) {
        EXPECT_NE(std::string(error.what())
                      .find("Couldn't create the folder " + (home / "file/share").string()),
                  std::string::npos)
            << error.what();
    }
}

TEST(InstallPlaces, DataHomeFollowsXdgDataHome) {
    ScopedEnvironment data("XDG_DATA_HOME", "/srv/data");
    EXPECT_EQ(AppInstaller::dataHome(), "/srv/data");
}

TEST(InstallPlaces, DataHomeFallsBackToTheHomeFoldersLocalShare) {
    ScopedEnvironment home("HOME", "/home/someone");
    ScopedEnvironment unset("XDG_DATA_HOME", std::nullopt);
    EXPECT_EQ(AppInstaller::dataHome(), "/home/someone/.local/share");
    ScopedEnvironment relative("XDG_DATA_HOME", "relative/data");
    EXPECT_EQ(AppInstaller::dataHome(), "/home/someone/.local/share");
}

}  // namespace
}  // namespace velmora
