#include "capture/SystemAudioCapture.h"

#include <atomic>
#include <cstdint>
#include <exception>
#include <mutex>
#include <string>

#include "capture/CaptureError.h"
#include "capture/FramePipeline.h"
#include "capture/MonotonicClock.h"
#include "capture/RepeatingTimerFactory.h"
#include "capture/TapStreamFormat.h"
#include "config/Log.h"
#include "config/SerialQueue.h"

namespace velmora {
namespace {

constexpr std::int64_t maximumRebuildAttempts = 5;
constexpr double fallbackInputRate = 48000.0;

std::string integerHertz(double rate) {
    return std::to_string(static_cast<long long>(rate));
}

}  // namespace

struct SystemAudioCapture::State {
    State(std::unique_ptr<AudioTap> tap, SerialQueue& mainQueue, CaptureTimings timings,
          std::shared_ptr<MonotonicClock> clock, std::shared_ptr<RepeatingTimerFactory> timers)
        : captureQueue(std::make_unique<SerialQueue>("com.velmora.audiohelper.capture")),
          pipeline(FramePipeline::create(*captureQueue, std::move(clock), std::move(timers))),
          tap(std::move(tap)),
          mainQueue(mainQueue),
          timings(timings) {}

    ~State() {
        tap.reset();
        pipeline.reset();
        if (captureQueue->isCurrent()) {
            // The last owner let go from inside a capture callback: the queue cannot join its
            // own thread, so it is stopped and left to end with the process.
            captureQueue->stop();
            static_cast<void>(captureQueue.release());
        }
    }

    // Declared first so it is destroyed last: nothing below may outlive its thread.
    std::unique_ptr<SerialQueue> captureQueue;
    std::shared_ptr<FramePipeline> pipeline;
    std::unique_ptr<AudioTap> tap;
    SerialQueue& mainQueue;
    const CaptureTimings timings;

    // On the caller's (server's) queue.
    FramePipeline::InputFormat format;
    std::atomic<bool> running{false};
    bool recovering = false;
    std::int64_t recoverAttempts = 0;
    bool listenerInstalled = false;

    // On the main queue only.
    std::int64_t deviceChangeSeq = 0;

