#pragma once

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>

#include "config/ThreadSafety.h"

namespace velmora {

class QueueTimer;

// A named serial queue: one thread running one event loop, so everything posted to it runs
// one at a time, in order. Services keep their mutable state confined to their own queue.
// To the thread-safety analysis the queue is a capability, held by code that runs on it: state
// confined to it is marked VELMORA_GUARDED_BY(queue), and functions that must run on it are
// marked VELMORA_REQUIRES(queue). Work posted to it gets the capability from
// VELMORA_ASSERT_ON_QUEUE.
class VELMORA_CAPABILITY("queue") SerialQueue {
  public:
    using Duration = std::chrono::steady_clock::duration;

    struct CallerThread {};

    // A queue with a thread of its own.
    explicit SerialQueue(std::string name);
    // A queue whose loop runs on the thread that calls run() (the process's main thread).
    SerialQueue(std::string name, CallerThread);
    // Stops the loop and joins the thread; work not yet run is discarded.
    ~SerialQueue();

    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& name() const { return name_; }
    boost::asio::io_context& context() { return context_; }

    void post(std::function<void()> work);

    // Runs work on the queue and waits for it. Calling it from the queue itself would deadlock,
    // so it is refused: loudly (abort) in debug builds, with std::logic_error otherwise.
    void runAndWait(const std::function<void()>& work);

    template <class Function>
    auto sync(Function&& function) -> std::invoke_result_t<Function> {
        using Result = std::invoke_result_t<Function>;
        if constexpr (std::is_void_v<Result>) {
            runAndWait(std::forward<Function>(function));
        } else {
            std::optional<Result> result;
            runAndWait([&] { result.emplace(function()); });
            return std::move(*result);
        }
    }

    // Runs work once after a delay; the returned timer can cancel it.
    std::shared_ptr<QueueTimer> runAfter(Duration delay, std::function<void()> work);

    // Runs work first after `first`, then every `interval`. The leeway says how late a firing may
    // be; our timers fire on time, so it only documents the caller's tolerance.
    std::shared_ptr<QueueTimer> repeat(Duration first, Duration interval, Duration leeway,
                                       std::function<void()> work);

    // True when called from this queue's own thread, inside its loop.
    bool isCurrent() const;

    // In debug builds, aborts with the caller's location unless called from this queue; for the
    // analysis, the queue is held from here on. Use it through VELMORA_ASSERT_ON_QUEUE.
    void assertCurrent(const char* file, int line, const char* function) const
        VELMORA_ASSERT_CAPABILITY(this);

    // For a CallerThread queue: runs the loop until stop().
    void run();
    void stop();

  private:
    void loop();

    std::string name_;
    boost::asio::io_context context_;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> workGuard_;
    std::atomic<bool> stopped_{false};
    std::thread thread_;
};

// A timer created by a SerialQueue. cancel() may be called from any thread; once it returns on
// the queue's own thread, or once a firing already under way finishes, no firing follows.
// A timer may outlive its queue: it then never fires, and cancel() and release stay safe.
class QueueTimer : public std::enable_shared_from_this<QueueTimer> {
  public:
    virtual ~QueueTimer() = default;
    virtual void cancel() = 0;
    virtual bool isCancelled() const = 0;
};

}  // namespace velmora

// Debug-only check that a member runs on its owner's queue (for the functions named ...Locked);
// it also tells the thread-safety analysis that the queue is held.
#define VELMORA_ASSERT_ON_QUEUE(queue) (queue).assertCurrent(__FILE__, __LINE__, __func__)

namespace velmora {

#ifndef NDEBUG
inline void SerialQueue::assertCurrent(const char* file, int line, const char* function) const {
    if (!isCurrent()) {
        std::fprintf(stderr, "%s:%d: %s must run on queue %s\n", file, line, function,
                     name_.c_str());
        std::abort();
    }
}
#else
inline void SerialQueue::assertCurrent(const char*, int, const char*) const {}
#endif

}  // namespace velmora
