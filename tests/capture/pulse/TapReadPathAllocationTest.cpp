// Counts heap allocations made on the capture queue while a real sound server streams to the
// tap: reading each fragment, down-mixing, resampling and framing must allocate nothing but the
// frames themselves. The replacement operators below serve the whole test program; they only
// count on a thread that asked to.

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <new>

#include "capture/SystemAudioCapture.h"
#include "capture/pulse/PulseAudioTap.h"
#include "capture/pulse/SoundServerKinds.h"
#include "config/SerialQueue.h"
#include "support/SoundServer.h"

namespace {

thread_local bool countingAllocations = false;
thread_local std::size_t allocationCount = 0;

void* allocate(std::size_t size) {
    if (countingAllocations) ++allocationCount;
    if (size == 0) size = 1;
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
    return allocate(size);
}
void* operator new[](std::size_t size) {
    return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (countingAllocations) ++allocationCount;
    return std::malloc(size == 0 ? 1 : size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    if (countingAllocations) ++allocationCount;
    return std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}

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
            allocationCount = 0;
            countingAllocations = true;
        } else if (frames == warmUpFrames + countedFrames) {
            countingAllocations = false;
            std::lock_guard lock(mutex);
            allocations = allocationCount;
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
