// The capture hot path: down-mix, resample and frame 48 kHz stereo float in 10 ms callbacks.
// "x_realtime" is seconds of audio handled per second of CPU (the goal is 5 000 or more, one
// hour of audio in under 0.72 s).

#include <benchmark/benchmark.h>

#include <cmath>
#include <numbers>
#include <vector>

#include "capture/FramePipeline.h"
#include "capture/MonotonicClock.h"
#include "capture/RepeatingTimerFactory.h"
#include "capture/SoxrResampler.h"
#include "config/SerialQueue.h"

namespace velmora {
namespace {

constexpr double inputRate = 48000.0;
constexpr std::size_t framesPerCallback = 480;  // 10 ms
constexpr int callbacksPerIteration = 100;      // one second of audio

void handleStereoCallbacks(benchmark::State& state, ResamplerQuality quality) {
    SerialQueue queue("com.velmora.audiohelper.capture");
    auto pipeline =
        FramePipeline::create(queue, steadyMonotonicClock(), queueTimerFactory(),
                              SoxrResampler::factory(ResamplerSettings{.quality = quality}));
    std::size_t bytesOut = 0;
    pipeline->setOnFrame([&](FramePipeline::Frame frame) { bytesOut += frame.size(); });
    float lastLevel = 0;
    pipeline->setOnLevel([&](float level) { lastLevel = level; });
    pipeline->configureConverter({.sampleRate = inputRate, .channels = 2, .interleaved = true});

    // Speech-like content: two tones with different phases per channel, one second long.
    std::vector<float> second(static_cast<std::size_t>(inputRate) * 2);
    for (std::size_t n = 0; n < second.size() / 2; ++n) {
        const double t = static_cast<double>(n) / inputRate;
        second[2 * n] = static_cast<float>(0.3 * std::sin(2 * std::numbers::pi * 220 * t) +
                                           0.1 * std::sin(2 * std::numbers::pi * 3100 * t));
        second[2 * n + 1] = static_cast<float>(0.3 * std::sin(2 * std::numbers::pi * 230 * t));
    }
    std::vector<InputBuffer> buffers(callbacksPerIteration);
    for (int callback = 0; callback < callbacksPerIteration; ++callback) {
        buffers[callback] = InputBuffer{
            .channelCount = 2,
            .byteSize = static_cast<std::uint32_t>(framesPerCallback * 2 * sizeof(float)),
            .data = second.data() + callback * framesPerCallback * 2,
        };
    }

    // The pipeline lives on its queue; the measured loop runs there too.
    queue.sync([&] {
        for (auto _ : state) {
            for (int callback = 0; callback < callbacksPerIteration; ++callback) {
                pipeline->handleInput(InputBufferList{.buffers = {&buffers[callback], 1}});
            }
        }
    });
    benchmark::DoNotOptimize(bytesOut);
    benchmark::DoNotOptimize(lastLevel);
    state.counters["x_realtime"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.SetItemsProcessed(state.iterations() * callbacksPerIteration);
}

void BM_FramePipelineStereo48kHighQuality(benchmark::State& state) {
    handleStereoCallbacks(state, ResamplerQuality::high);
}
void BM_FramePipelineStereo48kVeryHighQuality(benchmark::State& state) {
    handleStereoCallbacks(state, ResamplerQuality::veryHigh);
}

// The work runs on the capture queue's thread, so CPU time is taken for the whole process.
BENCHMARK(BM_FramePipelineStereo48kHighQuality)
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FramePipelineStereo48kVeryHighQuality)
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace velmora

BENCHMARK_MAIN();
