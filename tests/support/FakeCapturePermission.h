#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

#include "capture/AudioCapturePermission.h"

namespace velmora::testing {

// The recording permission under a test's control: its status is settable, and a request is
// answered at once (on the requesting thread, before request() returns), or held until the test
// answers it (from a thread of its own), or never answered. Thread-safe.
class FakeCapturePermission final : public AudioCapturePermission {
  public:
    enum class Mode {
        answerAtOnce,  // request() calls its completion before returning
        hold,          // the completion waits for answerHeld()
    };

    void setStatus(Status status);
    // How the following requests are answered; at once with `granted`, or held.
    void answerAtOnce(bool granted);
    void holdRequests();

    // Answers every held request from another thread, waits until they have been called, and
    // returns how many there were. A held request that the test never answers is never
    // answered.
    int answerHeld(bool granted);

    int requestCount();
    int openSystemSettingsCount();
    // Waits until at least `count` requests have been made; false on time-out.
    bool waitForRequests(int count, std::chrono::milliseconds timeout = std::chrono::seconds(20));

    Status status() override;
    void request(std::function<void(bool granted)> completion) override;
    void openSystemSettings() override;

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    Status status_ = Status::unknown;
    Mode mode_ = Mode::answerAtOnce;
    bool granted_ = true;
    std::vector<std::function<void(bool)>> held_;
    int requests_ = 0;
    int openSystemSettings_ = 0;
};

}  // namespace velmora::testing
