#pragma once

#include <cstdint>

namespace velmora {

// The stream format a platform tap reports; the capture decides whether it can use it.
struct TapStreamFormat {
    bool isLinearPCM = true;
    bool isFloat = true;
    std::uint32_t bitsPerChannel = 32;
    double sampleRate = 48000.0;  // 0 or less means unknown
    std::int64_t channelsPerFrame = 2;
    bool nonInterleaved = false;
};

}  // namespace velmora
