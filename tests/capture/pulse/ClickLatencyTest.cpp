#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "capture/SystemAudioCapture.h"
#include "capture/pulse/FrameRecorder.h"
#include "capture/pulse/PulseAudioTap.h"
#include "capture/pulse/SoundServerKinds.h"
#include "config/SerialQueue.h"
#include "support/SoundServer.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::FrameRecorder;

// A measurement, not a check: how long a click written to pacat takes to reach the frame that
// carries it. Run it with --gtest_also_run_disabled_tests --gtest_filter='*ClickLatency*'.
//
// pacat plays from a FIFO (one page deep) that this test feeds in real time, 5 ms of stereo
// float at a time: silence, with a 1 ms full-scale click every 365 ms (not a multiple of the
// 100 ms frame, so the clicks fall at every point of a frame). The latency of a click runs from the
// moment its chunk was written to the FIFO until the first frame with a loud sample arrives
// through onFrame; it includes pacat's buffer, the server, the monitor's fragments and the
// filling of the 100 ms frame.
class ClickLatencyTest : public ::testing::TestWithParam<SoundServer::Kind> {};

TEST_P(ClickLatencyTest, DISABLED_ClickLatency) {
    std::string whyNot;
    if (!SoundServer::isAvailable(GetParam(), &whyNot)) {
        GTEST_SKIP() << whyNot;
    }
    constexpr int clicks = 50;
    constexpr int rate = 48000;
    constexpr int chunkFrames = rate / 200;  // 5 ms
    constexpr int chunksBetweenClicks = 73;  // 365 ms

    auto server = SoundServer::start(GetParam());
    const auto fifo = server->directory() / "clicks.fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    auto player =
        server->launch({"pacat", "--playback", "--raw", "--format=float32le", "--rate=48000",
                        "--channels=2", "--latency-msec=10", "--device=speakers", fifo.string()});
    int writer = -1;
    const auto openDeadline = Clock::now() + 5s;
    while (writer < 0 && Clock::now() < openDeadline) {
        writer = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
        if (writer < 0) {
            std::this_thread::sleep_for(5ms);
        }
    }
    ASSERT_GE(writer, 0) << "pacat did not open the FIFO";
    ::fcntl(writer, F_SETFL, 0);
    // The smallest pipe (one page, about 10 ms here): a default 64 KiB pipe would hold 170 ms
    // of audio ahead of pacat and measure the pipe instead of the path.
    ::fcntl(writer, F_SETPIPE_SZ, 4096);

    SerialQueue mainQueue("main");
    FrameRecorder frames;
    auto capture = SystemAudioCapture::create(
        std::make_unique<PulseAudioTap>(PulseAudioTap::Options{.server = server->serverAddress()}),
        mainQueue);
    capture->setOnFrame([&](SystemAudioCapture::Frame frame) { frames.record(frame); });
    capture->start();

    std::mutex mutex;
    std::vector<Clock::time_point> clickTimes;
    std::atomic<bool> feeding{true};
    std::thread feeder([&] {
        std::vector<float> silence(chunkFrames * 2, 0.0f);
        std::vector<float> click = silence;
        std::fill(click.begin(), click.begin() + 2 * rate / 1000, 1.0f);
        auto next = Clock::now();
        // A second of silence first, so the stream has settled before the first click.
        for (long chunk = 0; feeding; ++chunk) {
            std::this_thread::sleep_until(next);
            next += 5ms;
            const bool isClick = chunk >= 200 && chunk % chunksBetweenClicks == 0;
            const auto& data = isClick ? click : silence;
            if (::write(writer, data.data(), data.size() * sizeof(float)) < 0) {
                return;
            }
            if (isClick) {
                std::lock_guard lock(mutex);
                clickTimes.push_back(Clock::now());
            }
        }
    });

    const bool enough = frames.waitUntil(
        [&](const auto&) {
            std::lock_guard lock(mutex);
            return clickTimes.size() > clicks;
        },
        60s);
    std::this_thread::sleep_for(500ms);
    feeding = false;
    feeder.join();
    ::close(writer);
    capture->stop();
    ASSERT_TRUE(enough);

    const auto recorded = frames.frames();
    std::vector<double> latencies;
    for (int index = 0; index < clicks; ++index) {
        const auto written = clickTimes[static_cast<std::size_t>(index)];
        for (const auto& frame : recorded) {
            if (frame.arrival >= written && FrameRecorder::peak(frame) > 0.3f) {
                latencies.push_back(
                    std::chrono::duration<double, std::milli>(frame.arrival - written).count());
                break;
            }
        }
    }
    ASSERT_EQ(latencies.size(), static_cast<std::size_t>(clicks));
    std::sort(latencies.begin(), latencies.end());
    const double median = (latencies[clicks / 2 - 1] + latencies[clicks / 2]) / 2;
    std::printf(
        "%s click-to-frame latency over %d clicks: median %.1f ms, best %.1f ms, worst "
        "%.1f ms\n",
        SoundServer::kindName(GetParam()).c_str(), clicks, median, latencies.front(),
        latencies.back());
    RecordProperty("median_ms", std::to_string(median));
    RecordProperty("worst_ms", std::to_string(latencies.back()));
}

INSTANTIATE_TEST_SUITE_P(Servers, ClickLatencyTest, testing::allSoundServers(),
                         testing::soundServerName);

}  // namespace
}  // namespace velmora
