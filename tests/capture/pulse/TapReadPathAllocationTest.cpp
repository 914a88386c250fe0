// Counts heap allocations made on the capture queue while a real sound server streams to the
// tap: reading each fragment, down-mixing, resampling and framing must allocate nothing but the
// frames themselves.

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "capture/SystemAudioCapture.h"
#include "capture/pulse/PulseAudioTap.h"
#include "capture/pulse/SoundServerKinds.h"
#include "config/SerialQueue.h"
#include "support/AllocationCounter.h"
#include "support/SoundServer.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

class TapReadPathAllocationTest : public ::testing::TestWithParam<SoundServer::Kind> {};

TEST_P(TapReadPathAllocationTest, StreamingAllocatesOnlyTheFramesOnTheCaptureQueue) {
    std::string whyNot;
    if (!SoundServer::isAvailable(GetParam(), &whyNot)) {
        GTEST_SKIP() << whyNot;
    }
    constexpr int warmUpFrames = 10;   // a second: buffers and handlers reach their working size
    constexpr int countedFrames = 30;  // three seconds, about 300 fragments of 10 ms
    auto server = SoundServer::start(GetParam());
    auto tone = server->playTone(SoundServer::speakers, 440, 30);

    std::mutex mutex;
    std::condition_variable counted;
    int frames = 0;  // on the capture queue
    bool done = false;
    std::size_t allocations = 0;

    SerialQueue mainQueue("main");
    auto capture = SystemAudioCapture::create(
        std::make_unique<PulseAudioTap>(PulseAudioTap::Options{.server = server->serverAddress()}),
        mainQueue);
    // Counting starts inside one frame's delivery and ends inside a later one, so the window holds
    // exactly `countedFrames` frame allocations and everything else the queue did meanwhile.
    capture->setOnFrame([&](SystemAudioCapture::Frame) {
        ++frames;
        if (frames == warmUpFrames) {
            testing::AllocationCounter::start();
        } else if (frames == warmUpFrames + countedFrames) {
            std::size_t seen = testing::AllocationCounter::stop();
            std::lock_guard lock(mutex);
            allocations = seen;
            done = true;
            counted.notify_all();
        }
    });
    capture->start();
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(counted.wait_for(lock, 30s, [&] { return done; }));
    }
    capture->stop();
    EXPECT_EQ(allocations, static_cast<std::size_t>(countedFrames));
}

INSTANTIATE_TEST_SUITE_P(Servers, TapReadPathAllocationTest, testing::allSoundServers(),
                         testing::soundServerName);

}  // namespace
}  // namespace velmora
