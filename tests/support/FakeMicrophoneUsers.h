#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "meetings/MicrophoneUsers.h"

namespace velmora::testing {

// Microphone users as the test sets them. Thread-safe.
class FakeMicrophoneUsers final : public MicrophoneUsers {
  public:
    void setBundleIds(std::vector<std::string> bundleIds);
    int queryCount();
    // Waits until bundleIds() has been asked at least `count` times in all.
    bool waitForQueries(int count, std::chrono::milliseconds timeout = std::chrono::seconds(20));

    std::vector<std::string> bundleIds() override;
    std::int64_t processObjectCount() override;

  private:
    std::mutex mutex_;
    std::condition_variable asked_;
    std::vector<std::string> bundleIds_;
    int queries_ = 0;
};

}  // namespace velmora::testing
