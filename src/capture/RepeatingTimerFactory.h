#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace velmora {

class QueueTimer;
class SerialQueue;

// Makes repeating timers that fire on a given queue. The frame pipeline takes it from outside
// so tests can fire its padding timer by hand.
class RepeatingTimerFactory {
  public:
    using Duration = std::chrono::nanoseconds;

    virtual ~RepeatingTimerFactory() = default;

    // Runs work on `queue` first after `first`, then every `interval`, until cancelled.
    virtual std::shared_ptr<QueueTimer> repeat(SerialQueue& queue, Duration first,
                                               Duration interval, std::function<void()> work) = 0;
};

// Timers of the queue itself, on the steady clock.
std::shared_ptr<RepeatingTimerFactory> queueTimerFactory();

}  // namespace velmora
