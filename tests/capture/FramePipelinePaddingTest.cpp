#include <gtest/gtest.h>

#include <chrono>

#include "capture/FramePipeline.h"
#include "capture/PipelineTestFixture.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t frameSamples = 1600;

class FramePipelinePaddingTest : public PipelineTestFixture {
  protected:
    void SetUp() override {
        PipelineTestFixture::SetUp();
        configure(16000);
        pipeline->startPadding();
    }

    std::int64_t emitted() {
        return queue.sync([&] { return pipeline->emittedSamples(); });
    }
};

TEST_F(FramePipelinePaddingTest, WithNoCallbacksNoFrameForThreeHundredMillisecondsThenOnePerTick) {
    timers->advance(100ms);
    EXPECT_EQ(recorder.frameCount(), 0u);
    timers->advance(100ms);
    EXPECT_EQ(recorder.frameCount(), 0u);
    timers->advance(100ms);  // expected 4 800: the deficit first exceeds 3 200
    EXPECT_EQ(recorder.frameCount(), 1u);
    for (std::size_t tick = 1; tick <= 50; ++tick) {
        timers->advance(100ms);
        ASSERT_EQ(recorder.frameCount(), 1u + tick) << "tick " << tick;
        // Between two and three frames behind the clock.
        const auto expected = static_cast<std::int64_t>((300 + 100 * tick) * 16);
        const auto behind = expected - emitted();
        ASSERT_GE(behind, 2 * 1600);
        ASSERT_LT(behind, 3 * 1600);
    }
    for (const auto& frame : recorder.frames()) {
        ASSERT_EQ(frame, std::vector<float>(frameSamples, 0.0f));
    }
    for (float level : recorder.levels()) ASSERT_EQ(level, 0.0f);
}

TEST_F(FramePipelinePaddingTest, OneSilentFramePerTickIsExactlySixteenThousandSamplesASecond) {
    timers->advance(300ms);
    const auto before = emitted();
    timers->advance(10s);
    EXPECT_EQ(emitted() - before, 160000);
}

TEST_F(FramePipelinePaddingTest, RealDataLessThan250MillisecondsApartSuppressesPaddingEntirely) {
    // 100 samples every 200 ms: far behind the clock, but data keeps flowing.
    for (int step = 0; step < 50; ++step) {
        timers->advance(200ms);
        feedMono(std::vector<float>(100, 0.5f));
    }
    EXPECT_EQ(recorder.frameCount(), 3u);  // 5 000 real samples, no silent frame among them
    for (const auto& frame : recorder.frames()) {
        for (float sample : frame) ASSERT_EQ(sample, 0.5f);
    }
}

TEST_F(FramePipelinePaddingTest, PaddingStartsOnceTheDeviceIsQuietFor250Milliseconds) {
    timers->advance(1s);
    const auto silentFrames = recorder.frameCount();
    feedMono(std::vector<float>(10, 0.5f));
    timers->advance(200ms);  // 200 ms since the data: no padding
    EXPECT_EQ(recorder.frameCount(), silentFrames);
    timers->advance(100ms);  // 300 ms since the data: padding resumes
    EXPECT_GT(recorder.frameCount(), silentFrames);
}

TEST_F(FramePipelinePaddingTest, APartialRemainderLeadsTheFirstPaddedFrame) {
    feedMono(std::vector<float>(1000, 0.5f));
    timers->advance(300ms);  // quiet since 0 ms; expected 4 800, deficit 3 800
    const auto frames = recorder.frames();
    ASSERT_EQ(frames.size(), 1u);
    for (std::size_t i = 0; i < frameSamples; ++i) {
        ASSERT_EQ(frames[0][i], i < 1000 ? 0.5f : 0.0f) << "sample " << i;
    }
    // The rest of the appended silence waits for the next frame.
    EXPECT_EQ(pending(), 1000u);
}

TEST_F(FramePipelinePaddingTest, ALateBurstRunsAheadAndPaddingWaitsUntilTheDeficitReturns) {
    timers->advance(1s);  // 8 silent frames: 12 800 samples
    ASSERT_EQ(emitted(), 12800);
    feedMono(std::vector<float>(10 * frameSamples, 0.5f));  // a burst of one second
    ASSERT_EQ(emitted(), 28800);                            // ahead of the clock (16 000)
    // Quiet again: no padding until the clock is more than two frames past the output.
    timers->advance(1s);  // t = 2 s, expected 32 000, deficit 3 200: not yet
    EXPECT_EQ(emitted(), 28800);
    timers->advance(100ms);  // t = 2.1 s, expected 33 600, deficit 4 800: one frame
    EXPECT_EQ(emitted(), 30400);
}

TEST_F(FramePipelinePaddingTest, StoppingWithOneThousandSamplesPendingEmitsNothingMore) {
    feedMono(std::vector<float>(1000, 0.5f));
    pipeline->stopPadding();
    pipeline->clear();
    timers->advance(5s);
    EXPECT_EQ(recorder.frameCount(), 0u);
    EXPECT_EQ(pending(), 0u);
    EXPECT_EQ(timers->activeCount(), 0u);
}

TEST_F(FramePipelinePaddingTest, ClearingKeepsTheClockRunningThroughARebuild) {
    timers->advance(1s);
    const auto before = emitted();
    pipeline->clear();
    configure(44100);
    timers->advance(1s);
    EXPECT_EQ(emitted() - before, 16000);
    EXPECT_EQ(timers->createdCount(), 1u);
}

TEST_F(FramePipelinePaddingTest, StartingPaddingAgainRestartsTheClockAndReplacesTheTimer) {
    timers->advance(1s);
    feedMono(std::vector<float>(500, 0.5f));
    pipeline->startPadding();
    EXPECT_EQ(emitted(), 0);
    EXPECT_EQ(pending(), 0u);
    EXPECT_EQ(timers->activeCount(), 1u);
    const auto framesBefore = recorder.frameCount();
    timers->advance(200ms);
    EXPECT_EQ(recorder.frameCount(), framesBefore);
    timers->advance(100ms);
    EXPECT_EQ(recorder.frameCount(), framesBefore + 1);
}

TEST_F(FramePipelinePaddingTest, AnEmptyCallbackDoesNotCountAsData) {
    timers->advance(200ms);
    feed({});
    FakeBuffer missing;
    missing.channelCount = 2;
    missing.samples = std::vector<float>(100, 0.5f);
    missing.hasData = false;
    feed({missing});
    timers->advance(100ms);  // 300 ms since the last real data (the start)
    EXPECT_EQ(recorder.frameCount(), 1u);
}

TEST_F(FramePipelinePaddingTest, ThePaddingTimerDoesNothingOnceThePipelineIsGone) {
    std::weak_ptr<FramePipeline> weak = pipeline;
    pipeline.reset();
    EXPECT_TRUE(weak.expired());
    timers->advance(1s);
    EXPECT_EQ(recorder.frameCount(), 0u);
}

}  // namespace
}  // namespace velmora::testing
