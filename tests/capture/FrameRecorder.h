#pragma once

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "capture/FramePipeline.h"

namespace velmora::testing {

// Collects frames and levels from the capture queue; the test reads and waits from its own.
class FrameRecorder {
  public:
    std::function<void(FramePipeline::Frame)> frameSink() {
        return [state = state_](FramePipeline::Frame frame) {
            std::lock_guard lock(state->mutex);
            state->order += 'F';
            state->byteSizes.push_back(frame.size());
            std::vector<float> samples(frame.size() / sizeof(float));
            std::memcpy(samples.data(), frame.data(), samples.size() * sizeof(float));
            state->frames.push_back(std::move(samples));
            state->changed.notify_all();
        };
    }

    std::function<void(float)> levelSink() {
        return [state = state_](float level) {
            std::lock_guard lock(state->mutex);
            state->order += 'L';
            state->levels.push_back(level);
        };
    }

    std::size_t frameCount() const {
        std::lock_guard lock(state_->mutex);
        return state_->frames.size();
    }
    std::vector<std::vector<float>> frames() const {
        std::lock_guard lock(state_->mutex);
        return state_->frames;
    }
    std::vector<float> levels() const {
        std::lock_guard lock(state_->mutex);
        return state_->levels;
    }
    std::vector<std::size_t> byteSizes() const {
        std::lock_guard lock(state_->mutex);
        return state_->byteSizes;
    }
    // 'L' for a level, 'F' for a frame, in the order they came.
    std::string order() const {
        std::lock_guard lock(state_->mutex);
        return state_->order;
    }
    // All samples of all frames, in order.
    std::vector<float> samples() const {
        std::vector<float> all;
        for (const auto& frame : frames()) all.insert(all.end(), frame.begin(), frame.end());
        return all;
    }
    // Waits (generously) for at least `count` frames; false if they never came.
    bool waitForFrames(std::size_t count,
                       std::chrono::milliseconds limit = std::chrono::seconds(20)) const {
        std::unique_lock lock(state_->mutex);
        return state_->changed.wait_for(lock, limit,
                                        [&] { return state_->frames.size() >= count; });
    }

  private:
    struct State {
        mutable std::mutex mutex;
        std::condition_variable changed;
        std::vector<std::vector<float>> frames;
        std::vector<std::size_t> byteSizes;
        std::vector<float> levels;
        std::string order;
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

// Records named events with their steady-clock time, from any thread, and waits for them.
class EventRecorder {
  public:
    using Clock = std::chrono::steady_clock;
    struct Event {
        std::string name;
        Clock::time_point at;
    };

    void record(std::string name) {
        std::lock_guard lock(mutex_);
        events_.push_back(Event{std::move(name), Clock::now()});
        changed_.notify_all();
    }
    std::vector<Event> events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    std::size_t count(const std::string& name) const {
        std::lock_guard lock(mutex_);
        std::size_t total = 0;
        for (const auto& event : events_) total += event.name == name ? 1 : 0;
        return total;
    }
    bool waitForCount(const std::string& name, std::size_t wanted,
                      std::chrono::milliseconds limit = std::chrono::seconds(20)) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] {
            std::size_t total = 0;
            for (const auto& event : events_) total += event.name == name ? 1 : 0;
            return total >= wanted;
        });
    }

  private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Event> events_;
};

}  // namespace velmora::testing
