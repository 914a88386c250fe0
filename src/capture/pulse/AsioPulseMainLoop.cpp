#include "capture/pulse/AsioPulseMainLoop.h"

#include <fcntl.h>
#include <linux/kcmp.h>
#include <poll.h>
#include <pulse/timeval.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace velmora {
namespace {

// libpulse marks a time given on its monotonic clock with this bit in tv_usec; a loop other than
// its own normally gets wall-clock times, but both are honoured.
constexpr suseconds_t monotonicTimeFlag = static_cast<suseconds_t>(1LU << 30);

struct Event;
struct IoEvent;
struct Watch;

}  // namespace

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
    std::mutex mutex;
    boost::asio::io_context* context = nullptr;  // null once the io_context has ended
    std::vector<Event*> events;
    // Watches of freed io events, kept until the end of this turn of the loop for an io_new on
    // the same descriptor, which then costs no new registration with the reactor.
    std::vector<std::shared_ptr<Watch>> cachedWatches;
    bool purgePosted = false;

    // On the loop's thread (or once it has ended).
    // Freed io events kept for reuse: libpulse frees and makes one again for every fragment when
    // its socket is readable and writable at once.
    std::vector<std::unique_ptr<IoEvent>> spareIoEvents;

    void detachAllLocked();
    std::shared_ptr<Watch> takeWatchLocked(int fd);
    void cacheWatchLocked(std::shared_ptr<Watch> watch);
    void purgeCachedWatchesLocked();
};

namespace {

using Shared = AsioPulseMainLoop::Shared;

struct Event {
    explicit Event(Shared& shared) : shared(shared) {}
    virtual ~Event() = default;
    // Drops the asio side; called with the shared mutex held.
    virtual void detachLocked() = 0;

    Shared& shared;
    bool dead = false;
    // Keeps the event alive until libpulse frees it; handlers under way hold it too.
    std::shared_ptr<Event> self;
};

template <class Derived>
std::shared_ptr<Derived> hold(Derived* event) {
    return std::static_pointer_cast<Derived>(event->self);
}

void registerEvent(const std::shared_ptr<Event>& event) {
    event->self = event;
    std::lock_guard lock(event->shared.mutex);
    event->shared.events.push_back(event.get());
}

// Marks the event freed and lets go of it; handlers still queued find it dead.
void release(Event* event) {
    std::shared_ptr<Event> last = std::move(event->self);
    event->dead = true;
    std::lock_guard lock(event->shared.mutex);
    event->detachLocked();
    std::erase(event->shared.events, event);
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

    void detachLocked() override {
        if (watch) watch->descriptor.reset();
    }

    int fd = -1;
    pa_io_event_flags_t flags = PA_IO_EVENT_NULL;
    pa_io_event_cb_t callback = nullptr;
    void* userdata = nullptr;
    pa_io_event_destroy_cb_t destroy = nullptr;
    std::shared_ptr<Watch> watch;
};

void Watch::armWaits() {
    if (event == nullptr || !descriptor) return;
    if ((event->flags & PA_IO_EVENT_INPUT) != 0 && !readWaiting) {
        readWaiting = true;
        descriptor->async_wait(
            boost::asio::posix::descriptor_base::wait_read,
            [watch = shared_from_this()](const boost::system::error_code& error) {
                watch->readWaiting = false;
                if (!error) watch->run();
            });
    }
    if ((event->flags & PA_IO_EVENT_OUTPUT) != 0 && !writeWaiting) {
        writeWaiting = true;
        descriptor->async_wait(
            boost::asio::posix::descriptor_base::wait_write,
            [watch = shared_from_this()](const boost::system::error_code& error) {
                watch->writeWaiting = false;
                if (!error) watch->run();
            });
    }
}

pa_io_event_flags_t Watch::readiness() const {
    if (event == nullptr || event->flags == PA_IO_EVENT_NULL) return PA_IO_EVENT_NULL;
    pollfd entry{fd, 0, 0};
    if ((event->flags & PA_IO_EVENT_INPUT) != 0) entry.events |= POLLIN;
    if ((event->flags & PA_IO_EVENT_OUTPUT) != 0) entry.events |= POLLOUT;
    if (::poll(&entry, 1, 0) <= 0) return PA_IO_EVENT_NULL;
    int ready = PA_IO_EVENT_NULL;
    if ((entry.revents & POLLIN) != 0) ready |= PA_IO_EVENT_INPUT;
    if ((entry.revents & POLLOUT) != 0) ready |= PA_IO_EVENT_OUTPUT;
    if ((entry.revents & POLLHUP) != 0) ready |= PA_IO_EVENT_HANGUP;
    if ((entry.revents & (POLLERR | POLLNVAL)) != 0) ready |= PA_IO_EVENT_ERROR;
    return static_cast<pa_io_event_flags_t>(ready);
}

// One dispatch: the callback when the descriptor is ready, then a new wait. Data that libpulse
// left unread is reported again by that wait, so the events are level-triggered, as in
// libpulse's own loop.
void Watch::run() {
    if (event == nullptr || !descriptor) return;
    if (const pa_io_event_flags_t ready = readiness(); ready != PA_IO_EVENT_NULL) {
        IoEvent* current = event;
        current->callback(&shared.api, reinterpret_cast<pa_io_event*>(current), fd, ready,
                          current->userdata);
    }
    // The callback may have freed the event, and made another on this descriptor.
    armWaits();
}

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

