#include "app/installer/HandOver.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "app/installer/ToolRun.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using ::testing::HasSubstr;
using testing::readText;
using testing::ScopedEnvironment;
using testing::TemporaryFolder;
using testing::writeText;

void writeTool(const std::filesystem::path& tool, const std::string& script) {
    writeText(tool, "#!/bin/sh\n" + script);
    ::chmod(tool.c_str(), 0755);
}

bool waitForFile(const std::filesystem::path& file, std::chrono::seconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < deadline) {
        if (std::filesystem::exists(file)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

// A place with stand-ins for the disk service and umount on PATH, and a stand-in for the
// installed copy that writes down where it started.
class HandOverScript : public ::testing::Test {
  protected:
    void SetUp() override {
        writeTool(folder_ / "tools/umount", "echo \"umount $*\" >> '" + calls().string() + "'\n");
        writeTool(installed(), "pwd > '" + (folder_ / "started").string() + "'\n");
    }

    // The disk service fails its first `failures` unmounts.
    void diskServiceFailing(int failures) {
        writeTool(folder_ / "tools/udisksctl", "echo \"udisksctl $*\" >> '" + calls().string() +
                                                   "'\n"
                                                   "[ \"$1\" = unmount ] || exit 0\n"
                                                   "count=$(grep -c 'udisksctl unmount' '" +
                                                   calls().string() + "')\n[ \"$count\" -gt " +
                                                   std::to_string(failures) + " ]\n");
    }

    // Runs the script to its end (the installed copy's end) for the process `pid`.
    void runScript(pid_t pid, const std::string& device) {
        ScopedEnvironment path("PATH", (folder_ / "tools").string() + ":/usr/bin:/bin");
        AppInstaller::run("/bin/sh", {"-c", std::string(AppInstaller::handOverScript), "sh",
                                      std::to_string(pid), device, installed().string()});
    }

    std::filesystem::path calls() const { return folder_ / "calls"; }
    std::filesystem::path installed() const {
        return folder_ / "installed/bin/velmora-audio-helper";
    }
    std::filesystem::path started() const { return folder_ / "started"; }
    std::string callText() const {
        return std::filesystem::exists(calls()) ? readText(calls()) : std::string();
    }

    TemporaryFolder folder_;
};

pid_t sleepingChild() {
    pid_t child = ::fork();
    if (child == 0) {
        ::execl("/bin/sleep", "sleep", "120", nullptr);
        ::_exit(127);
    }
    return child;
}

TEST(HandOverScriptText, IsTheScript) {
    EXPECT_EQ(AppInstaller::handOverScript,
              "while kill -0 \"$1\" 2>/dev/null; do sleep 0.2; done\n"
              "if [ -n \"$2\" ]; then\n"
              "    if udisksctl unmount --no-user-interaction -b \"$2\" >/dev/null 2>&1 || { sleep "
              "1; udisksctl unmount --no-user-interaction --force -b \"$2\" >/dev/null 2>&1; }; "
              "then\n"
              "        udisksctl loop-delete --no-user-interaction -b \"$2\" >/dev/null 2>&1\n"
              "    else\n"
              "        umount \"$2\"\n"
              "    fi\n"
              "fi\n"
              "exec \"$3\" </dev/null");
}

TEST_F(HandOverScript, WaitsForTheOldProcessThenDetachesTheImageAndStartsTheInstalledCopy) {
    diskServiceFailing(0);
    pid_t old = sleepingChild();
    std::thread script([&] { runScript(old, "/dev/loop7"); });

    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    EXPECT_FALSE(std::filesystem::exists(started())) << "started before the old copy ended";
    EXPECT_EQ(callText(), "");

    ::kill(old, SIGTERM);
    ::waitpid(old, nullptr, 0);
    script.join();
    EXPECT_EQ(callText(),
              "udisksctl unmount --no-user-interaction -b /dev/loop7\n"
              "udisksctl loop-delete --no-user-interaction -b /dev/loop7\n");
    ASSERT_TRUE(std::filesystem::exists(started()));
}

TEST_F(HandOverScript, DetachesByForceWhenTheFirstTryFails) {
    diskServiceFailing(1);
    pid_t old = sleepingChild();
    ::kill(old, SIGKILL);
    ::waitpid(old, nullptr, 0);
    runScript(old, "/dev/loop7");
    EXPECT_EQ(callText(),
              "udisksctl unmount --no-user-interaction -b /dev/loop7\n"
              "udisksctl unmount --no-user-interaction --force -b /dev/loop7\n"
              "udisksctl loop-delete --no-user-interaction -b /dev/loop7\n");
    EXPECT_TRUE(std::filesystem::exists(started()));
}

TEST_F(HandOverScript, FallsBackToUmountWhenTheDiskServiceCannotDetach) {
    diskServiceFailing(2);
    pid_t old = sleepingChild();
    ::kill(old, SIGKILL);
    ::waitpid(old, nullptr, 0);
    runScript(old, "/dev/loop7");
    EXPECT_THAT(callText(), ::testing::EndsWith("--force -b /dev/loop7\numount /dev/loop7\n"));
    EXPECT_TRUE(std::filesystem::exists(started()));
}

TEST_F(HandOverScript, WithoutADiskImageNothingIsDetached) {
    diskServiceFailing(0);
    pid_t old = sleepingChild();
    ::kill(old, SIGKILL);
    ::waitpid(old, nullptr, 0);
    runScript(old, "");
    EXPECT_EQ(callText(), "");
    EXPECT_TRUE(std::filesystem::exists(started()));
}

TEST_F(HandOverScript, RelaunchStartsTheInstalledCopyFromTheRootFolderAfterThisProcessEnds) {
    pid_t launcher = ::fork();
    if (launcher == 0) {
        // Standing for the helper on the image: its working folder is the image's.
        if (::chdir(folder_.path().c_str()) != 0) ::_exit(1);
        AppInstaller::relaunch(installed(), std::nullopt);
        ::_exit(0);
    }
    ::waitpid(launcher, nullptr, 0);
    ASSERT_TRUE(waitForFile(started(), std::chrono::seconds(20)));
    // The file can appear before pwd's line is in it.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(readText(started()), "/\n");
}

}  // namespace
}  // namespace velmora
