#include "capture/pulse/PulseRecording.h"

#include <pulse/error.h>
#include <pulse/timeval.h>

#include <span>

#include "capture/InputBuffer.h"
#include "capture/pulse/PulseContext.h"

namespace velmora {

PulseRecording::PulseRecording(boost::asio::io_context& loop, Settings settings,
                               AudioTap::InputHandler handler, std::function<void()> broken)
    : settings_(std::move(settings)),
      loop_(loop),
      handler_(std::move(handler)),
      broken_(std::move(broken)) {}

PulseRecording::~PulseRecording() {
    stop();
}

std::optional<PulseRecording::Failure> PulseRecording::start() {
    loop_.runAndWait([this] { connect(); });
    std::unique_lock lock(mutex_);
    if (!settledSignal_.wait_for(lock, settings_.timeout, [this] { return settled_; })) {
        return Failure{.attaching = false, .error = PA_ERR_TIMEOUT};
    }
    return failure_;
}

void PulseRecording::stop() {
    loop_.runAndWait([this] { release(); });
}

void PulseRecording::connect() {
    context_ = createPulseContext(loop_.api());
    if (context_ == nullptr) {
        settle(Failure{.attaching = false, .error = PA_ERR_INTERNAL});
        return;
    }
    pa_context_set_state_callback(context_, onContextState, this);
    if (const int error = connectPulseContext(context_, settings_.server); error != PA_OK) {
        settle(Failure{.attaching = false, .error = error});
    }
}

void PulseRecording::connectStream() {
    stream_ = pa_stream_new(context_, settings_.streamName.c_str(), &settings_.sampleSpec,
                            &settings_.channelMap);
    if (stream_ == nullptr) {
        settle(Failure{.attaching = true, .error = pa_context_errno(context_)});
        return;
    }
    pa_stream_set_state_callback(stream_, onStreamState, this);
    pa_stream_set_read_callback(stream_, onRead, this);
    pa_stream_set_moved_callback(stream_, onStreamMoved, this);

    pa_buffer_attr attributes;
    attributes.maxlength = static_cast<std::uint32_t>(-1);
    attributes.tlength = static_cast<std::uint32_t>(-1);
    attributes.prebuf = static_cast<std::uint32_t>(-1);
    attributes.minreq = static_cast<std::uint32_t>(-1);
    attributes.fragsize = static_cast<std::uint32_t>(
        pa_usec_to_bytes(static_cast<pa_usec_t>(settings_.fragment.count()) * PA_USEC_PER_MSEC,
                         &settings_.sampleSpec));
    // DONT_MOVE: when the sink goes away the stream fails (and the tap is rebuilt on the new
    // default) instead of being moved to whatever source the server picks.
    const auto flags =
        static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE);
    if (pa_stream_connect_record(stream_, settings_.source.c_str(), &attributes, flags) < 0) {
        settle(Failure{.attaching = true, .error = pa_context_errno(context_)});
    }
}

void PulseRecording::settle(std::optional<Failure> failure) {
    std::lock_guard lock(mutex_);
    if (settled_) return;
    settled_ = true;
    failure_ = failure;
    running_ = !failure;
    settledSignal_.notify_all();
}

void PulseRecording::reportBroken() {
    if (!running_) {
        return;
    }
    running_ = false;
    // A copy: the call may end this recording's owner.
    if (const auto broken = broken_) {
        broken();
    }
}

void PulseRecording::release() {
    running_ = false;
    // A handler under way (its owner let go inside it) is let go once it returns.
    if (!delivering_) handler_ = nullptr;
    broken_ = nullptr;
    if (stream_ != nullptr) {
        pa_stream_set_state_callback(stream_, nullptr, nullptr);
        pa_stream_set_read_callback(stream_, nullptr, nullptr);
        pa_stream_set_moved_callback(stream_, nullptr, nullptr);
        if (pa_stream_get_state(stream_) != PA_STREAM_UNCONNECTED) {
            pa_stream_disconnect(stream_);
        }
        pa_stream_unref(stream_);
        stream_ = nullptr;
    }
    releasePulseContext(context_);
    // A start still waiting gives up now rather than at its timeout.
    settle(Failure{.attaching = false, .error = PA_ERR_KILLED});
}

void PulseRecording::onContextState(pa_context* context, void* userdata) {
    auto* recording = static_cast<PulseRecording*>(userdata);
    const pa_context_state_t state = pa_context_get_state(context);
    if (state == PA_CONTEXT_READY) {
        recording->connectStream();
    } else if (!PA_CONTEXT_IS_GOOD(state)) {
        recording->settle(Failure{.attaching = false, .error = pa_context_errno(context)});
        recording->reportBroken();
    }
}

void PulseRecording::onStreamState(pa_stream* stream, void* userdata) {
    auto* recording = static_cast<PulseRecording*>(userdata);
    const pa_stream_state_t state = pa_stream_get_state(stream);
    if (state == PA_STREAM_READY) {
        recording->settle(std::nullopt);
    } else if (!PA_STREAM_IS_GOOD(state)) {
        recording->settle(
            Failure{.attaching = false, .error = pa_context_errno(recording->context_)});
        recording->reportBroken();
    }
}

void PulseRecording::onStreamMoved(pa_stream*, void* userdata) {
    static_cast<PulseRecording*>(userdata)->reportBroken();
}

const void* PulseRecording::silence(std::size_t bytes) {
    const std::size_t samples = (bytes + sizeof(float) - 1) / sizeof(float);
    // Grows only for a hole longer than any before; steady streams never reach here.
    if (silence_.size() < samples) silence_.assign(samples, 0.0f);
    return silence_.data();
}

void PulseRecording::onRead(pa_stream* stream, std::size_t, void* userdata) {
    auto* recording = static_cast<PulseRecording*>(userdata);
    // The handler may end this recording (its owner let go inside): both stay valid until the
    // loop below is done with them.
    const std::shared_ptr<PulseRecording> keep = recording->shared_from_this();
    pa_stream_ref(stream);
    while (recording->stream_ == stream) {
        const void* data = nullptr;
        std::size_t bytes = 0;
        if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0) break;
        // A hole (no data for `bytes`) reads as silence, so the timeline stays whole.
        const InputBuffer buffer{recording->settings_.sampleSpec.channels,
                                 static_cast<std::uint32_t>(bytes),
                                 data != nullptr ? data : recording->silence(bytes)};
        if (recording->handler_) {
            recording->delivering_ = true;
            recording->handler_(InputBufferList{std::span<const InputBuffer>(&buffer, 1)});
            recording->delivering_ = false;
        }
        if (recording->stream_ != stream) break;
        pa_stream_drop(stream);
    }
    if (recording->stream_ == nullptr) recording->handler_ = nullptr;
    pa_stream_unref(stream);
}

}  // namespace velmora
