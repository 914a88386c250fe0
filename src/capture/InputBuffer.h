#pragma once

#include <cstdint>
#include <span>

namespace velmora {

// One buffer of 32-bit float input as the platform delivers it (the data is only borrowed).
struct InputBuffer {
    std::uint32_t channelCount = 0;  // channels interleaved in this buffer
    std::uint32_t byteSize = 0;
    const void* data = nullptr;  // may be absent
};

// The buffers of one device callback: one interleaved buffer, or one buffer per channel.
struct InputBufferList {
    std::span<const InputBuffer> buffers;
};

}  // namespace velmora
