#include "support/ManualTimers.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <optional>

#include "config/SerialQueue.h"

namespace velmora::testing {

struct ManualTimers::Entry final : QueueTimer {
    Entry(SerialQueue& queue, std::uint64_t deadline, std::uint64_t interval,
          std::function<void()> work)
        : queue(queue), deadline(deadline), interval(interval), work(std::move(work)) {}

    void cancel() override { cancelled = true; }
    bool isCancelled() const override { return cancelled; }

    SerialQueue& queue;
    std::uint64_t deadline;  // guarded by the owner's mutex
    const std::uint64_t interval;
    const std::function<void()> work;
    std::atomic<bool> cancelled{false};
};

ManualTimers::ManualTimers(std::shared_ptr<ManualClock> clock) : clock_(std::move(clock)) {}

std::shared_ptr<QueueTimer> ManualTimers::repeat(SerialQueue& queue, Duration first,
                                                 Duration interval, std::function<void()> work) {
    auto entry = std::make_shared<Entry>(
        queue, clock_->nowNanoseconds() + static_cast<std::uint64_t>(first.count()),
        static_cast<std::uint64_t>(interval.count()), std::move(work));
    std::lock_guard lock(mutex_);
    entries_.push_back(entry);
    ++created_;
    return entry;
}

void ManualTimers::advance(std::chrono::nanoseconds step) {
    const std::uint64_t target =
        clock_->nowNanoseconds() + static_cast<std::uint64_t>(step.count());
    while (true) {
        std::shared_ptr<Entry> due;
        {
            std::lock_guard lock(mutex_);
            std::erase_if(entries_, [](const auto& entry) { return entry->isCancelled(); });
            for (const auto& entry : entries_) {
                if (entry->deadline <= target && (!due || entry->deadline < due->deadline)) {
                    due = entry;
                }
            }
            if (due) {
                clock_->setNanoseconds(std::max(clock_->nowNanoseconds(), due->deadline));
                // A one-shot timer is spent after its firing.
                due->deadline = due->interval == 0 ? std::numeric_limits<std::uint64_t>::max()
                                                   : due->deadline + due->interval;
            }
        }
        if (!due) break;
        auto fire = [due] {
            if (!due->isCancelled()) due->work();
        };
        if (due->queue.isCurrent()) {
            fire();
        } else {
            due->queue.runAndWait(fire);
        }
    }
    clock_->setNanoseconds(std::max(clock_->nowNanoseconds(), target));
}

std::size_t ManualTimers::activeCount() {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::count_if(
        entries_.begin(), entries_.end(), [](const auto& entry) { return !entry->isCancelled(); }));
}

std::size_t ManualTimers::createdCount() {
    std::lock_guard lock(mutex_);
    return created_;
}

}  // namespace velmora::testing
