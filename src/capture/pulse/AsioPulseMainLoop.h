#pragma once

#include <pulse/mainloop-api.h>

#include <boost/asio/io_context.hpp>
#include <functional>
#include <memory>

namespace velmora {

// libpulse's main-loop interface (io, time and defer events) on an Asio io_context, so that a
// connection's callbacks run on the thread that already runs that loop (a SerialQueue's), with
// no thread of libpulse's own and no hop in between.
//
// io events keep libpulse's level-triggered meaning: after each dispatch the descriptor is polled
// once more, so data that a callback left unread is handed over again. Events may be enabled,
// disabled and freed from inside any callback, their own included.
//
// Every call on the interface must come from the loop's thread. The io_context may end first
// (its queue destroyed): from then on no callback runs, the asio side of every event is gone, and
// the interface stays safe to call from any single thread, so libpulse objects can still be
// freed.
class AsioPulseMainLoop {
  public:
    explicit AsioPulseMainLoop(boost::asio::io_context& context);
    // Frees what libpulse left behind; libpulse objects made on api() are freed before. May run
    // on any thread, the io_context still running.
    ~AsioPulseMainLoop();

    AsioPulseMainLoop(const AsioPulseMainLoop&) = delete;
    AsioPulseMainLoop& operator=(const AsioPulseMainLoop&) = delete;

    pa_mainloop_api* api();

    // Whether the caller runs inside the io_context's loop.
    bool isLoopThread() const;
    // Whether the io_context has ended (then nothing runs on it any more).
    bool isLoopGone() const;
    // Runs `work` on the loop and waits for it; runs it at once on the loop's thread, and here
    // once the io_context has ended (nothing else runs on it then).
    void runAndWait(const std::function<void()>& work);
    // Events created and not yet freed (for tests and leak checks).
    std::size_t liveEvents() const;

    struct Shared;

  private:
    std::shared_ptr<Shared> shared_;
};

}  // namespace velmora
