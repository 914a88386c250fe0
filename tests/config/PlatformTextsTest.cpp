#include "config/PlatformTexts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace velmora {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

TEST(PlatformTexts, MacOSPermissionDeniedTextIsVerbatim) {
    EXPECT_EQ(PlatformTexts::forMacOS().permissionDenied("Velmora Audio Helper"),
              "macOS denied access to system audio. Open System Settings \xE2\x86\x92 Privacy & "
              "Security \xE2\x86\x92 Screen & System Audio Recording and allow Velmora Audio "
              "Helper under \"System Audio Recording Only\".");
}

TEST(PlatformTexts, MacOSPermissionTimeoutTextIsVerbatim) {
    EXPECT_EQ(PlatformTexts::forMacOS().permissionTimeout("Velmora Audio Helper"),
              "macOS is still waiting for you to allow \"System Audio Recording\" for Velmora "
              "Audio Helper. Answer the prompt, then try again.");
}

TEST(PlatformTexts, PlatformValuesForTheGreeting) {
    EXPECT_EQ(PlatformTexts::forMacOS().platform, "macos");
    EXPECT_EQ(PlatformTexts::forLinux().platform, "linux");
}

TEST(PlatformTexts, CurrentTableIsTheOneOfThisBuildsPlatform) {
#ifdef __APPLE__
    EXPECT_EQ(&PlatformTexts::current(), &PlatformTexts::forMacOS());
#else
    EXPECT_EQ(&PlatformTexts::current(), &PlatformTexts::forLinux());
#endif
}

TEST(PlatformTexts, LinuxPermissionTimeoutKeepsTheShapeOfTheText) {
    std::string text = PlatformTexts::forLinux().permissionTimeout("Test Helper");
    EXPECT_THAT(text, EndsWith(" to allow \"System Audio Recording\" for Test Helper. Answer the "
                               "prompt, then try again."));
}

TEST(PlatformTexts, LinuxPermissionDeniedNamesTheHelperAndTheSoundServer) {
    std::string text = PlatformTexts::forLinux().permissionDenied("Test Helper");
    EXPECT_THAT(text, HasSubstr("denied access to system audio"));
    EXPECT_THAT(text, HasSubstr("allow Test Helper "));
    EXPECT_THAT(text, HasSubstr("sound server"));
    EXPECT_THAT(text, EndsWith("."));
}

TEST(PlatformTexts, LinuxTextsNeverNameMacOSOrItsSettings) {
    const PlatformTexts& texts = PlatformTexts::forLinux();
    for (std::string text :
         {texts.permissionDenied("X"), texts.permissionTimeout("X"),
          std::string(texts.welcomeWhereItLives), std::string(texts.welcomeFirstTime),
          std::string(texts.loginItemTip)}) {
        EXPECT_THAT(text, Not(HasSubstr("macOS"))) << text;
        EXPECT_THAT(text, Not(HasSubstr("System Settings"))) << text;
        EXPECT_THAT(text, Not(HasSubstr("menu bar"))) << text;
        EXPECT_THAT(text, Not(HasSubstr("Applications folder"))) << text;
    }
}

TEST(PlatformTexts, MacOSWelcomeTextsAreVerbatim) {
    const PlatformTexts& texts = PlatformTexts::forMacOS();
    EXPECT_EQ(texts.welcomeWhereItLives,
              "It lives in the menu bar (the waveform icon). When you capture an online meeting "
              "in Velmora, it sends your computer's audio \xE2\x80\x94 what the other people say "
              "\xE2\x80\x94 to Velmora for transcription. Nothing is recorded or stored.");
    EXPECT_EQ(texts.welcomeFirstTime,
              "The first time, macOS asks you to allow \"System Audio Recording\".");
    EXPECT_EQ(texts.loginItemTip,
              "Tip: move Velmora Audio Helper to your Applications folder first. You can also "
              "manage it in System Settings \xE2\x86\x92 General \xE2\x86\x92 Login Items.");
}

}  // namespace
}  // namespace velmora
