#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "capture/CaptureError.h"
#include "capture/SystemAudioCapture.h"
#include "capture/pulse/FrameRecorder.h"
#include "capture/pulse/PulseAudioTap.h"
#include "capture/pulse/SoundServerKinds.h"
#include "config/SerialQueue.h"
#include "support/CaptureLog.h"
#include "support/SoundServer.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Kind = SoundServer::Kind;
using testing::CaptureLog;
using testing::FrameRecorder;
using Frame = FrameRecorder::Frame;

bool isSilent(const Frame& frame) {
    return FrameRecorder::peak(frame) == 0.0f;
}
bool carriesTone(const Frame& frame, double hz) {
    return FrameRecorder::peak(frame) > 0.1f && std::abs(FrameRecorder::frequency(frame) - hz) < 30;
}

// The last `count` frames all carry the tone.
bool endsWithTone(const std::vector<Frame>& frames, double hz, std::size_t count) {
    if (frames.size() < count) {
        return false;
    }
    return std::all_of(frames.end() - static_cast<std::ptrdiff_t>(count), frames.end(),
                       [&](const Frame& frame) { return carriesTone(frame, hz); });
}

// The last frames' peaks and frequencies, for failure messages.
std::string describeLast(const std::vector<Frame>& frames, std::size_t count) {
    std::string text;
    const std::size_t first = frames.size() > count ? frames.size() - count : 0;
    for (std::size_t index = first; index < frames.size(); ++index) {
        text += std::to_string(FrameRecorder::peak(frames[index])) + "@" +
                std::to_string(static_cast<int>(FrameRecorder::frequency(frames[index]))) + "Hz ";
    }
    return text;
}

// Frames per second over the frames from `first` on, judged by their arrival times.
double frameRate(const std::vector<Frame>& frames, std::size_t first) {
    if (frames.size() < first + 2) {
        return 0;
    }
    const auto span = frames.back().arrival - frames[first].arrival;
    const double seconds = std::chrono::duration<double>(span).count();
    return static_cast<double>(frames.size() - first - 1) / seconds;
}

// The server's side of the capture: its queue, the capture over a PulseAudioTap on a private
// sound server, and what comes out of it.
class PulseCaptureTest : public ::testing::TestWithParam<Kind> {
  protected:
    void SetUp() override {
        std::string whyNot;
        if (!SoundServer::isAvailable(GetParam(), &whyNot)) {
            GTEST_SKIP() << whyNot;
        }
        server_ = SoundServer::start(GetParam());
        capture_ = SystemAudioCapture::create(
            std::make_unique<PulseAudioTap>(
                PulseAudioTap::Options{.server = server_->serverAddress()}),
            mainQueue_, CaptureTimings{.deviceChangeDebounce = 300ms, .rebuildRetryDelay = 500ms});
        capture_->setOnFrame([this](SystemAudioCapture::Frame frame) { frames_.record(frame); });
        capture_->setOnFailed([this](std::string message) {
            std::lock_guard lock(mutex_);
            failures_.push_back(std::move(message));
        });
        std::weak_ptr<SystemAudioCapture> weakCapture = capture_;
        capture_->setRestartHandler([this, weakCapture] {
            serverQueue_.post([weakCapture] {
                if (auto capture = weakCapture.lock()) {
                    capture->rebuild();
                }
            });
        });
    }

    void TearDown() override {
        if (capture_) {
            serverQueue_.runAndWait([&] { capture_->stop(); });
            capture_.reset();
        }
        server_.reset();
    }

    void start() {
        serverQueue_.runAndWait([&] { capture_->start(); });
    }

    std::vector<std::string> failures() {
        std::lock_guard lock(mutex_);
        return failures_;
    }

    CaptureLog log_;
    SerialQueue mainQueue_{"main"};
    SerialQueue serverQueue_{"com.velmora.audiohelper.server"};
    std::unique_ptr<SoundServer> server_;
    FrameRecorder frames_;
    std::shared_ptr<SystemAudioCapture> capture_;
    std::mutex mutex_;
    std::vector<std::string> failures_;
};

TEST_P(PulseCaptureTest, AToneArrivesAsOneKilohertzInFramesOfSixteenKilohertz) {
    auto tone = server_->playTone(SoundServer::speakers, 1000, 30);
    start();
    EXPECT_EQ(log_.count("Capture started (48000 Hz, 2 ch, interleaved)"), 1u);
    ASSERT_TRUE(frames_.waitUntil([](const auto& frames) { return endsWithTone(frames, 1000, 5); },
                                  10000ms))
        << frames_.count() << " frames";
    EXPECT_EQ(frames_.badSizes(), 0u);
    const auto frames = frames_.frames();
    EXPECT_EQ(frames.back().samples.size(), 1600u);
    EXPECT_NEAR(FrameRecorder::frequency(frames.back()), 1000, 30);
}

