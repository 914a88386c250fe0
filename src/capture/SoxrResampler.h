#pragma once

#include <memory>

#include "capture/Resampler.h"

namespace velmora {

enum class ResamplerQuality { high, veryHigh };
enum class ResamplerPhase { linear, intermediate, minimum };

struct ResamplerSettings {
    ResamplerQuality quality = ResamplerQuality::high;
    // Minimum phase has the lowest delay of the variants that keep the conversion clean
    // (1 kHz at >= 90 dB SNR, a 9 kHz tone from 48 kHz >= 80 dB down).
    ResamplerPhase phase = ResamplerPhase::minimum;
};

// The resampler on libsoxr, single-threaded, float in and out.
class SoxrResampler final : public Resampler {
  public:
    // Nothing when libsoxr refuses these rates.
    static std::unique_ptr<SoxrResampler> create(double inputRate, double outputRate,
                                                 ResamplerSettings settings = {});
    static ResamplerFactory factory(ResamplerSettings settings = {});
    ~SoxrResampler() override;

    SoxrResampler(const SoxrResampler&) = delete;
    SoxrResampler& operator=(const SoxrResampler&) = delete;

    std::optional<std::string> process(std::span<const float> input,
                                       std::vector<float>& output) override;

    // The filter's current delay, in output samples.
    double delayInOutputSamples() const;

    double inputRate() const { return inputRate_; }
    double outputRate() const { return outputRate_; }

  private:
    struct Handle;
    SoxrResampler(std::unique_ptr<Handle> handle, double inputRate, double outputRate);

    std::unique_ptr<Handle> handle_;
    double inputRate_;
    double outputRate_;
};

}  // namespace velmora
