#include "config/AudioKit.h"

#include <gtest/gtest.h>

#include "config/HelperInfo.h"
#include "config/HelperSettings.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using testing::TemporaryFolder;
using testing::writeText;

// Every test starts from and leaves behind the defaults, as a fresh process would have them.
class AudioKitTest : public ::testing::Test {
  protected:
    void SetUp() override { AudioKit::setConfig(AudioKitConfig::defaults()); }
    void TearDown() override { AudioKit::setConfig(AudioKitConfig::defaults()); }
};

TEST_F(AudioKitTest, DefaultsNameTheHelper) {
    AudioKitConfig config = AudioKit::config();
    EXPECT_EQ(config.appName, "Velmora Audio Helper");
    EXPECT_EQ(config.logSubsystem, "com.velmora.audiohelper");
    EXPECT_EQ(config.logFileName, "VelmoraAudioHelper.log");
}

TEST_F(AudioKitTest, ProductIsAbsentByDefault) {
    EXPECT_FALSE(AudioKit::config().product.has_value());
}

TEST_F(AudioKitTest, WithoutRewiringThePortIsTheDefaultPort) {
    EXPECT_EQ(AudioKit::config().port(), 52849);
}

TEST_F(AudioKitTest, WithoutRewiringOnlyTheThreeBuiltInOriginsAreAdmitted) {
    auto isAllowed = AudioKit::config().isOriginAllowed;
    for (const std::string& origin : HelperInfo::builtInOrigins()) {
        EXPECT_TRUE(isAllowed(origin)) << origin;
    }
    EXPECT_FALSE(isAllowed(std::nullopt));
    EXPECT_FALSE(isAllowed("http://localhost:3000"));
    EXPECT_FALSE(isAllowed("https://other.example"));
}

TEST_F(AudioKitTest, AfterRewiringAChangedSavedPortAppliesAtTheVeryNextCall) {
    TemporaryFolder folder;
    HelperSettings settings(folder / "settings.json");
    settings.installAsKitHooks();
    EXPECT_EQ(AudioKit::config().port(), 52849);

    ASSERT_TRUE(settings.setPort(3000));
    EXPECT_EQ(AudioKit::config().port(), 3000);

    AudioKitConfig::PortHook portHook = AudioKit::config().port;  // a copy held by a reader
    writeText(folder / "settings.json", R"({"port": 4000})");
    EXPECT_EQ(portHook(), 4000);
}

TEST_F(AudioKitTest, AfterRewiringExtraOriginsAreAdmittedBesideTheBuiltInOnes) {
    TemporaryFolder folder;
    HelperSettings settings(folder / "settings.json");
    settings.installAsKitHooks();
    auto isAllowed = AudioKit::config().isOriginAllowed;
    EXPECT_FALSE(isAllowed("http://localhost:3000"));
    ASSERT_TRUE(settings.setExtraOrigins({"http://localhost:3000"}));
    EXPECT_TRUE(isAllowed("http://localhost:3000"));
    EXPECT_TRUE(isAllowed(HelperInfo::builtInOrigins()[0]));
}

TEST_F(AudioKitTest, RewiringChangesOnlyTheTwoHooks) {
    AudioKit::modifyConfig([](AudioKitConfig& config) { config.product = "meetings"; });
    TemporaryFolder folder;
    HelperSettings settings(folder / "settings.json");
    settings.installAsKitHooks();
    AudioKitConfig config = AudioKit::config();
    EXPECT_EQ(config.appName, "Velmora Audio Helper");
    EXPECT_EQ(config.logSubsystem, "com.velmora.audiohelper");
    EXPECT_EQ(config.logFileName, "VelmoraAudioHelper.log");
    EXPECT_EQ(config.product, "meetings");
}

TEST_F(AudioKitTest, ConfigIsACopyThatLaterChangesDoNotReach) {
    AudioKitConfig before = AudioKit::config();
    AudioKit::modifyConfig([](AudioKitConfig& config) { config.appName = "Changed"; });
    EXPECT_EQ(before.appName, "Velmora Audio Helper");
    EXPECT_EQ(AudioKit::config().appName, "Changed");
}

TEST_F(AudioKitTest, SetConfigReplacesTheWholeRecord) {
    AudioKit::setConfig(AudioKitConfig{"Other", "sub", "other.log", "p",
                                       [] { return std::uint16_t{1234}; },
                                       [](const std::optional<std::string>&) { return true; }});
    AudioKitConfig config = AudioKit::config();
    EXPECT_EQ(config.appName, "Other");
    EXPECT_EQ(config.product, "p");
    EXPECT_EQ(config.port(), 1234);
    EXPECT_TRUE(config.isOriginAllowed(std::nullopt));
}

}  // namespace
}  // namespace velmora
