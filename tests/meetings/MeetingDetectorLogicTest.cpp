#include "meetings/MeetingDetectorLogic.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace velmora {
namespace {

const std::string own = "com.velmora.audiohelper";
const MeetingApp zoom{"zoom", "Zoom", "us.zoom.xos"};
const MeetingApp chrome{"browser", "Google Chrome", "com.google.Chrome"};
const std::vector<std::string> zoomUser{"us.zoom.xos"};
const std::vector<std::string> nobody;
const std::set<std::string> noneSuppressed;

std::vector<MeetingApp> tick(MeetingDetectorLogic& detector, const std::vector<std::string>& users,
                             double now, bool capturing = false) {
    return detector.update(users, now, noneSuppressed, capturing);
}

TEST(MeetingDetectorLogic, DefaultsAreFiveSecondsDebounceAndThirtySecondsCooldown) {
    MeetingDetectorLogic detector(own);
    EXPECT_EQ(detector.debounce, 5.0);
    EXPECT_EQ(detector.cooldown, 30.0);
    EXPECT_EQ(detector.ownBundleId, own);
    EXPECT_EQ(detector.trackCount(), 0u);
}

TEST(MeetingDetectorLogic, ReportedOnceAfterTheDebounce) {
    MeetingDetectorLogic detector(own);
    EXPECT_TRUE(tick(detector, zoomUser, 0).empty());
    EXPECT_TRUE(tick(detector, zoomUser, 2).empty());
    EXPECT_TRUE(tick(detector, zoomUser, 4).empty());
    EXPECT_EQ(tick(detector, zoomUser, 5), std::vector<MeetingApp>{zoom});
    EXPECT_TRUE(tick(detector, zoomUser, 6).empty());
}

TEST(MeetingDetectorLogic, GapUpToTheCooldownIsTheSameCallAndALongerGapANewOne) {
    MeetingDetectorLogic detector(own);
    int reports = 0;
    for (int now = 0; now <= 10; ++now) {
        reports += static_cast<int>(tick(detector, zoomUser, now).size());
    }
    EXPECT_EQ(reports, 1);
    EXPECT_TRUE(tick(detector, nobody, 20).empty());
    EXPECT_TRUE(tick(detector, zoomUser, 40).empty());  // gap 30: same call
    EXPECT_EQ(detector.track("us.zoom.xos")->since, 0.0);
    EXPECT_TRUE(tick(detector, zoomUser, 71).empty());  // gap 31: a new call
    EXPECT_EQ(detector.track("us.zoom.xos")->since, 71.0);
    EXPECT_FALSE(detector.track("us.zoom.xos")->asked);
    EXPECT_TRUE(tick(detector, zoomUser, 73).empty());
    EXPECT_TRUE(tick(detector, zoomUser, 75.9).empty());
    EXPECT_EQ(tick(detector, zoomUser, 76), std::vector<MeetingApp>{zoom});
}

TEST(MeetingDetectorLogic, NewEpisodeIsReportedAtTheFirstTickAtOrAfterItsDebounce) {
    MeetingDetectorLogic detector(own);
    tick(detector, zoomUser, 0);
    EXPECT_EQ(tick(detector, zoomUser, 10).size(), 1u);
    // Ticks every 2 s from the new episode at t = 71: t = 76 falls between ticks.
    for (double now : {71.0, 73.0, 75.0}) {
        EXPECT_TRUE(tick(detector, zoomUser, now).empty()) << "at t = " << now;
    }
    EXPECT_EQ(tick(detector, zoomUser, 77), std::vector<MeetingApp>{zoom});
}

TEST(MeetingDetectorLogic, AbsentTrackSurvivesExactlyTheCooldownAndIsRemovedAfterIt) {
    MeetingDetectorLogic detector(own);
    tick(detector, zoomUser, 10);
    tick(detector, nobody, 40);
    EXPECT_TRUE(detector.track("us.zoom.xos").has_value());
    tick(detector, nobody, 40.5);
    EXPECT_FALSE(detector.track("us.zoom.xos").has_value());
    EXPECT_EQ(detector.trackCount(), 0u);
}

TEST(MeetingDetectorLogic, CallStartedWhileCapturingIsNotOfferedLaterInTheSameEpisode) {
    MeetingDetectorLogic detector(own);
    EXPECT_TRUE(tick(detector, zoomUser, 0, true).empty());
    EXPECT_TRUE(detector.track("us.zoom.xos")->asked);
    EXPECT_TRUE(tick(detector, zoomUser, 6, true).empty());
    for (double now : {8.0, 20.0, 40.0}) {
        EXPECT_TRUE(tick(detector, zoomUser, now, false).empty()) << "at t = " << now;
    }
    EXPECT_TRUE(tick(detector, zoomUser, 71, false).empty());  // new episode after a gap of 31
    EXPECT_EQ(tick(detector, zoomUser, 76, false), std::vector<MeetingApp>{zoom});
}

TEST(MeetingDetectorLogic, SuppressedApplicationIsPassedOverForTheWholeEpisode) {
    MeetingDetectorLogic detector(own);
    const std::set<std::string> suppressed{"us.zoom.xos"};
    EXPECT_TRUE(detector.update(zoomUser, 0, suppressed, false).empty());
    EXPECT_TRUE(detector.update(zoomUser, 6, suppressed, false).empty());
    for (double now : {8.0, 20.0, 30.0}) {
        EXPECT_TRUE(tick(detector, zoomUser, now).empty()) << "at t = " << now;
    }
    EXPECT_TRUE(tick(detector, zoomUser, 61).empty());
    EXPECT_EQ(tick(detector, zoomUser, 66), std::vector<MeetingApp>{zoom});
}

TEST(MeetingDetectorLogic, SuppressionNamesTheTableIdentifierNotTheProcess) {
    MeetingDetectorLogic detector(own);
    const std::set<std::string> suppressed{"com.google.Chrome"};
    const std::vector<std::string> users{"com.google.Chrome.helper", "us.zoom.xos"};
    EXPECT_TRUE(detector.update(users, 0, suppressed, false).empty());
    EXPECT_EQ(detector.update(users, 5, suppressed, false), std::vector<MeetingApp>{zoom});
}

TEST(MeetingDetectorLogic, TwoApplicationsQualifyingTogetherAreReportedInAscendingKeyOrder) {
    MeetingDetectorLogic detector(own);
    const std::vector<std::string> users{"us.zoom.xos", "com.google.Chrome.helper.renderer"};
    EXPECT_TRUE(tick(detector, users, 0).empty());
    EXPECT_EQ(tick(detector, users, 5), (std::vector<MeetingApp>{chrome, zoom}));
}

TEST(MeetingDetectorLogic, HelperItselfAndWebKitHelpersAreNeverTracked) {
    MeetingDetectorLogic detector(own);
    const std::vector<std::string> users{own, own + ".capture", "com.apple.WebKit.Networking"};
    for (double now : {0.0, 5.0, 10.0}) {
        EXPECT_TRUE(tick(detector, users, now).empty());
    }
    EXPECT_EQ(detector.trackCount(), 0u);
}

TEST(MeetingDetectorLogic, ResetForgetsEveryTrack) {
    MeetingDetectorLogic detector(own);
    tick(detector, zoomUser, 0);
    EXPECT_EQ(tick(detector, zoomUser, 5).size(), 1u);
    detector.reset();
    EXPECT_EQ(detector.trackCount(), 0u);
    EXPECT_TRUE(tick(detector, zoomUser, 6).empty());
    EXPECT_EQ(tick(detector, zoomUser, 11), std::vector<MeetingApp>{zoom});
}

}  // namespace
}  // namespace velmora
