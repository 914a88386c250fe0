#include "capture/pulse/DefaultSinkWatch.h"

#include <pulse/introspect.h>
#include <pulse/subscribe.h>
#include <pulse/timeval.h>

#include <algorithm>

#include "capture/pulse/PulseContext.h"

namespace velmora {

DefaultSinkWatch::DefaultSinkWatch(PulseLoop& loop, std::optional<std::string> server,
                                   std::function<void()> changed)
    : loop_(loop), server_(std::move(server)), changed_(std::move(changed)) {}

DefaultSinkWatch::~DefaultSinkWatch() {
    PulseLoop::Lock lock(loop_);
    releasePulseContext(context_);
    if (retryTimer_ != nullptr) {
        loop_.api()->time_free(retryTimer_);
    }
}

void DefaultSinkWatch::start(std::chrono::milliseconds timeout) {
    PulseLoop::Lock lock(loop_);
    if (context_ == nullptr && retryTimer_ == nullptr) {
        connect();
    }
    loop_.waitUntil([&] { return firstAttemptSettled_; }, timeout);
}

void DefaultSinkWatch::connect() {
    releasePulseContext(context_);
    context_ = createPulseContext(loop_.api());
    if (context_ == nullptr) {
        scheduleRetry();
        return;
    }
    pa_context_set_state_callback(context_, onState, this);
    if (connectPulseContext(context_, server_) != 0) {
        scheduleRetry();
    }
}

void DefaultSinkWatch::scheduleRetry() {
    firstAttemptSettled_ = true;
    loop_.signal();
    struct timeval when {};
    pa_gettimeofday(&when);
    pa_timeval_add(&when, static_cast<pa_usec_t>(retryDelay_.count()) * PA_USEC_PER_MSEC);
    retryDelay_ = std::min(retryDelay_ * 2, longestRetryDelay);
    if (retryTimer_ == nullptr) {
        retryTimer_ = loop_.api()->time_new(loop_.api(), &when, onRetry, this);
    } else {
        loop_.api()->time_restart(retryTimer_, &when);
    }
}

void DefaultSinkWatch::onRetry(pa_mainloop_api*, pa_time_event*, const struct timeval*,
                               void* userdata) {
    auto* watch = static_cast<DefaultSinkWatch*>(userdata);
    watch->loop_.api()->time_restart(watch->retryTimer_, nullptr);
    watch->connect();
}

void DefaultSinkWatch::onState(pa_context* context, void* userdata) {
    auto* watch = static_cast<DefaultSinkWatch*>(userdata);
    switch (pa_context_get_state(context)) {
        case PA_CONTEXT_READY:
            watch->retryDelay_ = firstRetryDelay;
            pa_context_set_subscribe_callback(context, onEvent, watch);
            if (pa_operation* operation =
                    pa_context_subscribe(context, PA_SUBSCRIPTION_MASK_SERVER, nullptr, nullptr)) {
                pa_operation_unref(operation);
            }
            watch->askForDefaultSink();
            break;
        case PA_CONTEXT_FAILED:
        case PA_CONTEXT_TERMINATED:
            // The context is released by the retry, not inside its own callback.
            watch->scheduleRetry();
            break;
        default:
            break;
    }
}

void DefaultSinkWatch::onEvent(pa_context*, pa_subscription_event_type_t type, std::uint32_t,
                               void* userdata) {
    if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) == PA_SUBSCRIPTION_EVENT_SERVER) {
        static_cast<DefaultSinkWatch*>(userdata)->askForDefaultSink();
    }
}

void DefaultSinkWatch::askForDefaultSink() {
    if (pa_operation* operation = pa_context_get_server_info(context_, onServerInfo, this)) {
        pa_operation_unref(operation);
    }
}

void DefaultSinkWatch::onServerInfo(pa_context*, const pa_server_info* info, void* userdata) {
    auto* watch = static_cast<DefaultSinkWatch*>(userdata);
    if (info == nullptr) {
        return;
    }
    watch->firstAttemptSettled_ = true;
    watch->loop_.signal();
    std::string name = info->default_sink_name != nullptr ? info->default_sink_name : "";
    const bool differs = watch->knownDefaultSink_ && *watch->knownDefaultSink_ != name;
    watch->knownDefaultSink_ = std::move(name);
    // A copy: the call may end the watch's owner, and with it the watch.
    if (const auto changed = watch->changed_; differs && changed) {
        changed();
    }
}

}  // namespace velmora
