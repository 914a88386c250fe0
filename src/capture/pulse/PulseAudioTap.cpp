#include "capture/pulse/PulseAudioTap.h"

#include <pulse/error.h>
#include <pulse/introspect.h>
#include <pulse/timeval.h>

#include <cstring>
#include <thread>
#include <vector>

#include "capture/CaptureError.h"
#include "capture/pulse/DefaultSinkWatch.h"
#include "capture/pulse/PulseContext.h"
#include "config/AudioKit.h"
#include "config/SerialQueue.h"

namespace velmora {

namespace {

constexpr const char* tapFailure = "Could not create the system audio tap";
constexpr const char* deviceFailure = "Could not create the capture device";
constexpr const char* attachFailure = "Could not attach to the capture device";
constexpr const char* startFailure = "Could not start system audio capture";

// The answer of one introspection call, filled in on the loop thread.
struct ServerInfoAnswer {
    explicit ServerInfoAnswer(PulseLoop* loop) : loop(loop) {}
    PulseLoop* loop;
    bool done = false;
    std::string defaultSink;
};

struct SinkInfoAnswer {
    explicit SinkInfoAnswer(PulseLoop* loop) : loop(loop) {}
    PulseLoop* loop;
    bool done = false;
    bool found = false;
    pa_sample_spec sampleSpec{};
    pa_channel_map channelMap{};
    std::string monitorSource;
};

void onServerInfo(pa_context*, const pa_server_info* info, void* userdata) {
    auto* answer = static_cast<ServerInfoAnswer*>(userdata);
    if (info != nullptr && info->default_sink_name != nullptr) {
        answer->defaultSink = info->default_sink_name;
    }
    answer->done = true;
    answer->loop->signal();
}

void onSinkInfo(pa_context*, const pa_sink_info* info, int endOfList, void* userdata) {
    auto* answer = static_cast<SinkInfoAnswer*>(userdata);
    if (endOfList == 0 && info != nullptr) {
        answer->found = true;
        answer->sampleSpec = info->sample_spec;
        answer->channelMap = info->channel_map;
        answer->monitorSource =
            info->monitor_source_name != nullptr ? info->monitor_source_name : "";
        return;
    }
    answer->done = true;
    answer->loop->signal();
}

// Waits for an operation's answer within `timeout`; cancels it when none comes, so its callback
// never runs after the answer it would fill in is gone.
bool awaitOperation(PulseLoop& loop, pa_operation* operation, const bool& done,
                    std::chrono::milliseconds timeout) {
    if (operation == nullptr) {
        return false;
    }
    const bool answered = loop.waitUntil([&] { return done; }, timeout);
    if (!answered) {
        pa_operation_cancel(operation);
    }
    pa_operation_unref(operation);
    return answered;
}

}  // namespace

// Where the recorded data goes; outlives the stream through the tasks already posted, which do
// nothing once the stream that made them is torn down.
struct PulseAudioTap::Delivery {
    SerialQueue* queue;
    InputHandler handler;
    std::uint32_t channels;
    std::atomic<bool> live{true};
};

PulseAudioTap::PulseAudioTap() : PulseAudioTap(Options()) {}

PulseAudioTap::PulseAudioTap(Options options)
    : options_(std::move(options)), loop_(std::make_unique<PulseLoop>()) {}

PulseAudioTap::~PulseAudioTap() {
    teardown();
    watch_.reset();
    if (loop_->isLoopThread()) {
        // The last owner let go inside one of our callbacks (a listener holding it for a moment):
        // the loop cannot stop its own thread, so another thread stops it once the callback has
        // returned.
        std::thread([loop = std::move(loop_)]() mutable { loop.reset(); }).detach();
    }
}

TapStreamFormat PulseAudioTap::createTap() {
    PulseLoop::Lock lock(*loop_);
    if (context_ != nullptr) {
        running_ = false;
        releaseStream();
        releasePulseContext(context_);
    }
    monitorSource_.clear();
    connectContext();
    lookUpSink(askDefaultSinkName());

    TapStreamFormat format;
    format.isLinearPCM = true;
    format.isFloat = true;
    format.bitsPerChannel = 32;
    format.sampleRate = sampleSpec_.rate;
    format.channelsPerFrame = sampleSpec_.channels;
    format.nonInterleaved = false;
    return format;
}

void PulseAudioTap::connectContext() {
    context_ = createPulseContext(loop_->api());
    if (context_ == nullptr) {
        throwPulseError(tapFailure, PA_ERR_INTERNAL);
    }
    pa_context_set_state_callback(context_, onContextState, this);
    if (const int error = connectPulseContext(context_, options_.server); error != PA_OK) {
        throwPulseError(tapFailure, error);
    }
    const bool settled = loop_->waitUntil(
        [&] {
            const auto state = pa_context_get_state(context_);
            return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
        },
        options_.timeout);
    if (!settled) {
        throwPulseError(tapFailure, PA_ERR_TIMEOUT);
    }
    if (pa_context_get_state(context_) != PA_CONTEXT_READY) {
        throwPulseError(tapFailure, pa_context_errno(context_));
    }
}

std::string PulseAudioTap::askDefaultSinkName() {
    ServerInfoAnswer answer(loop_.get());
    pa_operation* operation = pa_context_get_server_info(context_, onServerInfo, &answer);
    if (!awaitOperation(*loop_, operation, answer.done, options_.timeout) ||
        answer.defaultSink.empty()) {
        throw CaptureError::device("No audio output device found.");
    }
    return answer.defaultSink;
}

void PulseAudioTap::lookUpSink(const std::string& sinkName) {
    SinkInfoAnswer answer(loop_.get());
    pa_operation* operation =
        pa_context_get_sink_info_by_name(context_, sinkName.c_str(), onSinkInfo, &answer);
    if (!awaitOperation(*loop_, operation, answer.done, options_.timeout) || !answer.found ||
        answer.monitorSource.empty() || answer.sampleSpec.channels == 0 ||
        answer.sampleSpec.rate == 0) {
        throw CaptureError::device("Could not identify the audio output device.");
    }
    // Recording at the sink's own rate and channels spares the server a resampling step; the
    // float format is ours to ask for.
    sampleSpec_ =
        pa_sample_spec{PA_SAMPLE_FLOAT32LE, answer.sampleSpec.rate, answer.sampleSpec.channels};
    channelMap_ = answer.channelMap;
    if (!pa_channel_map_valid(&channelMap_) || channelMap_.channels != sampleSpec_.channels) {
        pa_channel_map_init_auto(&channelMap_, sampleSpec_.channels, PA_CHANNEL_MAP_DEFAULT);
    }
    // The monitor by its exact name: "@DEFAULT_MONITOR@" means the default microphone on
    // PipeWire's pulse server and does not follow a later change of default sink on PulseAudio.
    monitorSource_ = answer.monitorSource;
}

void PulseAudioTap::createDevice() {
    PulseLoop::Lock lock(*loop_);
    if (context_ == nullptr || monitorSource_.empty()) {
        throwPulseError(deviceFailure, PA_ERR_BADSTATE);
    }
    releaseStream();
    const std::string name = AudioKit::config().appName + " Tap";
    stream_ = pa_stream_new(context_, name.c_str(), &sampleSpec_, &channelMap_);
    if (stream_ == nullptr) {
        throwPulseError(deviceFailure, pa_context_errno(context_));
    }
    pa_stream_set_state_callback(stream_, onStreamState, this);
    pa_stream_set_read_callback(stream_, onRead, this);
    pa_stream_set_moved_callback(stream_, onStreamMoved, this);
}

void PulseAudioTap::startIO(SerialQueue& queue, InputHandler handler) {
    PulseLoop::Lock lock(*loop_);
    if (stream_ == nullptr || pa_stream_get_state(stream_) != PA_STREAM_UNCONNECTED) {
        throwPulseError(attachFailure, PA_ERR_BADSTATE);
    }
    // Brace-initialised: clang 14 has no aggregate initialisation from parentheses.
    delivery_ =
        std::shared_ptr<Delivery>(new Delivery{&queue, std::move(handler), sampleSpec_.channels});

    pa_buffer_attr attributes;
    attributes.maxlength = static_cast<std::uint32_t>(-1);
    attributes.tlength = static_cast<std::uint32_t>(-1);
    attributes.prebuf = static_cast<std::uint32_t>(-1);
    attributes.minreq = static_cast<std::uint32_t>(-1);
    attributes.fragsize = static_cast<std::uint32_t>(pa_usec_to_bytes(
        static_cast<pa_usec_t>(options_.fragment.count()) * PA_USEC_PER_MSEC, &sampleSpec_));
    // DONT_MOVE: when the sink goes away the stream fails (and the tap is rebuilt on the new
    // default) instead of being moved to whatever source the server picks.
    const auto flags =
        static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE);
    if (pa_stream_connect_record(stream_, monitorSource_.c_str(), &attributes, flags) < 0) {
        throwPulseError(attachFailure, pa_context_errno(context_));
    }
    const bool settled = loop_->waitUntil(
        [&] {
            const auto state = pa_stream_get_state(stream_);
            return state == PA_STREAM_READY || !PA_STREAM_IS_GOOD(state);
        },
        options_.timeout);
    if (!settled) {
        throwPulseError(startFailure, PA_ERR_TIMEOUT);
    }
    if (pa_stream_get_state(stream_) != PA_STREAM_READY) {
        throwPulseError(startFailure, pa_context_errno(context_));
    }
    running_ = true;
}

