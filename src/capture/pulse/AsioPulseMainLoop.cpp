#include "capture/pulse/AsioPulseMainLoop.h"

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "capture/pulse/AsioPulseLoopEvents.h"

namespace velmora {
namespace asio_pulse_loop {

void registerEvent(const std::shared_ptr<Event>& event) {
    event->self = event;
    MutexLock lock(event->shared.mutex);
    event->shared.events.push_back(event.get());
}

void release(Event* event) {
    std::shared_ptr<Event> last = std::move(event->self);
    event->dead = true;
    MutexLock lock(event->shared.mutex);
    event->detachUnderLock();
    std::erase(event->shared.events, event);
}

namespace {

// The loop belongs to its owner's queue; nobody may end it through libpulse.
void quit(pa_mainloop_api*, int) {}

// Lives with the io_context: when the io_context ends, every loop made on it loses its asio side
// while the reactor still exists.
class LoopRegistryService final : public boost::asio::execution_context::service {
  public:
    static inline boost::asio::execution_context::id id;

    explicit LoopRegistryService(boost::asio::execution_context& context) : service(context) {}

    void add(const std::shared_ptr<Shared>& shared) {
        MutexLock lock(mutex_);
        loops_.push_back(shared);
    }

  private:
    void shutdown() override {
        MutexLock lock(mutex_);
        for (const auto& weak : loops_) {
            if (auto shared = weak.lock()) {
                MutexLock sharedLock(shared->mutex);
                shared->detachAllUnderLock();
            }
        }
        loops_.clear();
    }

    Mutex mutex_;
    std::vector<std::weak_ptr<Shared>> loops_ VELMORA_GUARDED_BY(mutex_);
};

}  // namespace
}  // namespace asio_pulse_loop

using asio_pulse_loop::Event;
using asio_pulse_loop::IoEvent;

void AsioPulseMainLoop::Shared::detachAllUnderLock() {
    for (Event* event : events) event->detachUnderLock();
    purgeCachedWatchesUnderLock();
    context = nullptr;
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
    boost::asio::use_service<asio_pulse_loop::LoopRegistryService>(context).add(shared_);
    {
        // From here on the io_context may end on another thread.
        MutexLock lock(shared_->mutex);
        shared_->context = &context;
    }
    pa_mainloop_api& api = shared_->api;
    api.userdata = shared_.get();
    asio_pulse_loop::installIoEvents(api);
    asio_pulse_loop::installTimeEvents(api);
    asio_pulse_loop::installDeferEvents(api);
    api.quit = asio_pulse_loop::quit;
}

AsioPulseMainLoop::~AsioPulseMainLoop() {
    std::vector<std::shared_ptr<Event>> left;
    {
        MutexLock lock(shared_->mutex);
        for (Event* event : shared_->events) {
            event->dead = true;
            event->detachUnderLock();
            if (auto* io = dynamic_cast<IoEvent*>(event)) {
                io->watch->event = nullptr;
                delete io;
            } else {
                left.push_back(std::move(event->self));
            }
        }
        shared_->events.clear();
        shared_->purgeCachedWatchesUnderLock();
    }
}

pa_mainloop_api* AsioPulseMainLoop::api() {
    return &shared_->api;
}

bool AsioPulseMainLoop::isLoopThread() const {
    MutexLock lock(shared_->mutex);
    return shared_->context != nullptr && shared_->context->get_executor().running_in_this_thread();
}

bool AsioPulseMainLoop::isLoopGone() const {
    MutexLock lock(shared_->mutex);
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
        MutexLock lock(shared_->mutex);
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
    MutexLock lock(shared_->mutex);
    return shared_->events.size();
}

}  // namespace velmora
