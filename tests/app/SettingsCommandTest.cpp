#include "app/SettingsCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "config/HelperInfo.h"
#include "config/HelperSettings.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using Json = nlohmann::json;
using testing::readText;
using testing::TemporaryFolder;
using testing::writeText;

class SettingsCommandTest : public ::testing::Test {
  protected:
    int run(std::vector<std::string> args) {
        out.str("");
        err.str("");
        return runSettingsCommand(args, settings, out, err);
    }

    TemporaryFolder folder;
    std::filesystem::path file = folder / "velmora-audio-helper" / "settings.json";
    HelperSettings settings{file};
    std::ostringstream out;
    std::ostringstream err;
};

TEST_F(SettingsCommandTest, WithoutArgumentsShowsTheFileAndTheDefaults) {
    EXPECT_EQ(run({}), 0);
    std::string shown = out.str();
    EXPECT_THAT(shown, HasSubstr(file.string() + " (not created yet)"));
    EXPECT_THAT(shown, HasSubstr("port:             52849 (default)"));
    EXPECT_THAT(shown, HasSubstr("extraOrigins:     none"));
    EXPECT_THAT(shown, HasSubstr("hasShownWelcome:  false"));
    for (const std::string& origin : HelperInfo::builtInOrigins()) {
        EXPECT_THAT(shown, HasSubstr(origin));
    }
    EXPECT_EQ(err.str(), "");
    EXPECT_FALSE(std::filesystem::exists(file)) << "showing writes nothing";
}

TEST_F(SettingsCommandTest, ShowsSavedValuesOneOriginPerLine) {
    ASSERT_TRUE(settings.setPort(3000));
    ASSERT_TRUE(settings.setExtraOrigins({"http://localhost:3000", "http://localhost:*"}));
    ASSERT_TRUE(settings.setHasShownWelcome(true));
    EXPECT_EQ(run({}), 0);
    std::string shown = out.str();
    EXPECT_THAT(shown, HasSubstr("Settings file:    " + file.string() + "\n"));
    EXPECT_THAT(shown, HasSubstr("port:             3000\n"));
    EXPECT_THAT(shown, HasSubstr("extraOrigins:     http://localhost:3000\n"
                                 "                  http://localhost:*\n"));
    EXPECT_THAT(shown, HasSubstr("hasShownWelcome:  true"));
}

TEST_F(SettingsCommandTest, ShowsWhyASavedPortIsNotUsed) {
    writeText(file, R"({"port": 70000})");
    EXPECT_EQ(run({}), 0);
    EXPECT_THAT(out.str(), HasSubstr("port:             52849 (default; the saved value 70000 is "
                                     "not a port from 1 to 65535)"));
}

