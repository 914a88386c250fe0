#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/PlatformTexts.h"

namespace velmora {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

TEST(PlatformTextsInstaller, MacOSInstallTextsAreVerbatim) {
    EXPECT_EQ(PlatformTexts::forMacOS().installOfferInformative,
              "It's running from the downloaded disk image. Install it in your Applications "
              "folder so it keeps working after the disk image is closed and can start at login.");
    EXPECT_EQ(PlatformTexts::forMacOS().installInsteadTip,
              "You can drag Velmora Audio Helper into the Applications folder instead.");
}

TEST(PlatformTextsInstaller, LinuxInstallTextsNameLinuxPlaces) {
    const PlatformTexts& texts = PlatformTexts::forLinux();
    for (std::string_view text : {texts.installOfferInformative, texts.installInsteadTip}) {
        EXPECT_THAT(std::string(text), Not(HasSubstr("Applications"))) << text;
        EXPECT_THAT(std::string(text), HasSubstr("/opt")) << text;
        EXPECT_THAT(std::string(text), HasSubstr("~/.local/share")) << text;
    }
    EXPECT_THAT(std::string(texts.installOfferInformative),
                HasSubstr("so it keeps working after the disk image is closed and can start at "
                          "login."));
}

}  // namespace
}  // namespace velmora
