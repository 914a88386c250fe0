#include "capture/FramePipeline.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "capture/MonotonicClock.h"
#include "capture/RepeatingTimerFactory.h"
#include "config/HelperInfo.h"
#include "config/Log.h"
#include "config/SerialQueue.h"

namespace velmora {
namespace {

constexpr std::size_t frameSamples = HelperInfo::frameSamples;
// Frames are the samples' own bytes, which the wire defines as little-endian.
static_assert(std::endian::native == std::endian::little);
// Room kept in the scratch buffers so a steady stream of callbacks never reallocates; larger
// callbacks grow them once and the capacity is kept.
constexpr std::size_t reservedCallbackSamples = 16384;

// Counts beyond their widths are programming errors: stop rather than go on with wrong data.
void requireThat(bool condition, const char* what) {
    if (!condition) {
        log(std::string("Frame pipeline invariant broken: ") + what);
        flushLog();
        std::abort();
    }
}

}  // namespace

std::shared_ptr<FramePipeline> FramePipeline::create(SerialQueue& queue,
                                                     std::shared_ptr<MonotonicClock> clock,
                                                     std::shared_ptr<RepeatingTimerFactory> timers,
                                                     ResamplerFactory makeResampler) {
    return std::shared_ptr<FramePipeline>(
        new FramePipeline(queue, std::move(clock), std::move(timers), std::move(makeResampler)));
}

FramePipeline::FramePipeline(SerialQueue& queue, std::shared_ptr<MonotonicClock> clock,
                             std::shared_ptr<RepeatingTimerFactory> timers,
                             ResamplerFactory makeResampler)
    : queue_(queue),
      clock_(std::move(clock)),
      timers_(std::move(timers)),
      makeResampler_(std::move(makeResampler)) {
    mono_.reserve(reservedCallbackSamples);
    pending_.reserve(frameSamples + reservedCallbackSamples);
}

FramePipeline::~FramePipeline() {
    if (padTimer_) padTimer_->cancel();
}

void FramePipeline::runOnQueue(const std::function<void()>& work) {
    if (queue_.isCurrent()) {
        work();
    } else {
        queue_.runAndWait(work);
    }
}

void FramePipeline::setOnFrame(std::function<void(Frame)> onFrame) {
    runOnQueue([&] { onFrame_ = std::move(onFrame); });
}

void FramePipeline::setOnLevel(std::function<void(float)> onLevel) {
    runOnQueue([&] { onLevel_ = std::move(onLevel); });
}

void FramePipeline::configureConverter(const InputFormat& format) {
    runOnQueue([&] {
        format_ = format;
        pending_.clear();
        const double outputRate = static_cast<double>(HelperInfo::sampleRate);
        if (std::abs(format_.sampleRate - outputRate) < 1.0) {
            converter_.reset();
            return;
        }
        // No converter (none could be made) means the samples pass through unconverted.
        converter_ = makeResampler_ ? makeResampler_(format_.sampleRate, outputRate) : nullptr;
    });
}

void FramePipeline::startPadding() {
    std::weak_ptr<FramePipeline> weakSelf = weak_from_this();
    runOnQueue([&] {
        cancelPadTimer();
        const std::uint64_t now = clock_->nowNanoseconds();
        emittedSamples_ = 0;
        lastDataAt_ = now;
        clockStart_ = now;
        pending_.clear();
        const auto interval = std::chrono::nanoseconds(paddingIntervalNanoseconds);
        padTimer_ = timers_->repeat(queue_, interval, interval, [weakSelf] {
            if (auto self = weakSelf.lock()) self->padSilence();
        });
    });
}

void FramePipeline::stopPadding() {
    runOnQueue([&] { cancelPadTimer(); });
}

void FramePipeline::cancelPadTimer() {
    if (padTimer_) {
        padTimer_->cancel();
        padTimer_.reset();
    }
}

void FramePipeline::clear() {
    runOnQueue([&] {
        converter_.reset();
        pending_.clear();
    });
}

void FramePipeline::handleInput(const InputBufferList& bufferList) {
    VELMORA_ASSERT_ON_QUEUE(queue_);
    if (bufferList.buffers.empty()) return;
    downMix(bufferList);
    if (mono_.empty()) return;
    resample();
    emitFrames();
}

void FramePipeline::downMix(const InputBufferList& bufferList) {
    const auto& buffers = bufferList.buffers;
    mono_.clear();

    if (!format_.interleaved && buffers.size() != 1) {
        // Planar: the average over buffers, each scaled before it is added; buffer 0 fixes the
        // length.
        const std::size_t frames = buffers[0].byteSize / 4;
        mono_.assign(frames, 0.0f);
        const float scale = 1.0f / static_cast<float>(buffers.size());
        for (const InputBuffer& buffer : buffers) {
            if (buffer.data == nullptr) continue;
            const auto* samples = static_cast<const float*>(buffer.data);
            const std::size_t count = std::min<std::size_t>(buffer.byteSize / 4, frames);
            for (std::size_t i = 0; i < count; ++i) mono_[i] = mono_[i] + scale * samples[i];
        }
        return;
    }

    // Interleaved, or a single buffer whatever the format says: buffer 0 alone.
    const InputBuffer& buffer = buffers[0];
    if (buffer.data == nullptr) return;
    const auto* samples = static_cast<const float*>(buffer.data);
    const std::uint32_t channelCount = buffer.channelCount;
    if (channelCount < 2) {
        mono_.assign(samples, samples + buffer.byteSize / 4);
        return;
    }
    const std::size_t channels = channelCount;
    if (4 * channels > buffer.byteSize) return;
    const std::size_t frames = buffer.byteSize / (4 * channels);
    // The reciprocal is formed once as a float and multiplied, not divided.
    const float reciprocal = 1.0f / static_cast<float>(channels);
    mono_.resize(frames);
    if (channels == 2) {
        // The common case, spelled out so the frames pipeline instead of waiting on each other;
        // the arithmetic is the same as below (a sum from 0.0 in channel order, then the scale).
        for (std::size_t frame = 0; frame < frames; ++frame) {
            mono_[frame] = reciprocal * ((0.0f + samples[2 * frame]) + samples[2 * frame + 1]);
        }
        return;
    }
    for (std::size_t frame = 0; frame < frames; ++frame) {
        const float* first = samples + frame * channels;
        float sum = 0.0f;
        for (std::size_t channel = 0; channel < channels; ++channel) sum += first[channel];
        mono_[frame] = reciprocal * sum;
    }
}

void FramePipeline::resample() {
    lastDataAt_ = clock_->nowNanoseconds();
    if (!converter_) {
        pending_.insert(pending_.end(), mono_.begin(), mono_.end());
        return;
    }
    requireThat(mono_.size() <= std::numeric_limits<std::uint32_t>::max(),
                "a callback of 2^32 samples or more");
    if (auto error = converter_->process(mono_, pending_)) {
        // The callback's audio is lost; the converter stays and the next callback tries again.
        log("Resampler error: " + (error->empty() ? std::string("?") : *error));
    }
}

void FramePipeline::emitFrames() {
    VELMORA_ASSERT_ON_QUEUE(queue_);
    while (pending_.size() >= frameSamples) {
        float sumOfSquares = 0.0f;
        for (std::size_t i = 0; i < frameSamples; ++i) sumOfSquares += pending_[i] * pending_[i];
        Frame frame(frameSamples * sizeof(float));
        std::memcpy(frame.data(), pending_.data(), frame.size());
        pending_.erase(pending_.begin(), pending_.begin() + frameSamples);
        requireThat(emittedSamples_ <= std::numeric_limits<std::int64_t>::max() -
                                           static_cast<std::int64_t>(frameSamples),
                    "emitted sample count overflow");
        emittedSamples_ += static_cast<std::int64_t>(frameSamples);
        if (onLevel_) onLevel_(std::sqrt(sumOfSquares / static_cast<float>(frameSamples)));
        if (onFrame_) onFrame_(std::move(frame));
    }
}

void FramePipeline::padSilence() {
    VELMORA_ASSERT_ON_QUEUE(queue_);
    const std::uint64_t now = clock_->nowNanoseconds();
    // While real data flows the stream is never padded, even if it runs behind the clock.
    if (now - lastDataAt_ < quietBeforePaddingNanoseconds) return;
    const double elapsedSeconds = static_cast<double>(now - clockStart_) / 1'000'000'000.0;
    const double expectedSamples = elapsedSeconds * static_cast<double>(HelperInfo::sampleRate);
    requireThat(expectedSamples < 9.2e18, "a timing value beyond 64 bits");
    const auto expected = static_cast<std::int64_t>(expectedSamples);
    std::int64_t deficit = expected - emittedSamples_ - static_cast<std::int64_t>(pending_.size());
    const auto frame = static_cast<std::int64_t>(frameSamples);
    while (deficit > 2 * frame) {
        pending_.insert(pending_.end(), frameSamples, 0.0f);
        deficit -= frame;
        emitFrames();
    }
}

}  // namespace velmora
