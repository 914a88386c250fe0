#pragma once

#include <pulse/thread-mainloop.h>

#include <chrono>
#include <functional>

namespace velmora {

// One libpulse threaded main loop: its own thread runs every context, stream and timer callback,
// holding the loop's lock. Code outside that thread touches libpulse objects only while holding
// Lock.
class PulseLoop {
  public:
    // Creates and starts the loop; throws std::runtime_error when libpulse cannot.
    PulseLoop();
    // Stops the loop and joins its thread; callers free their libpulse objects before.
    ~PulseLoop();

    PulseLoop(const PulseLoop&) = delete;
    PulseLoop& operator=(const PulseLoop&) = delete;

    pa_mainloop_api* api() const;

    // Wakes a waitUntil (called from callbacks on the loop thread).
    void signal();

    // With the lock held and off the loop thread: waits until `done` holds or `timeout` has
    // passed; returns `done()`. Callbacks run (and signal) while it waits.
    bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

    bool isLoopThread() const;

    // Takes the loop's lock; on the loop thread, where callbacks already hold it, does nothing.
    class Lock {
      public:
        explicit Lock(PulseLoop& loop);
        ~Lock();
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

      private:
        pa_threaded_mainloop* loop_;
    };

  private:
    pa_threaded_mainloop* loop_;
};

}  // namespace velmora
