// Counts heap allocations made on the capture queue while a real sound server streams to the
// tap: reading each fragment of every application, mixing, down-mixing, resampling and framing
// must allocate nothing but the frames themselves.

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

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

// Streams the capture with `players` applications playing (spread over the outputs) and returns
// how many allocations the capture queue made while `countedFrames` frames went out.
std::size_t allocationsWhileStreaming(SoundServer& server, int countedFrames) {
    // Two seconds: buffers and handlers reach their working size, and every application's
    // record stream is attached and delivering.
    constexpr int warmUpFrames = 20;
    std::mutex mutex;
    std::condition_variable counted;
    int frames = 0;  // on the capture queue
    bool done = false;
    std::size_t allocations = 0;

    SerialQueue mainQueue("main");
    auto capture = SystemAudioCapture::create(
        std::make_unique<PulseAudioTap>(PulseAudioTap::Options{.server = server.serverAddress()}),
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
        EXPECT_TRUE(counted.wait_for(lock, 30s, [&] { return done; }));
    }
    capture->stop();
    return allocations;
}

TEST_P(TapReadPathAllocationTest, StreamingAllocatesOnlyTheFramesOnTheCaptureQueue) {
    std::string whyNot;
    if (!SoundServer::isAvailable(GetParam(), &whyNot)) {
        GTEST_SKIP() << whyNot;
    }
    constexpr int countedFrames = 30;  // three seconds, about 300 fragments of 10 ms
    auto server = SoundServer::start(GetParam());
    auto tone = server->playTone(SoundServer::speakers, 440, 30);
    EXPECT_EQ(allocationsWhileStreaming(*server, countedFrames),
              static_cast<std::size_t>(countedFrames));
}

TEST_P(TapReadPathAllocationTest, MixingSeveralApplicationsAllocatesOnlyTheFrames) {
    std::string whyNot;
    if (!SoundServer::isAvailable(GetParam(), &whyNot)) {
        GTEST_SKIP() << whyNot;
    }
    constexpr int countedFrames = 30;  // three seconds, about 300 fragments of 10 ms per stream
    auto server = SoundServer::start(GetParam());
    server->loadNullSink("headset", 48000, 2);
    auto first = server->playTone(SoundServer::speakers, 440, 30);
    auto second = server->playTone(SoundServer::headphones, 660, 30, 44100);
    auto third = server->playTone("headset", 880, 30);
    auto fourth = server->playTone(SoundServer::speakers, 1100, 30);
    // The players settle first (the session manager routes each to its output), so the window
    // below holds steady streaming; following streams as they come and move is control work of
    // its own, not the read path.
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(allocationsWhileStreaming(*server, countedFrames),
              static_cast<std::size_t>(countedFrames));
}

INSTANTIATE_TEST_SUITE_P(Servers, TapReadPathAllocationTest, testing::allSoundServers(),
                         testing::soundServerName);

}  // namespace
}  // namespace velmora
