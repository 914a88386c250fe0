#pragma once

#include <pulse/context.h>
#include <pulse/stream.h>
#include <pulse/thread-mainloop.h>

#include <cstdint>
#include <string>

namespace velmora::testing {

// A playing application the test can cork and uncork: a client of its own, with its own
// connection and main loop, playing a 0.5-amplitude stereo sine at 48 kHz into one sink until
// destroyed. Its stream shows up as a sink input like any player's.
class CorkableTone {
  public:
    // Connects to `server` and starts playing; throws std::runtime_error when that fails.
    CorkableTone(const std::string& server, const std::string& sink, double hz);
    ~CorkableTone();
    CorkableTone(const CorkableTone&) = delete;
    CorkableTone& operator=(const CorkableTone&) = delete;

    // The sink input index the server gave the stream.
    std::uint32_t sinkInput();
    // Corks (pauses) or uncorks the stream and waits for the server's answer.
    void cork(bool corked);

  private:
    static void onState(pa_context* context, void* userdata);
    static void onStreamState(pa_stream* stream, void* userdata);
    static void onWrite(pa_stream* stream, std::size_t bytes, void* userdata);
    static void onSuccess(pa_stream* stream, int success, void* userdata);
    void waitFor(bool (*done)(CorkableTone&));

    pa_threaded_mainloop* loop_ = nullptr;
    pa_context* context_ = nullptr;
    pa_stream* stream_ = nullptr;
    double hz_;
    std::uint64_t frame_ = 0;
    bool answered_ = false;
};

}  // namespace velmora::testing
