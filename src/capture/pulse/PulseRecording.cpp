#include "capture/pulse/PulseRecording.h"

#include <pulse/error.h>
#include <pulse/timeval.h>

#include <algorithm>
#include <span>

#include "capture/InputBuffer.h"
#include "capture/pulse/ApplicationStreams.h"
#include "capture/pulse/PulseContext.h"

namespace velmora {

namespace {

// How much of one application's audio may wait for the leading stream (see StreamMixer), and how
// much shows that the leader has stalled: well above a PipeWire quantum, well below the 250 ms
// after which the frame pipeline pads with silence.
constexpr std::chrono::milliseconds ringLength{250};
constexpr std::chrono::milliseconds takeoverLength{100};
// A record stream that fails this often in a row without delivering is left alone until its
// application's stream changes again.
constexpr int attachAttempts = 3;
// PulseAudio can leave a record stream attached to a sink input without data once that input
// starts playing after it was attached (seen when an application connects just before the
// capture does). A running stream always delivers (silence included) while its application is
// not corked, so a record stream quiet for this long is attached afresh, at growing intervals
// while the quiet lasts.
constexpr std::chrono::milliseconds watchInterval{125};
constexpr std::chrono::milliseconds firstQuietLimit{250};
constexpr std::chrono::milliseconds longestQuietLimit{8000};

std::size_t framesIn(std::chrono::milliseconds length, const pa_sample_spec& spec) {
    return static_cast<std::size_t>(length.count()) * spec.rate / 1000;
}

}  // namespace

// One application stream and the record stream attached to it.
struct PulseRecording::Entry {
    PulseRecording* owner = nullptr;
    std::uint32_t sinkInput = PA_INVALID_INDEX;
    std::uint32_t sink = PA_INVALID_INDEX;  // the output it plays to
    pa_operation* sinkLookup = nullptr;
    pa_stream* stream = nullptr;
    int failures = 0;
    // Read and written on the loop's thread.
    std::chrono::steady_clock::time_point lastData{};
    std::chrono::milliseconds quietLimit = firstQuietLimit;
    bool checkingQuiet = false;
};

PulseRecording::PulseRecording(boost::asio::io_context& loop, Settings settings,
                               AudioTap::InputHandler handler, std::function<void()> broken)
    : settings_(std::move(settings)),
      loop_(loop),
      handler_(std::move(handler)),
      broken_(std::move(broken)),
      mixer_(settings_.sampleSpec.channels, framesIn(ringLength, settings_.sampleSpec),
             framesIn(takeoverLength, settings_.sampleSpec),
             [this](const float* samples, std::size_t frames) { deliver(samples, frames); }) {}

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

void PulseRecording::subscribe() {
    pa_context_set_subscribe_callback(context_, onEvent, this);
    pa_operation* subscribed =
        pa_context_subscribe(context_, PA_SUBSCRIPTION_MASK_SINK_INPUT, nullptr, nullptr);
    // Events that come in while the list is on its way are answered after it: the server
    // handles requests in order.
    pa_operation* listed = pa_context_get_sink_input_info_list(context_, onSinkInputListed, this);
    if (subscribed == nullptr || listed == nullptr) {
        settle(Failure{.attaching = true, .error = pa_context_errno(context_)});
    }
    if (subscribed != nullptr) pa_operation_unref(subscribed);
    if (listed != nullptr) pa_operation_unref(listed);
}

void PulseRecording::scheduleWatch() {
    struct timeval when {};
    pa_gettimeofday(&when);
    pa_timeval_add(&when, static_cast<pa_usec_t>(watchInterval.count()) * PA_USEC_PER_MSEC);
    if (watchTimer_ == nullptr) {
        watchTimer_ = loop_.api()->time_new(loop_.api(), &when, onWatch, this);
    } else {
        loop_.api()->time_restart(watchTimer_, &when);
    }
}

void PulseRecording::onWatch(pa_mainloop_api*, pa_time_event*, const struct timeval*,
                             void* userdata) {
    auto* recording = static_cast<PulseRecording*>(userdata);
    const auto now = std::chrono::steady_clock::now();
    for (auto& entry : recording->entries_) {
        if (entry->stream == nullptr || entry->checkingQuiet ||
            pa_stream_get_state(entry->stream) != PA_STREAM_READY ||
            now - entry->lastData < entry->quietLimit) {
            continue;
        }
        entry->checkingQuiet = true;
        entry->lastData = now;
        entry->quietLimit = std::min(entry->quietLimit * 2, longestQuietLimit);
        recording->askAbout(entry->sinkInput);
    }
    recording->scheduleWatch();
}

void PulseRecording::onContextState(pa_context* context, void* userdata) {
    auto* recording = static_cast<PulseRecording*>(userdata);
    const pa_context_state_t state = pa_context_get_state(context);
    if (state == PA_CONTEXT_READY) {
        recording->subscribe();
        recording->scheduleWatch();
    } else if (!PA_CONTEXT_IS_GOOD(state)) {
        recording->settle(Failure{.attaching = false, .error = pa_context_errno(context)});
        recording->reportBroken();
    }
}

void PulseRecording::onEvent(pa_context*, pa_subscription_event_type_t type, std::uint32_t index,
                             void* userdata) {
    auto* recording = static_cast<PulseRecording*>(userdata);
    if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) != PA_SUBSCRIPTION_EVENT_SINK_INPUT) return;
    if ((type & PA_SUBSCRIPTION_EVENT_TYPE_MASK) == PA_SUBSCRIPTION_EVENT_REMOVE) {
        recording->forget(index);
    } else {
        recording->askAbout(index);
    }
}

