#pragma once

// What the io, time and defer events of AsioPulseMainLoop share: the loop's state, the base of
// every event, and the io events' watches. Only the loop's own files include it.

#include "capture/pulse/AsioPulseMainLoop.h"

#include <pulse/mainloop-api.h>
#include <sys/stat.h>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <memory>
#include <vector>

#include "config/ThreadSafety.h"

namespace velmora {
namespace asio_pulse_loop {

struct Event;
struct IoEvent;
struct Watch;

}  // namespace asio_pulse_loop

struct AsioPulseMainLoop::Shared {
    Shared() {
        // Room for what one connection uses, so that steady work never grows these.
        events.reserve(32);
        cachedWatches.reserve(8);
        spareIoEvents.reserve(4);
    }

    pa_mainloop_api api{};
    std::weak_ptr<Shared> weakSelf;
    // Guards `context`, `events` and the cached watches against the io_context ending, or the
    // loop being destroyed, on another thread.
    Mutex mutex;
    // null once the io_context has ended
    boost::asio::io_context* context VELMORA_GUARDED_BY(mutex) = nullptr;
    std::vector<asio_pulse_loop::Event*> events VELMORA_GUARDED_BY(mutex);
    // Watches of freed io events, kept until the end of this turn of the loop for an io_new on
    // the same descriptor, which then costs no new registration with the reactor.
    std::vector<std::shared_ptr<asio_pulse_loop::Watch>> cachedWatches VELMORA_GUARDED_BY(mutex);
    bool purgePosted VELMORA_GUARDED_BY(mutex) = false;

    // On the loop's thread (or once it has ended).
    // Freed io events kept for reuse: libpulse frees and makes one again for every fragment when
    // its socket is readable and writable at once.
    std::vector<std::unique_ptr<asio_pulse_loop::IoEvent>> spareIoEvents;

    // With `mutex` held.
    void detachAllUnderLock() VELMORA_REQUIRES(mutex);
    std::shared_ptr<asio_pulse_loop::Watch> takeWatchUnderLock(int fd) VELMORA_REQUIRES(mutex);
    void cacheWatchUnderLock(std::shared_ptr<asio_pulse_loop::Watch> watch) VELMORA_REQUIRES(mutex);
    void purgeCachedWatchesUnderLock() VELMORA_REQUIRES(mutex);
};

namespace asio_pulse_loop {

using Shared = AsioPulseMainLoop::Shared;

struct Event {
    explicit Event(Shared& shared) : shared(shared) {}
    virtual ~Event() = default;
    // Drops the asio side; called with the shared mutex held.
    virtual void detachUnderLock() = 0;

    Shared& shared;
    bool dead = false;
    // Keeps the event alive until libpulse frees it; handlers under way hold it too.
    std::shared_ptr<Event> self;
};

template <class Derived>
std::shared_ptr<Derived> hold(Derived* event) {
    return std::static_pointer_cast<Derived>(event->self);
}

// Makes the event keep itself and counts it among the loop's live events.
void registerEvent(const std::shared_ptr<Event>& event);
// Marks the event freed and lets go of it; handlers still queued find it dead.
void release(Event* event);

inline Shared& sharedOf(pa_mainloop_api* api) {
    return *static_cast<Shared*>(api->userdata);
}

// The reactor's side of io events on one descriptor: waits for readiness and runs the callback of
// the io event that uses it now. Handlers hold the watch, never the event, so an event may be
// freed (and its storage reused) inside its own callback.
struct Watch : std::enable_shared_from_this<Watch> {
    Watch(Shared& shared, int fd) : shared(shared), fd(fd) {}

    // Waits for each enabled direction that has no wait yet. Queuing a wait re-arms the
    // reactor's edge-triggered registration, so a readiness already present is reported too.
    void watch() { armWaits(); }

    void armWaits();
    pa_io_event_flags_t readiness() const;
    void run();

    Shared& shared;
    const int fd;         // libpulse's descriptor
    struct stat file {};  // what it referred to when the watch was made
    // On a duplicate of libpulse's descriptor: the reactor may then register it even while
    // libpulse briefly has two events on one descriptor, and closing it never closes libpulse's.
    std::unique_ptr<boost::asio::posix::stream_descriptor> descriptor;
    IoEvent* event = nullptr;  // the io event using it; none while cached
    bool readWaiting = false;
    bool writeWaiting = false;
};

struct IoEvent final : Event {
    using Event::Event;

    void detachUnderLock() override {
        if (watch) watch->descriptor.reset();
    }

    int fd = -1;
    pa_io_event_flags_t flags = PA_IO_EVENT_NULL;
    pa_io_event_cb_t callback = nullptr;
    void* userdata = nullptr;
    pa_io_event_destroy_cb_t destroy = nullptr;
    std::shared_ptr<Watch> watch;
};

// Fill in the interface's entries for each kind of event.
void installIoEvents(pa_mainloop_api& api);
void installTimeEvents(pa_mainloop_api& api);
void installDeferEvents(pa_mainloop_api& api);

}  // namespace asio_pulse_loop
}  // namespace velmora
