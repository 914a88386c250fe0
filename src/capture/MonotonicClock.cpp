#include "capture/MonotonicClock.h"

#include <chrono>

namespace velmora {
namespace {

class SteadyMonotonicClock final : public MonotonicClock {
  public:
    std::uint64_t nowNanoseconds() override {
        auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
        return static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(sinceStart).count());
    }
};

}  // namespace

std::shared_ptr<MonotonicClock> steadyMonotonicClock() {
    static const auto clock = std::make_shared<SteadyMonotonicClock>();
    return clock;
}

}  // namespace velmora
