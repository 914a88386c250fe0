#include "capture/SystemAudioCapture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <future>
#include <latch>

#include "capture/CaptureError.h"
#include "capture/CaptureTestFixture.h"
#include "support/CaptureLog.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;

const std::string tapFailure = "Could not create the system audio tap ('what' (2003329396)).";

TapStreamFormat format(double rate, std::int64_t channels, bool nonInterleaved = false) {
    TapStreamFormat value;
    value.sampleRate = rate;
    value.channelsPerFrame = channels;
    value.nonInterleaved = nonInterleaved;
    return value;
}

std::vector<float> stereoTone(std::size_t frames, float left, float right) {
    std::vector<float> samples;
    for (std::size_t i = 0; i < frames; ++i) {
        samples.push_back(left);
        samples.push_back(right);
    }
    return samples;
}

using SystemAudioCaptureTest = CaptureTestFixture;

TEST_F(SystemAudioCaptureTest, StartLogsTheTapFormatAndRuns) {
    control->setFormat(format(48000, 1));
    CaptureLog log;
    start();
    EXPECT_TRUE(running());
    EXPECT_EQ(log.startingWith("Capture "),
              std::vector<std::string>{"Capture started (48000 Hz, 1 ch, interleaved)"});
    EXPECT_EQ(control->calls(), (std::vector<std::string>{"createTap", "createDevice", "startIO"}));
    EXPECT_TRUE(control->isIORunning());
    EXPECT_TRUE(control->hasListener());
}

TEST_F(SystemAudioCaptureTest, StartLogsPlanarForANonInterleavedTap) {
    control->setFormat(format(44100, 2, true));
    CaptureLog log;
    start();
    EXPECT_EQ(log.startingWith("Capture "),
              std::vector<std::string>{"Capture started (44100 Hz, 2 ch, planar)"});
}

TEST_F(SystemAudioCaptureTest, StartTwiceDoesNothingTheSecondTimeAndLogsNothing) {
    start();
    CaptureLog log;
    start();
    EXPECT_TRUE(running());
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(control->createTapCalls(), 1);
    EXPECT_EQ(control->startIOCalls(), 1);
    EXPECT_EQ(timers->createdCount(), 1u);
}

TEST_F(SystemAudioCaptureTest, StopOnANeverStartedCaptureReturnsWithoutLogging) {
    CaptureLog log;
    stop();
    stop();
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(control->teardownCalls(), 0);
    EXPECT_FALSE(running());
}

TEST_F(SystemAudioCaptureTest, StopTearsDownAndLogsCaptureStopped) {
    start();
    CaptureLog log;
    stop();
    EXPECT_FALSE(running());
    EXPECT_FALSE(control->hasTap());
    EXPECT_FALSE(control->isIORunning());
    EXPECT_EQ(timers->activeCount(), 0u);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Capture stopped"});
    // Stopping again is harmless and silent.
    CaptureLog again;
    stop();
    EXPECT_TRUE(again.lines().empty());
}

TEST_F(SystemAudioCaptureTest, RefusedAccessAtStartThrowsPermissionDeniedAndLeavesNoTapOrDevice) {
    control->refuseAccess();
    try {
        start();
        FAIL() << "start() should have thrown";
    } catch (const CaptureError& error) {
        EXPECT_EQ(error.kind(), CaptureError::Kind::permissionDenied);
        EXPECT_EQ(error.code(), "permission_denied");
    }
    EXPECT_FALSE(running());
    EXPECT_FALSE(control->hasTap());
    EXPECT_FALSE(control->hasDevice());
    EXPECT_FALSE(control->isIORunning());
    EXPECT_EQ(timers->activeCount(), 0u);
}

TEST_F(SystemAudioCaptureTest, SixteenBitIntegerTapFormatIsRefused) {
    TapStreamFormat integers = format(48000, 2);
    integers.isFloat = false;
    integers.bitsPerChannel = 16;
    control->setFormat(integers);
    try {
        start();
        FAIL() << "start() should have thrown";
    } catch (const CaptureError& error) {
        EXPECT_EQ(error, CaptureError::device("Unsupported tap audio format."));
        EXPECT_EQ(error.message(), "Unsupported tap audio format.");
    }
    EXPECT_FALSE(control->hasTap());
    EXPECT_EQ(control->createDeviceCalls(), 0);
}

