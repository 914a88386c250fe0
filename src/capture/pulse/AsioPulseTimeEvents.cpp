// time events: one steady timer each, on libpulse's wall-clock or monotonic deadlines.

#include <pulse/timeval.h>
#include <sys/time.h>

#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>

#include "capture/pulse/AsioPulseLoopEvents.h"

namespace velmora {
namespace asio_pulse_loop {
namespace {

// libpulse marks a time given on its monotonic clock with this bit in tv_usec; a loop other than
// its own normally gets wall-clock times, but both are honoured.
constexpr suseconds_t monotonicTimeFlag = static_cast<suseconds_t>(1LU << 30);

std::chrono::steady_clock::time_point deadlineOf(const struct timeval& when) {
    struct timeval plain = when;
    const bool monotonic = (plain.tv_usec & monotonicTimeFlag) != 0;
    plain.tv_usec &= ~monotonicTimeFlag;
    const auto target =
        std::chrono::seconds(plain.tv_sec) + std::chrono::microseconds(plain.tv_usec);
    if (monotonic) {
        // The steady clock is CLOCK_MONOTONIC, libpulse's monotonic clock.
        return std::chrono::steady_clock::time_point(
            std::chrono::duration_cast<std::chrono::steady_clock::duration>(target));
    }
    struct timeval now {};
    ::gettimeofday(&now, nullptr);
    const auto wallNow = std::chrono::seconds(now.tv_sec) + std::chrono::microseconds(now.tv_usec);
    return std::chrono::steady_clock::now() +
           std::chrono::duration_cast<std::chrono::steady_clock::duration>(target - wallNow);
}

struct TimeEvent final : Event {
    using Event::Event;

    void detachUnderLock() override { timer.reset(); }

    void restart(const struct timeval* when) {
        ++generation;
        if (!timer) return;
        timer->cancel();
        if (when == nullptr) return;
        time = *when;
        timer->expires_at(deadlineOf(*when));
        timer->async_wait(
            [event = hold(this), armed = generation](const boost::system::error_code& error) {
                if (error || event->dead || event->generation != armed) return;
                // Disabled before the call, as in libpulse's own loop; the callback may re-arm it.
                ++event->generation;
                event->callback(&event->shared.api, reinterpret_cast<pa_time_event*>(event.get()),
                                &event->time, event->userdata);
            });
    }

    pa_time_event_cb_t callback = nullptr;
    void* userdata = nullptr;
    pa_time_event_destroy_cb_t destroy = nullptr;
    std::unique_ptr<boost::asio::steady_timer> timer;
    struct timeval time {};
    std::uint64_t generation = 0;
};

pa_time_event* timeNew(pa_mainloop_api* api, const struct timeval* when,
                       pa_time_event_cb_t callback, void* userdata) {
    Shared& shared = sharedOf(api);
    auto event = std::make_shared<TimeEvent>(shared);
    event->callback = callback;
    event->userdata = userdata;
    {
        MutexLock lock(shared.mutex);
        if (shared.context != nullptr) {
            event->timer = std::make_unique<boost::asio::steady_timer>(*shared.context);
        }
    }
    registerEvent(event);
    event->restart(when);
    return reinterpret_cast<pa_time_event*>(event.get());
}

void timeRestart(pa_time_event* handle, const struct timeval* when) {
    reinterpret_cast<TimeEvent*>(handle)->restart(when);
}

void timeFree(pa_time_event* handle) {
    auto* event = reinterpret_cast<TimeEvent*>(handle);
    if (event->destroy != nullptr) {
        event->destroy(&event->shared.api, handle, event->userdata);
    }
    release(event);
}

void timeSetDestroy(pa_time_event* handle, pa_time_event_destroy_cb_t destroy) {
    reinterpret_cast<TimeEvent*>(handle)->destroy = destroy;
}

}  // namespace

void installTimeEvents(pa_mainloop_api& api) {
    api.time_new = timeNew;
    api.time_restart = timeRestart;
    api.time_free = timeFree;
    api.time_set_destroy = timeSetDestroy;
}

}  // namespace asio_pulse_loop
}  // namespace velmora
