#include "capture/FramePipeline.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <numbers>
#include <optional>
#include <random>
#include <span>

#include "capture/PipelineTestFixture.h"
#include "support/CaptureLog.h"

namespace velmora::testing {
namespace {

constexpr std::size_t frameSamples = 1600;

std::vector<float> randomSamples(std::size_t count, unsigned seed) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> distribution(-1.0f, 1.0f);
    std::vector<float> samples(count);
    for (auto& sample : samples) sample = distribution(generator);
    return samples;
}

FakeBuffer monoBuffer(std::vector<float> samples) {
    FakeBuffer buffer;
    buffer.samples = std::move(samples);
    return buffer;
}

using FramePipelineTest = PipelineTestFixture;

TEST_F(FramePipelineTest, StereoInterleavedInputYieldsHalfTheSumOfLeftAndRight) {
    configure(16000);
    const auto interleaved = randomSamples(2 * frameSamples, 1);
    feedInterleaved(interleaved, 2);
    const auto frames = recorder.frames();
    ASSERT_EQ(frames.size(), 1u);
    for (std::size_t i = 0; i < frameSamples; ++i) {
        const float left = interleaved[2 * i];
        const float right = interleaved[2 * i + 1];
        ASSERT_EQ(frames[0][i], (0.0f + left + right) * 0.5f) << "frame " << i;
    }
}

TEST_F(FramePipelineTest, ThreeChannelsAreScaledByTheFloatReciprocalOfThree) {
    configure(16000);
    const auto interleaved = randomSamples(3 * frameSamples, 2);
    feedInterleaved(interleaved, 3);
    const auto frames = recorder.frames();
    ASSERT_EQ(frames.size(), 1u);
    const float third = 1.0f / 3.0f;
    std::size_t differsFromDivision = 0;
    for (std::size_t i = 0; i < frameSamples; ++i) {
        const float sum =
            0.0f + interleaved[3 * i] + interleaved[3 * i + 1] + interleaved[3 * i + 2];
        ASSERT_EQ(frames[0][i], third * sum) << "frame " << i;
        differsFromDivision += (sum / 3.0f) != third * sum ? 1 : 0;
    }
    // The rule is observable: a division would have given other values for some frames.
    EXPECT_GT(differsFromDivision, 0u);
}

TEST_F(FramePipelineTest, PlanarBuffersOfDifferentLengthsTakeTheFirstBuffersLength) {
    configure(16000, /*interleaved=*/false);
    const auto first = randomSamples(frameSamples, 3);
    const auto second = randomSamples(1000, 4);
    feed({monoBuffer(first), monoBuffer(second)});
    const auto frames = recorder.frames();
    ASSERT_EQ(frames.size(), 1u);  // the first buffer's 1 600 samples, no more
    EXPECT_EQ(pending(), 0u);
    for (std::size_t i = 0; i < frameSamples; ++i) {
        float expected = 0.0f + 0.5f * first[i];
        if (i < second.size()) expected = expected + 0.5f * second[i];
        ASSERT_EQ(frames[0][i], expected) << "sample " << i;
    }
    // Past the second buffer's end: the first buffer's samples times 0.5.
    EXPECT_EQ(frames[0][1200], first[1200] * 0.5f);
}

TEST_F(FramePipelineTest, PlanarBufferLongerThanTheFirstIsCutAtTheFirstsLength) {
    configure(16000, /*interleaved=*/false);
    feed({monoBuffer(std::vector<float>(1000, 0.5f)), monoBuffer(std::vector<float>(3000, 0.25f))});
    EXPECT_EQ(pending(), 1000u);
}

TEST_F(FramePipelineTest, PlanarMixAveragesOverAllBuffersAndSkipsMissingData) {
    configure(16000, /*interleaved=*/false);
    FakeBuffer missing = monoBuffer(std::vector<float>(frameSamples, 1.0f));
    missing.hasData = false;
    feed({monoBuffer(std::vector<float>(frameSamples, 0.75f)), missing,
          monoBuffer(std::vector<float>(frameSamples, 0.75f))});
    const auto frames = recorder.frames();
    ASSERT_EQ(frames.size(), 1u);
    const float scale = 1.0f / 3.0f;
    for (float sample : frames[0]) ASSERT_EQ(sample, (0.0f + scale * 0.75f) + scale * 0.75f);
}

TEST_F(FramePipelineTest, ASingleBufferWithChannelCountZeroIsMonoAndAppendedUnchanged) {
    configure(16000);
    FakeBuffer buffer = monoBuffer(randomSamples(frameSamples, 5));
    buffer.channelCount = 0;
    feed({buffer});
    const auto frames = recorder.frames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0], buffer.samples);
}