void PulseRecording::onSinkInputListed(pa_context* context, const pa_sink_input_info* info, int end,
                                       void* userdata) {
    auto* recording = static_cast<PulseRecording*>(userdata);
    if (end == 0 && info != nullptr) {
        recording->follow(*info);
        return;
    }
    if (end < 0) {
        recording->settle(Failure{.attaching = true, .error = pa_context_errno(context)});
        return;
    }
    recording->settle(std::nullopt);
}

void PulseRecording::onSinkInputInfo(pa_context*, const pa_sink_input_info* info, int end,
                                     void* userdata) {
    // The end of the answer, or no answer because the stream is gone (its removal is an event of
    // its own).
    if (end == 0 && info != nullptr) static_cast<PulseRecording*>(userdata)->follow(*info);
}

void PulseRecording::askAbout(std::uint32_t sinkInput) {
    if (context_ == nullptr) return;
    if (pa_operation* operation =
            pa_context_get_sink_input_info(context_, sinkInput, onSinkInputInfo, this)) {
        pa_operation_unref(operation);
    }
}

void PulseRecording::follow(const pa_sink_input_info& info) {
    if (!isApplicationStream(info)) {
        forget(info.index);
        return;
    }
    Entry* entry = find(info.index);
    if (entry == nullptr) {
        auto made = std::make_unique<Entry>();
        made->owner = this;
        made->sinkInput = info.index;
        entry = made.get();
        entries_.push_back(std::move(made));
    } else if (entry->sink == info.sink && (entry->stream != nullptr || entry->sinkLookup)) {
        // Already recorded where it plays (a change of volume, a cork, a property), unless its
        // record stream went quiet while the application plays on.
        const bool revive = entry->checkingQuiet && info.corked == 0 && entry->stream != nullptr;
        entry->checkingQuiet = false;
        if (!revive) return;
    } else if (entry->sink != info.sink) {
        entry->failures = 0;  // moved: a fresh start on the new output
    } else if (entry->failures >= attachAttempts) {
        return;
    }
    detach(*entry);
    entry->sink = info.sink;
    lookUpSink(*entry);
    countRecorded();
}

