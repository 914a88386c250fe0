#pragma once

#include <pulse/channelmap.h>
#include <pulse/context.h>
#include <pulse/introspect.h>
#include <pulse/sample.h>
#include <pulse/stream.h>
#include <pulse/subscribe.h>

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "capture/AudioTap.h"
#include "capture/StreamMixer.h"
#include "capture/pulse/AsioPulseMainLoop.h"

namespace velmora {

// Records every application's playback, wherever it plays, on a connection of its own run by
// libpulse on the capture queue's own loop.
//
// Each application stream (a sink input, see isApplicationStream) gets a record stream of its
// own, attached to that one sink input on its sink's monitor, so what is recorded is the
// application's audio alone, once, whichever output it plays to. All record streams share one
// format and are summed by a StreamMixer into one stream for the input handler. The set follows
// the server's sink-input events: a new stream is attached, a moved one re-attached on its new
// output, a removed one dropped; the others play on untouched.
//
// Each fragment is read straight from libpulse's buffer into the mixer, on one thread, with no
// allocation.
class PulseRecording : public std::enable_shared_from_this<PulseRecording> {
  public:
    struct Settings {
        std::optional<std::string> server;
        pa_sample_spec sampleSpec{};
        pa_channel_map channelMap{};
        std::string streamName;
        std::chrono::milliseconds fragment{10};
        std::chrono::milliseconds timeout{5000};
    };

    // Why a start failed: the streams could not be attached, or the connection never came up.
    struct Failure {
        bool attaching = false;
        int error = 0;  // a libpulse error code
    };

    // `broken` is called on the loop's thread when the connection to the server ends.
    PulseRecording(boost::asio::io_context& loop, Settings settings, AudioTap::InputHandler handler,
                   std::function<void()> broken);
    ~PulseRecording();

    PulseRecording(const PulseRecording&) = delete;
    PulseRecording& operator=(const PulseRecording&) = delete;

    // Connects, lists the application streams playing now and attaches to each; waits (at most
    // the timeout) until that list is through. Off the loop's thread.
    std::optional<Failure> start();
    // Ends every stream and the connection; once it returns the handler is not called again.
    void stop();

    // Application streams recorded right now (attached, or being attached); any thread.
    std::size_t recordedStreams() const { return recorded_.load(); }

  private:
    struct Entry;

    static void onContextState(pa_context* context, void* userdata);
    static void onEvent(pa_context* context, pa_subscription_event_type_t type, std::uint32_t index,
                        void* userdata);
    static void onSinkInputListed(pa_context* context, const pa_sink_input_info* info, int end,
                                  void* userdata);
    static void onSinkInputInfo(pa_context* context, const pa_sink_input_info* info, int end,
                                void* userdata);
    static void onSinkInfo(pa_context* context, const pa_sink_info* info, int end, void* userdata);
    static void onStreamState(pa_stream* stream, void* userdata);
    static void onRetiredStreamState(pa_stream* stream, void* userdata);
    static void onRead(pa_stream* stream, std::size_t bytes, void* userdata);
    static void onWatch(pa_mainloop_api* api, pa_time_event* event, const struct timeval* when,
                        void* userdata);

    // On the loop's thread.
    void connect();
    void subscribe();
    void scheduleWatch();
    void follow(const pa_sink_input_info& info);
    void askAbout(std::uint32_t sinkInput);
    void lookUpSink(Entry& entry);
    void attach(Entry& entry, const char* monitorSource);
    void detach(Entry& entry);
    void forget(std::uint32_t sinkInput);
    Entry* find(std::uint32_t sinkInput);
    void deliver(const float* samples, std::size_t frames);
    void settle(std::optional<Failure> failure);
    void reportBroken();
    void release();
    void countRecorded();

    const Settings settings_;
    AsioPulseMainLoop loop_;

    // On the loop's thread.
    AudioTap::InputHandler handler_;
    std::function<void()> broken_;
    pa_context* context_ = nullptr;
    pa_time_event* watchTimer_ = nullptr;  // looks for record streams gone quiet
    std::vector<std::unique_ptr<Entry>> entries_;
    StreamMixer mixer_;
    bool running_ = false;
    bool delivering_ = false;  // inside a read callback
    bool released_ = false;
    std::atomic<std::size_t> recorded_{0};

    // Between the loop's thread and the one waiting in start().
    std::mutex mutex_;
    std::condition_variable settledSignal_;
    bool settled_ = false;
    std::optional<Failure> failure_;
};

}  // namespace velmora
