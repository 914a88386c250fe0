#pragma once

#include <functional>
#include <optional>
#include <string_view>

namespace velmora {

// The operating system's permission to record system audio.
class AudioCapturePermission {
  public:
    enum class Status { authorized, denied, unknown };

    static std::string_view rawValue(Status status);
    // Exactly "authorized", "denied" or "unknown" (case-sensitive); nothing otherwise.
    static std::optional<Status> fromRawValue(std::string_view raw);

    virtual ~AudioCapturePermission() = default;

    virtual Status status() = 0;
    // The completion may run on any thread, at any later time (even before request returns),
    // or never.
    virtual void request(std::function<void(bool granted)> completion) = 0;
    virtual void openSystemSettings() = 0;
};

}  // namespace velmora
