#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace velmora {

// A streaming mono float sample-rate converter: one call per device callback, filter state kept
// between calls, never flushed (the stream has no end).
class Resampler {
  public:
    virtual ~Resampler() = default;

    // Converts `input` and appends what comes out to `output`. On failure returns the
    // converter's text (empty when it gave none), leaves `output` as it was, and stays usable.
    virtual std::optional<std::string> process(std::span<const float> input,
                                               std::vector<float>& output) = 0;
};

// Makes a converter between two rates, or nothing when it cannot.
using ResamplerFactory =
    std::function<std::unique_ptr<Resampler>(double inputRate, double outputRate)>;

}  // namespace velmora
