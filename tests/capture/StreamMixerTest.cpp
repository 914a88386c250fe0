#include "capture/StreamMixer.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

namespace velmora {
namespace {

// Mono streams with small rings, so the numbers stay readable: a ring of 8 frames, and a
// waiting stream takes the lead once it holds 4.
class StreamMixerTest : public ::testing::Test {
  protected:
    StreamMixer mixer_{1, 8, 4, [this](const float* samples, std::size_t frames) {
                           out_.insert(out_.end(), samples, samples + frames);
                           ++calls_;
                       }};
    std::vector<float> out_;
    int calls_ = 0;

    void write(StreamMixer::StreamId id, std::vector<float> samples) {
        mixer_.write(id, samples.data(), samples.size());
    }
};

TEST_F(StreamMixerTest, OneStreamPassesStraightThrough) {
    mixer_.add(1);
    write(1, {0.1f, 0.2f, 0.3f});
    write(1, {0.4f});
    EXPECT_EQ(out_, (std::vector<float>{0.1f, 0.2f, 0.3f, 0.4f}));
    EXPECT_EQ(calls_, 2);
    EXPECT_TRUE(mixer_.isLeading(1));
}

TEST_F(StreamMixerTest, TheLeaderCarriesWhatTheOthersHoldAddedIn) {
    mixer_.add(1);
    mixer_.add(2);
    write(1, {1, 1});        // leads: out at once
    write(2, {10, 20, 30});  // waits
    write(1, {2, 2});        // carries two of stream 2's three
    write(1, {3, 3});        // and the third
    EXPECT_EQ(out_, (std::vector<float>{1, 1, 12, 22, 33, 3}));
    EXPECT_EQ(mixer_.bufferedFrames(2), 0u);
}

TEST_F(StreamMixerTest, AStreamThatDeliversNothingContributesSilence) {
    mixer_.add(1);
    mixer_.add(2);
    write(1, {0.5f, 0.5f, 0.5f});
    EXPECT_EQ(out_, (std::vector<float>{0.5f, 0.5f, 0.5f}));
}

TEST_F(StreamMixerTest, AWaitingStreamTakesTheLeadWhenTheLeaderStalls) {
    mixer_.add(1);
    mixer_.add(2);
    write(1, {1});
    write(2, {5, 5, 5});  // three waiting: below the takeover
    EXPECT_EQ(out_.size(), 1u);
    write(2, {6});  // four: the leader has stalled, stream 2 flushes and leads
    EXPECT_EQ(out_, (std::vector<float>{1, 5, 5, 5, 6}));
    EXPECT_TRUE(mixer_.isLeading(2));
    write(2, {7});
    EXPECT_EQ(out_.back(), 7);
    // The old leader, back, now waits and is carried.
    write(1, {1});
    write(2, {7});
    EXPECT_EQ(out_.back(), 8);
}

TEST_F(StreamMixerTest, RemovingTheLeaderLetsTheNextWriterLead) {
    mixer_.add(1);
    mixer_.add(2);
    write(1, {1});
    write(2, {2});  // waits
    mixer_.remove(1);
    EXPECT_FALSE(mixer_.contains(1));
    write(2, {3});  // leads at once, with what it held
    EXPECT_EQ(out_, (std::vector<float>{1, 2, 3}));
}

TEST_F(StreamMixerTest, AHoleReadsAsSilenceAndUnknownStreamsAreIgnored) {
    mixer_.add(1);
    mixer_.write(1, nullptr, 2);
    write(7, {9, 9});
    EXPECT_EQ(out_, (std::vector<float>{0, 0}));
}

TEST_F(StreamMixerTest, AFragmentLongerThanTheRingGoesOutWhole) {
    mixer_.add(1);
    mixer_.add(2);
    write(2, {1});  // leads
    std::vector<float> longOne(20, 0.25f);
    write(1, longOne);  // more than the ring: goes out in ring-sized pieces, nothing lost
    ASSERT_EQ(out_.size(), 21u);
    for (std::size_t index = 1; index < out_.size(); ++index) EXPECT_EQ(out_[index], 0.25f);
}

TEST_F(StreamMixerTest, AFullRingDropsItsOldestFrames) {
    StreamMixer mixer(1, 4, 4, [&](const float* samples, std::size_t frames) {
        out_.insert(out_.end(), samples, samples + frames);
    });
    mixer.add(1);
    mixer.add(2);
    std::vector<float> one{1};
    mixer.write(1, one.data(), 1);  // 1 leads
    std::vector<float> many{2, 3, 4};
    mixer.write(2, many.data(), 3);
    EXPECT_EQ(mixer.bufferedFrames(2), 3u);
    std::vector<float> more{5, 6, 7};
    mixer.write(2, more.data(), 3);  // six frames for a ring of four: 2 and 3 go, then it leads
    EXPECT_EQ(out_, (std::vector<float>{1, 4, 5, 6, 7}));
}

TEST_F(StreamMixerTest, InterleavedFramesStayWhole) {
    std::vector<float> out;
    StreamMixer stereo(2, 8, 4, [&](const float* samples, std::size_t frames) {
        out.insert(out.end(), samples, samples + 2 * frames);
    });
    stereo.add(1);
    stereo.add(2);
    std::vector<float> left{1, 0, 1, 0};
    std::vector<float> right{0, 2};
    stereo.write(1, left.data(), 1);
    stereo.write(2, right.data(), 1);
    stereo.write(1, left.data() + 2, 1);
    EXPECT_EQ(out, (std::vector<float>{1, 0, 1, 2}));
}

TEST(StreamMixerSetupTest, RefusesATakeoverLargerThanTheRing) {
    EXPECT_THROW(StreamMixer(1, 4, 5, nullptr), std::invalid_argument);
    EXPECT_THROW(StreamMixer(0, 4, 2, nullptr), std::invalid_argument);
}

}  // namespace
}  // namespace velmora
