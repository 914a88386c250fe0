#include "meetings/CallEndWatch.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace velmora {
namespace {

const std::string own = "com.velmora.audiohelper";
const MeetingApp zoom{"zoom", "Zoom", "us.zoom.xos"};
const MeetingApp chrome{"browser", "Google Chrome", "com.google.Chrome"};
const std::vector<std::string> nobody;

// Ticks with the given users at each time, expecting no report on any of them.
void seenAt(CallEndWatch& watch, const std::vector<std::string>& users,
            std::initializer_list<double> times) {
    for (double now : times) {
        EXPECT_TRUE(watch.update(users, now).empty()) << "at t = " << now;
    }
}

TEST(CallEndWatch, DefaultsAreFifteenSecondsGraceAndTenSecondsMinimumCall) {
    CallEndWatch watch(own);
    EXPECT_EQ(watch.grace, 15.0);
    EXPECT_EQ(watch.minimumCall, 10.0);
    EXPECT_EQ(watch.ownBundleId(), own);
    EXPECT_EQ(watch.trackCount(), 0u);
}

TEST(CallEndWatch, FirstSightingReportsNothingAndStartsOneTrack) {
    CallEndWatch watch(own);
    EXPECT_TRUE(watch.update({"us.zoom.xos"}, 100.0).empty());
    ASSERT_EQ(watch.trackCount(), 1u);
    const auto track = watch.track("us.zoom.xos");
    ASSERT_TRUE(track.has_value());
    EXPECT_EQ(track->app, zoom);
    EXPECT_EQ(track->since, 100.0);
    EXPECT_EQ(track->lastSeen, 100.0);
}

TEST(CallEndWatch, CallEndsAtTheFirstTickAfterExactlyTheGracePeriod) {
    CallEndWatch watch(own);
    seenAt(watch, {"us.zoom.xos"}, {0, 5, 10, 12});
    EXPECT_TRUE(watch.update(nobody, 26.9).empty());
    EXPECT_EQ(watch.update(nobody, 27.0), std::vector<MeetingApp>{zoom});
    EXPECT_EQ(watch.trackCount(), 0u);
}

TEST(CallEndWatch, TooShortUseIsDroppedWithoutReport) {
    CallEndWatch watch(own);
    seenAt(watch, {"us.zoom.xos"}, {0, 9});
    EXPECT_TRUE(watch.update(nobody, 24.0).empty());
    EXPECT_EQ(watch.trackCount(), 0u);
    EXPECT_TRUE(watch.update(nobody, 30.0).empty());
}

TEST(CallEndWatch, CallOfExactlyTheMinimumLengthIsReported) {
    CallEndWatch watch(own);
    seenAt(watch, {"us.zoom.xos"}, {0, 10});
    EXPECT_EQ(watch.update(nobody, 25.0), std::vector<MeetingApp>{zoom});
}

TEST(CallEndWatch, GapShorterThanGraceContinuesTheCallWithItsFirstStart) {
    CallEndWatch watch(own);
    seenAt(watch, {"us.zoom.xos"}, {0, 10});
    EXPECT_TRUE(watch.update(nobody, 20.0).empty());
    EXPECT_TRUE(watch.update({"us.zoom.xos"}, 21.0).empty());
    const auto track = watch.track("us.zoom.xos");
    ASSERT_TRUE(track.has_value());
    EXPECT_EQ(track->since, 0.0);
    EXPECT_EQ(track->lastSeen, 21.0);
    EXPECT_TRUE(watch.update(nobody, 35.9).empty());
    EXPECT_EQ(watch.update(nobody, 36.0), std::vector<MeetingApp>{zoom});
}

TEST(CallEndWatch, SimultaneousEndsAreReportedInAscendingKeyOrder) {
    CallEndWatch watch(own);
    // Listed zoom first, so the order cannot come from the input.
    seenAt(watch, {"us.zoom.xos", "com.google.Chrome.helper"}, {0, 10, 20});
    EXPECT_EQ(watch.update(nobody, 35.0), (std::vector<MeetingApp>{chrome, zoom}));
}

TEST(CallEndWatch, HelperItselfAndWebKitHelpersNeverCreateATrack) {
    CallEndWatch watch(own);
    seenAt(watch, {own, own + ".capture", "com.apple.WebKit.GPU"}, {0, 10, 20});
    EXPECT_EQ(watch.trackCount(), 0u);
    EXPECT_TRUE(watch.update(nobody, 40.0).empty());
}

TEST(CallEndWatch, UnknownApplicationsNeverCreateATrack) {
    CallEndWatch watch(own);
    seenAt(watch, {"org.example.recorder", "chromium"}, {0, 20});
    EXPECT_EQ(watch.trackCount(), 0u);
}

TEST(CallEndWatch, ResetDuringACallReportsNothingAfterwards) {
    CallEndWatch watch(own);
    seenAt(watch, {"us.zoom.xos"}, {0, 10, 20});
    watch.reset();
    EXPECT_EQ(watch.trackCount(), 0u);
    EXPECT_TRUE(watch.update(nobody, 40.0).empty());
}

TEST(CallEndWatch, ApplicationReturningAfterAReportStartsAFreshCall) {
    CallEndWatch watch(own);
    seenAt(watch, {"us.zoom.xos"}, {0, 10});
    EXPECT_EQ(watch.update(nobody, 25.0), std::vector<MeetingApp>{zoom});
    EXPECT_TRUE(watch.update({"us.zoom.xos"}, 30.0).empty());
    const auto track = watch.track("us.zoom.xos");
    ASSERT_TRUE(track.has_value());
    EXPECT_EQ(track->since, 30.0);
}

TEST(CallEndWatch, RowsOfOneFamilyAreTrackedAndReportedSeparately) {
    CallEndWatch watch(own);
    seenAt(watch, {"com.microsoft.teams", "com.microsoft.teams2"}, {0, 10});
    seenAt(watch, {"com.microsoft.teams2"}, {20});
    const MeetingApp classic{"teams", "Microsoft Teams", "com.microsoft.teams"};
    const MeetingApp current{"teams", "Microsoft Teams", "com.microsoft.teams2"};
    EXPECT_EQ(watch.update(nobody, 25.0), std::vector<MeetingApp>{classic});
    EXPECT_EQ(watch.update(nobody, 35.0), std::vector<MeetingApp>{current});
}

TEST(CallEndWatch, ChangedGraceAndMinimumCallApplyFromTheNextTick) {
    CallEndWatch watch(own, 4.0, 2.0);
    seenAt(watch, {"us.zoom.xos"}, {0, 2});
    EXPECT_TRUE(watch.update(nobody, 5.9).empty());
    EXPECT_EQ(watch.update(nobody, 6.0), std::vector<MeetingApp>{zoom});
    watch.minimumCall = 100.0;
    seenAt(watch, {"us.zoom.xos"}, {10, 20});
    EXPECT_TRUE(watch.update(nobody, 24.0).empty());
    EXPECT_EQ(watch.trackCount(), 0u);
}

}  // namespace
}  // namespace velmora
