#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace velmora::testing {

// The log lines this test process writes from construction on, without their time stamps. The
// process logs into a private folder, chosen before anything logs.
class CaptureLog {
  public:
    CaptureLog();
    std::vector<std::string> lines() const;
    std::size_t count(const std::string& line) const;
    // Waits at most `timeout` until `line` was logged `times` times.
    bool waitFor(const std::string& line, std::size_t times,
                 std::chrono::milliseconds timeout) const;
    // The lines starting with `prefix`.
    std::vector<std::string> startingWith(const std::string& prefix) const;

  private:
    std::size_t startOffset_;
};

}  // namespace velmora::testing
