#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/SoundServer.h"

namespace velmora::testing {

// A desktop of the test's own: an Xvfb display and a session bus, both private, with a home,
// settings and runtime folder under one temporary folder. Throws std::runtime_error when a part
// does not come up in time.
class PrivateDesktop {
  public:
    PrivateDesktop();
    ~PrivateDesktop();
    PrivateDesktop(const PrivateDesktop&) = delete;
    PrivateDesktop& operator=(const PrivateDesktop&) = delete;

    const std::filesystem::path& folder() const { return folder_; }
    std::string display() const { return ":" + std::to_string(displayNumber_); }
    std::string busAddress() const { return "unix:path=" + (folder_ / "bus").string(); }

    // The environment of a program started in this desktop, plus `extra` ("KEY=value").
    std::vector<std::string> environment(const std::vector<std::string>& extra = {}) const;

    // Saves the helper's settings file with this port, and the welcome as already shown.
    void saveHelperPort(int port) const;

    // Starts a program in this desktop; its output goes to <folder>/<name>.log.
    std::unique_ptr<SoundServer::Process> launch(const std::vector<std::string>& argv,
                                                 const std::vector<std::string>& extraEnvironment,
                                                 const std::string& name) const;

    std::string readLog(const std::string& name) const;

  private:
    std::filesystem::path folder_;
    int displayNumber_ = 0;
    std::unique_ptr<SoundServer::Process> display_;
    std::unique_ptr<SoundServer::Process> bus_;
};

}  // namespace velmora::testing
