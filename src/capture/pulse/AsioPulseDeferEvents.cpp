// defer events: posted to the io_context, once per turn of the loop while enabled.

#include <boost/asio/post.hpp>

#include "capture/pulse/AsioPulseLoopEvents.h"

namespace velmora {
namespace asio_pulse_loop {
namespace {

struct DeferEvent final : Event {
    using Event::Event;

    void detachUnderLock() override { context = nullptr; }

    void schedule() {
        if (posted || dead || !enabled || context == nullptr) return;
        posted = true;
        boost::asio::post(*context, [event = hold(this)] {
            event->posted = false;
            event->fire();
        });
    }

    // An enabled defer event runs on every turn of the loop until it is disabled.
    void fire() {
        if (dead || !enabled) return;
        callback(&shared.api, reinterpret_cast<pa_defer_event*>(this), userdata);
        schedule();
    }

    pa_defer_event_cb_t callback = nullptr;
    void* userdata = nullptr;
    pa_defer_event_destroy_cb_t destroy = nullptr;
    boost::asio::io_context* context = nullptr;
    bool enabled = true;
    bool posted = false;
};

pa_defer_event* deferNew(pa_mainloop_api* api, pa_defer_event_cb_t callback, void* userdata) {
    Shared& shared = sharedOf(api);
    auto event = std::make_shared<DeferEvent>(shared);
    event->callback = callback;
    event->userdata = userdata;
    {
        MutexLock lock(shared.mutex);
        event->context = shared.context;
    }
    registerEvent(event);
    event->schedule();
    return reinterpret_cast<pa_defer_event*>(event.get());
}

void deferEnable(pa_defer_event* handle, int enable) {
    auto* event = reinterpret_cast<DeferEvent*>(handle);
    event->enabled = enable != 0;
    event->schedule();
}

void deferFree(pa_defer_event* handle) {
    auto* event = reinterpret_cast<DeferEvent*>(handle);
    if (event->destroy != nullptr) {
        event->destroy(&event->shared.api, handle, event->userdata);
    }
    release(event);
}

void deferSetDestroy(pa_defer_event* handle, pa_defer_event_destroy_cb_t destroy) {
    reinterpret_cast<DeferEvent*>(handle)->destroy = destroy;
}

}  // namespace

void installDeferEvents(pa_mainloop_api& api) {
    api.defer_new = deferNew;
    api.defer_enable = deferEnable;
    api.defer_free = deferFree;
    api.defer_set_destroy = deferSetDestroy;
}

}  // namespace asio_pulse_loop
}  // namespace velmora
