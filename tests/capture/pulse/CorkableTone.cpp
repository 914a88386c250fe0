#include "capture/pulse/CorkableTone.h"

#include <chrono>
#include <cmath>
#include <numbers>
#include <stdexcept>
#include <thread>

namespace velmora::testing {

namespace {
constexpr pa_sample_spec toneSpec{PA_SAMPLE_FLOAT32LE, 48000, 2};
}

CorkableTone::CorkableTone(const std::string& server, const std::string& sink, double hz)
    : hz_(hz) {
    loop_ = pa_threaded_mainloop_new();
    context_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "corkable-tone");
    pa_context_set_state_callback(context_, onState, this);
    pa_threaded_mainloop_lock(loop_);
    pa_threaded_mainloop_start(loop_);
    if (pa_context_connect(context_, server.c_str(), PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        pa_threaded_mainloop_unlock(loop_);
        throw std::runtime_error("corkable tone: cannot connect");
    }
    waitFor([](CorkableTone& tone) {
        return !PA_CONTEXT_IS_GOOD(pa_context_get_state(tone.context_)) ||
               pa_context_get_state(tone.context_) == PA_CONTEXT_READY;
    });
    if (pa_context_get_state(context_) != PA_CONTEXT_READY) {
        pa_threaded_mainloop_unlock(loop_);
        throw std::runtime_error("corkable tone: connection failed");
    }
    stream_ = pa_stream_new(context_, "corkable tone", &toneSpec, nullptr);
    pa_stream_set_state_callback(stream_, onStreamState, this);
    pa_stream_set_write_callback(stream_, onWrite, this);
    pa_buffer_attr attributes{static_cast<std::uint32_t>(-1),
                              static_cast<std::uint32_t>(pa_usec_to_bytes(40000, &toneSpec)),
                              static_cast<std::uint32_t>(-1), static_cast<std::uint32_t>(-1),
                              static_cast<std::uint32_t>(-1)};
    pa_stream_connect_playback(stream_, sink.c_str(), &attributes, PA_STREAM_ADJUST_LATENCY,
                               nullptr, nullptr);
    waitFor([](CorkableTone& tone) {
        return !PA_STREAM_IS_GOOD(pa_stream_get_state(tone.stream_)) ||
               pa_stream_get_state(tone.stream_) == PA_STREAM_READY;
    });
    const bool ready = pa_stream_get_state(stream_) == PA_STREAM_READY;
    pa_threaded_mainloop_unlock(loop_);
    if (!ready) throw std::runtime_error("corkable tone: stream failed");
}

CorkableTone::~CorkableTone() {
    pa_threaded_mainloop_lock(loop_);
    if (stream_ != nullptr) {
        pa_stream_set_write_callback(stream_, nullptr, nullptr);
        pa_stream_set_state_callback(stream_, nullptr, nullptr);
        pa_stream_disconnect(stream_);
        pa_stream_unref(stream_);
    }
    pa_context_set_state_callback(context_, nullptr, nullptr);
    pa_context_disconnect(context_);
    pa_context_unref(context_);
    pa_threaded_mainloop_unlock(loop_);
    pa_threaded_mainloop_stop(loop_);
    pa_threaded_mainloop_free(loop_);
}

std::uint32_t CorkableTone::sinkInput() {
    pa_threaded_mainloop_lock(loop_);
    const std::uint32_t index = pa_stream_get_index(stream_);
    pa_threaded_mainloop_unlock(loop_);
    return index;
}

void CorkableTone::cork(bool corked) {
    pa_threaded_mainloop_lock(loop_);
    answered_ = false;
    if (pa_operation* operation = pa_stream_cork(stream_, corked ? 1 : 0, onSuccess, this)) {
        pa_operation_unref(operation);
        waitFor([](CorkableTone& tone) { return tone.answered_; });
    }
    pa_threaded_mainloop_unlock(loop_);
}

void CorkableTone::waitFor(bool (*done)(CorkableTone&)) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done(*this) && std::chrono::steady_clock::now() < deadline) {
        pa_threaded_mainloop_unlock(loop_);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        pa_threaded_mainloop_lock(loop_);
    }
}

void CorkableTone::onState(pa_context*, void*) {}
void CorkableTone::onStreamState(pa_stream*, void*) {}

void CorkableTone::onSuccess(pa_stream*, int, void* userdata) {
    static_cast<CorkableTone*>(userdata)->answered_ = true;
}

void CorkableTone::onWrite(pa_stream* stream, std::size_t bytes, void* userdata) {
    auto* tone = static_cast<CorkableTone*>(userdata);
    void* data = nullptr;
    if (pa_stream_begin_write(stream, &data, &bytes) < 0 || data == nullptr) return;
    auto* samples = static_cast<float*>(data);
    const std::size_t frames = bytes / (2 * sizeof(float));
    for (std::size_t frame = 0; frame < frames; ++frame, ++tone->frame_) {
        const auto value = static_cast<float>(
            0.5 * std::sin(2 * std::numbers::pi * tone->hz_ * double(tone->frame_) / 48000.0));
        samples[2 * frame] = value;
        samples[2 * frame + 1] = value;
    }
    pa_stream_write(stream, data, frames * 2 * sizeof(float), nullptr, 0, PA_SEEK_RELATIVE);
}

}  // namespace velmora::testing
