#include "capture/CaptureError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/AudioKit.h"
#include "config/PlatformTexts.h"

namespace velmora {
namespace {

using ::testing::HasSubstr;

class CaptureErrorTest : public ::testing::Test {
  protected:
    void SetUp() override { AudioKit::setConfig(AudioKitConfig::defaults()); }
    void TearDown() override { AudioKit::setConfig(AudioKitConfig::defaults()); }
};

TEST_F(CaptureErrorTest, DeviceErrorCarriesItsTextUnchangedAndTheDeviceCode) {
    CaptureError error = CaptureError::device("x");
    EXPECT_EQ(error.kind(), CaptureError::Kind::device);
    EXPECT_EQ(error.message(), "x");
    EXPECT_EQ(error.code(), "device_error");
}

TEST_F(CaptureErrorTest, DeviceErrorKeepsAnyTextAsGiven) {
    const std::string text = "  Couldn't start the audio device: 'nope' (1852797029).\n";
    EXPECT_EQ(CaptureError::device(text).message(), text);
    EXPECT_EQ(CaptureError::device("").message(), "");
}

TEST_F(CaptureErrorTest, PermissionDeniedHasItsCodeAndThePlatformsText) {
    CaptureError error = CaptureError::permissionDenied();
    EXPECT_EQ(error.kind(), CaptureError::Kind::permissionDenied);
    EXPECT_EQ(error.code(), "permission_denied");
    EXPECT_EQ(error.message(), PlatformTexts::current().permissionDenied("Velmora Audio Helper"));
}

#ifdef __APPLE__
TEST_F(CaptureErrorTest, PermissionDeniedTextIsTheMacOSSentence) {
    EXPECT_EQ(CaptureError::permissionDenied().message(),
              "macOS denied access to system audio. Open System Settings \xE2\x86\x92 Privacy & "
              "Security \xE2\x86\x92 Screen & System Audio Recording and allow Velmora Audio "
              "Helper under \"System Audio Recording Only\".");
}
#else
TEST_F(CaptureErrorTest, PermissionDeniedTextSpeaksOfThisPlatform) {
    std::string message = CaptureError::permissionDenied().message();
    EXPECT_THAT(message, HasSubstr("denied access to system audio"));
    EXPECT_THAT(message, ::testing::Not(HasSubstr("macOS")));
}
#endif

TEST_F(CaptureErrorTest, PermissionDeniedNamesTheConfiguredApplication) {
    AudioKit::modifyConfig([](AudioKitConfig& config) { config.appName = "Other Helper"; });
    EXPECT_THAT(CaptureError::permissionDenied().message(), HasSubstr("allow Other Helper "));
}

TEST_F(CaptureErrorTest, IsThrownAndCaughtAsAnExceptionWithItsMessage) {
    try {
        throw CaptureError::device("the tap went away");
    } catch (const std::exception& error) {
        EXPECT_STREQ(error.what(), "the tap went away");
    }
    try {
        throw CaptureError::permissionDenied();
    } catch (const CaptureError& error) {
        EXPECT_EQ(error.what(), error.message());
    }
}

TEST_F(CaptureErrorTest, EqualityComparesKindAndText) {
    EXPECT_EQ(CaptureError::device("a"), CaptureError::device("a"));
    EXPECT_FALSE(CaptureError::device("a") == CaptureError::device("b"));
    EXPECT_EQ(CaptureError::permissionDenied(), CaptureError::permissionDenied());
    EXPECT_FALSE(CaptureError::device("") == CaptureError::permissionDenied());
}

TEST(OsStatusString, ZeroPrintsAsDecimal) {
    EXPECT_EQ(osStatusString(0), "0");
}

TEST(OsStatusString, NegativeStatusesPrintAsSignedDecimal) {
    EXPECT_EQ(osStatusString(-10851), "-10851");
    EXPECT_EQ(osStatusString(-50), "-50");
    EXPECT_EQ(osStatusString(INT32_MIN), "-2147483648");
}

TEST(OsStatusString, FourPrintableCharactersPrintQuotedThenInDecimal) {
    EXPECT_EQ(osStatusString(0x21686F67), "'!hog' (560492391)");
    EXPECT_EQ(osStatusString(560492391), "'!hog' (560492391)");
    EXPECT_EQ(osStatusString(0x20202020), "'    ' (538976288)") << "blanks are printable";
    EXPECT_EQ(osStatusString(0x7E7E7E7E), "'~~~~' (2122219134)") << "tilde is the last one";
}

TEST(OsStatusString, LastByteDeleteMakesItDecimalOnly) {
    EXPECT_EQ(osStatusString(0x21686F7F), "560492415");
}

TEST(OsStatusString, AnyUnprintableByteMakesItDecimalOnly) {
    EXPECT_EQ(osStatusString(0x1F686F67), "526937959") << "first byte below blank";
    EXPECT_EQ(osStatusString(0x21006F67), "553676647") << "a zero byte inside";
    EXPECT_EQ(osStatusString(static_cast<std::int32_t>(0xE1686F67)), "-513249433")
        << "a byte above 0x7E";
}

}  // namespace
}  // namespace velmora
