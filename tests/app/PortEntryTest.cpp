#include "app/PortEntry.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

TEST(PortEntryTest, SpacesAndTabsAroundTheNumberAreIgnored) {
    EXPECT_EQ(parsePortEntry(" 8080 "), 8080);
    EXPECT_EQ(parsePortEntry("\t 8080\t"), 8080);
}

TEST(PortEntryTest, ALeadingPlusIsAccepted) {
    EXPECT_EQ(parsePortEntry("+8080"), 8080);
}

TEST(PortEntryTest, TheRangeEndsAreAccepted) {
    EXPECT_EQ(parsePortEntry("1024"), 1024);
    EXPECT_EQ(parsePortEntry("65535"), 65535);
}

TEST(PortEntryTest, NumbersOutsideTheRangeAreRejected) {
    EXPECT_EQ(parsePortEntry("1023"), std::nullopt);
    EXPECT_EQ(parsePortEntry("65536"), std::nullopt);
    EXPECT_EQ(parsePortEntry("0"), std::nullopt);
    EXPECT_EQ(parsePortEntry("-8080"), std::nullopt);
    EXPECT_EQ(parsePortEntry("99999999999999999999999"), std::nullopt);
}

TEST(PortEntryTest, AnythingButDigitsIsRejected) {
    EXPECT_EQ(parsePortEntry("80a"), std::nullopt);
    EXPECT_EQ(parsePortEntry("8 080"), std::nullopt);
    EXPECT_EQ(parsePortEntry("8080.0"), std::nullopt);
    EXPECT_EQ(parsePortEntry("0x1F90"), std::nullopt);
    EXPECT_EQ(parsePortEntry("++8080"), std::nullopt);
    EXPECT_EQ(parsePortEntry("\n8080"), std::nullopt);
}

TEST(PortEntryTest, AnEmptyEntryIsRejected) {
    EXPECT_EQ(parsePortEntry(""), std::nullopt);
    EXPECT_EQ(parsePortEntry("  \t "), std::nullopt);
    EXPECT_EQ(parsePortEntry("+"), std::nullopt);
}

}  // namespace
}  // namespace velmora
