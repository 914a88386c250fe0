#include "FakeMicrophoneUsers.h"

namespace velmora::testing {

void FakeMicrophoneUsers::setBundleIds(std::vector<std::string> bundleIds) {
    std::lock_guard lock(mutex_);
    bundleIds_ = std::move(bundleIds);
}

int FakeMicrophoneUsers::queryCount() {
    std::lock_guard lock(mutex_);
    return queries_;
}

bool FakeMicrophoneUsers::waitForQueries(int count, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return asked_.wait_for(lock, timeout, [&] { return queries_ >= count; });
}

std::vector<std::string> FakeMicrophoneUsers::bundleIds() {
    std::vector<std::string> result;
    {
        std::lock_guard lock(mutex_);
        ++queries_;
        result = bundleIds_;
    }
    asked_.notify_all();
    return result;
}

std::int64_t FakeMicrophoneUsers::processObjectCount() {
    std::lock_guard lock(mutex_);
    return static_cast<std::int64_t>(bundleIds_.size());
}

}  // namespace velmora::testing
