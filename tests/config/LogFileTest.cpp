#include "config/LogFile.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <regex>
#include <sstream>

#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;
using testing::readText;
using testing::ScopedEnvironment;
using testing::TemporaryFolder;
using testing::writeText;

constexpr const char* stampPattern =
    "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}";

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

// The message part of a line: what follows the stamp and its space.
std::string messageOf(const std::string& line) {
    return line.size() > 24 ? line.substr(24) : "";
}

// Puts another descriptor in place of standard error for the life of the object.
class StandardErrorReplacement {
  public:
    explicit StandardErrorReplacement(int replacement) : saved_(::dup(STDERR_FILENO)) {
        ::dup2(replacement, STDERR_FILENO);
    }
    ~StandardErrorReplacement() {
        ::dup2(saved_, STDERR_FILENO);
        ::close(saved_);
    }

  private:
    int saved_;
};

// Sets the process's time zone for the life of the object.
class ScopedTimeZone {
  public:
    explicit ScopedTimeZone(const char* zone) {
        if (const char* old = std::getenv("TZ")) old_ = old;
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~ScopedTimeZone() {
        if (old_) {
            ::setenv("TZ", old_->c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }

  private:
    std::optional<std::string> old_;
};

std::string drain(int descriptor) {
    ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) | O_NONBLOCK);
    std::string text;
    char buffer[4096];
    for (ssize_t count; (count = ::read(descriptor, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(count));
    }
    return text;
}

class LogFileTest : public ::testing::Test {
  protected:
    TemporaryFolder folder;
    std::filesystem::path logFolder = folder / "logs";
    std::filesystem::path logPath = logFolder / "VelmoraAudioHelper.log";
};

TEST_F(LogFileTest, FirstMessageCreatesTheFileWithExactlyOneLine) {
    LogFile file(logFolder, "VelmoraAudioHelper.log");
    EXPECT_EQ(file.path(), logPath);
    file.write("hello there");
    std::vector<std::string> lines = linesOf(readText(logPath));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], MatchesRegex(std::string(stampPattern) + " hello there"));
    EXPECT_TRUE(readText(logPath).ends_with("hello there\n"));
}

TEST_F(LogFileTest, FileOfExactlyTheCapSurvivesTheRunsFirstWrite) {
    writeText(logPath, std::string(1'000'000, 'x'));
    LogFile file(logFolder, "VelmoraAudioHelper.log");
    file.write("next");
    std::string text = readText(logPath);
    EXPECT_TRUE(text.starts_with(std::string(1'000'000, 'x')));
    EXPECT_EQ(text.size(), 1'000'000u + 24u + 5u);
}

TEST_F(LogFileTest, FileOneByteOverTheCapIsDeletedThenRecreatedWithTheNewLine) {
    writeText(logPath, std::string(1'000'001, 'x'));
    LogFile file(logFolder, "VelmoraAudioHelper.log");
    file.write("fresh start");
    std::vector<std::string> lines = linesOf(readText(logPath));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(messageOf(lines[0]), "fresh start");
}

TEST_F(LogFileTest, SizeIsCheckedOnlyAtTheRunsFirstWrite) {
    LogFile file(logFolder, "VelmoraAudioHelper.log");
    file.write("first");
    writeText(logPath, std::string(2'000'000, 'x'));
    file.write("second");
    EXPECT_EQ(readText(logPath).size(), 2'000'000u + 24u + 7u) << "no rotation during a run";
}

TEST_F(LogFileTest, UnwritableLocationMakesWriteReturnNormally) {
    writeText(folder / "blocker", "not a folder");
    LogFile file(folder / "blocker" / "logs", "VelmoraAudioHelper.log");
    file.write("lost");
    file.write("also lost");
    EXPECT_EQ(readText(folder / "blocker"), "not a folder");
}

