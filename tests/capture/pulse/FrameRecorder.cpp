#include "capture/pulse/FrameRecorder.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace velmora::testing {

void FrameRecorder::record(const std::vector<std::byte>& bytes) {
    Frame frame{Clock::now(), std::vector<float>(bytes.size() / sizeof(float))};
    std::memcpy(frame.samples.data(), bytes.data(), frame.samples.size() * sizeof(float));
    {
        std::lock_guard lock(mutex_);
        if (bytes.size() != 6400) {
            ++badSizes_;
        }
        frames_.push_back(std::move(frame));
    }
    changed_.notify_all();
}

std::vector<FrameRecorder::Frame> FrameRecorder::frames() const {
    std::lock_guard lock(mutex_);
    return frames_;
}

std::size_t FrameRecorder::count() const {
    std::lock_guard lock(mutex_);
    return frames_.size();
}

std::size_t FrameRecorder::badSizes() const {
    std::lock_guard lock(mutex_);
    return badSizes_;
}

bool FrameRecorder::waitUntil(const std::function<bool(const std::vector<Frame>&)>& done,
                              std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return done(frames_); });
}

bool FrameRecorder::waitForMore(std::size_t count, std::chrono::milliseconds timeout) const {
    const std::size_t target = this->count() + count;
    return waitUntil([&](const auto& frames) { return frames.size() >= target; }, timeout);
}

float FrameRecorder::peak(const Frame& frame) {
    float result = 0;
    for (float sample : frame.samples) {
        result = std::max(result, std::abs(sample));
    }
    return result;
}

double FrameRecorder::frequency(const Frame& frame) {
    std::size_t rising = 0;
    for (std::size_t index = 1; index < frame.samples.size(); ++index) {
        if (frame.samples[index - 1] < 0 && frame.samples[index] >= 0) {
            ++rising;
        }
    }
    const double seconds = static_cast<double>(frame.samples.size()) / 16000.0;
    return static_cast<double>(rising) / seconds;
}

}  // namespace velmora::testing