TEST_F(FramePipelineTest, ASingleBufferIsReadByItsChannelCountWhateverTheFormatSays) {
    configure(16000, /*interleaved=*/false);
    feedInterleaved(std::vector<float>(2 * frameSamples, 0.5f), 2);
    EXPECT_EQ(recorder.frameCount(), 1u);
    EXPECT_EQ(pending(), 0u);
}

TEST_F(FramePipelineTest, InterleavedPathReadsOnlyTheFirstBufferAndIgnoresATrailingPartialFrame) {
    configure(16000);
    FakeBuffer first;
    first.channelCount = 2;
    first.samples = std::vector<float>(2 * 100 + 1, 0.5f);  // 100 frames and one stray sample
    FakeBuffer second = monoBuffer(std::vector<float>(500, 0.5f));
    feed({first, second});
    EXPECT_EQ(pending(), 100u);
}

TEST_F(FramePipelineTest, InterleavedBufferSmallerThanOneFrameIsIgnored) {
    configure(16000);
    FakeBuffer buffer;
    buffer.channelCount = 4;
    buffer.samples = std::vector<float>(3, 0.5f);
    feed({buffer});
    EXPECT_EQ(pending(), 0u);
}

TEST_F(FramePipelineTest, InputRateOf16000Point5HzNeedsNoConverter) {
    configure(16000.5);
    EXPECT_FALSE(hasConverter());
    configure(15999.5);
    EXPECT_FALSE(hasConverter());
}

TEST_F(FramePipelineTest, InputRateOf16001HzGetsAConverter) {
    configure(16001);
    EXPECT_TRUE(hasConverter());
    configure(48000);
    EXPECT_TRUE(hasConverter());
    configure(16000);
    EXPECT_FALSE(hasConverter());
}

TEST_F(FramePipelineTest, PendingOf3199SamplesEmitsOneFrameAndKeeps1599) {
    configure(16000);
    const auto samples = randomSamples(3199, 6);
    feedMono(samples);
    const auto frames = recorder.frames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(pending(), 1599u);
    EXPECT_EQ(frames[0], std::vector<float>(samples.begin(), samples.begin() + frameSamples));
    // The remainder moved to the front and leads the next frame.
    feedMono(std::vector<float>(1, 0.125f));
    std::vector<float> expected(samples.begin() + frameSamples, samples.end());
    expected.push_back(0.125f);
    const auto next = recorder.frames();
    ASSERT_EQ(next.size(), 2u);
    EXPECT_EQ(next[1], expected);
}

TEST_F(FramePipelineTest, FramesAreBitExactCopiesOfPendingAsLittleEndianFloats) {
    configure(16000);
    auto samples = randomSamples(4 * frameSamples, 7);
    samples[3] = -0.0f;
    samples[10] = std::numeric_limits<float>::denorm_min();
    samples[20] = 1.0e30f;
    feedMono(samples);
    const auto frames = recorder.frames();
    ASSERT_EQ(frames.size(), 4u);
    for (auto size : recorder.byteSizes()) EXPECT_EQ(size, 6400u);
    for (std::size_t frame = 0; frame < 4; ++frame) {
        EXPECT_EQ(std::memcmp(frames[frame].data(), samples.data() + frame * frameSamples,
                              frameSamples * sizeof(float)),
                  0);
    }
}

TEST_F(FramePipelineTest, AFrameOfZerosHasLevelZero) {
    configure(16000);
    feedMono(std::vector<float>(frameSamples, 0.0f));
    EXPECT_EQ(recorder.levels(), std::vector<float>{0.0f});
}

TEST_F(FramePipelineTest, AFullScaleSquareWaveHasLevelOne) {
    configure(16000);
    std::vector<float> square(frameSamples);
    for (std::size_t i = 0; i < square.size(); ++i) square[i] = (i / 8) % 2 == 0 ? 1.0f : -1.0f;
    feedMono(square);
    EXPECT_EQ(recorder.levels(), std::vector<float>{1.0f});
}

TEST_F(FramePipelineTest, AFullScaleSineHasLevelAboutOneOverRootTwo) {
    configure(16000);
    std::vector<float> sine(frameSamples);
    for (std::size_t i = 0; i < sine.size(); ++i) {
        sine[i] = static_cast<float>(std::sin(2.0 * std::numbers::pi * 1000.0 * i / 16000.0));
    }
    feedMono(sine);
    const auto levels = recorder.levels();
    ASSERT_EQ(levels.size(), 1u);
    EXPECT_NEAR(levels[0], 0.7071f, 1e-4f);
}

