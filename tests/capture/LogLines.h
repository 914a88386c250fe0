#pragma once

#include <string>
#include <vector>

namespace velmora::testing {

// The lines this test process logs from the moment of construction on, without their time
// stamps. The capture tests' log file lives in a private folder (set before anything logs).
class LogLines {
  public:
    LogLines();
    std::vector<std::string> lines() const;
    // The lines that start with `prefix`.
    std::vector<std::string> startingWith(const std::string& prefix) const;

  private:
    std::size_t startOffset_;
};

}  // namespace velmora::testing
