#include "capture/RepeatingTimerFactory.h"

#include "config/SerialQueue.h"

namespace velmora {
namespace {

class QueueTimerFactory final : public RepeatingTimerFactory {
  public:
    std::shared_ptr<QueueTimer> repeat(SerialQueue& queue, Duration first, Duration interval,
                                       std::function<void()> work) override {
        return queue.repeat(first, interval, SerialQueue::Duration::zero(), std::move(work));
    }
};

}  // namespace

std::shared_ptr<RepeatingTimerFactory> queueTimerFactory() {
    static const auto factory = std::make_shared<QueueTimerFactory>();
    return factory;
}

}  // namespace velmora
