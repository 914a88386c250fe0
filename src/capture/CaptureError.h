#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace velmora {

// Why capture could not start: a device failure with its own text, or refused permission.
class CaptureError : public std::exception {
  public:
    enum class Kind { device, permissionDenied };

    static CaptureError device(std::string message);
    static CaptureError permissionDenied();

    Kind kind() const { return kind_; }
    // "device_error" or "permission_denied", as sent to pages.
    std::string code() const;
    // The user-facing text; the permission text names AudioKit.config().appName.
    std::string message() const;
    const char* what() const noexcept override { return what_.c_str(); }

    bool operator==(const CaptureError& other) const {
        return kind_ == other.kind_ && detail_ == other.detail_;
    }

  private:
    CaptureError(Kind kind, std::string detail);

    Kind kind_;
    std::string detail_;
    std::string what_;
};

// A platform status as text: four printable characters as "'!hog' (560492391)", else decimal.
std::string osStatusString(std::int32_t status);

}  // namespace velmora
