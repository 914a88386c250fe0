#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <vector>

namespace velmora::testing {

// Keeps every frame the capture emits with the moment it arrived, for tests to wait on.
class FrameRecorder {
  public:
    using Clock = std::chrono::steady_clock;

    struct Frame {
        Clock::time_point arrival;
        std::vector<float> samples;
    };

    // The capture's onFrame: 6 400 bytes of little-endian float32 each.
    void record(const std::vector<std::byte>& bytes);

    std::vector<Frame> frames() const;
    std::size_t count() const;
    std::size_t badSizes() const;
    // Waits at most `timeout` until `done(frames)` holds; true if it does.
    bool waitUntil(const std::function<bool(const std::vector<Frame>&)>& done,
                   std::chrono::milliseconds timeout) const;
    // Waits until `count` more frames than now have arrived.
    bool waitForMore(std::size_t count, std::chrono::milliseconds timeout) const;

    static float peak(const Frame& frame);
    // The tone's frequency from its rising zero crossings over the frame's 0.1 s.
    static double frequency(const Frame& frame);

  private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Frame> frames_;
    std::size_t badSizes_ = 0;
};

}  // namespace velmora::testing
