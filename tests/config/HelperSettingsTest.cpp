#include "config/HelperSettings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "config/AudioKit.h"
#include "config/HelperInfo.h"
#include "config/Log.h"
#include "config/LogFile.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Json = nlohmann::json;
using testing::readText;
using testing::ScopedEnvironment;
using testing::TemporaryFolder;
using testing::writeText;

class HelperSettingsTest : public ::testing::Test {
  protected:
    Json savedJson() const { return Json::parse(readText(file)); }

    std::vector<std::filesystem::path> filesInFolder() const {
        std::vector<std::filesystem::path> names;
        for (const auto& entry : std::filesystem::directory_iterator(file.parent_path())) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    static std::string logText() {
        flushLog();
        return readText(LogFile::defaultFolder() / AudioKit::config().logFileName);
    }

    TemporaryFolder folder;
    std::filesystem::path file = folder / "velmora-audio-helper" / "settings.json";
    HelperSettings settings{file};
};

TEST_F(HelperSettingsTest, MissingFileReadsAsDefaultsWithoutCreatingIt) {
    EXPECT_EQ(settings.port(), 52849);
    EXPECT_FALSE(settings.hasShownWelcome());
    EXPECT_THAT(settings.extraOrigins(), IsEmpty());
    EXPECT_FALSE(settings.fileProblem().has_value());
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(HelperSettingsTest, SavedPortOfZeroNegativeOrAbove65535ReadsAsDefault) {
    for (std::int64_t saved : {0, -1, 70000}) {
        ASSERT_TRUE(settings.setPort(saved));
        EXPECT_EQ(settings.port(), HelperInfo::defaultPort) << "saved " << saved;
        EXPECT_EQ(settings.savedPort(), saved) << "the value itself is stored unvalidated";
    }
}

TEST_F(HelperSettingsTest, SavedPortsOneAnd65535ReadAsThemselves) {
    ASSERT_TRUE(settings.setPort(1));
    EXPECT_EQ(settings.port(), 1);
    ASSERT_TRUE(settings.setPort(65535));
    EXPECT_EQ(settings.port(), 65535);
}

TEST_F(HelperSettingsTest, PortIsSavedAsAJsonInteger) {
    ASSERT_TRUE(settings.setPort(3000));
    Json saved = savedJson();
    ASSERT_TRUE(saved["port"].is_number_integer());
    EXPECT_EQ(saved["port"].get<int>(), 3000);
}

TEST_F(HelperSettingsTest, PortOfTheWrongJsonTypeReadsAsUnset) {
    for (const char* text :
         {R"({"port": "3000"})", R"({"port": 3000.5})", R"({"port": true})", R"({"port": [3000]})",
          R"({"port": null})", R"({"port": 18446744073709551615})"}) {
        writeText(file, text);
        EXPECT_EQ(settings.port(), 52849) << text;
    }
}

TEST_F(HelperSettingsTest, WelcomeFlagRoundTripsAndWrongTypeReadsAsFalse) {
    ASSERT_TRUE(settings.setHasShownWelcome(true));
    EXPECT_TRUE(settings.hasShownWelcome());
    ASSERT_TRUE(settings.setHasShownWelcome(false));
    EXPECT_FALSE(settings.hasShownWelcome());
    for (const char* text : {R"({"hasShownWelcome": "true"})", R"({"hasShownWelcome": 1})"}) {
        writeText(file, text);
        EXPECT_FALSE(settings.hasShownWelcome()) << text;
    }
}

TEST_F(HelperSettingsTest, SettingFourEntriesStoresOnlyTheNormalisedLocalhostEntry) {
    ASSERT_TRUE(settings.setExtraOrigins({" HTTP://LocalHost:3000/ ", "http://localhost:3000",
                                          "ftp://x", HelperInfo::builtInOrigins()[1]}));
    EXPECT_EQ(savedJson()["extraOrigins"], Json::array({"http://localhost:3000"}));
    EXPECT_THAT(settings.extraOrigins(), ElementsAre("http://localhost:3000"));
}

TEST_F(HelperSettingsTest, SettingExtraOriginsKeepsOrderAndFirstOccurrence) {
    ASSERT_TRUE(settings.setExtraOrigins(
        {"http://b.example", "http://a.example", "HTTP://B.EXAMPLE/", "http://localhost:*"}));
    EXPECT_THAT(settings.extraOrigins(),
                ElementsAre("http://b.example", "http://a.example", "http://localhost:*"));
}

TEST_F(HelperSettingsTest, HandEditedWildcardHostIsIgnoredButStaysInTheFile) {
    writeText(file, R"({"extraOrigins": ["https://*.example.com", "http://localhost:3000"]})");
    EXPECT_THAT(settings.extraOrigins(), ElementsAre("http://localhost:3000"));
    EXPECT_FALSE(settings.isOriginAllowed("https://app.example.com"));
    EXPECT_FALSE(settings.isOriginAllowed("https://*.example.com"));
    EXPECT_TRUE(settings.isOriginAllowed("http://localhost:3000"));
    EXPECT_EQ(savedJson()["extraOrigins"],
              Json::array({"https://*.example.com", "http://localhost:3000"}));
}

TEST_F(HelperSettingsTest, WithNoExtraOriginsExactlyTheBuiltInOriginsAreAdmitted) {
    for (const std::string& origin : HelperInfo::builtInOrigins()) {
        EXPECT_TRUE(settings.isOriginAllowed(origin)) << origin;
    }
    EXPECT_FALSE(settings.isOriginAllowed(std::nullopt));
    EXPECT_FALSE(settings.isOriginAllowed("null"));
    EXPECT_FALSE(settings.isOriginAllowed("http://localhost:3000"));
    EXPECT_FALSE(settings.isOriginAllowed("https://evil.example"));
    std::string http = HelperInfo::builtInOrigins()[0];
    http.replace(0, 5, "http");
    EXPECT_FALSE(settings.isOriginAllowed(http)) << "plain http of a built-in origin";
}

TEST_F(HelperSettingsTest, ExtraOriginsAreAdmittedBesideTheBuiltInOnes) {
    ASSERT_TRUE(settings.setExtraOrigins({"http://localhost:*"}));
    EXPECT_TRUE(settings.isOriginAllowed("http://localhost:5173"));
    EXPECT_TRUE(settings.isOriginAllowed("http://localhost"));
    EXPECT_FALSE(settings.isOriginAllowed("https://localhost:5173"));
    EXPECT_TRUE(settings.isOriginAllowed(HelperInfo::builtInOrigins()[2]));
}

TEST_F(HelperSettingsTest, GetterKeepsDuplicatesWrittenByOtherMeans) {
    writeText(
        file,
        R"({"extraOrigins": ["http://localhost:3000", "HTTP://localhost:3000/", "http://localhost:3000"]})");
    EXPECT_THAT(
        settings.extraOrigins(),
        ElementsAre("http://localhost:3000", "http://localhost:3000", "http://localhost:3000"));
}

TEST_F(HelperSettingsTest, ExtraOriginsThatAreNotAllStringsReadAsUnset) {
    writeText(file, R"({"extraOrigins": ["http://localhost:3000", 7]})");
    EXPECT_THAT(settings.extraOrigins(), IsEmpty());
    EXPECT_FALSE(settings.isOriginAllowed("http://localhost:3000"));
    writeText(file, R"({"extraOrigins": "http://localhost:3000"})");
    EXPECT_THAT(settings.extraOrigins(), IsEmpty());
}

TEST_F(HelperSettingsTest, UnknownKeysSurviveAWrite) {
    writeText(file, R"({"theme": "dark", "nested": {"a": [1, 2]}, "port": 4000})");
    ASSERT_TRUE(settings.setPort(5000));
    ASSERT_TRUE(settings.setExtraOrigins({"http://localhost:3000"}));
    ASSERT_TRUE(settings.setHasShownWelcome(true));
    Json saved = savedJson();
    EXPECT_EQ(saved["theme"], "dark");
    EXPECT_EQ(saved["nested"], Json::parse(R"({"a": [1, 2]})"));
    EXPECT_EQ(saved["port"], 5000);
    EXPECT_EQ(saved["extraOrigins"], Json::array({"http://localhost:3000"}));
    EXPECT_EQ(saved["hasShownWelcome"], true);
}

TEST_F(HelperSettingsTest, UnparsableFileReadsAsUnsetAndIsLeftAlone) {
    writeText(file, "{\"port\": 4000,");
    EXPECT_EQ(settings.port(), 52849);
    EXPECT_FALSE(settings.hasShownWelcome());
    EXPECT_THAT(settings.extraOrigins(), IsEmpty());
    ASSERT_TRUE(settings.fileProblem().has_value());
    EXPECT_THAT(*settings.fileProblem(), HasSubstr("not valid JSON"));
    EXPECT_EQ(readText(file), "{\"port\": 4000,");
}

TEST_F(HelperSettingsTest, UnparsableFileIsMovedAsideBeforeAWriteAndTheLogSaysSo) {
    const std::string broken = "{\"port\": 4000, \"extraOrigins\": [\"http://localhost:3000\"";
    writeText(file, broken);
    ASSERT_TRUE(settings.setPort(3000));

    std::vector<std::filesystem::path> names = filesInFolder();
    ASSERT_EQ(names.size(), 2u);
    EXPECT_EQ(names[0], "settings.json");
    EXPECT_THAT(names[1].string(), ::testing::StartsWith("settings.json.unreadable-"));
    EXPECT_EQ(readText(file.parent_path() / names[1]), broken) << "the old content is kept whole";
    EXPECT_EQ(savedJson(), Json::parse(R"({"port": 3000})"));

    std::string logged = logText();
    EXPECT_THAT(logged, HasSubstr("The settings file " + file.string() + " couldn't be used"));
    EXPECT_THAT(logged, HasSubstr("moved it aside to " + (file.parent_path() / names[1]).string()));
}

TEST_F(HelperSettingsTest, SecondUnparsableFileInTheSameSecondGetsItsOwnName) {
    writeText(file, "first broken");
    ASSERT_TRUE(settings.setHasShownWelcome(true));
    writeText(file, "second broken");
    ASSERT_TRUE(settings.setHasShownWelcome(true));
    std::vector<std::string> contents;
    for (const auto& name : filesInFolder()) {
        if (name != "settings.json") contents.push_back(readText(file.parent_path() / name));
    }
    EXPECT_THAT(contents, ::testing::UnorderedElementsAre("first broken", "second broken"));
}

TEST_F(HelperSettingsTest, JsonThatIsNotAnObjectIsMovedAsideToo) {
    writeText(file, R"(["http://localhost:3000"])");
    EXPECT_THAT(settings.fileProblem().value_or(""), HasSubstr("not an object"));
    ASSERT_TRUE(settings.setExtraOrigins({"http://localhost:4000"}));
    EXPECT_EQ(filesInFolder().size(), 2u);
    EXPECT_THAT(settings.extraOrigins(), ElementsAre("http://localhost:4000"));
}

TEST_F(HelperSettingsTest, BlankFileIsSimplyEmpty) {
    writeText(file, " \n");
    EXPECT_FALSE(settings.fileProblem().has_value());
    ASSERT_TRUE(settings.setPort(4000));
    EXPECT_EQ(filesInFolder(), std::vector<std::filesystem::path>{"settings.json"});
}

TEST_F(HelperSettingsTest, ReadsSeeAnEditMadeBehindTheStoresBack) {
    ASSERT_TRUE(settings.setPort(3000));
    EXPECT_EQ(settings.port(), 3000);
    EXPECT_FALSE(settings.isOriginAllowed("http://localhost:8080"));

    writeText(
        file,
        R"({"port": 4000, "hasShownWelcome": true, "extraOrigins": ["http://localhost:8080"]})");
    EXPECT_EQ(settings.port(), 4000);
    EXPECT_TRUE(settings.hasShownWelcome());
    EXPECT_TRUE(settings.isOriginAllowed("http://localhost:8080"));

    HelperSettings other(file);
    ASSERT_TRUE(other.setPort(4100));
    EXPECT_EQ(settings.port(), 4100);
}

TEST_F(HelperSettingsTest, WriteCreatesTheFolderAndLeavesNoTemporaryFiles) {
    ASSERT_FALSE(std::filesystem::exists(file.parent_path()));
    ASSERT_TRUE(settings.setPort(3000));
    ASSERT_TRUE(settings.setExtraOrigins({"http://localhost:3000"}));
    EXPECT_EQ(filesInFolder(), std::vector<std::filesystem::path>{"settings.json"});
}

TEST_F(HelperSettingsTest, WriteThatCannotCreateTheFolderFailsAndLogsWhy) {
    writeText(folder / "blocker", "a file where the folder should be");
    HelperSettings blocked(folder / "blocker" / "settings.json");
    EXPECT_FALSE(blocked.setPort(3000));
    EXPECT_EQ(blocked.port(), 52849);
    EXPECT_EQ(readText(folder / "blocker"), "a file where the folder should be");
    EXPECT_THAT(logText(), HasSubstr("Couldn't save the settings to " +
                                     (folder / "blocker" / "settings.json").string()));
}

TEST_F(HelperSettingsTest, WriteLeavesAPrivateFile) {
    writeText(file, "{}");
    std::filesystem::permissions(
        file, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    ASSERT_TRUE(settings.setPort(5000));
    EXPECT_EQ(std::filesystem::status(file).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(HelperSettingsTest, WritersOfDifferentKeysOnManyThreadsLoseNothing) {
    constexpr int rounds = 40;
    std::thread portWriter([&] {
        for (int round = 1; round <= rounds; ++round) ASSERT_TRUE(settings.setPort(1000 + round));
    });
    std::thread originWriter([&] {
        for (int round = 1; round <= rounds; ++round) {
            ASSERT_TRUE(
                settings.setExtraOrigins({"http://localhost:" + std::to_string(2000 + round)}));
        }
    });
    std::thread welcomeWriter([&] {
        for (int round = 1; round <= rounds; ++round) {
            ASSERT_TRUE(settings.setHasShownWelcome(round % 2 == 0));
        }
    });
    std::thread reader([&] {
        for (int round = 0; round < rounds; ++round) {
            settings.isOriginAllowed("http://localhost:2001");
            EXPECT_FALSE(settings.fileProblem().has_value()) << "a reader saw a half-written file";
        }
    });
    portWriter.join();
    originWriter.join();
    welcomeWriter.join();
    reader.join();
    EXPECT_EQ(settings.port(), 1000 + rounds);
    EXPECT_THAT(settings.extraOrigins(),
                ElementsAre("http://localhost:" + std::to_string(2000 + rounds)));
    EXPECT_TRUE(settings.hasShownWelcome());
}

TEST(HelperSettingsDefaultFile, FollowsXdgConfigHome) {
    ScopedEnvironment config("XDG_CONFIG_HOME", "/somewhere/config");
    EXPECT_EQ(HelperSettings::defaultFile(),
              "/somewhere/config/velmora-audio-helper/settings.json");
}

TEST(HelperSettingsDefaultFile, FallsBackToDotConfigInHome) {
    ScopedEnvironment config("XDG_CONFIG_HOME", std::nullopt);
    ScopedEnvironment home("HOME", "/home/someone");
    EXPECT_EQ(HelperSettings::defaultFile(),
              "/home/someone/.config/velmora-audio-helper/settings.json");
}

TEST(HelperSettingsDefaultFile, IgnoresARelativeXdgConfigHome) {
    ScopedEnvironment config("XDG_CONFIG_HOME", "relative/config");
    ScopedEnvironment home("HOME", "/home/someone");
    EXPECT_EQ(HelperSettings::defaultFile(),
              "/home/someone/.config/velmora-audio-helper/settings.json");
}

TEST(HelperSettingsShared, UsesTheDefaultFileAndIsOneInstance) {
    EXPECT_EQ(&HelperSettings::shared(), &HelperSettings::shared());
    EXPECT_EQ(HelperSettings::shared().file(), HelperSettings::defaultFile());
}

}  // namespace
}  // namespace velmora
