#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace velmora::conformance {

// The ws-conformance-server executable run as a child process on a free port. The constructor
// waits for its "Listening on" line; the destructor stops it with SIGTERM.
class ServerProcess {
  public:
    explicit ServerProcess(const std::string& executable,
                           std::chrono::milliseconds timeout = std::chrono::seconds(20));
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    // 0 when the server did not report that it listens.
    std::uint16_t port() const { return port_; }
    // What it printed on standard output until it listened (or failed to).
    const std::string& output() const { return output_; }

    // Sends SIGTERM and returns its exit status (-1 if it did not exit normally); later calls
    // return the same. A sanitizer's finding in the server makes the status non-zero.
    int stop();

  private:
    pid_t pid_ = -1;
    int exitStatus_ = -1;
    int stdout_ = -1;
    std::uint16_t port_ = 0;
    std::string output_;
};

}  // namespace velmora::conformance
