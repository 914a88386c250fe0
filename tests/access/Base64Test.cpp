#include "access/Base64.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

TEST(Base64, EncodesWithStandardAlphabetAndPadding) {
    EXPECT_EQ(Base64::encode(""), "");
    EXPECT_EQ(Base64::encode("f"), "Zg==");
    EXPECT_EQ(Base64::encode("fo"), "Zm8=");
    EXPECT_EQ(Base64::encode("foo"), "Zm9v");
    EXPECT_EQ(Base64::encode("\xFB\xFF"), "+/8=");
}

TEST(Base64, EncodeUrlUsesUrlAlphabetWithoutPadding) {
    EXPECT_EQ(Base64::encodeUrl("\xFB\xFF"), "-_8");
    EXPECT_EQ(Base64::encodeUrl("f"), "Zg");
    EXPECT_EQ(Base64::encodeUrl("foo"), "Zm9v");
}

TEST(Base64, DecodesWhatItEncodes) {
    std::string bytes;
    for (int value = 0; value < 256; ++value) {
        bytes.push_back(static_cast<char>(value));
        EXPECT_EQ(Base64::decode(Base64::encode(bytes)), bytes);
    }
}

TEST(Base64, DecodeRefusesLengthThatIsNotAMultipleOfFour) {
    EXPECT_EQ(Base64::decode("Zg"), std::nullopt);
    EXPECT_EQ(Base64::decode("Zm9vY"), std::nullopt);
}

TEST(Base64, DecodeRefusesWhiteSpaceAndForeignCharacters) {
    EXPECT_EQ(Base64::decode("Zm9v\n"), std::nullopt);
    EXPECT_EQ(Base64::decode(" Zm9v"), std::nullopt);
    EXPECT_EQ(Base64::decode("Zm 9"), std::nullopt);
    EXPECT_EQ(Base64::decode("-_8="), std::nullopt);
    EXPECT_EQ(Base64::decode(std::string("Zm9\0", 4)), std::nullopt);
}

TEST(Base64, DecodeRefusesMisplacedOrExcessPadding) {
    EXPECT_EQ(Base64::decode("Z==="), std::nullopt);
    EXPECT_EQ(Base64::decode("===="), std::nullopt);
    EXPECT_EQ(Base64::decode("Zg==Zm9v"), std::nullopt);
    EXPECT_EQ(Base64::decode("Z=g="), std::nullopt);
}

}  // namespace
}  // namespace velmora