TEST_F(FramePipelineTest, LevelIsThePlainRmsAccumulatedInFloat) {
    configure(16000);
    const auto samples = randomSamples(frameSamples, 8);
    feedMono(samples);
    float sumOfSquares = 0.0f;
    for (float sample : samples) sumOfSquares += sample * sample;
    EXPECT_EQ(recorder.levels(), std::vector<float>{std::sqrt(sumOfSquares / 1600.0f)});
}

TEST_F(FramePipelineTest, EachLevelIsDeliveredJustBeforeItsFrame) {
    configure(16000);
    feedMono(randomSamples(3 * frameSamples, 9));
    EXPECT_EQ(recorder.order(), "LFLFLF");
}

TEST_F(FramePipelineTest, FramesWithoutReceiversAreStillCounted) {
    pipeline->setOnFrame(nullptr);
    pipeline->setOnLevel(nullptr);
    configure(16000);
    feedMono(std::vector<float>(2 * frameSamples, 0.5f));
    EXPECT_EQ(queue.sync([&] { return pipeline->emittedSamples(); }), 3200);
    EXPECT_EQ(pending(), 0u);
}

TEST_F(FramePipelineTest, EmptyBufferListChangesNothing) {
    configure(16000);
    feedMono(std::vector<float>(100, 0.5f));
    feed({});
    EXPECT_EQ(pending(), 100u);
}

TEST_F(FramePipelineTest, MissingDataInTheInterleavedPathIgnoresTheCallback) {
    configure(16000);
    FakeBuffer buffer = monoBuffer(std::vector<float>(frameSamples, 0.5f));
    buffer.hasData = false;
    feed({buffer});
    EXPECT_EQ(pending(), 0u);
    EXPECT_EQ(recorder.frameCount(), 0u);
}

TEST_F(FramePipelineTest, ConfiguringTheConverterEmptiesPending) {
    configure(16000);
    feedMono(std::vector<float>(1000, 0.5f));
    configure(44100);
    EXPECT_EQ(pending(), 0u);
}

TEST_F(FramePipelineTest, ClearingRemovesTheConverterAndDiscardsThePartialFrame) {
    configure(48000);
    feedInterleaved(std::vector<float>(2 * 4800, 0.5f), 2);
    ASSERT_GT(pending(), 0u);
    pipeline->clear();
    EXPECT_FALSE(hasConverter());
    EXPECT_EQ(pending(), 0u);
}

// A converter that fails while told to, and otherwise passes samples through.
class ScriptedResampler final : public Resampler {
  public:
    explicit ScriptedResampler(std::shared_ptr<std::optional<std::string>> failure)
        : failure_(std::move(failure)) {}

    std::optional<std::string> process(std::span<const float> input,
                                       std::vector<float>& output) override {
        if (*failure_) return **failure_;
        output.insert(output.end(), input.begin(), input.end());
        return std::nullopt;
    }

  private:
    std::shared_ptr<std::optional<std::string>> failure_;
};

class FramePipelineConverterTest : public PipelineTestFixture {
  protected:
    void SetUp() override {
        pipeline = FramePipeline::create(queue, clock, timers, [this](double, double) {
            ++made;
            return std::make_unique<ScriptedResampler>(failure);
        });
        PipelineTestFixture::SetUp();
        configure(48000, true, 1);
    }

    std::shared_ptr<std::optional<std::string>> failure =
        std::make_shared<std::optional<std::string>>();
    int made = 0;
};

TEST_F(FramePipelineConverterTest, AConverterErrorIsLoggedAndThatCallbacksAudioDropped) {
    *failure = "input rate too high";
    CaptureLog log;
    feedMono(std::vector<float>(1000, 0.5f));
    EXPECT_EQ(pending(), 0u);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Resampler error: input rate too high"});
    // The converter is kept: the next callback goes through it again.
    failure->reset();
    feedMono(std::vector<float>(1000, 0.5f));
    EXPECT_EQ(pending(), 1000u);
    EXPECT_EQ(made, 1);
}

TEST_F(FramePipelineConverterTest, AConverterErrorWithoutTextIsLoggedAsQuestionMark) {
    *failure = "";
    CaptureLog log;
    feedMono(std::vector<float>(10, 0.5f));
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Resampler error: ?"});
}

TEST_F(FramePipelineTest, WithoutAConverterTheSamplesPassThroughUnconverted) {
    pipeline = FramePipeline::create(queue, clock, timers, [](double, double) { return nullptr; });
    pipeline->setOnFrame(recorder.frameSink());
    CaptureLog log;
    configure(48000, true, 1);
    EXPECT_FALSE(hasConverter());
    feedMono(std::vector<float>(frameSamples, 0.5f));
    EXPECT_EQ(recorder.frameCount(), 1u);
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace velmora::testing
