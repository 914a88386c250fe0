#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace velmora {

enum class ResamplerQuality { high, veryHigh };
enum class ResamplerPhase { linear, intermediate, minimum };

struct ResamplerSettings {
    ResamplerQuality quality = ResamplerQuality::high;
    // Minimum phase has the lowest delay of the variants that keep the conversion clean
    // (1 kHz at >= 90 dB SNR, a 9 kHz tone from 48 kHz >= 80 dB down).
    ResamplerPhase phase = ResamplerPhase::minimum;
};

// A streaming mono float resampler: one call per device callback, filter state kept between
// calls, never flushed (the stream has no end).
class Resampler {
  public:
    using Quality = ResamplerQuality;
    using Phase = ResamplerPhase;
    using Settings = ResamplerSettings;

    // Nothing when the resampler cannot be made for these rates.
    static std::unique_ptr<Resampler> create(double inputRate, double outputRate,
                                             Settings settings = {});
    ~Resampler();

    Resampler(const Resampler&) = delete;
    Resampler& operator=(const Resampler&) = delete;

    // Converts `input` and appends what comes out to `output`. On failure returns the
    // resampler's text (empty when it gave none), leaves `output` as it was, and stays usable.
    std::optional<std::string> process(std::span<const float> input, std::vector<float>& output);

    // The filter's current delay, in output samples.
    double delayInOutputSamples() const;

    double inputRate() const { return inputRate_; }
    double outputRate() const { return outputRate_; }

  private:
    struct Handle;
    Resampler(std::unique_ptr<Handle> handle, double inputRate, double outputRate);

    std::unique_ptr<Handle> handle_;
    double inputRate_;
    double outputRate_;
};

}  // namespace velmora