void PulseAudioTap::teardown() {
    PulseLoop::Lock lock(*loop_);
    running_ = false;
    releaseStream();
    releasePulseContext(context_);
    monitorSource_.clear();
}

bool PulseAudioTap::hasTap() const {
    PulseLoop::Lock lock(*loop_);
    return context_ != nullptr;
}

std::string PulseAudioTap::monitorSourceName() const {
    PulseLoop::Lock lock(*loop_);
    return monitorSource_;
}

void PulseAudioTap::installDefaultOutputListener(std::function<void()> changed) {
    {
        PulseLoop::Lock lock(*loop_);
        changed_ = changed;
    }
    watch_.reset();
    watch_ = std::make_unique<DefaultSinkWatch>(*loop_, options_.server, std::move(changed));
    watch_->start(options_.timeout);
}

void PulseAudioTap::releaseStream() {
    if (delivery_) {
        delivery_->live = false;
        delivery_.reset();
    }
    if (stream_ == nullptr) {
        return;
    }
    pa_stream_set_state_callback(stream_, nullptr, nullptr);
    pa_stream_set_read_callback(stream_, nullptr, nullptr);
    pa_stream_set_moved_callback(stream_, nullptr, nullptr);
    if (pa_stream_get_state(stream_) != PA_STREAM_UNCONNECTED) {
        pa_stream_disconnect(stream_);
    }
    pa_stream_unref(stream_);
    stream_ = nullptr;
}

