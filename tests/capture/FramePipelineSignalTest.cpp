#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "capture/PipelineTestFixture.h"
#include "capture/SignalAnalysis.h"

namespace velmora::testing {
namespace {

constexpr double outputRate = 16000.0;

class FramePipelineSignalTest : public PipelineTestFixture {
  protected:
    // Feeds `mono` as `channels` identical interleaved channels in 10 ms callbacks and returns
    // every sample that came out in frames.
    std::vector<float> runInterleaved(const std::vector<float>& mono, double rate,
                                      std::uint32_t channels) {
        configure(rate, true, channels);
        const auto perCallback = static_cast<std::size_t>(rate / 100.0);
        for (std::size_t start = 0; start < mono.size(); start += perCallback) {
            const std::size_t count = std::min(perCallback, mono.size() - start);
            std::vector<float> interleaved;
            interleaved.reserve(count * channels);
            for (std::size_t i = 0; i < count; ++i) {
                for (std::uint32_t channel = 0; channel < channels; ++channel) {
                    interleaved.push_back(mono[start + i]);
                }
            }
            feedInterleaved(interleaved, channels);
        }
        return recorder.samples();
    }
};

TEST_F(FramePipelineSignalTest, OneKilohertzAt48kHzStereoComesOutAtOneKilohertzAbove90dBSnr) {
    const double amplitude = 0.5;
    const auto out = runInterleaved(sine(48000 * 3, 1000, 48000, amplitude), 48000, 2);
    ASSERT_GE(out.size(), 40000u);
    // Skip the first quarter second, where the filter starts up.
    const auto fit = fitSine(out, 4000, 40000, 1000, outputRate, amplitude);
    const double frequency = zeroCrossingFrequency(out, 4000, 40000, outputRate);
    std::printf("1 kHz at 48 kHz stereo: %.4f Hz, gain %.6f dB, SNR %.1f dB (vs ideal %.1f dB)\n",
                frequency, 20 * std::log10(fit.amplitude / amplitude), fit.snrDecibels,
                fit.snrAgainstIdealDecibels);
    RecordProperty("snr_db", std::to_string(fit.snrAgainstIdealDecibels));
    EXPECT_NEAR(frequency, 1000.0, 0.01);
    EXPECT_GE(fit.snrAgainstIdealDecibels, 90.0);
    EXPECT_GE(fit.snrDecibels, 90.0);
}

TEST_F(FramePipelineSignalTest, NineKilohertzAt48kHzComesOutAtLeast80dBDown) {
    const double amplitude = 0.5;
    const auto out = runInterleaved(sine(48000 * 3, 9000, 48000, amplitude), 48000, 2);
    ASSERT_GE(out.size(), 40000u);
    const double attenuation =
        20 * std::log10((amplitude / std::sqrt(2.0)) / rms(out, 4000, 40000));
    std::printf("9 kHz at 48 kHz: %.1f dB down\n", attenuation);
    RecordProperty("stop_band_attenuation_db", std::to_string(attenuation));
    EXPECT_GE(attenuation, 80.0);
}

TEST_F(FramePipelineSignalTest, OneKilohertzAt44point1kHzIsResampledCleanly) {
    const double amplitude = 0.5;
    const auto out = runInterleaved(sine(44100 * 3, 1000, 44100, amplitude), 44100, 2);
    // Three seconds in, three seconds out less what the filter still holds.
    EXPECT_GE(out.size(), 46400u);
    EXPECT_LE(out.size(), 48000u);
    const auto fit = fitSine(out, 4000, 40000, 1000, outputRate, amplitude);
    EXPECT_NEAR(zeroCrossingFrequency(out, 4000, 40000, outputRate), 1000.0, 0.01);
    EXPECT_GE(fit.snrAgainstIdealDecibels, 90.0);
}

TEST_F(FramePipelineSignalTest, SixteenKilohertzInputPassesThroughUnchanged) {
    const auto input = sine(16000 * 2, 1000, 16000, 0.5);
    const auto out = runInterleaved(input, 16000, 1);
    ASSERT_EQ(out.size(), input.size());
    EXPECT_EQ(std::memcmp(out.data(), input.data(), input.size() * sizeof(float)), 0);
}

TEST_F(FramePipelineSignalTest, OutputKeepsSixteenThousandSamplesPerSecondOfInput) {
    const auto out = runInterleaved(std::vector<float>(48000 * 10, 0.25f), 48000, 2);
    // Ten seconds in: 100 frames, less at most the resampler's hold-back of under 100 ms.
    EXPECT_GE(out.size(), 158400u);
    EXPECT_LE(out.size(), 160000u);
}

}  // namespace
}  // namespace velmora::testing
