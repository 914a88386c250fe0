#include "meetings/pulse/RecordingStreamTable.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velmora {
namespace {

constexpr std::uint32_t microphone = 1;
constexpr std::uint32_t speakersMonitor = 2;

class RecordingStreamTableTest : public ::testing::Test {
  protected:
    void SetUp() override {
        table_.putSource(microphone, false);
        table_.putSource(speakersMonitor, true);
    }

    static RecordingStreamTable::Stream zoomOn(std::uint32_t source) {
        return {.source = source, .client = 7, .identity = {.binary = "zoom"}};
    }

    RecordingStreamTable table_;
};

TEST_F(RecordingStreamTableTest, RunningStreamOnARealInputIsListed) {
    table_.putStream(10, zoomOn(microphone));
    EXPECT_EQ(table_.bundleIds(), std::vector<std::string>{"us.zoom.xos"});
    EXPECT_EQ(table_.streamCount(), 1u);
}

TEST_F(RecordingStreamTableTest, CorkedMonitorAndLevelMeterStreamsAreCountedButNotListed) {
    auto corked = zoomOn(microphone);
    corked.corked = true;
    auto meter = zoomOn(microphone);
    meter.levelMeter = true;
    table_.putStream(10, corked);
    table_.putStream(11, zoomOn(speakersMonitor));
    table_.putStream(12, meter);
    EXPECT_TRUE(table_.bundleIds().empty());
    EXPECT_EQ(table_.streamCount(), 3u);
}

TEST_F(RecordingStreamTableTest, StreamOnASourceNotListedIsSkipped) {
    table_.putStream(10, zoomOn(99));
    EXPECT_TRUE(table_.bundleIds().empty());
    table_.putSource(99, false);
    EXPECT_EQ(table_.bundleIds(), std::vector<std::string>{"us.zoom.xos"});
    table_.removeSource(99);
    EXPECT_TRUE(table_.bundleIds().empty());
}

TEST_F(RecordingStreamTableTest, ClientPropertiesCompleteTheStreamsOwn) {
    // PipeWire keeps the Flatpak id on the client only.
    table_.putStream(10, {.source = microphone, .client = 7, .identity = {.binary = "app"}});
    table_.putClient(7, {.flatpakId = "us.zoom.Zoom"});
    EXPECT_EQ(table_.bundleIds(), std::vector<std::string>{"us.zoom.xos"});
    table_.removeClient(7);
    EXPECT_EQ(table_.bundleIds(), std::vector<std::string>{"app"});
}

TEST_F(RecordingStreamTableTest, SnapNameAndIconNameAreCompletedFromTheClientToo) {
    // A snap's name is on the client; Chromium puts its icon name on the stream, or its client.
    table_.putStream(10, {.source = microphone, .client = 7, .identity = {.binary = "electron"}});
    table_.putClient(7, {.snapId = "slack"});
    table_.putStream(11, {.source = microphone, .client = 8, .identity = {.binary = "chrome"}});
    table_.putClient(8, {.iconName = "chromium-browser"});
    EXPECT_EQ(table_.bundleIds(),
              (std::vector<std::string>{"com.tinyspeck.slackmacgap", "org.chromium.Chromium"}));
}

TEST_F(RecordingStreamTableTest, StreamsAreListedInIndexOrderAndRemovedByIndex) {
    table_.putStream(12, zoomOn(microphone));
    table_.putStream(10, {.source = microphone, .identity = {.binary = "slack"}});
    EXPECT_EQ(table_.bundleIds(),
              (std::vector<std::string>{"com.tinyspeck.slackmacgap", "us.zoom.xos"}));
    table_.removeStream(10);
    EXPECT_EQ(table_.bundleIds(), std::vector<std::string>{"us.zoom.xos"});
    // A changed stream replaces the one under its index.
    auto corked = zoomOn(microphone);
    corked.corked = true;
    table_.putStream(12, corked);
    EXPECT_TRUE(table_.bundleIds().empty());
    table_.clear();
    EXPECT_EQ(table_.streamCount(), 0u);
}

TEST_F(RecordingStreamTableTest, StreamWithoutAnyIdentityIsSkipped) {
    table_.putStream(10, {.source = microphone});
    EXPECT_TRUE(table_.bundleIds().empty());
    EXPECT_EQ(table_.streamCount(), 1u);
}

}  // namespace
}  // namespace velmora
