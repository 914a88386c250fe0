#include "capture/SoxrResampler.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "capture/SignalAnalysis.h"

namespace velmora::testing {
namespace {

struct Figures {
    double averageDelayMilliseconds;
    double snrDecibels;
    double stopBandDecibels;
};

// Streams `input` through in 10 ms callbacks.
std::vector<float> stream(SoxrResampler& resampler, const std::vector<float>& input,
                          double* averageHeldBack = nullptr) {
    const auto perCallback = static_cast<std::size_t>(resampler.inputRate() / 100.0);
    const double ratio = resampler.outputRate() / resampler.inputRate();
    std::vector<float> output;
    double heldBackSum = 0;
    std::size_t callbacks = 0;
    for (std::size_t start = 0; start < input.size(); start += perCallback) {
        const std::size_t count = std::min(perCallback, input.size() - start);
        EXPECT_FALSE(resampler.process({input.data() + start, count}, output));
        // What has gone in but not yet come out: the delay the resampler adds right now.
        if (start > input.size() / 4) {
            heldBackSum +=
                static_cast<double>(start + count) * ratio - static_cast<double>(output.size());
            ++callbacks;
        }
    }
    if (averageHeldBack != nullptr) *averageHeldBack = heldBackSum / static_cast<double>(callbacks);
    return output;
}

Figures measure(ResamplerSettings settings) {
    const double amplitude = 0.5;
    auto resampler = SoxrResampler::create(48000, 16000, settings);
    double heldBack = 0;
    auto tone = stream(*resampler, sine(48000 * 4, 1000, 48000, amplitude), &heldBack);
    auto fit = fitSine(tone, 4000, 56000, 1000, 16000, amplitude);
    auto stopBand = SoxrResampler::create(48000, 16000, settings);
    auto high = stream(*stopBand, sine(48000 * 4, 9000, 48000, amplitude));
    const double attenuation =
        20 * std::log10((amplitude / std::sqrt(2.0)) / rms(high, 4000, 56000));
    return Figures{heldBack / 16.0, fit.snrAgainstIdealDecibels, attenuation};
}

const char* nameOf(ResamplerSettings settings) {
    const bool high = settings.quality == ResamplerQuality::high;
    switch (settings.phase) {
        case ResamplerPhase::linear:
            return high ? "HQ linear phase" : "VHQ linear phase";
        case ResamplerPhase::intermediate:
            return high ? "HQ intermediate phase" : "VHQ intermediate phase";
        case ResamplerPhase::minimum:
            return high ? "HQ minimum phase" : "VHQ minimum phase";
    }
    return "?";
}

TEST(SoxrResamplerTest, TheDefaultHasTheLowestDelayOfTheVariantsThatStayClean) {
    const ResamplerSettings chosen;
    const Figures chosenFigures = measure(chosen);
    EXPECT_GE(chosenFigures.snrDecibels, 90.0);
    EXPECT_GE(chosenFigures.stopBandDecibels, 80.0);
    for (auto quality : {ResamplerQuality::high, ResamplerQuality::veryHigh}) {
        for (auto phase :
             {ResamplerPhase::linear, ResamplerPhase::intermediate, ResamplerPhase::minimum}) {
            const ResamplerSettings variant{quality, phase};
            const Figures figures = measure(variant);
            std::printf("%-22s delay %5.1f ms  SNR %6.1f dB  9 kHz %6.1f dB down\n",
                        nameOf(variant), figures.averageDelayMilliseconds, figures.snrDecibels,
                        figures.stopBandDecibels);
            if (figures.snrDecibels >= 90.0 && figures.stopBandDecibels >= 80.0) {
                EXPECT_LE(chosenFigures.averageDelayMilliseconds, figures.averageDelayMilliseconds)
                    << nameOf(variant) << " is clean and quicker than the default";
            }
        }
    }
    RecordProperty("delay_ms", std::to_string(chosenFigures.averageDelayMilliseconds));
}

TEST(SoxrResamplerTest, StateIsKeptAcrossCallsWhateverTheirSizes) {
    const auto input = sine(48000, 440, 48000, 0.5);
    auto whole = SoxrResampler::create(48000, 16000);
    std::vector<float> once;
    ASSERT_FALSE(whole->process(input, once));
    auto pieces = SoxrResampler::create(48000, 16000);
    std::vector<float> piecewise;
    const std::size_t sizes[] = {1, 7, 480, 1024, 3};
    std::size_t start = 0;
    for (std::size_t i = 0; start < input.size(); ++i) {
        const std::size_t count = std::min(sizes[i % 5], input.size() - start);
        ASSERT_FALSE(pieces->process({input.data() + start, count}, piecewise));
        start += count;
    }
    const std::size_t common = std::min(once.size(), piecewise.size());
    ASSERT_GT(common, 14000u);
    for (std::size_t n = 0; n < common; ++n) ASSERT_NEAR(piecewise[n], once[n], 1e-6f) << n;
}

TEST(SoxrResamplerTest, OutputIsAppendedAfterWhatIsAlreadyThere) {
    auto resampler = SoxrResampler::create(48000, 16000);
    std::vector<float> output{7.0f, 8.0f};
    ASSERT_FALSE(resampler->process(std::vector<float>(48000, 0.25f), output));
    ASSERT_GT(output.size(), 2u);
    EXPECT_EQ(output[0], 7.0f);
    EXPECT_EQ(output[1], 8.0f);
}

TEST(SoxrResamplerTest, RatesItCannotUseYieldNoResampler) {
    EXPECT_EQ(SoxrResampler::create(0, 16000), nullptr);
    EXPECT_EQ(SoxrResampler::create(-44100, 16000), nullptr);
    EXPECT_EQ(SoxrResampler::create(std::nan(""), 16000), nullptr);
}

}  // namespace
}  // namespace velmora::testing
