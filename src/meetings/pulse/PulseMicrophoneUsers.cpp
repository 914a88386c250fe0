#include "meetings/pulse/PulseMicrophoneUsers.h"

#include <utility>

namespace velmora {

PulseMicrophoneUsers::PulseMicrophoneUsers() : PulseMicrophoneUsers(Options{}) {}

PulseMicrophoneUsers::PulseMicrophoneUsers(Options options) : options_(std::move(options)) {}

PulseMicrophoneUsers::~PulseMicrophoneUsers() {
    stopWatching();
}

void PulseMicrophoneUsers::startWatching() {
    std::lock_guard lock(mutex_);
    if (!view_) {
        view_ = std::make_unique<RecordingStreamView>(options_);
    }
}

void PulseMicrophoneUsers::stopWatching() {
    std::unique_ptr<RecordingStreamView> closing;
    {
        std::lock_guard lock(mutex_);
        closing = std::move(view_);
    }
    // Closed outside the lock: a query meanwhile finds no view and answers at once.
}

std::vector<std::string> PulseMicrophoneUsers::bundleIds() {
    std::lock_guard lock(mutex_);
    auto answer = view_ ? view_->current() : std::nullopt;
    return answer ? std::move(answer->bundleIds) : std::vector<std::string>();
}

std::int64_t PulseMicrophoneUsers::processObjectCount() {
    std::lock_guard lock(mutex_);
    auto answer = view_ ? view_->current() : std::nullopt;
    return answer ? answer->streamCount : 0;
}

}  // namespace velmora
