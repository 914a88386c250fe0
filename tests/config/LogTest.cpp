#include "config/Log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <thread>

#include "config/AudioKit.h"
#include "config/LogFile.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using testing::readText;
using testing::TemporaryFolder;

std::filesystem::path logPath() {
    return LogFile::defaultFolder() / AudioKit::config().logFileName;
}

// The messages of the file's lines that start with `prefix`, in file order.
std::vector<std::string> messagesStartingWith(const std::string& prefix) {
    std::vector<std::string> messages;
    std::istringstream stream(readText(logPath()));
    for (std::string line; std::getline(stream, line);) {
        if (line.size() > 24 && line.compare(24, prefix.size(), prefix) == 0) {
            messages.push_back(line.substr(24));
        }
    }
    return messages;
}

// The folder a child process of a death test shares with its parent: the test body runs again in
// the child, so the parent hands the folder over in the environment.
std::filesystem::path folderSharedWithChild(std::optional<TemporaryFolder>& owned) {
    if (const char* shared = std::getenv("VELMORA_TEST_SHARED_FOLDER")) return shared;
    owned.emplace();
    ::setenv("VELMORA_TEST_SHARED_FOLDER", owned->path().c_str(), 1);
    return owned->path();
}

TEST(Log, WritesTheMessageAsOneStampedLineOfTheLogFile) {
    log("log test: a single line");
    flushLog();
    std::string text = readText(logPath());
    EXPECT_THAT(text, HasSubstr(" log test: a single line\n"));
    std::vector<std::string> messages = messagesStartingWith("log test: a single line");
    EXPECT_EQ(messages.size(), 1u);
}

TEST(Log, MessagesInQuickSuccessionFromOneThreadKeepTheirOrder) {
    for (int index = 0; index < 300; ++index) log("log test: order " + std::to_string(index));
    flushLog();
    std::vector<std::string> messages = messagesStartingWith("log test: order ");
    ASSERT_EQ(messages.size(), 300u);
    for (int index = 0; index < 300; ++index) {
        EXPECT_EQ(messages[index], "log test: order " + std::to_string(index));
    }
}

TEST(Log, CallersOnManyThreadsNeverInterleaveWithinALine) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([thread] {
            for (int index = 0; index < 100; ++index) {
                log("log test: thread " + std::to_string(thread) + " line " +
                    std::to_string(index) + " " + std::string(200, 'a' + thread));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    flushLog();
    std::vector<std::string> messages = messagesStartingWith("log test: thread ");
    ASSERT_EQ(messages.size(), 400u);
    std::vector<int> next(4, 0);
    for (const std::string& message : messages) {
        int thread = message[17] - '0';
        ASSERT_GE(thread, 0);
        ASSERT_LT(thread, 4);
        EXPECT_EQ(message, "log test: thread " + std::to_string(thread) + " line " +
                               std::to_string(next[thread]++) + " " +
                               std::string(200, 'a' + thread));
    }
}

TEST(Log, ReturnsNormallyWhenTheFileCannotBeWrittenAtAll) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            // Nothing can be created under /proc, not even by the superuser.
            ::setenv("XDG_STATE_HOME", "/proc/velmora-nowhere", 1);
            log("log test: goes nowhere");
            flushLog();
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(Log, WritesNothingToStandardErrorWhenItIsNotATerminal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The child's standard error is a file the test framework reads back.
    EXPECT_EXIT(
        {
            log("log test: not for the terminal");
            flushLog();
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), Not(HasSubstr("not for the terminal")));
}

TEST(Log, LinesStillQueuedAtExitAreWritten) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::optional<TemporaryFolder> owned;
    std::filesystem::path folder = folderSharedWithChild(owned);
    EXPECT_EXIT(
        {
            ::setenv("XDG_STATE_HOME", folder.c_str(), 1);
            for (int index = 0; index < 100; ++index) {
                log("log test: at exit " + std::to_string(index));
            }
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    ::unsetenv("VELMORA_TEST_SHARED_FOLDER");
    std::string text = readText(folder / "velmora-audio-helper" / AudioKit::config().logFileName);
    EXPECT_THAT(text, HasSubstr(" log test: at exit 0\n"));
    EXPECT_THAT(text, HasSubstr(" log test: at exit 99\n"));
}

TEST(Log, FileNameAndFolderAreTakenOnceAtFirstUse) {
    log("log test: before the change");
    AudioKit::modifyConfig([](AudioKitConfig& config) { config.logFileName = "Other.log"; });
    log("log test: after the change");
    flushLog();
    AudioKit::setConfig(AudioKitConfig::defaults());
    EXPECT_EQ(messagesStartingWith("log test: after the change").size(), 1u);
    EXPECT_FALSE(std::filesystem::exists(LogFile::defaultFolder() / "Other.log"));
}

}  // namespace
}  // namespace velmora
