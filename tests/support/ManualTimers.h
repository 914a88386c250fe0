#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "capture/RepeatingTimerFactory.h"
#include "support/ManualClock.h"

namespace velmora::testing {

// Repeating timers driven by a ManualClock: advance() moves the clock tick by tick and fires
// every timer that falls due, on the timer's own queue (waiting for it), in deadline order.
// Tests thereby move time without sleeping. Safe from any thread but the timers' queues.
class ManualTimers final : public RepeatingTimerFactory {
  public:
    explicit ManualTimers(std::shared_ptr<ManualClock> clock);

    std::shared_ptr<QueueTimer> repeat(SerialQueue& queue, Duration first, Duration interval,
                                       std::function<void()> work) override;

    // Moves the clock forward by `step`, firing what falls due on the way.
    void advance(std::chrono::nanoseconds step);

    // Timers created and not cancelled.
    std::size_t activeCount();
    std::size_t createdCount();

    const std::shared_ptr<ManualClock>& clock() const { return clock_; }

  private:
    struct Entry;
    std::shared_ptr<ManualClock> clock_;
    std::mutex mutex_;
    std::vector<std::shared_ptr<Entry>> entries_;
    std::size_t created_ = 0;
};

}  // namespace velmora::testing
