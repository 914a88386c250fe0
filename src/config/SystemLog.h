#pragma once

#include <memory>
#include <string>

namespace velmora {

// The platform's own log, which receives every message at once, beside the log file. Each
// platform supplies one in its own folder.
class SystemLog {
  public:
    virtual ~SystemLog() = default;

    // Callable from any thread; never fails (a machine without a system log drops the message).
    virtual void send(const std::string& message) = 0;

    // This platform's system log, with every message tagged with `subsystem` and `category`.
    static std::unique_ptr<SystemLog> platform(std::string subsystem, std::string category);
};

}  // namespace velmora