TEST_F(SettingsCommandTest, ShowsHandEditedEntriesThatAreIgnored) {
    writeText(file, R"({"extraOrigins": ["https://*.example.com", "http://localhost:3000"]})");
    EXPECT_EQ(run({}), 0);
    EXPECT_THAT(out.str(), HasSubstr("extraOrigins:     http://localhost:3000\n"));
    EXPECT_THAT(out.str(),
                HasSubstr("(ignored, not an accepted pattern: \"https://*.example.com\")"));
}

TEST_F(SettingsCommandTest, ShowsThatAnUnusableFileIsReplacedByDefaults) {
    writeText(file, "{ broken");
    EXPECT_EQ(run({}), 0);
    EXPECT_THAT(out.str(), HasSubstr("The file can't be used (it is not valid JSON"));
    EXPECT_THAT(out.str(), HasSubstr("port:             52849 (default)"));
    EXPECT_EQ(readText(file), "{ broken");
}

TEST_F(SettingsCommandTest, SetPortSavesIt) {
    EXPECT_EQ(run({"set", "port", "3000"}), 0);
    EXPECT_EQ(settings.port(), 3000);
    EXPECT_THAT(out.str(), HasSubstr("Port set to 3000."));
    EXPECT_EQ(run({"set", "port", "1"}), 0);
    EXPECT_EQ(settings.port(), 1);
    EXPECT_EQ(run({"set", "port", "65535"}), 0);
    EXPECT_EQ(settings.port(), 65535);
}

TEST_F(SettingsCommandTest, SetPortOutsideOneTo65535IsRefusedWithExitTwoAndWritesNothing) {
    for (const char* value :
         {"0", "65536", "-1", "+80", "abc", "80x", "", " 80", "3000.0", "99999999999999999999"}) {
        EXPECT_EQ(run({"set", "port", value}), 2) << value;
        EXPECT_THAT(err.str(), HasSubstr("is not a port. Give a whole number from 1 to 65535."))
            << value;
        EXPECT_EQ(out.str(), "") << value;
    }
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(SettingsCommandTest, SetWithMissingOrExtraWordsIsAUsageError) {
    for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
             {"set"}, {"set", "port"}, {"set", "port", "80", "81"}}) {
        EXPECT_EQ(run(args), 2);
        EXPECT_THAT(err.str(), HasSubstr("Usage: velmora-audio-helper settings"));
    }
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(SettingsCommandTest, SetOfAnotherKeyIsRefused) {
    EXPECT_EQ(run({"set", "hasShownWelcome", "true"}), 2);
    EXPECT_THAT(err.str(), HasSubstr("\"hasShownWelcome\" can't be set from here"));
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(SettingsCommandTest, AddOriginSavesTheNormalisedPattern) {
    EXPECT_EQ(run({"add-origin", "  HTTP://LocalHost:3000/ "}), 0);
    EXPECT_THAT(settings.extraOrigins(), ElementsAre("http://localhost:3000"));
    EXPECT_THAT(out.str(), HasSubstr("Added http://localhost:3000."));
    EXPECT_TRUE(settings.isOriginAllowed("http://localhost:3000"));

    EXPECT_EQ(run({"add-origin", "http://127.0.0.1:*"}), 0);
    EXPECT_THAT(settings.extraOrigins(),
                ElementsAre("http://localhost:3000", "http://127.0.0.1:*"));
}

TEST_F(SettingsCommandTest, AddOriginTwiceKeepsOneEntry) {
    EXPECT_EQ(run({"add-origin", "http://localhost:3000"}), 0);
    EXPECT_EQ(run({"add-origin", "http://LOCALHOST:3000"}), 0);
    EXPECT_THAT(out.str(), HasSubstr("http://localhost:3000 is already allowed."));
    EXPECT_THAT(settings.extraOrigins(), ElementsAre("http://localhost:3000"));
}

TEST_F(SettingsCommandTest, AddingABuiltInOriginSaysItIsAlwaysAllowed) {
    const std::string builtIn = HelperInfo::builtInOrigins()[0];
    EXPECT_EQ(run({"add-origin", builtIn + "/"}), 0);
    EXPECT_THAT(out.str(), HasSubstr(builtIn + " is built in and always allowed"));
    EXPECT_FALSE(std::filesystem::exists(file)) << "built-in origins are never stored";
}

TEST_F(SettingsCommandTest, RejectedPatternGetsAnErrorNamingTheAcceptedShapesAndExitTwo) {
    ASSERT_TRUE(settings.setExtraOrigins({"http://localhost:3000"}));
    const std::string before = readText(file);
    for (const char* pattern :
         {"ftp://x", "https://*.example.com", "app.example", "https://app.example/login",
          "https://app.example?x=1", "https://app.example#top", "http://user@host", "", "/"}) {
        for (const char* command : {"add-origin", "remove-origin"}) {
            EXPECT_EQ(run({command, pattern}), 2) << command << " " << pattern;
            EXPECT_THAT(err.str(), HasSubstr(std::string("\"") + pattern +
                                             "\" is not an accepted origin pattern."));
            EXPECT_THAT(err.str(), HasSubstr("http://localhost:3000"));
            EXPECT_THAT(err.str(), HasSubstr("http://localhost:*"));
            EXPECT_EQ(out.str(), "");
        }
    }
    EXPECT_EQ(readText(file), before) << "nothing written";
}

TEST_F(SettingsCommandTest, OriginCommandsNeedExactlyOnePattern) {
    EXPECT_EQ(run({"add-origin"}), 2);
    EXPECT_EQ(run({"remove-origin"}), 2);
    EXPECT_EQ(run({"add-origin", "http://a.example", "http://b.example"}), 2);
    EXPECT_THAT(err.str(), HasSubstr("\"add-origin\" takes exactly one pattern."));
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(SettingsCommandTest, RemoveOriginRemovesEveryCopyOfThePattern) {
    writeText(
        file,
        R"({"extraOrigins": ["http://localhost:3000", "http://localhost:*", "http://localhost:3000"]})");
    EXPECT_EQ(run({"remove-origin", "HTTP://localhost:3000/"}), 0);
    EXPECT_THAT(out.str(), HasSubstr("Removed http://localhost:3000."));
    EXPECT_THAT(settings.extraOrigins(), ElementsAre("http://localhost:*"));
}

TEST_F(SettingsCommandTest, RemovingAnAbsentPatternChangesNothingAndExitsOne) {
    ASSERT_TRUE(settings.setExtraOrigins({"http://localhost:3000"}));
    EXPECT_EQ(run({"remove-origin", "http://localhost:4000"}), 1);
    EXPECT_THAT(err.str(), HasSubstr("http://localhost:4000 is not among the extra origins"));
    EXPECT_THAT(settings.extraOrigins(), ElementsAre("http://localhost:3000"));
}

TEST_F(SettingsCommandTest, RemovingABuiltInOriginIsRefused) {
    EXPECT_EQ(run({"remove-origin", HelperInfo::builtInOrigins()[1]}), 1);
    EXPECT_THAT(err.str(), HasSubstr("is built in and always allowed; it can't be removed."));
}

TEST_F(SettingsCommandTest, ChangingTheListReportsIgnoredEntriesItDrops) {
    writeText(
        file,
        R"({"extraOrigins": ["https://*.example.com", "http://localhost:3000"], "other": 1})");
    EXPECT_EQ(run({"add-origin", "http://localhost:4000"}), 0);
    EXPECT_THAT(out.str(), HasSubstr("Removed \"https://*.example.com\" from the saved list"));
    Json saved = Json::parse(readText(file));
    EXPECT_EQ(saved["extraOrigins"],
              Json::array({"http://localhost:3000", "http://localhost:4000"}));
    EXPECT_EQ(saved["other"], 1) << "keys the command doesn't know stay";
}

TEST_F(SettingsCommandTest, ChangesThatCannotBeSavedExitOne) {
    writeText(folder / "blocker", "a file");
    HelperSettings blocked(folder / "blocker" / "settings.json");
    out.str("");
    EXPECT_EQ(runSettingsCommand({"set", "port", "3000"}, blocked, out, err), 1);
    EXPECT_THAT(err.str(), HasSubstr("couldn't save the port"));
    EXPECT_EQ(runSettingsCommand({"add-origin", "http://localhost:3000"}, blocked, out, err), 1);
    EXPECT_THAT(err.str(), HasSubstr("couldn't save the origins"));
}

TEST_F(SettingsCommandTest, HelpPrintsUsageAndExitsZero) {
    EXPECT_EQ(run({"help"}), 0);
    EXPECT_THAT(out.str(), HasSubstr("Usage: velmora-audio-helper settings [COMMAND]"));
    EXPECT_THAT(out.str(), HasSubstr("set port N"));
    EXPECT_THAT(out.str(), HasSubstr("add-origin PATTERN"));
    EXPECT_THAT(out.str(), HasSubstr("remove-origin PATTERN"));
    EXPECT_THAT(out.str(), HasSubstr(file.string()));
    EXPECT_EQ(err.str(), "");
}

TEST_F(SettingsCommandTest, UnknownCommandPrintsUsageAndExitsTwo) {
    EXPECT_EQ(run({"frobnicate"}), 2);
    EXPECT_THAT(err.str(), HasSubstr("unknown command \"frobnicate\""));
    EXPECT_THAT(err.str(), HasSubstr("Usage: velmora-audio-helper settings"));
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(run({"help", "me"}), 2);
}

}  // namespace
}  // namespace velmora
