#include "config/SerialQueue.h"

#include <pthread.h>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <set>
#include <stdexcept>
#include <vector>

namespace velmora {
namespace {

thread_local const SerialQueue* currentQueue = nullptr;

class SteadyQueueTimer;

// The live timers of one queue. A timer may outlive its queue (a member declared before the
// queue, a copy kept elsewhere); the queue's destructor then takes each asio timer away while
// the loop they belong to still exists, so a later cancel() or release touches nothing gone.
struct TimerRegistry {
    Mutex mutex;
    std::set<SteadyQueueTimer*> timers VELMORA_GUARDED_BY(mutex);
};

// Keeps a queue's registry with its event loop, so the queue's layout needs no extra member.
class TimerRegistryService final : public boost::asio::execution_context::service {
  public:
    static inline boost::asio::execution_context::id id;

    explicit TimerRegistryService(boost::asio::execution_context& context) : service(context) {}

    const std::shared_ptr<TimerRegistry> registry = std::make_shared<TimerRegistry>();

  private:
    void shutdown() override {}
};

std::shared_ptr<TimerRegistry> registryOf(boost::asio::io_context& context) {
    return boost::asio::use_service<TimerRegistryService>(context).registry;
}

class SteadyQueueTimer final : public QueueTimer {
  public:
    SteadyQueueTimer(boost::asio::io_context& context, SerialQueue::Duration interval,
                     std::function<void()> work)
        : registry_(registryOf(context)),
          timer_(std::make_unique<boost::asio::steady_timer>(context)),
          interval_(interval),
          work_(std::move(work)) {
        MutexLock guard(registry_->mutex);
        registry_->timers.insert(this);
    }

    ~SteadyQueueTimer() override {
        // No wait is pending (it would hold this timer), so nothing re-enters from here.
        MutexLock guard(registry_->mutex);
        registry_->timers.erase(this);
        timer_.reset();
    }

    // Runs on the queue.
    void arm(std::chrono::steady_clock::time_point deadline) {
        timer_->expires_at(deadline);
        wait();
    }

    void cancel() override {
        cancelled_ = true;
        MutexLock guard(registry_->mutex);
        if (!timer_) return;  // its queue is gone, and with it every firing
        // The asio timer itself is only touched on its own loop.
        boost::asio::post(timer_->get_executor(),
                          [self = shared_from_this(), this] { timer_->cancel(); });
    }

    bool isCancelled() const override { return cancelled_; }

    // Called by the queue's destructor with the registry locked, after its loop has ended.
    std::unique_ptr<boost::asio::steady_timer> detachUnderLock() { return std::move(timer_); }

  private:
    void wait() {
        timer_->async_wait(
            [self = shared_from_this(), this](const boost::system::error_code& error) {
                if (error || cancelled_) return;
                work_();
                if (cancelled_ || interval_ == SerialQueue::Duration::zero()) return;
                auto next = timer_->expiry() + interval_;
                auto now = std::chrono::steady_clock::now();
                timer_->expires_at(next < now ? now : next);
                wait();
            });
    }

    const std::shared_ptr<TimerRegistry> registry_;
    std::unique_ptr<boost::asio::steady_timer> timer_;
    SerialQueue::Duration interval_;
    std::function<void()> work_;
    std::atomic<bool> cancelled_{false};
};

}  // namespace

SerialQueue::SerialQueue(std::string name)
    : name_(std::move(name)), context_(1), workGuard_(context_.get_executor()) {
    thread_ = std::thread([this] {
        // Linux limits thread names to 15 characters; keep the distinctive end of the label.
        std::string shortName = name_.size() > 15 ? name_.substr(name_.size() - 15) : name_;
        pthread_setname_np(pthread_self(), shortName.c_str());
        loop();
    });
}

SerialQueue::SerialQueue(std::string name, CallerThread)
    : name_(std::move(name)), context_(1), workGuard_(context_.get_executor()) {}

SerialQueue::~SerialQueue() {
    stop();
    if (thread_.joinable()) thread_.join();
    // Timers held beyond this point lose their asio timers now, while the loop still exists.
    std::vector<std::unique_ptr<boost::asio::steady_timer>> detached;
    {
        auto registry = registryOf(context_);
        MutexLock guard(registry->mutex);
        for (SteadyQueueTimer* timer : registry->timers)
            detached.push_back(timer->detachUnderLock());
    }
    // Destroyed outside the lock: cancelling their waits hands the handlers to the loop, whose
    // destruction then releases them (and may release the timers).
}

void SerialQueue::loop() {
    currentQueue = this;
    context_.run();
    currentQueue = nullptr;
}

void SerialQueue::run() {
    loop();
}

void SerialQueue::stop() {
    // The destructor stops too, possibly after another thread did; the guard is reset only once.
    if (stopped_.exchange(true)) return;
    workGuard_.reset();
    context_.stop();
}

void SerialQueue::post(std::function<void()> work) {
    boost::asio::post(context_, std::move(work));
}

void SerialQueue::runAndWait(const std::function<void()>& work) {
    if (isCurrent()) {
#ifndef NDEBUG
        std::fprintf(stderr, "runAndWait called on its own queue %s: this would deadlock\n",
                     name_.c_str());
        std::abort();
#else
        throw std::logic_error("runAndWait called on its own queue " + name_);
#endif
    }
    if (stopped_) throw std::logic_error("queue " + name_ + " is stopped");
    // The caller's frame owns the outcome; the queue moves the exception into it (never copies),
    // so no reference to it stays behind on the queue's thread.
    std::mutex mutex;
    std::condition_variable finishedSignal;
    bool finished = false;
    std::exception_ptr failure;
    post([&] {
        std::exception_ptr caught;
        try {
            work();
        } catch (...) {
            caught = std::current_exception();
        }
        std::lock_guard guard(mutex);
        failure = std::move(caught);
        finished = true;
        finishedSignal.notify_one();  // under the lock: the waiter's frame must outlive this call
    });
    std::unique_lock lock(mutex);
    finishedSignal.wait(lock, [&] { return finished; });
    if (failure) std::rethrow_exception(failure);
}

std::shared_ptr<QueueTimer> SerialQueue::runAfter(Duration delay, std::function<void()> work) {
    auto timer = std::make_shared<SteadyQueueTimer>(context_, Duration::zero(), std::move(work));
    auto deadline = std::chrono::steady_clock::now() + delay;
    boost::asio::post(context_, [timer, deadline] { timer->arm(deadline); });
    return timer;
}

std::shared_ptr<QueueTimer> SerialQueue::repeat(Duration first, Duration interval, Duration,
                                                std::function<void()> work) {
    auto timer = std::make_shared<SteadyQueueTimer>(context_, interval, std::move(work));
    auto deadline = std::chrono::steady_clock::now() + first;
    boost::asio::post(context_, [timer, deadline] { timer->arm(deadline); });
    return timer;
}

bool SerialQueue::isCurrent() const {
    return currentQueue == this;
}

}  // namespace velmora
