#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "capture/FramePipeline.h"
#include "capture/FrameRecorder.h"
#include "config/SerialQueue.h"
#include "support/FakeAudioTap.h"
#include "support/ManualClock.h"
#include "support/ManualTimers.h"

namespace velmora::testing {

// A frame pipeline on its own capture queue with a manual clock; the test feeds callbacks onto
// the queue and waits for each.
class PipelineTestFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        pipeline->setOnFrame(recorder.frameSink());
        pipeline->setOnLevel(recorder.levelSink());
    }

    void configure(double rate, bool interleaved = true, std::int64_t channels = 2) {
        pipeline->configureConverter(FramePipeline::InputFormat{rate, channels, interleaved});
    }

    void feed(const std::vector<FakeBuffer>& buffers) {
        queue.sync([&] {
            std::vector<InputBuffer> list;
            for (const FakeBuffer& buffer : buffers) {
                list.push_back(InputBuffer{
                    .channelCount = buffer.channelCount,
                    .byteSize = buffer.byteSize.value_or(
                        static_cast<std::uint32_t>(buffer.samples.size() * sizeof(float))),
                    .data = buffer.hasData ? buffer.samples.data() : nullptr,
                });
            }
            pipeline->handleInput(InputBufferList{.buffers = list});
        });
    }

    void feedInterleaved(const std::vector<float>& samples, std::uint32_t channels) {
        FakeBuffer buffer;
        buffer.channelCount = channels;
        buffer.samples = samples;
        feed({buffer});
    }

    void feedMono(const std::vector<float>& samples) { feedInterleaved(samples, 1); }

    std::size_t pending() {
        return queue.sync([&] { return pipeline->pendingCount(); });
    }
    bool hasConverter() {
        return queue.sync([&] { return pipeline->hasConverter(); });
    }

    SerialQueue queue{"com.velmora.audiohelper.capture"};
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<ManualTimers> timers = std::make_shared<ManualTimers>(clock);
    std::shared_ptr<FramePipeline> pipeline = FramePipeline::create(queue, clock, timers);
    FrameRecorder recorder;
};

}  // namespace velmora::testing
