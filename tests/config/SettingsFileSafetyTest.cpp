// The settings file is this user's own regular file: links, FIFOs and other users' files planted
// at its path are refused, never read, written through or replaced.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <nlohmann/json.hpp>

#include "config/AudioKit.h"
#include "config/HelperSettings.h"
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
using Json = nlohmann::json;

class SettingsFileSafetyTest : public ::testing::Test {
  protected:
    static std::string logText() {
        flushLog();
        return readText(LogFile::defaultFolder() / AudioKit::config().logFileName);
    }

    TemporaryFolder folder;
    std::filesystem::path file = folder / "velmora-audio-helper" / "settings.json";
    std::filesystem::path victim = folder / "victim.txt";
    HelperSettings settings{file};
};

TEST_F(SettingsFileSafetyTest, WrittenFileIs0600InAFolderMade0700) {
    ASSERT_TRUE(settings.setPort(5000));
    EXPECT_EQ(modeOf(file), 0600u);
    EXPECT_EQ(modeOf(file.parent_path()), 0700u);
}

TEST_F(SettingsFileSafetyTest, AnOpenFolderIsNarrowedAndAWideFileReplacedBy0600) {
    writeText(file, R"({"port": 4000})");
    ::chmod(file.parent_path().c_str(), 0755);
    ::chmod(file.c_str(), 0644);
    ASSERT_TRUE(settings.setPort(5000));
    EXPECT_EQ(modeOf(file), 0600u);
    EXPECT_EQ(modeOf(file.parent_path()), 0700u);
}

TEST_F(SettingsFileSafetyTest, PlantedLinkIsRefusedAndItsTargetUntouched) {
    writeText(victim, R"({"port": 4000})");
    std::filesystem::create_directories(file.parent_path());
    std::filesystem::create_symlink(victim, file);

    EXPECT_EQ(settings.port(), 52849) << "a link is never read";
    EXPECT_THAT(logText(), HasSubstr("The settings file " + file.string() +
                                     " can't be used: it is a symbolic link"));
    EXPECT_FALSE(settings.setPort(5000));
    EXPECT_FALSE(settings.setExtraOrigins({"http://localhost:3000"}));
    EXPECT_EQ(readText(victim), R"({"port": 4000})");
    EXPECT_TRUE(std::filesystem::is_symlink(file)) << "the link is left where it is";
    EXPECT_THAT(logText(), HasSubstr("Couldn't save the settings to " + file.string() +
                                     ": it is a symbolic link; it was left alone."));
}

// The port dialog shows the reason a save failed; a later save that works clears it.
TEST_F(SettingsFileSafetyTest, AFailedSaveKeepsItsReasonUntilTheNextSave) {
    EXPECT_EQ(settings.lastSaveProblem(), std::nullopt);
    std::filesystem::create_directories(file.parent_path());
    std::filesystem::create_symlink(victim, file);
    EXPECT_FALSE(settings.setPort(5000));
    EXPECT_EQ(settings.lastSaveProblem(), "Couldn't save the settings to " + file.string() +
                                              ": it is a symbolic link; it was left alone.");
    std::filesystem::remove(file);
    EXPECT_TRUE(settings.setPort(5000));
    EXPECT_EQ(settings.lastSaveProblem(), std::nullopt);
}

TEST_F(SettingsFileSafetyTest, PlantedFifoDoesNotBlockReadsOrWrites) {
    std::filesystem::create_directories(file.parent_path());
    ASSERT_EQ(::mkfifo(file.c_str(), 0666), 0);
    // Run where a blocked open can't hang the test: a stuck reader fails the wait instead.
    auto reads = std::async(std::launch::async, [this] {
        return std::make_tuple(settings.port(), settings.extraOrigins().size(),
                               settings.setPort(5000));
    });
    if (reads.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        // Let the blocked reader go, so the failure is reported rather than hanging the run.
        int writer = ::open(file.c_str(), O_WRONLY | O_NONBLOCK);
        reads.wait();
        ::close(writer);
        FAIL() << "opening the FIFO blocked";
    }
    auto [port, origins, saved] = reads.get();
    EXPECT_EQ(port, 52849);
    EXPECT_EQ(origins, 0u);
    EXPECT_FALSE(saved);
    struct stat info {};
    ASSERT_EQ(::lstat(file.c_str(), &info), 0);
    EXPECT_TRUE(S_ISFIFO(info.st_mode)) << "the FIFO is left where it is";
    EXPECT_THAT(logText(),
                HasSubstr("The settings file " + file.string() + " can't be used: it is a FIFO"));
}

TEST_F(SettingsFileSafetyTest, AnotherUsersFileIsRefused) {
    writeText(file, R"({"port": 4000, "extraOrigins": ["https://planted.example"]})");
    std::optional<uid_t> owner = testing::giveToNobody(file);
    if (!owner) GTEST_SKIP() << "handing a file to another user needs root";
    EXPECT_EQ(settings.port(), 52849);
    EXPECT_FALSE(settings.isOriginAllowed("https://planted.example"));
    EXPECT_FALSE(settings.setPort(5000));
    EXPECT_EQ(Json::parse(readText(file))["port"], 4000);
    EXPECT_THAT(logText(), HasSubstr("The settings file " + file.string() +
                                     " can't be used: it belongs to another user (uid " +
                                     std::to_string(*owner) + ")"));
}

TEST_F(SettingsFileSafetyTest, ARefusalIsLoggedOnceNotAtEveryRead) {
    std::filesystem::create_directories(file.parent_path());
    std::filesystem::create_symlink(victim, file);
    for (int read = 0; read < 5; ++read) settings.isOriginAllowed("https://a.example");
    std::string text = logText();
    std::string line = "The settings file " + file.string() + " can't be used";
    auto first = text.find(line);
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(text.find(line, first + 1), std::string::npos);
}

TEST(HelperSettingsInMemory, KeepsValuesForTheProcessWithoutAFile) {
    HelperSettings settings{std::filesystem::path()};
    EXPECT_TRUE(settings.isInMemory());
    EXPECT_EQ(settings.port(), 52849);
    ASSERT_TRUE(settings.setPort(4000));
    ASSERT_TRUE(settings.setHasShownWelcome(true));
    ASSERT_TRUE(settings.setExtraOrigins({"http://localhost:3000/"}));
    EXPECT_EQ(settings.port(), 4000);
    EXPECT_TRUE(settings.hasShownWelcome());
    EXPECT_TRUE(settings.isOriginAllowed("http://localhost:3000"));
    EXPECT_FALSE(settings.fileProblem().has_value());
}

}  // namespace
}  // namespace velmora
