#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "capture/MonotonicClock.h"

namespace velmora::testing {

// A monotonic clock that only moves when the test says so. Safe from any thread.
class ManualClock final : public MonotonicClock {
  public:
    explicit ManualClock(std::uint64_t startNanoseconds = 1'000'000'000) : now_(startNanoseconds) {}

    std::uint64_t nowNanoseconds() override { return now_.load(); }

    void setNanoseconds(std::uint64_t now) { now_.store(now); }
    void advance(std::chrono::nanoseconds step) {
        now_.fetch_add(static_cast<std::uint64_t>(step.count()));
    }

  private:
    std::atomic<std::uint64_t> now_;
};

}  // namespace velmora::testing
