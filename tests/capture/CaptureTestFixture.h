#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <optional>

#include "capture/CaptureError.h"
#include "capture/FrameRecorder.h"
#include "capture/SystemAudioCapture.h"
#include "config/SerialQueue.h"
#include "support/FakeAudioTap.h"
#include "support/ManualClock.h"
#include "support/ManualTimers.h"

namespace velmora::testing {

// A capture over the fake tap, driven the way the server drives it: start/stop/rebuild on a
// "server" queue, device-change debounce and retries on a "main" queue, the restart handler
// hopping to the server queue. The padding clock is manual unless a test asks otherwise.
class CaptureTestFixture : public ::testing::Test {
  protected:
    static constexpr CaptureTimings shortTimings{std::chrono::milliseconds(30),
                                                 std::chrono::milliseconds(10)};

    void SetUp() override { makeCapture(shortTimings); }

    void TearDown() override {
        if (capture) serverQueue.sync([&] { capture->stop(); });
        capture.reset();
        // No main-queue or server-queue work of this test may still be running past here.
        mainQueue.sync([] {});
        serverQueue.sync([] {});
    }

    void makeCapture(CaptureTimings timings) {
        capture = SystemAudioCapture::create(std::make_unique<FakeAudioTap>(control), mainQueue,
                                             timings, clock, timers);
        capture->setOnFrame(recorder.frameSink());
        capture->setOnLevel(recorder.levelSink());
        capture->setOnFailed([this](std::string text) {
            events.record("failed");
            std::lock_guard lock(failureMutex);
            failures.push_back(std::move(text));
        });
        std::weak_ptr<SystemAudioCapture> weakCapture = capture;
        capture->setRestartHandler([this, weakCapture] {
            events.record("restart");
            serverQueue.post([this, weakCapture] {
                if (auto strong = weakCapture.lock()) strong->rebuild();
                events.record("rebuilt");
            });
        });
    }

    // Starts on the server queue; a failure is rethrown here as a copy, so the exception object
    // itself never crosses threads.
    void start() {
        auto failure = serverQueue.sync([&]() -> std::optional<CaptureError> {
            try {
                capture->start();
                return std::nullopt;
            } catch (const CaptureError& error) {
                return error;
            }
        });
        if (failure) throw *failure;
    }
    void stop() {
        serverQueue.sync([&] { capture->stop(); });
    }
    void rebuild() {
        serverQueue.sync([&] { capture->rebuild(); });
    }
    bool running() {
        return serverQueue.sync([&] { return capture->isRunning(); });
    }

    // Waits until work scheduled on the main queue up to `delay` from now has run.
    void drainMainQueueAfter(std::chrono::milliseconds delay) {
        std::promise<void> done;
        auto finished = done.get_future();
        auto timer = mainQueue.runAfter(delay, [&] { done.set_value(); });
        finished.wait();
    }

    std::vector<std::string> failureTexts() {
        std::lock_guard lock(failureMutex);
        return failures;
    }

    SerialQueue mainQueue{"test.main"};
    SerialQueue serverQueue{"test.server"};
    std::shared_ptr<FakeAudioTap::Control> control = std::make_shared<FakeAudioTap::Control>();
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<ManualTimers> timers = std::make_shared<ManualTimers>(clock);
    FrameRecorder recorder;
    EventRecorder events;
    std::mutex failureMutex;
    std::vector<std::string> failures;
    std::shared_ptr<SystemAudioCapture> capture;
};

}  // namespace velmora::testing
