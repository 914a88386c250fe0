#pragma once

#include <cstdint>
#include <memory>

namespace velmora {

// A clock that never goes back, in nanoseconds since an arbitrary start. The frame pipeline
// takes it from outside so tests can move time by hand.
class MonotonicClock {
  public:
    virtual ~MonotonicClock() = default;
    virtual std::uint64_t nowNanoseconds() = 0;
};

// The process's steady clock.
std::shared_ptr<MonotonicClock> steadyMonotonicClock();

}  // namespace velmora
