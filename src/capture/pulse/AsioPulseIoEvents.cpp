// io events: one reactor watch per descriptor, level-triggered as in libpulse's own loop, and
// watches kept briefly for an io event made again on the same open file.

#include <fcntl.h>
#include <linux/kcmp.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <boost/asio/post.hpp>

#include "capture/pulse/AsioPulseLoopEvents.h"

namespace velmora {
namespace asio_pulse_loop {

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

namespace {

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
        MutexLock lock(shared.mutex);
        event->watch = shared.takeWatchUnderLock(fd);
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
        MutexLock lock(shared.mutex);
        std::erase(shared.events, event);
        shared.cacheWatchUnderLock(std::move(watch));
    }
    std::unique_ptr<IoEvent> spare(event);
    if (shared.spareIoEvents.size() < shared.spareIoEvents.capacity()) {
        shared.spareIoEvents.push_back(std::move(spare));
    }
}

void ioSetDestroy(pa_io_event* handle, pa_io_event_destroy_cb_t destroy) {
    reinterpret_cast<IoEvent*>(handle)->destroy = destroy;
}

// Whether two descriptors of this process refer to one open file description; false where the
// kernel cannot say.
bool sameOpenFile(int first, int second) {
    const pid_t self = ::getpid();
    return ::syscall(SYS_kcmp, self, self, KCMP_FILE, first, second) == 0;
}

}  // namespace

void installIoEvents(pa_mainloop_api& api) {
    api.io_new = ioNew;
    api.io_enable = ioEnable;
    api.io_free = ioFree;
    api.io_set_destroy = ioSetDestroy;
}

}  // namespace asio_pulse_loop

using asio_pulse_loop::Watch;

std::shared_ptr<Watch> AsioPulseMainLoop::Shared::takeWatchUnderLock(int fd) {
    struct stat file {};
    const bool known = ::fstat(fd, &file) == 0;
    for (auto cached = cachedWatches.begin(); cached != cachedWatches.end(); ++cached) {
        const Watch& watch = **cached;
        // The same number may by now name another file; only the same open file reuses the
        // watch. Device and inode alone cannot tell: every eventfd (libpulse's semaphores)
        // shares one anonymous inode, and a watch on a closed one never fires again.
        if (known && watch.fd == fd && watch.file.st_dev == file.st_dev &&
            watch.file.st_ino == file.st_ino && watch.descriptor &&
            asio_pulse_loop::sameOpenFile(fd, watch.descriptor->native_handle())) {
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

void AsioPulseMainLoop::Shared::cacheWatchUnderLock(std::shared_ptr<Watch> watch) {
    if (!watch->descriptor) return;
    cachedWatches.push_back(std::move(watch));
    if (purgePosted || context == nullptr) return;
    purgePosted = true;
    boost::asio::post(*context, [weak = weakSelf] {
        if (auto shared = weak.lock()) {
            MutexLock lock(shared->mutex);
            shared->purgePosted = false;
            shared->purgeCachedWatchesUnderLock();
        }
    });
}

// Closes the duplicates that nothing took up: the file they hold open may be libpulse's closed
// connection, which the server must see end.
void AsioPulseMainLoop::Shared::purgeCachedWatchesUnderLock() {
    for (const auto& watch : cachedWatches) watch->descriptor.reset();
    cachedWatches.clear();
}

}  // namespace velmora
