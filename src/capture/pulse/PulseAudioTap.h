#pragma once

#include <pulse/channelmap.h>
#include <pulse/context.h>
#include <pulse/sample.h>
#include <pulse/stream.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "capture/AudioTap.h"
#include "capture/pulse/PulseLoop.h"

namespace velmora {

class DefaultSinkWatch;
class PulseRecording;

// The system audio tap on a PulseAudio-protocol sound server (PulseAudio itself, or PipeWire's
// pulse server): records what every application plays, each stream once, wherever it plays
// (see PulseRecording), mixed into one interleaved float32 stream at 48 kHz stereo.
//
// Checking the server and watching the default output run on a threaded main loop, which
// sleeps while nothing changes: each tap connects a context of its own there (created by
// createTap, released by teardown), and the default-sink watch keeps a separate context for the
// tap's whole life, so news of changes keeps coming while no tap exists and across rebuilds. The
// record streams run on a connection of their own on the queue given to startIO, so that each
// fragment costs one wake-up of that queue and nothing else. Every wait on the server is
// bounded by `timeout`, so a hung server fails a step instead of blocking the caller.
class PulseAudioTap final : public AudioTap {
  public:
    struct Options {
        // The server to use, as in PULSE_SERVER ("unix:/path", "tcp:host:port"); when absent,
        // libpulse's own choice (PULSE_SERVER, then the user's session server).
        std::optional<std::string> server;
        // The longest wait for any one answer from the server.
        std::chrono::milliseconds timeout{5000};
        // The size of the fragments the server delivers.
        std::chrono::milliseconds fragment{10};
    };

    PulseAudioTap();
    explicit PulseAudioTap(Options options);
    ~PulseAudioTap() override;

    TapStreamFormat createTap() override;
    void createDevice() override;
    void startIO(SerialQueue& queue, InputHandler handler) override;
    void teardown() override;
    bool hasTap() const override;
    // `changed` runs on the main loop's thread; it must only hand the news on (post), never call
    // back into this tap.
    void installDefaultOutputListener(std::function<void()> changed) override;

    // Application streams recorded right now; 0 without IO. On the caller's thread.
    std::size_t recordedStreams() const;

  private:
    struct Listener;

    static void onContextState(pa_context* context, void* userdata);

    [[noreturn]] void throwPulseError(const std::string& what, int error);
    // These run with the loop's lock held (or on the loop thread).
    void connectContext();
    std::string askDefaultSinkName();
    void lookUpSink(const std::string& sinkName);
    void stopRecording();

    Options options_;
    std::unique_ptr<PulseLoop> loop_;

    // Guarded by the loop's lock.
    pa_context* context_ = nullptr;
    std::string monitorSource_;
    bool deviceReady_ = false;

    // On the caller's thread.
    std::shared_ptr<PulseRecording> recording_;
    // Told when the running stream breaks; shared with the recording, which calls it on its
    // queue.
    std::shared_ptr<Listener> listener_;

    std::unique_ptr<DefaultSinkWatch> watch_;
};

}  // namespace velmora