void PulseAudioTap::reportBroken() {
    if (!running_) {
        return;
    }
    running_ = false;
    // A copy: the call may end this tap's owner, and with it this tap.
    if (const auto changed = changed_) {
        changed();
    }
}

void PulseAudioTap::throwPulseError(const std::string& what, int error) {
    if (error == PA_ERR_ACCESS) {
        throw CaptureError::permissionDenied();
    }
    throw CaptureError::device(what + " (" + pa_strerror(error) + ", " + std::to_string(error) +
                               ").");
}

void PulseAudioTap::onContextState(pa_context* context, void* userdata) {
    auto* tap = static_cast<PulseAudioTap*>(userdata);
    tap->loop_->signal();
    if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(context))) {
        tap->reportBroken();
    }
}

void PulseAudioTap::onStreamState(pa_stream* stream, void* userdata) {
    auto* tap = static_cast<PulseAudioTap*>(userdata);
    tap->loop_->signal();
    if (!PA_STREAM_IS_GOOD(pa_stream_get_state(stream))) {
        tap->reportBroken();
    }
}

void PulseAudioTap::onStreamMoved(pa_stream*, void* userdata) {
    static_cast<PulseAudioTap*>(userdata)->reportBroken();
}

void PulseAudioTap::onRead(pa_stream* stream, std::size_t, void* userdata) {
    auto* tap = static_cast<PulseAudioTap*>(userdata);
    const std::shared_ptr<Delivery> delivery = tap->delivery_;
    while (true) {
        const std::size_t readable = pa_stream_readable_size(stream);
        if (readable == static_cast<std::size_t>(-1) || readable == 0) {
            return;
        }
        const void* data = nullptr;
        std::size_t bytes = 0;
        if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0) {
            return;
        }
        // A hole (no data for `bytes`) becomes silence, so the timeline stays whole.
        std::vector<float> samples(bytes / sizeof(float), 0.0f);
        if (data != nullptr) {
            std::memcpy(samples.data(), data, samples.size() * sizeof(float));
        }
        pa_stream_drop(stream);
        if (!delivery) {
            continue;
        }
        delivery->queue->post([delivery, samples = std::move(samples)] {
            if (!delivery->live) {
                return;
            }
            const InputBuffer buffer{delivery->channels,
                                     static_cast<std::uint32_t>(samples.size() * sizeof(float)),
                                     samples.data()};
            delivery->handler(InputBufferList{std::span<const InputBuffer>(&buffer, 1)});
        });
    }
}

}  // namespace velmora
