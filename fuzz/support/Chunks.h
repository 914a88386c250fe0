#pragma once

#include <cstddef>
#include <cstdint>

namespace velmora::fuzzing {

// How input bytes are cut into the writes that reach the code under test: a deterministic
// sequence of sizes picked by one seed byte, from single bytes to whole buffers, so a parser
// meets every boundary (inside a header, a length, a mask, a payload) over the runs.
class Chunks {
  public:
    explicit Chunks(std::uint8_t seed)
        : largest_(largestFor(seed)), state_(0x9E3779B9u ^ (seed * 0x01000193u)) {}

    std::size_t next() {
        // xorshift32: cheap and reproducible from the seed alone.
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        return 1 + state_ % largest_;
    }

  private:
    static std::size_t largestFor(std::uint8_t seed) {
        static constexpr std::size_t sizes[] = {1, 2, 7, 64, 1500, 1 << 16};
        return sizes[seed % (sizeof sizes / sizeof sizes[0])];
    }

    std::size_t largest_;
    std::uint32_t state_;
};

}  // namespace velmora::fuzzing