TEST_F(SystemAudioCaptureTest, SixtyFourBitFloatTapFormatIsRefused) {
    TapStreamFormat doubles = format(48000, 2);
    doubles.bitsPerChannel = 64;
    control->setFormat(doubles);
    EXPECT_THROW(start(), CaptureError);
    EXPECT_FALSE(control->hasTap());
    EXPECT_FALSE(running());
}

TEST_F(SystemAudioCaptureTest, NonLinearPcmTapFormatIsRefused) {
    TapStreamFormat compressed = format(48000, 2);
    compressed.isLinearPCM = false;
    control->setFormat(compressed);
    try {
        start();
        FAIL() << "start() should have thrown";
    } catch (const CaptureError& error) {
        EXPECT_EQ(error.message(), "Unsupported tap audio format.");
    }
}

TEST_F(SystemAudioCaptureTest, TapFormatWithSampleRateZeroRunsAt48000Hz) {
    control->setFormat(format(0, 0));
    CaptureLog log;
    start();
    EXPECT_EQ(log.startingWith("Capture started"),
              std::vector<std::string>{"Capture started (48000 Hz, 1 ch, interleaved)"});
    // 48 000 Hz input is converted: three seconds in, about three seconds of 16 kHz out.
    for (int callback = 0; callback < 300; ++callback) {
        ASSERT_TRUE(control->deliverInterleaved(std::vector<float>(480, 0.25f), 1));
    }
    control->waitForDeliveries();
    EXPECT_GE(recorder.frameCount(), 29u);
    EXPECT_LE(recorder.frameCount(), 30u);
}

TEST_F(SystemAudioCaptureTest, EachStartFailureIsRethrownAndLeavesNothingBehind) {
    struct Case {
        std::function<void()> arrange;
        std::string message;
    };
    std::vector<Case> cases{
        {[&] { control->failCreateTap(1); }, tapFailure},
        {[&] { control->failCreateDevice(1, -10851); },
         "Could not create the capture device (-10851)."},
        {[&] { control->failStartIO(1, 0); }, "Could not start system audio capture (0)."},
    };
    for (const auto& failure : cases) {
        failure.arrange();
        try {
            start();
            FAIL() << "start() should have thrown " << failure.message;
        } catch (const CaptureError& error) {
            EXPECT_EQ(error.code(), "device_error");
            EXPECT_EQ(error.message(), failure.message);
        }
        EXPECT_FALSE(running());
        EXPECT_FALSE(control->hasTap());
        EXPECT_FALSE(control->isIORunning());
        EXPECT_EQ(timers->activeCount(), 0u);
    }
    // Nothing was left half open: the next start works.
    start();
    EXPECT_TRUE(running());
}

TEST_F(SystemAudioCaptureTest, FramesOfSixThousandFourHundredBytesFlowFromTheDevice) {
    control->setFormat(format(48000, 2));
    start();
    for (int callback = 0; callback < 100; ++callback) {
        ASSERT_TRUE(control->deliverInterleaved(stereoTone(480, 0.5f, 0.5f), 2));
    }
    control->waitForDeliveries();
    ASSERT_GE(recorder.frameCount(), 9u);
    for (auto size : recorder.byteSizes()) EXPECT_EQ(size, 6400u);
    EXPECT_EQ(recorder.levels().size(), recorder.frameCount());
}

TEST_F(SystemAudioCaptureTest, StoppingWithAPartialFrameEmitsNothingMore) {
    control->setFormat(format(16000, 1));
    start();
    control->deliverInterleaved(std::vector<float>(1000, 0.5f), 1);
    control->waitForDeliveries();
    stop();
    timers->advance(2s);
    EXPECT_EQ(recorder.frameCount(), 0u);
}

