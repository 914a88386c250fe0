#include "meetings/KnownMeetingApps.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

const MeetingApp chrome{"browser", "Google Chrome", "com.google.Chrome"};

TEST(KnownMeetingApps, TableKeepsItsSixteenRowsAndAppendsChromiumAfterThem) {
    const auto& table = KnownMeetingApps::table();
    ASSERT_EQ(table.size(), 17u);
    EXPECT_EQ(table.front().match, "us.zoom.xos");
    EXPECT_EQ(table[1].match, "com.microsoft.teams");
    EXPECT_EQ(table[2].match, "com.microsoft.teams2");
    EXPECT_EQ(table[7].match, "com.apple.FaceTime");
    EXPECT_FALSE(table[7].prefix);
    EXPECT_EQ(table[15].match, "com.operasoftware.Opera");
    EXPECT_EQ(table[16].match, "org.chromium.Chromium");
    EXPECT_EQ(table[16].key, "browser");
    EXPECT_EQ(table[16].name, "Chromium");
    for (const auto& row : table) {
        if (row.match != "com.apple.FaceTime") {
            EXPECT_TRUE(row.prefix) << row.match;
        }
    }
}

TEST(KnownMeetingApps, ChromiumAndItsHelperProcessesMatchTheChromiumRow) {
    const MeetingApp chromium{"browser", "Chromium", "org.chromium.Chromium"};
    EXPECT_EQ(KnownMeetingApps::match("org.chromium.Chromium"), chromium);
    EXPECT_EQ(KnownMeetingApps::match("org.chromium.Chromium.helper"), chromium);
    EXPECT_EQ(KnownMeetingApps::match("org.chromium.chromium"), std::nullopt);
    const auto apps = KnownMeetingApps::usingApps({"org.chromium.Chromium", "com.google.Chrome"},
                                                  "com.velmora.audiohelper");
    ASSERT_EQ(apps.size(), 2u);
    EXPECT_EQ(apps.at("org.chromium.Chromium"), chromium);
}

TEST(KnownMeetingApps, FaceTimeMatchesExactlyAndItsHelperMatchesNothing) {
    EXPECT_EQ(KnownMeetingApps::match("com.apple.FaceTime"),
              (MeetingApp{"facetime", "FaceTime", "com.apple.FaceTime"}));
    EXPECT_EQ(KnownMeetingApps::match("com.apple.FaceTime.helper"), std::nullopt);
}

TEST(KnownMeetingApps, ClassicAndNewTeamsMatchTheirOwnRowsUnderOneFamily) {
    EXPECT_EQ(KnownMeetingApps::match("com.microsoft.teams"),
              (MeetingApp{"teams", "Microsoft Teams", "com.microsoft.teams"}));
    const MeetingApp newTeams{"teams", "Microsoft Teams", "com.microsoft.teams2"};
    EXPECT_EQ(KnownMeetingApps::match("com.microsoft.teams2"), newTeams);
    EXPECT_EQ(KnownMeetingApps::match("com.microsoft.teams2.foo"), newTeams);
}

TEST(KnownMeetingApps, PrefixNeedsADotAfterTheIdentifier) {
    EXPECT_EQ(KnownMeetingApps::match("com.google.Chromex"), std::nullopt);
}

TEST(KnownMeetingApps, HelperProcessIsReportedUnderItsApplicationsIdentifier) {
    EXPECT_EQ(KnownMeetingApps::match("com.google.Chrome.helper.renderer"), chrome);
}

TEST(KnownMeetingApps, MatchingIsCaseSensitive) {
    EXPECT_EQ(KnownMeetingApps::match("US.ZOOM.XOS"), std::nullopt);
    EXPECT_EQ(KnownMeetingApps::match("us.zoom.xos"), (MeetingApp{"zoom", "Zoom", "us.zoom.xos"}));
}

TEST(KnownMeetingApps, EmptyIdentifierMatchesNothing) {
    EXPECT_EQ(KnownMeetingApps::match(""), std::nullopt);
}

TEST(KnownMeetingApps, HelperItselfItsSubprocessesAndWebKitHelpersAreIgnored) {
    const std::string own = "com.velmora.audiohelper";
    EXPECT_TRUE(KnownMeetingApps::isIgnored(own, own));
    EXPECT_TRUE(KnownMeetingApps::isIgnored("com.velmora.audiohelper.x", own));
    EXPECT_FALSE(KnownMeetingApps::isIgnored("com.velmora.audiohelperx", own));
    EXPECT_TRUE(KnownMeetingApps::isIgnored("com.apple.WebKit.GPU", own));
    EXPECT_TRUE(KnownMeetingApps::isIgnored("com.apple.WebKitAnything", own));
    EXPECT_FALSE(KnownMeetingApps::isIgnored("com.google.Chrome", own));
}

TEST(KnownMeetingApps, UsingYieldsOneEntryPerApplicationAndDropsIgnoredAndUnknown) {
    const auto apps =
        KnownMeetingApps::usingApps({"com.google.Chrome.helper", "com.google.Chrome",
                                     "com.apple.WebKit.GPU", "com.velmora.audiohelper.x"},
                                    "com.velmora.audiohelper");
    ASSERT_EQ(apps.size(), 1u);
    EXPECT_EQ(apps.at("com.google.Chrome"), chrome);
}

TEST(KnownMeetingApps, EmptyOwnIdentifierIgnoresEmptyAndDotLeadingIdentifiers) {
    EXPECT_TRUE(KnownMeetingApps::isIgnored("", ""));
    EXPECT_TRUE(KnownMeetingApps::isIgnored(".us.zoom.xos", ""));
    EXPECT_TRUE(KnownMeetingApps::isIgnored(".", ""));
    EXPECT_FALSE(KnownMeetingApps::isIgnored("us.zoom.xos", ""));
    const auto apps = KnownMeetingApps::usingApps({"", ".us.zoom.xos", "us.zoom.xos"}, "");
    ASSERT_EQ(apps.size(), 1u);
    EXPECT_TRUE(apps.contains("us.zoom.xos"));
}

TEST(KnownMeetingApps, UsingKeepsSeveralApplicationsApart) {
    const auto apps = KnownMeetingApps::usingApps(
        {"us.zoom.xos", "com.microsoft.teams", "com.microsoft.teams2.helper", "org.example.x"},
        "com.velmora.audiohelper");
    ASSERT_EQ(apps.size(), 3u);
    EXPECT_EQ(apps.at("us.zoom.xos").key, "zoom");
    EXPECT_EQ(apps.at("com.microsoft.teams").bundleId, "com.microsoft.teams");
    EXPECT_EQ(apps.at("com.microsoft.teams2").bundleId, "com.microsoft.teams2");
}

TEST(KnownMeetingApps, UsingNobodyYieldsNothing) {
    EXPECT_TRUE(KnownMeetingApps::usingApps({}, "com.velmora.audiohelper").empty());
}

}  // namespace
}  // namespace velmora
