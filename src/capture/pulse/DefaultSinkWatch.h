#pragma once

#include <pulse/context.h>
#include <pulse/introspect.h>
#include <pulse/mainloop-api.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "capture/pulse/PulseLoop.h"

namespace velmora {

// Watches which sink is the server's default, on a context of its own so that it keeps working
// while no capture exists and across captures torn down and rebuilt. When the connection fails
// (the server stopped or restarted) it reconnects after 0.25 s, doubling up to 4 s. `changed` is
// called on the loop thread when the default sink's name differs from the last one seen, also
// when the difference is only noticed on reconnecting.
class DefaultSinkWatch {
  public:
    DefaultSinkWatch(PulseLoop& loop, std::optional<std::string> server,
                     std::function<void()> changed);
    // Both take the loop's lock; call them off the loop thread.
    ~DefaultSinkWatch();
    // Connects, and waits at most `timeout` until the current default sink is known (or the
    // first attempt failed), so that a change right after start is not missed.
    void start(std::chrono::milliseconds timeout);

    DefaultSinkWatch(const DefaultSinkWatch&) = delete;
    DefaultSinkWatch& operator=(const DefaultSinkWatch&) = delete;

  private:
    static constexpr std::chrono::milliseconds firstRetryDelay{250};
    static constexpr std::chrono::milliseconds longestRetryDelay{4000};

    static void onState(pa_context* context, void* userdata);
    static void onEvent(pa_context* context, pa_subscription_event_type_t type, std::uint32_t index,
                        void* userdata);
    static void onServerInfo(pa_context* context, const pa_server_info* info, void* userdata);
    static void onRetry(pa_mainloop_api* api, pa_time_event* event, const struct timeval* when,
                        void* userdata);

    void connect();
    void scheduleRetry();
    void askForDefaultSink();

    PulseLoop& loop_;
    std::optional<std::string> server_;
    std::function<void()> changed_;
    pa_context* context_ = nullptr;
    pa_time_event* retryTimer_ = nullptr;
    std::chrono::milliseconds retryDelay_ = firstRetryDelay;
    std::optional<std::string> knownDefaultSink_;
    bool firstAttemptSettled_ = false;
};

}  // namespace velmora