TEST_F(SystemAudioCaptureTest, ThreeDeviceChangesWithinTheDebounceCauseOneRestartAfterTheThird) {
    start();
    // Hold the main queue so all three notifications land inside one debounce window.
    std::latch release(1);
    mainQueue.post([&] { release.wait(); });
    control->announceDefaultOutputChange();
    control->announceDefaultOutputChange();
    control->announceDefaultOutputChange();
    const auto lastNotification = EventRecorder::Clock::now();
    release.count_down();
    ASSERT_TRUE(events.waitForCount("restart", 1));
    drainMainQueueAfter(3 * shortTimings.deviceChangeDebounce);
    auto restarts = events.events();
    EXPECT_EQ(events.count("restart"), 1u);
    EXPECT_GE(restarts.front().at - lastNotification, shortTimings.deviceChangeDebounce);
}

TEST_F(SystemAudioCaptureTest, DeviceChangesFurtherApartThanTheDebounceRestartEachTime) {
    start();
    control->announceDefaultOutputChange();
    ASSERT_TRUE(events.waitForCount("rebuilt", 1));
    control->announceDefaultOutputChange();
    ASSERT_TRUE(events.waitForCount("rebuilt", 2));
    EXPECT_EQ(events.count("restart"), 2u);
    EXPECT_TRUE(running());
}

TEST_F(SystemAudioCaptureTest, DeviceChangeRebuildsTheTapAtTheNewRate) {
    control->setFormat(format(48000, 2));
    start();
    control->setFormat(format(44100, 2));
    CaptureLog log;
    control->announceDefaultOutputChange();
    ASSERT_TRUE(events.waitForCount("rebuilt", 1));
    EXPECT_TRUE(running());
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "Default output device changed; rebuilding the tap",
                               "Capture rebuilt (44100 Hz)",
                           }));
    EXPECT_EQ(control->calls(),
              (std::vector<std::string>{"createTap", "createDevice", "startIO", "teardown",
                                        "createTap", "createDevice", "startIO"}));
    // The listener is installed once for the life of the capture.
    stop();
    start();
    EXPECT_TRUE(control->hasListener());
}

TEST_F(SystemAudioCaptureTest, DeviceChangeWhileIdleIsIgnored) {
    start();
    stop();
    CaptureLog log;
    control->announceDefaultOutputChange();
    ASSERT_TRUE(events.waitForCount("rebuilt", 1));
    EXPECT_FALSE(running());
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(control->createTapCalls(), 1);
}

TEST_F(SystemAudioCaptureTest, FiveFailingRebuildAttemptsLogOneToFiveAndEndInOneFailure) {
    start();
    control->failCreateTap();
    CaptureLog log;
    control->announceDefaultOutputChange();
    ASSERT_TRUE(events.waitForCount("failed", 1));
    // Anything still due on the main queue runs before this returns.
    drainMainQueueAfter(5 * shortTimings.rebuildRetryDelay);
    serverQueue.sync([] {});

    std::vector<std::string> expected;
    for (int attempt = 1; attempt <= 5; ++attempt) {
        expected.push_back("Rebuild failed (attempt " + std::to_string(attempt) +
                           " of 5): " + tapFailure);
    }
    EXPECT_EQ(log.startingWith("Rebuild failed"), expected);
    EXPECT_EQ(log.startingWith("Default output device changed").size(), 1u);
    EXPECT_EQ(
        failureTexts(),
        std::vector<std::string>{
            "System audio couldn't be reopened after the output device changed: " + tapFailure});
    // One restart from the notification, then one per retry, each a retry delay apart.
    auto all = events.events();
    std::vector<EventRecorder::Clock::time_point> restarts;
    for (const auto& event : all) {
        if (event.name == "restart") restarts.push_back(event.at);
    }
    ASSERT_EQ(restarts.size(), 5u);
    for (std::size_t i = 1; i < restarts.size(); ++i) {
        EXPECT_GE(restarts[i] - restarts[i - 1], shortTimings.rebuildRetryDelay);
    }
    EXPECT_EQ(all.back().name, "rebuilt");
    EXPECT_FALSE(running());
    EXPECT_FALSE(control->hasTap());
    EXPECT_EQ(control->createTapCalls(), 6);
    EXPECT_EQ(timers->activeCount(), 0u);
}