void PulseRecording::lookUpSink(Entry& entry) {
    entry.sinkLookup = pa_context_get_sink_info_by_index(context_, entry.sink, onSinkInfo, &entry);
}

void PulseRecording::onSinkInfo(pa_context*, const pa_sink_info* info, int end, void* userdata) {
    auto* entry = static_cast<Entry*>(userdata);
    if (end == 0 && info != nullptr) {
        if (entry->stream == nullptr && info->monitor_source_name != nullptr) {
            entry->owner->attach(*entry, info->monitor_source_name);
        }
        return;
    }
    if (entry->sinkLookup != nullptr) {
        pa_operation_unref(entry->sinkLookup);
        entry->sinkLookup = nullptr;
    }
    entry->owner->countRecorded();
}

void PulseRecording::attach(Entry& entry, const char* monitorSource) {
    pa_stream* stream = pa_stream_new(context_, settings_.streamName.c_str(), &settings_.sampleSpec,
                                      &settings_.channelMap);
    if (stream == nullptr) {
        ++entry.failures;
        return;
    }
    pa_stream_set_monitor_stream(stream, entry.sinkInput);
    pa_stream_set_state_callback(stream, onStreamState, &entry);
    pa_stream_set_read_callback(stream, onRead, &entry);

    pa_buffer_attr attributes;
    attributes.maxlength = static_cast<std::uint32_t>(-1);
    attributes.tlength = static_cast<std::uint32_t>(-1);
    attributes.prebuf = static_cast<std::uint32_t>(-1);
    attributes.minreq = static_cast<std::uint32_t>(-1);
    attributes.fragsize = static_cast<std::uint32_t>(
        pa_usec_to_bytes(static_cast<pa_usec_t>(settings_.fragment.count()) * PA_USEC_PER_MSEC,
                         &settings_.sampleSpec));
    // Not DONT_MOVE: PulseAudio then delivers nothing to a stream attached to a sink input. When
    // the application moves, the server ends this stream and the sink-input event re-attaches it
    // on the new output.
    const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY);
    if (pa_stream_connect_record(stream, monitorSource, &attributes, flags) < 0) {
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        pa_stream_set_read_callback(stream, nullptr, nullptr);
        pa_stream_unref(stream);
        ++entry.failures;
        return;
    }
    entry.stream = stream;
    entry.lastData = std::chrono::steady_clock::now();
    mixer_.add(entry.sinkInput);
    countRecorded();
}

void PulseRecording::detach(Entry& entry) {
    if (entry.sinkLookup != nullptr) {
        pa_operation_cancel(entry.sinkLookup);
        pa_operation_unref(entry.sinkLookup);
        entry.sinkLookup = nullptr;
    }
    if (entry.stream != nullptr) {
        pa_stream_set_read_callback(entry.stream, nullptr, nullptr);
        if (pa_stream_get_state(entry.stream) == PA_STREAM_CREATING) {
            // The server refuses to end a stream it has not finished making, and would keep it
            // recording for the rest of the connection: it is ended once made.
            pa_stream_set_state_callback(entry.stream, onRetiredStreamState, nullptr);
        } else {
            pa_stream_set_state_callback(entry.stream, nullptr, nullptr);
            if (pa_stream_get_state(entry.stream) == PA_STREAM_READY) {
                pa_stream_disconnect(entry.stream);
            }
            pa_stream_unref(entry.stream);
        }
        entry.stream = nullptr;
    }
    // While a read is under way the mixer finishes it first; the entry goes with release().
    if (!delivering_) mixer_.remove(entry.sinkInput);
    countRecorded();
}

void PulseRecording::forget(std::uint32_t sinkInput) {
    Entry* entry = find(sinkInput);
    if (entry == nullptr) return;
    detach(*entry);
    if (delivering_) return;  // removed once the read is through
    std::erase_if(entries_, [entry](const auto& held) { return held.get() == entry; });
}

