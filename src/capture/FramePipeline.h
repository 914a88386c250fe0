#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "capture/InputBuffer.h"
#include "capture/Resampler.h"
#include "capture/SoxrResampler.h"

namespace velmora {

class MonotonicClock;
class QueueTimer;
class RepeatingTimerFactory;
class SerialQueue;

// The signal path of the capture: down-mixes each device callback to mono, resamples it to
// HelperInfo::sampleRate, cuts 1 600-sample frames with their RMS level, and pads with silent
// frames when the device goes quiet so the output keeps wall-clock time.
//
// All state is confined to the capture queue. handleInput, emitFrames and padSilence run on
// it; the other members are called from outside it and wait for it (never from the queue).
class FramePipeline : public std::enable_shared_from_this<FramePipeline> {
  public:
    using Frame = std::vector<std::byte>;

    // The device's stream format as the capture stored it.
    struct InputFormat {
        double sampleRate = 48000.0;
        std::int64_t channels = 1;  // informational: the mixer takes counts from the buffers
        bool interleaved = true;
    };

    static constexpr std::uint64_t paddingIntervalNanoseconds = 100'000'000;
    static constexpr std::uint64_t quietBeforePaddingNanoseconds = 250'000'000;

    static std::shared_ptr<FramePipeline> create(
        SerialQueue& queue, std::shared_ptr<MonotonicClock> clock,
        std::shared_ptr<RepeatingTimerFactory> timers,
        ResamplerFactory makeResampler = SoxrResampler::factory());
    ~FramePipeline();

    FramePipeline(const FramePipeline&) = delete;
    FramePipeline& operator=(const FramePipeline&) = delete;

    // Called from outside the queue; each waits until the queue has taken it.
    void setOnFrame(std::function<void(Frame)> onFrame);
    void setOnLevel(std::function<void(float)> onLevel);
    // Stores the format, empties `pending` and (re)builds the converter, or removes it when the
    // input already runs at the output rate.
    void configureConverter(const InputFormat& format);
    // Restarts the output clock and the padding timer (a fresh stream).
    void startPadding();
    // Cancels the padding timer; the clock keeps its values.
    void stopPadding();
    // The clearing step of a teardown: no converter, `pending` emptied (a partial frame is
    // discarded, never flushed or padded out).
    void clear();

    // On the queue.
    void handleInput(const InputBufferList& bufferList);
    void emitFrames();
    void padSilence();

    // On the queue; for inspection.
    std::size_t pendingCount() const { return pending_.size(); }
    bool hasConverter() const { return converter_ != nullptr; }
    bool isPadding() const { return padTimer_ != nullptr; }
    std::int64_t emittedSamples() const { return emittedSamples_; }

  private:
    FramePipeline(SerialQueue& queue, std::shared_ptr<MonotonicClock> clock,
                  std::shared_ptr<RepeatingTimerFactory> timers, ResamplerFactory makeResampler);

    void runOnQueue(const std::function<void()>& work);
    void downMix(const InputBufferList& bufferList);
    void resample();
    void cancelPadTimer();

    SerialQueue& queue_;
    std::shared_ptr<MonotonicClock> clock_;
    std::shared_ptr<RepeatingTimerFactory> timers_;
    ResamplerFactory makeResampler_;

    std::function<void(Frame)> onFrame_;
    std::function<void(float)> onLevel_;
    InputFormat format_;
    std::unique_ptr<Resampler> converter_;
    std::vector<float> mono_;
    std::vector<float> pending_;
    std::shared_ptr<QueueTimer> padTimer_;
    std::uint64_t clockStart_ = 0;
    std::int64_t emittedSamples_ = 0;
    std::uint64_t lastDataAt_ = 0;
};

}  // namespace velmora