    void detachLocked() override { timer.reset(); }

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

struct DeferEvent final : Event {
    using Event::Event;

    void detachLocked() override { context = nullptr; }

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

Shared& sharedOf(pa_mainloop_api* api) {
    return *static_cast<Shared*>(api->userdata);
}

// io events

pa_io_event* ioNew(pa_mainloop_api* api, int fd, pa_io_event_flags_t flags,
                   pa_io_event_cb_t callback, void* userdata) {
    Shared& shared = sharedOf(api);
    std::unique_ptr<IoEvent> made;
    if (!shared.spareIoEvents.empty()) {
        made = std::move(shared.spareIoEvents.back());
        shared.spareIoEvents.pop_back();
    } else {
        made = std::make_unique<IoEvent>(shared);
    }
    IoEvent* event = made.release();
    event->dead = false;
    event->fd = fd;
    event->flags = flags;
    event->callback = callback;
    event->userdata = userdata;
    event->destroy = nullptr;
    {
        std::lock_guard lock(shared.mutex);
        event->watch = shared.takeWatchLocked(fd);
        event->watch->event = event;
        shared.events.push_back(event);
    }
    event->watch->watch();
    return reinterpret_cast<pa_io_event*>(event);
}

void ioEnable(pa_io_event* handle, pa_io_event_flags_t flags) {
    auto* event = reinterpret_cast<IoEvent*>(handle);
    if (event->flags == flags) return;
    event->flags = flags;
    event->watch->watch();
}

void ioFree(pa_io_event* handle) {
    auto* event = reinterpret_cast<IoEvent*>(handle);
    Shared& shared = event->shared;
    if (event->destroy != nullptr) {
        event->destroy(&shared.api, handle, event->userdata);
    }
    event->dead = true;
    std::shared_ptr<Watch> watch = std::move(event->watch);
    watch->event = nullptr;
    {
        std::lock_guard lock(shared.mutex);
        std::erase(shared.events, event);
        shared.cacheWatchLocked(std::move(watch));
    }
    std::unique_ptr<IoEvent> spare(event);
    if (shared.spareIoEvents.size() < shared.spareIoEvents.capacity()) {
        shared.spareIoEvents.push_back(std::move(spare));
    }
}

void ioSetDestroy(pa_io_event* handle, pa_io_event_destroy_cb_t destroy) {
    reinterpret_cast<IoEvent*>(handle)->destroy = destroy;
}

// time events

pa_time_event* timeNew(pa_mainloop_api* api, const struct timeval* when,
                       pa_time_event_cb_t callback, void* userdata) {
    Shared& shared = sharedOf(api);
    auto event = std::make_shared<TimeEvent>(shared);
    event->callback = callback;
    event->userdata = userdata;
    {
        std::lock_guard lock(shared.mutex);
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

// defer events

pa_defer_event* deferNew(pa_mainloop_api* api, pa_defer_event_cb_t callback, void* userdata) {
    Shared& shared = sharedOf(api);
    auto event = std::make_shared<DeferEvent>(shared);
    event->callback = callback;
    event->userdata = userdata;
    {
        std::lock_guard lock(shared.mutex);
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

// The loop belongs to its owner's queue; nobody may end it through libpulse.
void quit(pa_mainloop_api*, int) {}

// Lives with the io_context: when the io_context ends, every loop made on it loses its asio side
// while the reactor still exists.
class LoopRegistryService final : public boost::asio::execution_context::service {
  public:
    static inline boost::asio::execution_context::id id;

    explicit LoopRegistryService(boost::asio::execution_context& context) : service(context) {}

    void add(const std::shared_ptr<Shared>& shared) {
        std::lock_guard lock(mutex_);
        loops_.push_back(shared);
    }

  private:
    void shutdown() override {
        std::lock_guard lock(mutex_);
        for (const auto& weak : loops_) {
            if (auto shared = weak.lock()) {
                std::lock_guard sharedLock(shared->mutex);
                shared->detachAllLocked();
            }
        }
        loops_.clear();
    }

    std::mutex mutex_;
    std::vector<std::weak_ptr<Shared>> loops_;
};

}  // namespace

void AsioPulseMainLoop::Shared::detachAllLocked() {
    for (Event* event : events) event->detachLocked();
    purgeCachedWatchesLocked();
    context = nullptr;
}

namespace {

// Whether two descriptors of this process refer to one open file description; false where the
// kernel cannot say.
bool sameOpenFile(int first, int second) {
    const pid_t self = ::getpid();
    return ::syscall(SYS_kcmp, self, self, KCMP_FILE, first, second) == 0;
}

}  // namespace

std::shared_ptr<Watch> AsioPulseMainLoop::Shared::takeWatchLocked(int fd) {
    struct stat file {};
    const bool known = ::fstat(fd, &file) == 0;
    for (auto cached = cachedWatches.begin(); cached != cachedWatches.end(); ++cached) {
        const Watch& watch = **cached;
        // The same number may by now name another file; only the same open file reuses the
        // watch. Device and inode alone cannot tell: every eventfd (libpulse's semaphores)
        // shares one anonymous inode, and a watch on a closed one never fires again.
        if (known && watch.fd == fd && watch.file.st_dev == file.st_dev &&
            watch.file.st_ino == file.st_ino && watch.descriptor &&
            sameOpenFile(fd, watch.descriptor->native_handle())) {
            std::shared_ptr<Watch> reused = std::move(*cached);
            cachedWatches.erase(cached);
            return reused;
        }
    }
    auto watch = std::make_shared<Watch>(*this, fd);
    watch->file = file;
    if (context == nullptr) return watch;
    const int duplicate = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (duplicate < 0) return watch;
    watch->descriptor = std::make_unique<boost::asio::posix::stream_descriptor>(*context);
    boost::system::error_code error;
    watch->descriptor->assign(duplicate, error);
    if (error) {
        ::close(duplicate);
        watch->descriptor.reset();
    }
    return watch;
}

void AsioPulseMainLoop::Shared::cacheWatchLocked(std::shared_ptr<Watch> watch) {
    if (!watch->descriptor) return;
    cachedWatches.push_back(std::move(watch));
    if (purgePosted || context == nullptr) return;
    purgePosted = true;
    boost::asio::post(*context, [weak = weakSelf] {
        if (auto shared = weak.lock()) {
            std::lock_guard lock(shared->mutex);
            shared->purgePosted = false;
            shared->purgeCachedWatchesLocked();
        }
    });
}

// Closes the duplicates that nothing took up: the file they hold open may be libpulse's closed
// connection, which the server must see end.
void AsioPulseMainLoop::Shared::purgeCachedWatchesLocked() {
    for (const auto& watch : cachedWatches) watch->descriptor.reset();
    cachedWatches.clear();
}

AsioPulseMainLoop::AsioPulseMainLoop(boost::asio::io_context& context)
    : shared_(std::make_shared<Shared>()) {
    shared_->weakSelf = shared_;
    {
        // The reactor and the timer service first, so that the registry, made after them, is shut
        // down before them.
        boost::asio::posix::stream_descriptor descriptor(context);
        boost::asio::steady_timer timer(context);
    }
    boost::asio::use_service<LoopRegistryService>(context).add(shared_);
    shared_->context = &context;
    pa_mainloop_api& api = shared_->api;
    api.userdata = shared_.get();
    api.io_new = ioNew;
    api.io_enable = ioEnable;
    api.io_free = ioFree;
    api.io_set_destroy = ioSetDestroy;
    api.time_new = timeNew;
    api.time_restart = timeRestart;
    api.time_free = timeFree;
    api.time_set_destroy = timeSetDestroy;
    api.defer_new = deferNew;
    api.defer_enable = deferEnable;
    api.defer_free = deferFree;
    api.defer_set_destroy = deferSetDestroy;
    api.quit = quit;
}

AsioPulseMainLoop::~AsioPulseMainLoop() {
    std::vector<std::shared_ptr<Event>> left;
    {
        std::lock_guard lock(shared_->mutex);
        for (Event* event : shared_->events) {
            event->dead = true;
            event->detachLocked();
            if (auto* io = dynamic_cast<IoEvent*>(event)) {
                io->watch->event = nullptr;
                delete io;
            } else {
                left.push_back(std::move(event->self));
            }
        }
        shared_->events.clear();
        shared_->purgeCachedWatchesLocked();
    }
}

pa_mainloop_api* AsioPulseMainLoop::api() {
    return &shared_->api;
}

bool AsioPulseMainLoop::isLoopThread() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->context != nullptr && shared_->context->get_executor().running_in_this_thread();
}

bool AsioPulseMainLoop::isLoopGone() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->context == nullptr;
}

void AsioPulseMainLoop::runAndWait(const std::function<void()>& work) {
    if (isLoopThread()) {
        work();
        return;
    }
    struct Completion {
        std::mutex mutex;
        std::condition_variable finishedSignal;
        bool finished = false;
        bool ran = false;
    };
    // Tells the waiter when the posted work is done with, whether it ran or was discarded by an
    // io_context that ended first.
    struct Notifier {
        explicit Notifier(std::shared_ptr<Completion> completion)
            : completion(std::move(completion)) {}
        ~Notifier() {
            std::lock_guard lock(completion->mutex);
            completion->finished = true;
            completion->finishedSignal.notify_all();
        }
        std::shared_ptr<Completion> completion;
    };
    auto completion = std::make_shared<Completion>();
    bool posted = false;
    {
        std::lock_guard lock(shared_->mutex);
        if (shared_->context != nullptr) {
            boost::asio::post(*shared_->context,
                              [notifier = std::make_shared<Notifier>(completion), &work] {
                                  work();
                                  std::lock_guard lock(notifier->completion->mutex);
                                  notifier->completion->ran = true;
                              });
            posted = true;
        }
    }
    if (posted) {
        std::unique_lock lock(completion->mutex);
        completion->finishedSignal.wait(lock, [&] { return completion->finished; });
        if (completion->ran) return;
    }
    // The loop has ended: nothing else runs on it, so the work may run here.
    work();
}

std::size_t AsioPulseMainLoop::liveEvents() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->events.size();
}

}  // namespace velmora