TEST_P(PulseCaptureTest, WithNothingPlayingSilentFramesKeepTheClock) {
    start();
    ASSERT_TRUE(frames_.waitForMore(25, 10000ms));
    const auto frames = frames_.frames();
    EXPECT_TRUE(std::all_of(frames.begin(), frames.end(), isSilent));
    EXPECT_EQ(frames_.badSizes(), 0u);
    // Ten frames a second, give or take the scheduling of a busy test machine.
    EXPECT_NEAR(frameRate(frames, 5), 10.0, 2.0);
}

TEST_P(PulseCaptureTest, SwitchingTheDefaultSinkRebuildsTheTapAndChangesNothingHeard) {
    auto speakersTone = server_->playTone(SoundServer::speakers, 1000, 60);
    start();
    ASSERT_TRUE(frames_.waitUntil([](const auto& frames) { return endsWithTone(frames, 1000, 5); },
                                  10000ms));
    const std::size_t beforeSwitch = frames_.count();

    // The application is recorded wherever it plays, before and after the switch (the server
    // may move it along to the new default or leave it where it is).
    server_->setDefaultSink(SoundServer::headphones);
    EXPECT_TRUE(log_.waitFor("Default output device changed; rebuilding the tap", 1, 5000ms));
    EXPECT_TRUE(log_.waitFor("Capture rebuilt (48000 Hz)", 1, 5000ms));
    const std::size_t afterRebuild = frames_.count();
    ASSERT_TRUE(frames_.waitUntil(
        [&](const auto& frames) {
            return frames.size() >= afterRebuild + 10 && endsWithTone(frames, 1000, 10);
        },
        10000ms))
        << describeLast(frames_.frames(), 30);
    EXPECT_EQ(log_.count("Default output device changed; rebuilding the tap"), 1u);
    EXPECT_TRUE(failures().empty());
    EXPECT_EQ(frames_.badSizes(), 0u);
    // The stream kept its clock through the change: no gap, ten frames a second.
    const auto frames = frames_.frames();
    EXPECT_NEAR(frameRate(frames, beforeSwitch - 5), 10.0, 2.0);
    for (std::size_t index = beforeSwitch; index < frames.size(); ++index) {
        EXPECT_LT(frames[index].arrival - frames[index - 1].arrival, 500ms) << "frame " << index;
    }
}

TEST_P(PulseCaptureTest, ALostServerEndsInFiveAttemptsAndOneFailureThenStartWorksAgain) {
    start();
    ASSERT_TRUE(frames_.waitForMore(3, 10000ms));
    server_->kill();

    ASSERT_TRUE(log_.waitFor("Default output device changed; rebuilding the tap", 1, 5000ms));
    const std::string lastAttempt =
        "Rebuild failed (attempt 5 of 5): Could not create the system audio tap (Connection "
        "refused, 6).";
    ASSERT_TRUE(log_.waitFor(lastAttempt, 1, 15000ms));
    serverQueue_.runAndWait([] {});
    for (int attempt = 1; attempt <= 5; ++attempt) {
        EXPECT_EQ(log_.count("Rebuild failed (attempt " + std::to_string(attempt) +
                             " of 5): Could not create the system audio tap (Connection "
                             "refused, 6)."),
                  1u)
            << attempt;
    }
    EXPECT_EQ(failures(), std::vector<std::string>{
                              "System audio couldn't be reopened after the output device changed: "
                              "Could not create the system audio tap (Connection refused, 6)."});
    EXPECT_FALSE(capture_->isRunning());

    server_->restart();
    auto tone = server_->playTone(SoundServer::speakers, 1000, 30);
    start();
    EXPECT_TRUE(capture_->isRunning());
    EXPECT_TRUE(frames_.waitUntil([](const auto& frames) { return endsWithTone(frames, 1000, 5); },
                                  10000ms));
    EXPECT_EQ(failures().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Servers, PulseCaptureTest, testing::allSoundServers(),
                         testing::soundServerName);

TEST(PulseCaptureAccessTest, AServerThatRefusesAccessMakesStartThrowPermissionDenied) {
    std::string whyNot;
    if (!SoundServer::isAvailable(Kind::pulseAudio, &whyNot)) {
        GTEST_SKIP() << whyNot;
    }
    SoundServer::Options options;
    options.requireCookie = true;
    auto server = SoundServer::start(Kind::pulseAudio, options);
    SerialQueue mainQueue("main");
    auto capture = SystemAudioCapture::create(
        std::make_unique<PulseAudioTap>(PulseAudioTap::Options{.server = server->serverAddress()}),
        mainQueue);
    std::optional<CaptureError> thrown;
    try {
        capture->start();
    } catch (const CaptureError& error) {
        thrown = error;
    }
    ASSERT_TRUE(thrown.has_value());
    EXPECT_EQ(thrown->code(), "permission_denied");
    EXPECT_FALSE(capture->isRunning());
}

}  // namespace
}  // namespace velmora
