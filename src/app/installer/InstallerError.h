#pragma once

#include <stdexcept>
#include <string>

namespace velmora {

// A failed installer step. The message is what the user reads in the failure dialog; the code is
// a tool's exit status, or 0 for a step that is not a tool.
class InstallerError : public std::runtime_error {
  public:
    explicit InstallerError(const std::string& message, int code = 0)
        : std::runtime_error(message), code_(code) {}

    static constexpr const char* domain = "VelmoraInstaller";
    int code() const { return code_; }

  private:
    int code_;
};

}  // namespace velmora