TEST_F(SystemAudioCaptureTest, StopBetweenRebuildAttemptsMakesTheNextRetryANoOp) {
    start();
    control->failCreateTap();
    // Take the restart handler over so the test decides when the retry's rebuild runs.
    std::promise<void> retryDue;
    auto retryDueFuture = retryDue.get_future();
    std::atomic<int> restarts{0};
    capture->setRestartHandler([&] {
        if (++restarts == 2) retryDue.set_value();
    });
    rebuild();  // attempt 1 fails; a retry is scheduled
    EXPECT_EQ(control->createTapCalls(), 2);
    restarts = 1;
    retryDueFuture.wait();
    CaptureLog log;
    stop();
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Capture stopped"});
    CaptureLog afterStop;
    rebuild();  // what the retry leads to
    drainMainQueueAfter(5 * shortTimings.rebuildRetryDelay);
    EXPECT_TRUE(afterStop.lines().empty());
    EXPECT_EQ(control->createTapCalls(), 2);
    EXPECT_EQ(restarts.load(), 2);
    EXPECT_TRUE(failureTexts().empty());
    EXPECT_FALSE(running());
}

TEST_F(SystemAudioCaptureTest, RebuildSucceedsAfterAFailedAttempt) {
    control->setFormat(format(48000, 2));
    start();
    control->failCreateDevice(1);
    control->setFormat(format(44100, 2));
    CaptureLog log;
    control->announceDefaultOutputChange();
    ASSERT_TRUE(events.waitForCount("rebuilt", 2));
    EXPECT_TRUE(running());
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "Default output device changed; rebuilding the tap",
                  "Rebuild failed (attempt 1 of 5): Could not create the capture device ('what' "
                  "(2003329396)).",
                  "Capture rebuilt (44100 Hz)",
              }));
    EXPECT_TRUE(failureTexts().empty());
}

TEST_F(SystemAudioCaptureTest, PaddingClockRunsOnThroughARebuild) {
    control->setFormat(format(16000, 1));
    start();
    timers->advance(1s);  // silent device: frames at 300, 400, ... 1000 ms
    const auto beforeRebuild = recorder.frameCount();
    EXPECT_EQ(beforeRebuild, 8u);

    control->failCreateTap(1);
    rebuild();  // fails; the retry waits on the main queue
    timers->advance(1s);
    // Silence kept coming during the recovery, on the same clock.
    EXPECT_EQ(recorder.frameCount(), 18u);
    EXPECT_EQ(timers->createdCount(), 1u);

    ASSERT_TRUE(events.waitForCount("rebuilt", 1));
    EXPECT_TRUE(running());
    timers->advance(1s);
    EXPECT_EQ(recorder.frameCount(), 28u);
    EXPECT_EQ(timers->createdCount(), 1u);
    for (float level : recorder.levels()) EXPECT_EQ(level, 0.0f);
}

TEST_F(SystemAudioCaptureTest, ARebuildDiscardsThePartialFrameInFlight) {
    control->setFormat(format(16000, 1));
    start();
    control->deliverInterleaved(std::vector<float>(1000, 0.5f), 1);
    control->waitForDeliveries();
    rebuild();
    control->deliverInterleaved(std::vector<float>(1600, 0.25f), 1);
    control->waitForDeliveries();
    const auto frames = recorder.frames();
    ASSERT_EQ(frames.size(), 1u);
    for (float sample : frames[0]) ASSERT_EQ(sample, 0.25f);
}

TEST_F(SystemAudioCaptureTest, CaptureGoneBeforeTheDebounceEndsCallsNoHandler) {
    start();
    auto restartCalls = std::make_shared<std::atomic<int>>(0);
    capture->setRestartHandler([restartCalls] { ++*restartCalls; });
    control->announceDefaultOutputChange();
    stop();
    capture.reset();
    drainMainQueueAfter(3 * shortTimings.deviceChangeDebounce);
    EXPECT_EQ(restartCalls->load(), 0);
}

TEST_F(SystemAudioCaptureTest, StartDuringARecoveryBeginsAFreshStream) {
    control->setFormat(format(16000, 1));
    start();
    control->failCreateTap(1);
    capture->setRestartHandler([] {});
    rebuild();
    EXPECT_FALSE(running());
    start();
    EXPECT_TRUE(running());
    EXPECT_EQ(timers->createdCount(), 2u);
    EXPECT_EQ(timers->activeCount(), 1u);
}

}  // namespace
}  // namespace velmora::testing