TEST_F(LogFileTest, MessagesInQuickSuccessionKeepTheirOrder) {
    LogFile file(logFolder, "VelmoraAudioHelper.log");
    for (int index = 0; index < 500; ++index) file.write("message " + std::to_string(index));
    std::vector<std::string> lines = linesOf(readText(logPath));
    ASSERT_EQ(lines.size(), 500u);
    for (int index = 0; index < 500; ++index) {
        EXPECT_EQ(messageOf(lines[index]), "message " + std::to_string(index));
    }
}

TEST_F(LogFileTest, EmbeddedNewlineIsWrittenAsGiven) {
    LogFile file(logFolder, "VelmoraAudioHelper.log");
    file.write("one\ntwo");
    std::vector<std::string> lines = linesOf(readText(logPath));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(messageOf(lines[0]), "one");
    EXPECT_EQ(lines[1], "two");
}

TEST(LogFileStamp, IsYearMonthDayHoursMinutesSecondsMilliseconds) {
    ScopedTimeZone zone("UTC0");
    // 2026-11-15 23:25:21.042 UTC
    auto time = std::chrono::system_clock::time_point(std::chrono::seconds(1'794'785'121)) +
                std::chrono::milliseconds(42);
    EXPECT_EQ(LogFile::stamp(time), "2026-11-15 23:25:21.042");
    EXPECT_EQ(LogFile::stamp(std::chrono::system_clock::time_point(std::chrono::seconds(0))),
              "1970-01-01 00:00:00.000");
}

TEST(LogFileStamp, UsesLocalTime) {
    ScopedTimeZone zone("XYZ-05:30");  // five and a half hours east of UTC
    auto time = std::chrono::system_clock::time_point(std::chrono::seconds(1'794'785'121)) +
                std::chrono::milliseconds(999);
    EXPECT_EQ(LogFile::stamp(time), "2026-11-16 04:55:21.999");
}

TEST_F(LogFileTest, NothingGoesToStandardErrorWhenItIsNotATerminal) {
    int pipeEnds[2];
    ASSERT_EQ(::pipe(pipeEnds), 0);
    LogFile file(logFolder, "VelmoraAudioHelper.log");
    {
        StandardErrorReplacement replacement(pipeEnds[1]);
        file.write("quiet line");
    }
    ::close(pipeEnds[1]);
    EXPECT_EQ(drain(pipeEnds[0]), "");
    ::close(pipeEnds[0]);
    EXPECT_EQ(messageOf(linesOf(readText(logPath)).at(0)), "quiet line");
}

TEST_F(LogFileTest, TheLineAlsoGoesToStandardErrorWhenItIsATerminal) {
    int terminal = ::posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(terminal, 0);
    ASSERT_EQ(::grantpt(terminal), 0);
    ASSERT_EQ(::unlockpt(terminal), 0);
    int screen = ::open(::ptsname(terminal), O_RDWR | O_NOCTTY);
    ASSERT_GE(screen, 0);
    LogFile file(logFolder, "VelmoraAudioHelper.log");
    {
        StandardErrorReplacement replacement(screen);
        file.write("loud line");
    }
    ::close(screen);
    std::string shown = drain(terminal);
    ::close(terminal);
    EXPECT_THAT(shown, MatchesRegex(std::string(stampPattern) + " loud line\r?\n"));
}

TEST(LogFileFolder, FollowsXdgStateHome) {
    ScopedEnvironment state("XDG_STATE_HOME", "/somewhere/state");
    EXPECT_EQ(LogFile::defaultFolder(), "/somewhere/state/velmora-audio-helper");
}

TEST(LogFileFolder, FallsBackToLocalStateInHome) {
    ScopedEnvironment state("XDG_STATE_HOME", std::nullopt);
    ScopedEnvironment home("HOME", "/home/someone");
    EXPECT_EQ(LogFile::defaultFolder(), "/home/someone/.local/state/velmora-audio-helper");
}

}  // namespace
}  // namespace velmora
