#include "capture/pulse/PulseLoop.h"

#include <pulse/timeval.h>

#include <stdexcept>

namespace velmora {

namespace {

struct Expiry {
    pa_threaded_mainloop* loop;
    bool expired = false;
};

void expire(pa_mainloop_api*, pa_time_event*, const struct timeval*, void* userdata) {
    auto* expiry = static_cast<Expiry*>(userdata);
    expiry->expired = true;
    pa_threaded_mainloop_signal(expiry->loop, 0);
}

}  // namespace

PulseLoop::PulseLoop() : loop_(pa_threaded_mainloop_new()) {
    if (loop_ == nullptr) {
        throw std::runtime_error("Could not create the sound server main loop.");
    }
    pa_threaded_mainloop_set_name(loop_, "velmora-pulse");
    if (pa_threaded_mainloop_start(loop_) < 0) {
        pa_threaded_mainloop_free(loop_);
        throw std::runtime_error("Could not start the sound server main loop.");
    }
}

PulseLoop::~PulseLoop() {
    pa_threaded_mainloop_stop(loop_);
    pa_threaded_mainloop_free(loop_);
}

pa_mainloop_api* PulseLoop::api() const {
    return pa_threaded_mainloop_get_api(loop_);
}

void PulseLoop::signal() {
    pa_threaded_mainloop_signal(loop_, 0);
}

bool PulseLoop::waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    if (done()) {
        return true;
    }
    Expiry expiry{loop_};
    struct timeval when {};
    pa_gettimeofday(&when);
    pa_timeval_add(&when, static_cast<pa_usec_t>(timeout.count()) * PA_USEC_PER_MSEC);
    pa_time_event* timer = api()->time_new(api(), &when, expire, &expiry);
    while (!done() && !expiry.expired) {
        pa_threaded_mainloop_wait(loop_);
    }
    api()->time_free(timer);
    return done();
}

bool PulseLoop::isLoopThread() const {
    return pa_threaded_mainloop_in_thread(loop_) != 0;
}

PulseLoop::Lock::Lock(PulseLoop& loop) : loop_(loop.isLoopThread() ? nullptr : loop.loop_) {
    if (loop_ != nullptr) {
        pa_threaded_mainloop_lock(loop_);
    }
}

PulseLoop::Lock::~Lock() {
    if (loop_ != nullptr) {
        pa_threaded_mainloop_unlock(loop_);
    }
}

}  // namespace velmora