PulseRecording::Entry* PulseRecording::find(std::uint32_t sinkInput) {
    for (auto& entry : entries_) {
        if (entry->sinkInput == sinkInput) return entry.get();
    }
    return nullptr;
}

void PulseRecording::countRecorded() {
    std::size_t count = 0;
    for (const auto& entry : entries_) {
        if (entry->stream != nullptr || entry->sinkLookup != nullptr) ++count;
    }
    recorded_ = count;
}

void PulseRecording::onStreamState(pa_stream* stream, void* userdata) {
    auto* entry = static_cast<Entry*>(userdata);
    if (PA_STREAM_IS_GOOD(pa_stream_get_state(stream))) return;
    // PulseAudio ends a record stream attached to a sink input when that one starts moving;
    // asking about it again finds it on its new output (or finds it gone).
    PulseRecording* recording = entry->owner;
    ++entry->failures;
    recording->detach(*entry);
    if (entry->failures < attachAttempts) recording->askAbout(entry->sinkInput);
}

void PulseRecording::onRetiredStreamState(pa_stream* stream, void*) {
    const pa_stream_state_t state = pa_stream_get_state(stream);
    if (state == PA_STREAM_READY) {
        pa_stream_disconnect(stream);  // comes back here as terminated
    } else if (!PA_STREAM_IS_GOOD(state)) {
        // Ended, or its connection went: libpulse holds its own reference while it calls us.
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        pa_stream_unref(stream);
    }
}

void PulseRecording::onRead(pa_stream* stream, std::size_t, void* userdata) {
    auto* entry = static_cast<Entry*>(userdata);
    PulseRecording* recording = entry->owner;
    // The handler may end this recording (its owner let go inside): everything stays valid until
    // the loop below is done with it.
    const std::shared_ptr<PulseRecording> keep = recording->shared_from_this();
    pa_stream_ref(stream);
    const std::size_t frameBytes = pa_frame_size(&recording->settings_.sampleSpec);
    recording->delivering_ = true;
    while (entry->stream == stream) {
        const void* data = nullptr;
        std::size_t bytes = 0;
        if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0) break;
        entry->failures = 0;
        entry->lastData = std::chrono::steady_clock::now();
        entry->quietLimit = firstQuietLimit;
        // A hole (no data for `bytes`) reads as silence, so the timeline stays whole.
        recording->mixer_.write(entry->sinkInput, static_cast<const float*>(data),
                                bytes / frameBytes);
        if (entry->stream != stream) break;
        pa_stream_drop(stream);
    }
    recording->delivering_ = false;
    pa_stream_unref(stream);
    if (recording->released_) {
        recording->release();
    } else if (entry->stream == nullptr && recording->find(entry->sinkInput) == entry) {
        // Detached while reading: finish what the mixer and the list still hold of it.
        recording->mixer_.remove(entry->sinkInput);
    }
}

void PulseRecording::deliver(const float* samples, std::size_t frames) {
    if (!handler_ || released_) return;
    const InputBuffer buffer{
        settings_.sampleSpec.channels,
        static_cast<std::uint32_t>(frames * pa_frame_size(&settings_.sampleSpec)), samples};
    handler_(InputBufferList{std::span<const InputBuffer>(&buffer, 1)});
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
    released_ = true;
    broken_ = nullptr;
    for (auto& entry : entries_) detach(*entry);
    if (watchTimer_ != nullptr) {
        loop_.api()->time_free(watchTimer_);
        watchTimer_ = nullptr;
    }
    releasePulseContext(context_);
    // A read under way (its handler let go of this recording) finishes first; it calls release()
    // again once it is through.
    if (!delivering_) {
        entries_.clear();
        handler_ = nullptr;
    }
    countRecorded();
    // A start still waiting gives up now rather than at its timeout.
    settle(Failure{.attaching = false, .error = PA_ERR_KILLED});
}

}  // namespace velmora
