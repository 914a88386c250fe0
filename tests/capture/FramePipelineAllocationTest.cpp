// Counts heap allocations made on the capture queue while callbacks run.

#include <gtest/gtest.h>

#include "capture/PipelineTestFixture.h"
#include "support/AllocationCounter.h"

namespace velmora::testing {
namespace {

class FramePipelineAllocationTest : public PipelineTestFixture {
  protected:
    void SetUp() override {
        // Receivers that keep nothing: only the pipeline's own allocations are counted.
        pipeline->setOnFrame([this](FramePipeline::Frame frame) {
            ++frames;
            lastFrameSize = frame.size();
        });
        pipeline->setOnLevel([](float) {});
    }

    // Runs `callbacks` device callbacks of `buffers` on the capture queue; returns the heap
    // allocations they made.
    std::size_t allocationsFor(const std::vector<FakeBuffer>& buffers, int callbacks) {
        return queue.sync([&] {
            std::vector<InputBuffer> list;
            for (const FakeBuffer& buffer : buffers) {
                list.push_back(InputBuffer{
                    .channelCount = buffer.channelCount,
                    .byteSize = static_cast<std::uint32_t>(buffer.samples.size() * sizeof(float)),
                    .data = buffer.samples.data(),
                });
            }
            const InputBufferList bufferList{.buffers = list};
            AllocationCounter::start();
            for (int callback = 0; callback < callbacks; ++callback) {
                pipeline->handleInput(bufferList);
            }
            return AllocationCounter::stop();
        });
    }

    std::size_t frames = 0;  // touched only on the capture queue
    std::size_t lastFrameSize = 0;
};

FakeBuffer interleaved(std::size_t frameCount, std::uint32_t channels) {
    FakeBuffer buffer;
    buffer.channelCount = channels;
    buffer.samples.assign(frameCount * channels, 0.25f);
    return buffer;
}

TEST_F(FramePipelineAllocationTest, ResampledInterleavedCallbacksAllocateOnlyTheFrames) {
    configure(48000, true, 2);
    const std::vector<FakeBuffer> buffers{interleaved(480, 2)};
    allocationsFor(buffers, 200);  // warm up: buffers reach their working size
    const std::size_t framesBefore = queue.sync([&] { return frames; });
    const std::size_t allocations = allocationsFor(buffers, 1000);  // ten seconds
    const std::size_t framesMade = queue.sync([&] { return frames; }) - framesBefore;
    EXPECT_GE(framesMade, 99u);
    EXPECT_EQ(allocations, framesMade);
    EXPECT_EQ(queue.sync([&] { return lastFrameSize; }), 6400u);
}

TEST_F(FramePipelineAllocationTest, SingleBufferPassThroughCallbacksAllocateOnlyTheFrames) {
    configure(16000, true, 1);
    const std::vector<FakeBuffer> buffers{interleaved(160, 1)};
    allocationsFor(buffers, 100);
    const std::size_t framesBefore = queue.sync([&] { return frames; });
    const std::size_t allocations = allocationsFor(buffers, 1000);
    const std::size_t framesMade = queue.sync([&] { return frames; }) - framesBefore;
    EXPECT_EQ(framesMade, 100u);
    EXPECT_EQ(allocations, framesMade);
}

TEST_F(FramePipelineAllocationTest, PlanarCallbacksReuseTheMonoBufferToo) {
    configure(44100, false, 2);
    const std::vector<FakeBuffer> buffers{interleaved(441, 1), interleaved(441, 1)};
    allocationsFor(buffers, 200);
    const std::size_t framesBefore = queue.sync([&] { return frames; });
    const std::size_t allocations = allocationsFor(buffers, 1000);
    const std::size_t framesMade = queue.sync([&] { return frames; }) - framesBefore;
    EXPECT_GE(framesMade, 99u);
    EXPECT_EQ(allocations, framesMade);
}

}  // namespace
}  // namespace velmora::testing
