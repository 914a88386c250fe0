#include "capture/pulse/PulseAudioTap.h"

#include <pulse/error.h>
#include <pulse/introspect.h>
#include <pulse/timeval.h>

#include <mutex>

#include "capture/CaptureError.h"
#include "capture/pulse/DefaultSinkWatch.h"
#include "capture/pulse/PulseContext.h"
#include "capture/pulse/PulseRecording.h"
#include "config/AudioKit.h"
#include "config/EndingThread.h"
#include "config/Log.h"
#include "config/SerialQueue.h"

namespace velmora {

namespace {

constexpr const char* tapFailure = "Could not create the system audio tap";
constexpr const char* deviceFailure = "Could not create the capture device";
constexpr const char* attachFailure = "Could not attach to the capture device";
constexpr const char* startFailure = "Could not start system audio capture";

// Every application's stream is recorded in one format, converted by the server: the common
// rate of playback, in stereo so that the level of a stereo application is the same as on its
// output (the frame pipeline averages the channels).
constexpr pa_sample_spec recordedSpec{PA_SAMPLE_FLOAT32LE, 48000, 2};

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

// The default-output listener, read by the recording on its own queue when its stream breaks.
struct PulseAudioTap::Listener {
    std::mutex mutex;
    std::function<void()> changed;

    void report() {
        std::function<void()> call;
        {
            std::lock_guard lock(mutex);
            call = changed;
        }
        // Outside the lock: the call may end this tap's owner, and with it this tap.
        if (call) call();
    }
};

PulseAudioTap::PulseAudioTap() : PulseAudioTap(Options()) {}

PulseAudioTap::PulseAudioTap(Options options)
    : options_(std::move(options)),
      loop_(std::make_unique<PulseLoop>()),
      listener_(std::make_shared<Listener>()) {}

PulseAudioTap::~PulseAudioTap() {
    teardown();
    watch_.reset();
    if (loop_->isLoopThread()) {
        // The last owner let go inside one of our callbacks (a listener holding it for a moment):
        // the loop cannot stop its own thread, so the ending thread stops it once the callback
        // has returned.
        endOnEndingThread(std::shared_ptr<PulseLoop>(std::move(loop_)));
    }
}

TapStreamFormat PulseAudioTap::createTap() {
    stopRecording();
    PulseLoop::Lock lock(*loop_);
    deviceReady_ = false;
    releasePulseContext(context_);
    monitorSource_.clear();
    connectContext();
    lookUpSink(askDefaultSinkName());

    TapStreamFormat format;
    format.isLinearPCM = true;
    format.isFloat = true;
    format.bitsPerChannel = 32;
    format.sampleRate = recordedSpec.rate;
    format.channelsPerFrame = recordedSpec.channels;
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
    // The default output is not what is recorded (every application's stream is, wherever it
    // plays), but a server without one has nothing to play to: that is an error the user sees.
    monitorSource_ = answer.monitorSource;
}

void PulseAudioTap::createDevice() {
    stopRecording();
    PulseLoop::Lock lock(*loop_);
    deviceReady_ = false;
    if (context_ == nullptr || monitorSource_.empty()) {
        throwPulseError(deviceFailure, PA_ERR_BADSTATE);
    }
    deviceReady_ = true;
}

void PulseAudioTap::startIO(SerialQueue& queue, InputHandler handler) {
    PulseRecording::Settings settings;
    {
        PulseLoop::Lock lock(*loop_);
        if (!deviceReady_ || recording_) {
            throwPulseError(attachFailure, PA_ERR_BADSTATE);
        }
        settings.server = options_.server;
        settings.sampleSpec = recordedSpec;
        pa_channel_map_init_stereo(&settings.channelMap);
        settings.streamName = AudioKit::config().appName + " Tap";
        settings.fragment = options_.fragment;
        settings.timeout = options_.timeout;
    }
    auto recording =
        std::make_shared<PulseRecording>(queue.context(), std::move(settings), std::move(handler),
                                         [listener = listener_] { listener->report(); });
    if (const auto failure = recording->start()) {
        recording->stop();
        throwPulseError(failure->attaching ? attachFailure : startFailure, failure->error);
    }
    log("Recording the output of every application (" +
        std::to_string(recording->recordedStreams()) + " playing now)");
    recording_ = std::move(recording);
}

void PulseAudioTap::teardown() {
    stopRecording();
    PulseLoop::Lock lock(*loop_);
    deviceReady_ = false;
    releasePulseContext(context_);
    monitorSource_.clear();
}

void PulseAudioTap::stopRecording() {
    if (auto recording = std::move(recording_)) {
        recording->stop();
    }
}

bool PulseAudioTap::hasTap() const {
    PulseLoop::Lock lock(*loop_);
    return context_ != nullptr;
}

std::size_t PulseAudioTap::recordedStreams() const {
    return recording_ ? recording_->recordedStreams() : 0;
}

void PulseAudioTap::installDefaultOutputListener(std::function<void()> changed) {
    {
        std::lock_guard lock(listener_->mutex);
        listener_->changed = changed;
    }
    watch_.reset();
    watch_ = std::make_unique<DefaultSinkWatch>(*loop_, options_.server, std::move(changed));
    watch_->start(options_.timeout);
}

void PulseAudioTap::throwPulseError(const std::string& what, int error) {
    if (error == PA_ERR_ACCESS) {
        throw CaptureError::permissionDenied();
    }
    throw CaptureError::device(what + " (" + pa_strerror(error) + ", " + std::to_string(error) +
                               ").");
}

void PulseAudioTap::onContextState(pa_context*, void* userdata) {
    // A broken lookup connection fails the step waiting on it; a broken stream is reported by
    // the recording.
    static_cast<PulseAudioTap*>(userdata)->loop_->signal();
}

}  // namespace velmora
