#include "app/installer/OtherCopies.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>

#include <fstream>

#include "RunningCopy.h"
#include "app/installer/CopyLock.h"
#include "config/OwnFileChecks.h"
#include "config/TemporaryFolder.h"
#include "support/FreePort.h"

namespace velmora {
namespace {

using testing::ChildProcess;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::NamesakeProcess;
using testing::RunningCopy;
using testing::TemporaryFolder;

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

class OtherCopies : public ::testing::Test {
  protected:
    TemporaryFolder runtime;
    std::filesystem::path locks = runtime / "velmora-audio-helper";
};

TEST_F(OtherCopies, ACopyThatQuitsWhenAskedEndsBySigterm) {
    RunningCopy copy(locks, false);
    ASSERT_THAT(AppInstaller::otherCopies(locks), ElementsAre(copy.pid()));

    CountingTurns counter;
    AppInstaller::quitOtherCopies(locks, counter.turn());
    EXPECT_EQ(copy.endingSignal(), SIGTERM);
    EXPECT_LT(counter.turns, 30);
}

TEST_F(OtherCopies, ACopyIgnoringSigtermIsKilledAfterThreeSecondsOfTurningTheEventLoop) {
    RunningCopy copy(locks, true);
    ASSERT_THAT(AppInstaller::otherCopies(locks), ElementsAre(copy.pid()));

    CountingTurns counter;
    const auto start = std::chrono::steady_clock::now();
    AppInstaller::quitOtherCopies(locks, counter.turn());
    const auto waited = std::chrono::steady_clock::now() - start;

    EXPECT_EQ(copy.endingSignal(), SIGKILL);
    EXPECT_GE(waited, AppInstaller::quitWait);
    // The whole wait went by in slices of the event loop, not in one blocking sleep.
    EXPECT_GE(counter.turns, 10);
}

// Processes that go by the helper's name, a command run ("settings", "listen") among them, hold
// no lock: they are not copies and are never signalled.
TEST_F(OtherCopies, ProcessesThatOnlyShareTheNameAreLeftAlone) {
    TemporaryFolder bin;
    NamesakeProcess command(bin / "velmora-audio-helper", {"settings"});
    NamesakeProcess listen(bin / "listen/velmora-audio-helper", {"listen", "--seconds", "60"});
    RunningCopy copy(locks, false);
    ASSERT_THAT(AppInstaller::otherCopies(locks), ElementsAre(copy.pid()));

    AppInstaller::quitOtherCopies(locks, CountingTurns().turn());
    EXPECT_EQ(copy.endingSignal(), SIGTERM);
    EXPECT_TRUE(command.isRunning());
    EXPECT_TRUE(listen.isRunning());
}

TEST_F(OtherCopies, ThisProcessIsNeverAmongTheOtherCopiesAndKeepsItsLock) {
    auto own = AppInstaller::CopyLock::take(locks);
    ASSERT_TRUE(own);
    EXPECT_EQ(testing::modeOf(locks), 0700u);
    EXPECT_EQ(testing::modeOf(own->file()), 0600u);
    EXPECT_THAT(AppInstaller::otherCopies(locks), IsEmpty());
    RunningCopy other(locks, false);
    AppInstaller::quitOtherCopies(locks, CountingTurns().turn());
    EXPECT_EQ(other.endingSignal(), SIGTERM);
    // Still held, and naming this process, as another process sees it: looking for other
    // copies never opened (and so never dropped) this one's lock. (Only another process may
    // look: any descriptor of the file this process closed would drop its lock.)
    const pid_t self = ::getpid();
    const std::filesystem::path file = own->file();
    ChildProcess observer([&] {
        pid_t pid = ::fork();
        if (pid == 0) {
            bool named = testing::readText(file) == std::to_string(self) + "\n";
            ::_exit(named && AppInstaller::holdsCopyLock(locks, self) ? 0 : 1);
        }
        return pid;
    }());
    ASSERT_EQ(observer.endingSignal(), 0);
    EXPECT_EQ(observer.exitCode(), 0) << "the lock was dropped";
}

TEST_F(OtherCopies, WithNoOtherCopyNothingWaits) {
    CountingTurns counter;
    AppInstaller::quitOtherCopies(locks, counter.turn());
    AppInstaller::quitOtherCopies(std::filesystem::path(), counter.turn());
    EXPECT_EQ(counter.turns, 0);
}

// The lock file of a copy that ended names a pid that may belong to anyone now: it is never
// signalled, and the file is cleared away.
TEST_F(OtherCopies, ALeftoverLockFileOfAnEndedCopyIsNoCopy) {
    ChildProcess bystander([] {
        pid_t pid = ::fork();
        if (pid == 0) {
            for (;;) ::pause();
        }
        return pid;
    }());
    std::filesystem::create_directories(locks);
    const auto leftover = locks / ("running-" + std::to_string(bystander.pid()) + ".lock");
    testing::writeText(leftover, std::to_string(bystander.pid()) + "\n");
    EXPECT_THAT(AppInstaller::otherCopies(locks), IsEmpty());
    AppInstaller::quitOtherCopies(locks, CountingTurns().turn());
    EXPECT_TRUE(bystander.isRunning());
}

// Only the kernel's word counts: a lock file that names one process while another holds it
// gets neither of them signalled.
TEST_F(OtherCopies, ALockFileNamingAnotherProcessThanItsHolderIsNoCopy) {
    RunningCopy holder(locks, false);
    ChildProcess named([] {
        pid_t pid = ::fork();
        if (pid == 0) {
            for (;;) ::pause();
        }
        return pid;
    }());
    std::filesystem::rename(locks / ("running-" + std::to_string(holder.pid()) + ".lock"),
                            locks / ("running-" + std::to_string(named.pid()) + ".lock"));
    EXPECT_THAT(AppInstaller::otherCopies(locks), IsEmpty());
    AppInstaller::quitOtherCopies(locks, CountingTurns().turn());
    EXPECT_TRUE(holder.isRunning());
    EXPECT_TRUE(named.isRunning());
}

TEST_F(OtherCopies, AnotherUsersLockFileIsIgnored) {
    RunningCopy copy(locks, false);
    const auto file = locks / ("running-" + std::to_string(copy.pid()) + ".lock");
    if (!testing::giveToNobody(file)) GTEST_SKIP() << "handing a file to another user needs root";
    EXPECT_THAT(AppInstaller::otherCopies(locks), IsEmpty());
    AppInstaller::quitOtherCopies(locks, CountingTurns().turn());
    EXPECT_TRUE(copy.isRunning());
}

pid_t spawnHelper(const std::vector<std::string>& args) {
    std::vector<std::string> words = {VELMORA_HELPER_EXECUTABLE};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
    return pid;
}

// The real helper, serving headless, holds its lock and quits when asked; its own `settings`
// command run at the same time is never a copy.
TEST_F(OtherCopies, TheRealHelperIsFoundAndQuitsWhenAsked) {
    testing::ScopedEnvironment runtimeFolder("XDG_RUNTIME_DIR", runtime.path().string());
    const std::string port = std::to_string(testing::freePort());
    ChildProcess setPort(spawnHelper({"settings", "set", "port", port}));
    ASSERT_EQ(setPort.endingSignal(), 0);
    ASSERT_EQ(setPort.exitCode(), 0);

    ChildProcess helper(spawnHelper({"--headless", "--no-welcome", "--no-install"}));
    bool locked = false;
    for (int attempt = 0; attempt < 500 && !locked; ++attempt) {
        locked = AppInstaller::holdsCopyLock(locks, helper.pid());
        if (!locked) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(locked) << "the helper took no lock in " << locks;
    ChildProcess command(spawnHelper({"settings"}));
    EXPECT_THAT(AppInstaller::otherCopies(locks), ElementsAre(helper.pid()));

    const auto start = std::chrono::steady_clock::now();
    AppInstaller::quitOtherCopies(locks, CountingTurns().turn());
    EXPECT_EQ(helper.endingSignal(), 0) << "it quit by itself on SIGTERM, not by a kill";
    EXPECT_LT(std::chrono::steady_clock::now() - start, AppInstaller::quitWait);
    EXPECT_EQ(command.endingSignal(), 0);
    EXPECT_FALSE(
        std::filesystem::exists(locks / ("running-" + std::to_string(helper.pid()) + ".lock")))
        << "a copy that quits removes its lock file";
}

}  // namespace
}  // namespace velmora
