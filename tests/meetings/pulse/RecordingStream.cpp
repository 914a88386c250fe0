#include "meetings/pulse/RecordingStream.h"

#include <pulse/pulseaudio.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>

namespace velmora {
namespace {

using namespace std::chrono_literals;

// Polls `condition` under the loop's lock until it holds; false after 10 s.
bool waitUnderLock(pa_threaded_mainloop* loop, const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < deadline) {
        pa_threaded_mainloop_lock(loop);
        const bool holds = condition();
        pa_threaded_mainloop_unlock(loop);
        if (holds) {
            return true;
        }
        std::this_thread::sleep_for(10ms);
    }
    return false;
}

}  // namespace

RecordingStream::RecordingStream(const Options& options) {
    loop_ = pa_threaded_mainloop_new();
    pa_proplist* properties = pa_proplist_new();
    for (const auto& [key, value] : options.properties) {
        pa_proplist_sets(properties, key.c_str(), value.c_str());
    }
    context_ = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(loop_), "recording test",
                                            properties);
    pa_proplist_free(properties);
    if (pa_context_connect(context_, options.serverAddress.c_str(), PA_CONTEXT_NOAUTOSPAWN,
                           nullptr) < 0 ||
        pa_threaded_mainloop_start(loop_) < 0) {
        close();
        throw std::runtime_error("could not connect to " + options.serverAddress);
    }
    if (!waitUnderLock(loop_, [&] { return pa_context_get_state(context_) == PA_CONTEXT_READY; })) {
        close();
        throw std::runtime_error("the connection to " + options.serverAddress + " failed");
    }

    pa_threaded_mainloop_lock(loop_);
    const pa_sample_spec spec = options.levelMeter ? pa_sample_spec{PA_SAMPLE_FLOAT32LE, 25, 1}
                                                   : pa_sample_spec{PA_SAMPLE_S16LE, 48000, 1};
    pa_proplist* streamProperties = pa_proplist_new();
    for (const auto& [key, value] : options.streamProperties) {
        pa_proplist_sets(streamProperties, key.c_str(), value.c_str());
    }
    stream_ = pa_stream_new_with_proplist(context_, "recording", &spec, nullptr, streamProperties);
    pa_proplist_free(streamProperties);
    int flags = PA_STREAM_ADJUST_LATENCY;
    if (options.corked) {
        flags |= PA_STREAM_START_CORKED;
    }
    if (options.levelMeter) {
        flags |= PA_STREAM_PEAK_DETECT | PA_STREAM_DONT_MOVE;
    }
    const bool connected =
        stream_ != nullptr && pa_stream_connect_record(stream_, options.source.c_str(), nullptr,
                                                       static_cast<pa_stream_flags_t>(flags)) >= 0;
    if (stream_ != nullptr) {
        // Read and drop whatever arrives, so the server never sees a stalled client.
        pa_stream_set_read_callback(
            stream_,
            [](pa_stream* stream, size_t, void*) {
                const void* data = nullptr;
                size_t size = 0;
                while (pa_stream_readable_size(stream) > 0 &&
                       pa_stream_peek(stream, &data, &size) == 0 && size > 0) {
                    pa_stream_drop(stream);
                }
            },
            nullptr);
    }
    pa_threaded_mainloop_unlock(loop_);
    if (!connected ||
        !waitUnderLock(loop_, [&] { return pa_stream_get_state(stream_) == PA_STREAM_READY; })) {
        close();
        throw std::runtime_error("the recording stream on " + options.source + " did not start");
    }
}

void RecordingStream::setCorked(bool corked) {
    pa_threaded_mainloop_lock(loop_);
    pa_operation* operation = pa_stream_cork(stream_, corked ? 1 : 0, nullptr, nullptr);
    pa_threaded_mainloop_unlock(loop_);
    if (operation == nullptr) {
        throw std::runtime_error("the stream could not be corked or resumed");
    }
    const bool done = waitUnderLock(
        loop_, [&] { return pa_operation_get_state(operation) != PA_OPERATION_RUNNING; });
    pa_threaded_mainloop_lock(loop_);
    const bool applied = pa_operation_get_state(operation) == PA_OPERATION_DONE;
    pa_operation_unref(operation);
    pa_threaded_mainloop_unlock(loop_);
    if (!done || !applied) {
        throw std::runtime_error("the server did not apply the cork change");
    }
}

RecordingStream::~RecordingStream() {
    close();
}

void RecordingStream::close() {
    if (loop_ == nullptr) {
        return;
    }
    pa_threaded_mainloop_lock(loop_);
    if (stream_ != nullptr) {
        pa_stream_set_read_callback(stream_, nullptr, nullptr);
        pa_stream_disconnect(stream_);
        pa_stream_unref(stream_);
        stream_ = nullptr;
    }
    if (context_ != nullptr) {
        pa_context_disconnect(context_);
        pa_context_unref(context_);
        context_ = nullptr;
    }
    pa_threaded_mainloop_unlock(loop_);
    pa_threaded_mainloop_stop(loop_);
    pa_threaded_mainloop_free(loop_);
    loop_ = nullptr;
}

}  // namespace velmora
