#include "FakeCapturePermission.h"

#include <thread>

namespace velmora::testing {

void FakeCapturePermission::setStatus(Status status) {
    std::lock_guard lock(mutex_);
    status_ = status;
}

void FakeCapturePermission::answerAtOnce(bool granted) {
    std::lock_guard lock(mutex_);
    mode_ = Mode::answerAtOnce;
    granted_ = granted;
}

void FakeCapturePermission::holdRequests() {
    std::lock_guard lock(mutex_);
    mode_ = Mode::hold;
}

int FakeCapturePermission::answerHeld(bool granted) {
    std::vector<std::function<void(bool)>> held;
    {
        std::lock_guard lock(mutex_);
        held.swap(held_);
    }
    std::thread answering([&] {
        for (auto& completion : held) completion(granted);
    });
    answering.join();
    return static_cast<int>(held.size());
}

int FakeCapturePermission::requestCount() {
    std::lock_guard lock(mutex_);
    return requests_;
}

int FakeCapturePermission::openSystemSettingsCount() {
    std::lock_guard lock(mutex_);
    return openSystemSettings_;
}

bool FakeCapturePermission::waitForRequests(int count, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return requests_ >= count; });
}

AudioCapturePermission::Status FakeCapturePermission::status() {
    std::lock_guard lock(mutex_);
    return status_;
}

void FakeCapturePermission::request(std::function<void(bool granted)> completion) {
    bool answerNow = false;
    bool granted = false;
    {
        std::lock_guard lock(mutex_);
        ++requests_;
        if (mode_ == Mode::answerAtOnce) {
            answerNow = true;
            granted = granted_;
        } else {
            held_.push_back(std::move(completion));
        }
    }
    changed_.notify_all();
    if (answerNow) completion(granted);
}

void FakeCapturePermission::openSystemSettings() {
    std::lock_guard lock(mutex_);
    ++openSystemSettings_;
}

}  // namespace velmora::testing