    // Set from the server's queue, read on the main queue.
    std::mutex callbacksMutex;
    std::function<void(std::string)> onFailed;
    std::function<void()> restartHandler;
};

std::shared_ptr<SystemAudioCapture> SystemAudioCapture::create(std::unique_ptr<AudioTap> tap,
                                                               SerialQueue& mainQueue,
                                                               CaptureTimings timings) {
    return create(std::move(tap), mainQueue, timings, steadyMonotonicClock(), queueTimerFactory());
}

std::shared_ptr<SystemAudioCapture> SystemAudioCapture::create(
    std::unique_ptr<AudioTap> tap, SerialQueue& mainQueue, CaptureTimings timings,
    std::shared_ptr<MonotonicClock> clock, std::shared_ptr<RepeatingTimerFactory> timers) {
    return std::shared_ptr<SystemAudioCapture>(new SystemAudioCapture(
        std::move(tap), mainQueue, timings, std::move(clock), std::move(timers)));
}

SystemAudioCapture::SystemAudioCapture(std::unique_ptr<AudioTap> tap, SerialQueue& mainQueue,
                                       CaptureTimings timings,
                                       std::shared_ptr<MonotonicClock> clock,
                                       std::shared_ptr<RepeatingTimerFactory> timers)
    : state_(std::make_unique<State>(std::move(tap), mainQueue, timings, std::move(clock),
                                     std::move(timers))) {}

// Releases the fields only: the owner stops capture before letting it go.
SystemAudioCapture::~SystemAudioCapture() = default;

bool SystemAudioCapture::isRunning() const {
    return state_->running;
}

void SystemAudioCapture::setOnFrame(std::function<void(Frame)> onFrame) {
    state_->pipeline->setOnFrame(std::move(onFrame));
}

void SystemAudioCapture::setOnLevel(std::function<void(float)> onLevel) {
    state_->pipeline->setOnLevel(std::move(onLevel));
}

void SystemAudioCapture::setOnFailed(std::function<void(std::string)> onFailed) {
    std::lock_guard lock(state_->callbacksMutex);
    state_->onFailed = std::move(onFailed);
}

void SystemAudioCapture::setRestartHandler(std::function<void()> restartHandler) {
    std::lock_guard lock(state_->callbacksMutex);
    state_->restartHandler = std::move(restartHandler);
}

void SystemAudioCapture::start() {
    State& state = *state_;
    if (state.running) return;
    state.recovering = false;
    state.recoverAttempts = 0;
    try {
        try {
            createTapAndDevice();
            state.pipeline->startPadding();
            startIO();
        } catch (const CaptureError&) {
            throw;
        } catch (const std::exception& error) {
            // A backend that broke its contract still yields a capture error the caller can show.
            throw CaptureError::device(error.what());
        }
    } catch (const CaptureError&) {
        state.pipeline->stopPadding();
        teardown();
        throw;
    }
    state.running = true;
    installDefaultOutputListener();
    log("Capture started (" + integerHertz(state.format.sampleRate) + " Hz, " +
        std::to_string(state.format.channels) + " ch, " +
        (state.format.interleaved ? "interleaved" : "planar") + ")");
}

void SystemAudioCapture::stop() {
    State& state = *state_;
    const bool active = state.running || state.recovering;
    state.recovering = false;
    state.recoverAttempts = 0;
    if (!active && !state.tap->hasTap()) return;
    state.pipeline->stopPadding();
    teardown();
    state.running = false;
    log("Capture stopped");
}

void SystemAudioCapture::rebuild() {
    State& state = *state_;
    if (state.running) {
        log("Default output device changed; rebuilding the tap");
    } else if (!state.recovering) {
        return;
    }
    teardown();
    state.running = false;
    state.recovering = true;

    std::string printed;
    std::string text;
    try {
        // The padding clock runs on: the gap is filled with silence and the timeline continues.
        createTapAndDevice();
        startIO();
        state.running = true;
        state.recovering = false;
        state.recoverAttempts = 0;
        log("Capture rebuilt (" + integerHertz(state.format.sampleRate) + " Hz)");
        return;
    } catch (const CaptureError& error) {
        printed = error.what();
        text = error.message();
    } catch (const std::exception& error) {
        printed = error.what();
        text = error.what();
    }

    teardown();
    state.recoverAttempts += 1;
    log("Rebuild failed (attempt " + std::to_string(state.recoverAttempts) + " of " +
        std::to_string(maximumRebuildAttempts) + "): " + printed);
    if (state.recoverAttempts < maximumRebuildAttempts) {
        std::weak_ptr<SystemAudioCapture> weakSelf = weak_from_this();
        state.mainQueue.runAfter(state.timings.rebuildRetryDelay, [weakSelf] {
            if (auto self = weakSelf.lock()) self->callRestartHandler();
        });
        return;
    }
    state.recovering = false;
    state.recoverAttempts = 0;
    state.pipeline->stopPadding();
    std::function<void(std::string)> onFailed;
    {
        std::lock_guard lock(state.callbacksMutex);
        onFailed = state.onFailed;
    }
    if (onFailed) {
        onFailed("System audio couldn't be reopened after the output device changed: " + text);
    }
}

void SystemAudioCapture::createTapAndDevice() {
    State& state = *state_;
    const TapStreamFormat tapFormat = state.tap->createTap();
    if (!tapFormat.isLinearPCM || !tapFormat.isFloat || tapFormat.bitsPerChannel != 32) {
        throw CaptureError::device("Unsupported tap audio format.");
    }
    state.format.sampleRate = tapFormat.sampleRate > 0 ? tapFormat.sampleRate : fallbackInputRate;
    state.format.channels = tapFormat.channelsPerFrame < 1 ? 1 : tapFormat.channelsPerFrame;
    state.format.interleaved = !tapFormat.nonInterleaved;
    state.tap->createDevice();
    state.pipeline->configureConverter(state.format);
}

void SystemAudioCapture::startIO() {
    std::weak_ptr<FramePipeline> weakPipeline = state_->pipeline;
    state_->tap->startIO(*state_->captureQueue, [weakPipeline](const InputBufferList& buffers) {
        if (auto pipeline = weakPipeline.lock()) pipeline->handleInput(buffers);
    });
}

void SystemAudioCapture::teardown() {
    state_->tap->teardown();
    // Waits behind any callback already queued, so none runs while the pipeline is cleared.
    state_->pipeline->clear();
}

void SystemAudioCapture::installDefaultOutputListener() {
    if (state_->listenerInstalled) return;
    state_->listenerInstalled = true;
    std::weak_ptr<SystemAudioCapture> weakSelf = weak_from_this();
    state_->tap->installDefaultOutputListener([weakSelf] {
        if (auto self = weakSelf.lock()) self->deviceChanged();
    });
}

void SystemAudioCapture::deviceChanged() {
    std::weak_ptr<SystemAudioCapture> weakSelf = weak_from_this();
    SerialQueue& mainQueue = state_->mainQueue;
    mainQueue.post([weakSelf, &mainQueue] {
        auto self = weakSelf.lock();
        if (!self) return;
        const std::int64_t sequence = ++self->state_->deviceChangeSeq;
        // A burst of notifications yields one restart, after the last of them.
        mainQueue.runAfter(self->state_->timings.deviceChangeDebounce, [weakSelf, sequence] {
            auto self = weakSelf.lock();
            if (!self || self->state_->deviceChangeSeq != sequence) return;
            self->callRestartHandler();
        });
    });
}

void SystemAudioCapture::callRestartHandler() {
    std::function<void()> restartHandler;
    {
        std::lock_guard lock(state_->callbacksMutex);
        restartHandler = state_->restartHandler;
    }
    if (restartHandler) restartHandler();
}

}  // namespace velmora
