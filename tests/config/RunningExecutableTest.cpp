#include "config/RunningExecutable.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using testing::TemporaryFolder;

// A copy of sleep at `program`, running until the test ends it.
class RunningProgram {
  public:
    explicit RunningProgram(const std::filesystem::path& program) {
        std::filesystem::copy_file("/bin/sleep", program);
        ::chmod(program.c_str(), 0755);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::execl(program.c_str(), "sleep", "120", nullptr);
            ::_exit(127);
        }
        // The link names the copy once exec has happened.
        const std::filesystem::path link = this->link();
        for (int tries = 0; tries < 200; ++tries) {
            std::error_code error;
            if (std::filesystem::read_symlink(link, error).filename() == program.filename()) break;
            ::usleep(10'000);
        }
    }
    ~RunningProgram() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    std::filesystem::path link() const { return "/proc/" + std::to_string(pid_) + "/exe"; }

  private:
    pid_t pid_ = -1;
};

TEST(RunningExecutable, IsThisTestProgramWithItsLinksResolved) {
    std::optional<std::filesystem::path> executable = runningExecutable();
    ASSERT_TRUE(executable.has_value());
    EXPECT_TRUE(executable->is_absolute());
    EXPECT_EQ(*executable, std::filesystem::canonical(*executable));
    EXPECT_EQ(executable->filename(), "config_tests");
}

TEST(RunningExecutable, AProgramReplacedByAnUpgradeKeepsItsPath) {
    TemporaryFolder folder;
    const std::filesystem::path program = folder / "velmora-audio-helper";
    RunningProgram running(program);
    // An upgrade removes the file and puts the new one in its place.
    std::filesystem::remove(program);
    std::filesystem::copy_file("/bin/sleep", program);
    ASSERT_TRUE(std::filesystem::read_symlink(running.link()).string().ends_with(deletedMark));
    EXPECT_EQ(executableBehind(running.link()), program);
}

TEST(RunningExecutable, ARemovedProgramStillNamesWhereItWas) {
    TemporaryFolder folder;
    const std::filesystem::path program = folder / "velmora-audio-helper";
    RunningProgram running(program);
    std::filesystem::remove(program);
    EXPECT_EQ(executableBehind(running.link()), program);
}

TEST(RunningExecutable, ANameEndingLikeTheMarkIsKeptWhenTheFileIsThere) {
    TemporaryFolder folder;
    const std::filesystem::path program = folder / "velmora-audio-helper (deleted)";
    RunningProgram running(program);
    EXPECT_EQ(executableBehind(running.link()), program);
}

TEST(RunningExecutable, NothingWithoutALink) {
    EXPECT_FALSE(executableBehind("/proc/0/no-such-link").has_value());
}

}  // namespace
}  // namespace velmora
