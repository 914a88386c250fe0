#pragma once

// Contract shared by the server and the platform backends; the capture-core work fills in the
// implementation (SystemAudioCapture.cpp) and may add private members.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "capture/AudioTap.h"

namespace velmora {

class MonotonicClock;
class RepeatingTimerFactory;
class SerialQueue;

// Delays of the capture lifecycle; tests shorten them.
struct CaptureTimings {
    std::chrono::milliseconds deviceChangeDebounce{300};
    std::chrono::milliseconds rebuildRetryDelay{1000};
};

// Records what the machine plays and turns it into 16 kHz mono frames (see FramePipeline).
// start/stop/rebuild are called from one queue (the server's); the device listener, its debounce
// and the retry delays run on the main queue and only call restartHandler.
class SystemAudioCapture : public std::enable_shared_from_this<SystemAudioCapture> {
  public:
    using Frame = std::vector<std::byte>;  // 6 400 bytes: 1 600 little-endian float32 samples

    static std::shared_ptr<SystemAudioCapture> create(std::unique_ptr<AudioTap> tap,
                                                      SerialQueue& mainQueue,
                                                      CaptureTimings timings = {});
    // The same with the frame pipeline's clock and padding timers supplied (tests move time by
    // hand).
    static std::shared_ptr<SystemAudioCapture> create(
        std::unique_ptr<AudioTap> tap, SerialQueue& mainQueue, CaptureTimings timings,
        std::shared_ptr<MonotonicClock> clock, std::shared_ptr<RepeatingTimerFactory> timers);
    ~SystemAudioCapture();

    void start();  // throws CaptureError; a no-op when running
    void stop();
    void rebuild();
    bool isRunning() const;

    // Set before start(); onFrame and onLevel are called on the capture queue.
    void setOnFrame(std::function<void(Frame)> onFrame);
    void setOnLevel(std::function<void(float)> onLevel);
    void setOnFailed(std::function<void(std::string)> onFailed);
    void setRestartHandler(std::function<void()> restartHandler);

  private:
    SystemAudioCapture(std::unique_ptr<AudioTap> tap, SerialQueue& mainQueue,
                       CaptureTimings timings, std::shared_ptr<MonotonicClock> clock,
                       std::shared_ptr<RepeatingTimerFactory> timers);

    void createTapAndDevice();
    void startIO();
    void teardown();
    void installDefaultOutputListener();
    void deviceChanged();
    void callRestartHandler();

    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace velmora
