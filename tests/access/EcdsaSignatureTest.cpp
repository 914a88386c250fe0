#include "access/EcdsaSignature.h"

#include <gtest/gtest.h>

#include "support/PassSigner.h"

namespace velmora {
namespace {

TEST(EcdsaSignature, RawAndDerFormsConvertBothWays) {
    const std::string raw = PassSigner::generate().rawSignature("message");
    ASSERT_EQ(raw.size(), EcdsaSignature::rawSize);
    const auto der = EcdsaSignature::derFromRaw(raw);
    ASSERT_TRUE(der);
    EXPECT_NE(*der, raw);
    EXPECT_EQ(EcdsaSignature::rawFromDer(*der), raw);
}

TEST(EcdsaSignature, SmallIntegersKeepTheirLeadingZeroBytes) {
    const std::string raw = std::string(31, '\0') + "\x05" + std::string(31, '\0') + "\x07";
    EXPECT_EQ(EcdsaSignature::rawFromDer(EcdsaSignature::derFromRaw(raw).value()), raw);
}

TEST(EcdsaSignature, RawFormMustBe64Bytes) {
    EXPECT_EQ(EcdsaSignature::derFromRaw(std::string(63, '\x01')), std::nullopt);
    EXPECT_EQ(EcdsaSignature::derFromRaw(std::string(65, '\x01')), std::nullopt);
    EXPECT_EQ(EcdsaSignature::derFromRaw(""), std::nullopt);
}

TEST(EcdsaSignature, RawFromDerRefusesGarbage) {
    EXPECT_EQ(EcdsaSignature::rawFromDer("not der"), std::nullopt);
    EXPECT_EQ(EcdsaSignature::rawFromDer(""), std::nullopt);
}

}  // namespace
}  // namespace velmora
