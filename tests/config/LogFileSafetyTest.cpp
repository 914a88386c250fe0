// The log file is this user's own regular file, and values from requests can't forge its lines.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <sstream>

#include "config/Log.h"
#include "config/LogFile.h"
#include "config/OwnFileChecks.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using ::testing::HasSubstr;
using testing::modeOf;
using testing::readText;
using testing::TemporaryFolder;
using testing::writeText;

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

class LogFileSafetyTest : public ::testing::Test {
  protected:
    TemporaryFolder folder;
    std::filesystem::path logFolder = folder / "state" / "velmora-audio-helper";
    std::filesystem::path logPath = logFolder / "VelmoraAudioHelper.log";
    std::filesystem::path victim = folder / "victim.txt";
    LogFile file{logFolder, "VelmoraAudioHelper.log"};
};

TEST_F(LogFileSafetyTest, FileIs0600InFoldersMade0700) {
    EXPECT_FALSE(file.write("first line"));
    EXPECT_EQ(modeOf(logPath), 0600u);
    EXPECT_EQ(modeOf(logFolder), 0700u);
    EXPECT_EQ(modeOf(logFolder.parent_path()), 0700u);
}

TEST_F(LogFileSafetyTest, PlantedLinkIsRefusedAndItsTargetUntouched) {
    writeText(victim, "precious\n");
    std::filesystem::create_directories(logFolder);
    std::filesystem::create_symlink(victim, logPath);
    std::optional<std::string> refusal = file.write("Rejected connection from origin x");
    ASSERT_TRUE(refusal.has_value());
    EXPECT_THAT(*refusal, HasSubstr("The log file " + logPath.string() + " is a symbolic link"));
    EXPECT_EQ(readText(victim), "precious\n");
}

TEST_F(LogFileSafetyTest, DanglingLinkIsNotFollowedToCreateItsTarget) {
    std::filesystem::create_directories(logFolder);
    std::filesystem::create_symlink(victim, logPath);
    EXPECT_TRUE(file.write("a line").has_value());
    EXPECT_FALSE(std::filesystem::exists(victim));
}

TEST_F(LogFileSafetyTest, PlantedLinkOverTheCapIsNotDeletedThroughTheLink) {
    writeText(victim, std::string(1'000'001, 'x'));
    std::filesystem::create_directories(logFolder);
    std::filesystem::create_symlink(victim, logPath);
    file.write("a line");
    EXPECT_EQ(std::filesystem::file_size(victim), 1'000'001u);
}

TEST_F(LogFileSafetyTest, PlantedFifoDoesNotBlock) {
    std::filesystem::create_directories(logFolder);
    ASSERT_EQ(::mkfifo(logPath.c_str(), 0666), 0);
    auto written = std::async(std::launch::async, [this] { return file.write("a line"); });
    if (written.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        // Let the blocked writer go, so the failure is reported rather than hanging the run.
        int reader = ::open(logPath.c_str(), O_RDONLY | O_NONBLOCK);
        written.wait();
        ::close(reader);
        FAIL() << "opening the FIFO blocked";
    }
    std::optional<std::string> refusal = written.get();
    ASSERT_TRUE(refusal.has_value());
    EXPECT_THAT(*refusal, HasSubstr("is a FIFO"));
}

TEST_F(LogFileSafetyTest, AnotherUsersFileIsRefused) {
    writeText(logPath, "someone else's\n");
    std::optional<uid_t> owner = testing::giveToNobody(logPath);
    if (!owner) GTEST_SKIP() << "handing a file to another user needs root";
    std::optional<std::string> refusal = file.write("a line");
    ASSERT_TRUE(refusal.has_value());
    EXPECT_THAT(*refusal,
                HasSubstr("belongs to another user (uid " + std::to_string(*owner) + ")"));
    EXPECT_EQ(readText(logPath), "someone else's\n");
}

TEST_F(LogFileSafetyTest, NoFolderMeansNoFileAndNoRefusal) {
    LogFile nowhere(std::filesystem::path(), "VelmoraAudioHelper.log");
    EXPECT_TRUE(nowhere.path().empty());
    EXPECT_FALSE(nowhere.write("to the system log only").has_value());
}

TEST_F(LogFileSafetyTest, AnOriginWithANewlineCannotForgeASecondLine) {
    const std::string origin =
        "https://evil.example\n2026-11-15 23:25:21.042 Client connected "
        "(https://app.velmora.com)";
    file.write("Rejected connection from origin " + visibleInLog(origin));
    std::vector<std::string> lines = linesOf(readText(logPath));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0],
                HasSubstr("Rejected connection from origin https://evil.example\\n2026-"));
}

TEST(VisibleInLog, WritesEveryControlCharacterVisibly) {
    EXPECT_EQ(visibleInLog("a\nb\rc\td"), "a\\nb\\rc\\td");
    EXPECT_EQ(visibleInLog(std::string("\x1b[31mred\x7f\0end", 13)), "\\x1b[31mred\\x7f\\x00end");
    EXPECT_EQ(visibleInLog("csi \xc2\x9b"
                           "2J, nel \xc2\x85."),
              "csi \\u009b2J, nel \\u0085.");
}

TEST(VisibleInLog, KeepsOrdinaryTextAndUtf8AsItIs) {
    EXPECT_EQ(visibleInLog("https://app.example:8443"), "https://app.example:8443");
    EXPECT_EQ(visibleInLog("caf\xc3\xa9 \xe2\x80\x94 \xc2\xa0ok"),
              "caf\xc3\xa9 \xe2\x80\x94 \xc2\xa0ok");
}

}  // namespace
}  // namespace velmora
