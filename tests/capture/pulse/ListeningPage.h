#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "capture/pulse/FrameRecorder.h"
#include "server/TestPage.h"

namespace velmora::testing {

// A page connected to the helper whose every incoming message is taken off the socket by a
// thread of its own the moment it arrives: audio frames go to a FrameRecorder with their arrival
// times, text messages are kept as JSON with theirs. So the gaps between frames seen by the page
// are measured, not the test thread's own pace.
class ListeningPage {
  public:
    using Clock = FrameRecorder::Clock;

    struct Message {
        Clock::time_point arrival;
        nlohmann::json json;
    };

    explicit ListeningPage(std::shared_ptr<TestPage> page);
    ~ListeningPage();
    ListeningPage(const ListeningPage&) = delete;
    ListeningPage& operator=(const ListeningPage&) = delete;

    // Sends one text message; false when it could not be written.
    bool send(const std::string& text);

    const FrameRecorder& frames() const { return frames_; }
    std::vector<Message> messages() const;
    // The first message from position `from` on whose "type" is `type`, waiting at most
    // `timeout` for it.
    std::optional<Message> waitForType(const std::string& type, std::chrono::milliseconds timeout,
                                       std::size_t from = 0) const;
    std::size_t countOfType(const std::string& type) const;
    bool isClosed() const;

  private:
    void read();

    std::shared_ptr<TestPage> page_;
    FrameRecorder frames_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Message> messages_;
    bool closed_ = false;
    std::atomic<bool> stopping_{false};
    std::thread reader_;
};

}  // namespace velmora::testing
