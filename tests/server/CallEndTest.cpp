// Telling the streaming page that a call in a meeting app has ended.
#include <gtest/gtest.h>

#include "ServerFixture.h"

namespace velmora::testing {
namespace {

using nlohmann::json;

const json takenOver = {{"type", "stopped"}, {"reason", "taken_over"}};

const json zoomEnded = {
    {"type", "call_ended"}, {"app", "zoom"}, {"name", "Zoom"}, {"id", "us.zoom.xos"}};
const json chromeEnded = {{"type", "call_ended"},
                          {"app", "browser"},
                          {"name", "Google Chrome"},
                          {"id", "com.google.Chrome"}};

class CallEndTest : public ServerFixture {
  protected:
    void SetUp() override { startServer(timings()); }
    virtual HelperServerTimings timings() { return fastTimings(); }

    // Waits until `ticks` more polls have happened.
    void waitForTicks(int ticks) {
        ASSERT_TRUE(microphoneUsers_->waitForQueries(microphoneUsers_->queryCount() + ticks));
    }
};

TEST_F(CallEndTest, MeetingAppLeavingTheMicrophoneEndsTheCall) {
    microphoneUsers_->setBundleIds({"us.zoom.xos"});
    auto page = connectPage(pageA);
    startStreaming(*page, pageA);
    waitForTicks(2);
    microphoneUsers_->setBundleIds({});
    auto notice = page->nextJson();
    ASSERT_TRUE(notice);
    EXPECT_EQ(*notice, zoomEnded);
    EXPECT_TRUE(log_.waitForLine("Call ended: Zoom"));
    // Capture goes on.
    int frames = page->binaryCount();
    EXPECT_TRUE(page->waitForBinaryCount(frames + 2));
    EXPECT_EQ(server_->status().capturingFor, pageA);
}

TEST_F(CallEndTest, TheWatchSkipsTheApplicationIdentifierOfTheHelpersOwnStreams) {
    // What the helper's own sound-server streams carry as application.id, not the program name.
    EXPECT_EQ(server_->ownBundleId(), "com.velmora.audiohelper");
}

TEST_F(CallEndTest, TwoAppsEndingInTheSameTickYieldTwoMessagesInKeyOrder) {
    microphoneUsers_->setBundleIds({"us.zoom.xos", "com.google.Chrome.helper"});
    auto page = connectPage(pageA);
    startStreaming(*page, pageA);
    waitForTicks(2);
    microphoneUsers_->setBundleIds({});
    EXPECT_EQ(*page->nextJson(), chromeEnded);
    EXPECT_EQ(*page->nextJson(), zoomEnded);
}

TEST_F(CallEndTest, NoPageActiveMeansNoPollingAndNoNotice) {
    microphoneUsers_->setBundleIds({"us.zoom.xos"});
    auto page = connectPage(pageA);
    expectPong(*page);
    EXPECT_EQ(microphoneUsers_->queryCount(), 0);

    // Streaming, then stopped: polling ends with the stream, so a call that ends afterwards is
    // never announced.
    startStreaming(*page, pageA);
    waitForTicks(2);
    ASSERT_FALSE(page->sendText(R"({"type":"stop"})"));
    EXPECT_EQ(page->nextText(), R"({"type":"stopped"})");
    int queries = microphoneUsers_->queryCount();
    microphoneUsers_->setBundleIds({});
    // Well past the grace time.
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    expectPong(*page);
    EXPECT_EQ(microphoneUsers_->queryCount(), queries);
}

class CallEndHourlyTest : public CallEndTest {
  protected:
    HelperServerTimings timings() override {
        auto timings = fastTimings();
        timings.callInterval = std::chrono::hours(1);
        return timings;
    }
};

TEST_F(CallEndHourlyTest, FirstTickRunsAsSoonAsStreamingBegins) {
    auto page = connectPage(pageA);
    ASSERT_TRUE(page);
    startStreaming(*page, pageA);
    // Only a first tick at once can come within the wait: the next one is an hour away.
    EXPECT_TRUE(microphoneUsers_->waitForQueries(1));
}

class CallEndTakeOverTest : public CallEndTest {
  protected:
    HelperServerTimings timings() override {
        auto timings = fastTimings();
        timings.minimumCall = 0.3;
        return timings;
    }
};

TEST_F(CallEndTakeOverTest, TakeOverResetsTheWatchSoOnlyLaterCallsAreReported) {
    microphoneUsers_->setBundleIds({"us.zoom.xos"});
    auto first = connectPage(pageA);
    auto second = connectPage(pageB);
    startStreaming(*first, pageA);
    // Long enough for the first page's watch to count it as a call.
    auto since = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - since < std::chrono::milliseconds(500)) {
        waitForTicks(1);
    }
    startStreaming(*second, pageB);
    EXPECT_EQ(*first->nextJson(), takenOver);
    // The new page's watch sees the app once, then it leaves: too short to be a call of its own.
    waitForTicks(1);
    microphoneUsers_->setBundleIds({});
    since = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - since < std::chrono::milliseconds(400)) {
        waitForTicks(1);
    }
    expectPong(*second);
    expectPong(*first);

    // A call that begins and ends while the second page streams is reported to it.
    microphoneUsers_->setBundleIds({"us.zoom.xos"});
    since = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - since < std::chrono::milliseconds(500)) {
        waitForTicks(1);
    }
    microphoneUsers_->setBundleIds({});
    EXPECT_EQ(*second->nextJson(), zoomEnded);
    expectPong(*first);
}

}  // namespace
}  // namespace velmora::testing
