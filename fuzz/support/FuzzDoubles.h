#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "capture/AudioCapturePermission.h"
#include "capture/AudioTap.h"
#include "meetings/MicrophoneUsers.h"

namespace velmora::fuzzing {

// A system tap that never comes up: a capture start fails with a device error. Fuzzed pages
// exercise the server's message handling, never real audio.
class UnavailableTap final : public AudioTap {
  public:
    TapStreamFormat createTap() override;
    void createDevice() override;
    void startIO(SerialQueue& queue, InputHandler handler) override;
    void teardown() override {}
    bool hasTap() const override { return false; }
    void installDefaultOutputListener(std::function<void()>) override {}
};

// The recording permission, refused at once and on the asking thread.
class RefusedPermission final : public AudioCapturePermission {
  public:
    Status status() override { return Status::denied; }
    void request(std::function<void(bool granted)> completion) override { completion(false); }
    void openSystemSettings() override {}
};

// Nobody uses the microphone.
class NoMicrophoneUsers final : public MicrophoneUsers {
  public:
    std::vector<std::string> bundleIds() override { return {}; }
    std::int64_t processObjectCount() override { return 0; }
};

}  // namespace velmora::fuzzing
