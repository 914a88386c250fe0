#pragma once

#include <pulse/channelmap.h>
#include <pulse/context.h>
#include <pulse/sample.h>
#include <pulse/stream.h>

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
#include "capture/pulse/AsioPulseMainLoop.h"

namespace velmora {

// One record stream on a connection of its own, run by libpulse on the capture queue's own loop:
// each fragment the server sends is read, handed to the input handler straight from libpulse's
// buffer and dropped, on one thread, with one wake-up and no copy.
class PulseRecording : public std::enable_shared_from_this<PulseRecording> {
  public:
    struct Settings {
        std::optional<std::string> server;
        std::string source;
        pa_sample_spec sampleSpec{};
        pa_channel_map channelMap{};
        std::string streamName;
        std::chrono::milliseconds fragment{10};
        std::chrono::milliseconds timeout{5000};
    };

    // Why a start failed: the stream could not be attached, or it never started.
    struct Failure {
        bool attaching = false;
        int error = 0;  // a libpulse error code
    };

    // `broken` is called on the loop's thread when a running stream or its connection ends.
    PulseRecording(boost::asio::io_context& loop, Settings settings, AudioTap::InputHandler handler,
                   std::function<void()> broken);
    ~PulseRecording();

    PulseRecording(const PulseRecording&) = delete;
    PulseRecording& operator=(const PulseRecording&) = delete;

    // Connects and waits (at most the timeout) until the stream runs. Off the loop's thread.
    std::optional<Failure> start();
    // Ends the stream and the connection; once it returns the handler is not called again.
    void stop();

  private:
    static void onContextState(pa_context* context, void* userdata);
    static void onStreamState(pa_stream* stream, void* userdata);
    static void onStreamMoved(pa_stream* stream, void* userdata);
    static void onRead(pa_stream* stream, std::size_t bytes, void* userdata);

    // On the loop's thread.
    void connect();
    void connectStream();
    void settle(std::optional<Failure> failure);
    void reportBroken();
    void release();
    const void* silence(std::size_t bytes);

    const Settings settings_;
    AsioPulseMainLoop loop_;

    // On the loop's thread.
    AudioTap::InputHandler handler_;
    std::function<void()> broken_;
    pa_context* context_ = nullptr;
    pa_stream* stream_ = nullptr;
    bool running_ = false;
    bool delivering_ = false;     // inside the handler
    std::vector<float> silence_;  // what a hole in the stream reads as

    // Between the loop's thread and the one waiting in start().
    std::mutex mutex_;
    std::condition_variable settledSignal_;
    bool settled_ = false;
    std::optional<Failure> failure_;
};

}  // namespace velmora
