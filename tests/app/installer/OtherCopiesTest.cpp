#include "app/installer/OtherCopies.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "RunningCopy.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using ::testing::Contains;
using ::testing::Not;
using testing::RunningCopy;
using testing::TemporaryFolder;
using testing::uniqueExecutableName;

// Counts the event-loop turns and sleeps through each one.
struct CountingTurns {
    int turns = 0;
    AppInstaller::EventLoopTurn turn() {
        return [this](std::chrono::milliseconds slice) {
            ++turns;
            std::this_thread::sleep_for(slice);
        };
    }
};

TEST(OtherCopies, ACopyThatQuitsWhenAskedEndsBySigterm) {
    TemporaryFolder folder;
    const std::string name = uniqueExecutableName("polite");
    RunningCopy copy(folder / "bin" / name, false);
    ASSERT_THAT(AppInstaller::otherCopies(name), Contains(copy.pid()));

    CountingTurns counter;
    AppInstaller::quitOtherCopies(name, counter.turn());
    EXPECT_EQ(copy.endingSignal(), SIGTERM);
    EXPECT_LT(counter.turns, 30);
}

TEST(OtherCopies, ACopyIgnoringSigtermIsKilledAfterThreeSecondsOfTurningTheEventLoop) {
    TemporaryFolder folder;
    const std::string name = uniqueExecutableName("stubborn");
    RunningCopy copy(folder / "bin" / name, true);
    ASSERT_THAT(AppInstaller::otherCopies(name), Contains(copy.pid()));

    CountingTurns counter;
    const auto start = std::chrono::steady_clock::now();
    AppInstaller::quitOtherCopies(name, counter.turn());
    const auto waited = std::chrono::steady_clock::now() - start;

    EXPECT_EQ(copy.endingSignal(), SIGKILL);
    EXPECT_GE(waited, AppInstaller::quitWait);
    // The whole wait went by in slices of the event loop, not in one blocking sleep.
    EXPECT_GE(counter.turns, 10);
}

TEST(OtherCopies, ThisProcessIsNeverAmongTheOtherCopies) {
    std::error_code error;
    const std::string ownName =
        std::filesystem::read_symlink("/proc/self/exe", error).filename().string();
    EXPECT_THAT(AppInstaller::otherCopies(ownName), Not(Contains(::getpid())));
}

TEST(OtherCopies, WithNoOtherCopyNothingWaits) {
    CountingTurns counter;
    AppInstaller::quitOtherCopies(uniqueExecutableName("absent"), counter.turn());
    EXPECT_EQ(counter.turns, 0);
}

TEST(OtherCopies, AProcessOfAnotherUserIsLeftAlone) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to start a process as another user";
    TemporaryFolder folder;
    std::filesystem::permissions(folder.path(), std::filesystem::perms::all);
    const std::string name = uniqueExecutableName("other-user");
    const std::filesystem::path executable = folder / name;
    std::filesystem::copy_file("/bin/sleep", executable);
    pid_t child = ::fork();
    if (child == 0) {
        if (::setresgid(65534, 65534, 65534) == 0 && ::setresuid(65534, 65534, 65534) == 0) {
            ::execl(executable.c_str(), name.c_str(), "120", nullptr);
        }
        ::_exit(127);
    }
    for (int attempt = 0; attempt < 500; ++attempt) {
        std::error_code error;
        auto link = std::filesystem::read_symlink("/proc/" + std::to_string(child) + "/exe", error);
        if (link.filename() == name) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_THAT(AppInstaller::otherCopies(name), Not(Contains(child)));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}

}  // namespace
}  // namespace velmora
