#include "config/HelperInfo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "access/OriginPolicy.h"

namespace velmora {
namespace {

TEST(HelperInfo, VersionFallsBackToOneZeroZeroWhenTheBuildGaveNone) {
    EXPECT_EQ(HelperInfo::versionFrom(""), "1.0.0");
}

TEST(HelperInfo, VersionFromTheBuildIsUsedAsGiven) {
    EXPECT_EQ(HelperInfo::versionFrom("2.4.1"), "2.4.1");
    EXPECT_FALSE(HelperInfo::version().empty());
    EXPECT_EQ(&HelperInfo::version(), &HelperInfo::version()) << "computed once and kept";
}

TEST(HelperInfo, ConstantsHaveTheirFixedValues) {
    EXPECT_STREQ(HelperInfo::appId, "velmora-audio-helper");
    EXPECT_STREQ(HelperInfo::bundleId, "com.velmora.audiohelper");
    EXPECT_EQ(HelperInfo::defaultPort, 52849);
    EXPECT_EQ(HelperInfo::sampleRate, 16000);
    EXPECT_EQ(HelperInfo::frameSamples, 1600);
    EXPECT_EQ(HelperInfo::frameSamples * 10, HelperInfo::sampleRate) << "a frame is 100 ms";
}

TEST(HelperInfo, BuiltInOriginsAreThreeCanonicalHttpsOrigins) {
    const auto& origins = HelperInfo::builtInOrigins();
    ASSERT_EQ(origins.size(), 3u);
    for (const std::string& origin : origins) {
        EXPECT_TRUE(origin.starts_with("https://")) << origin;
        EXPECT_FALSE(origin.ends_with("/")) << origin;
        EXPECT_TRUE(std::none_of(origin.begin(), origin.end(), [](unsigned char c) {
            return std::isupper(c);
        })) << origin;
        EXPECT_EQ(OriginPolicy::normalizePattern(origin), origin) << "already canonical";
    }
}

TEST(HelperInfo, BuiltInOriginsAreAppHostThenBareDomainThenWwwForm) {
    const auto& origins = HelperInfo::builtInOrigins();
    ASSERT_EQ(origins.size(), 3u);
    const std::string bareHost = origins[1].substr(std::string("https://").size());
    EXPECT_EQ(origins[2], "https://www." + bareHost);
    EXPECT_TRUE(origins[0].ends_with("." + bareHost)) << origins[0];
    EXPECT_NE(origins[0], origins[2]);
}

}  // namespace
}  // namespace velmora
