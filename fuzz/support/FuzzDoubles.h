#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "capture/AudioCapturePermission.h"
#include "capture/AudioTap.h"
#include "meetings/MicrophoneUsers.h"
#include "server/PeerOwnerLookup.h"

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

// Every peer is one of this user's processes, with a socket of its own.
class OwnPeers final : public PeerOwnerLookup {
  public:
    std::optional<PeerSocket> find(const boost::asio::ip::tcp::endpoint&,
                                   const boost::asio::ip::tcp::endpoint&) override;
    std::unordered_map<std::uint64_t, int> processesHolding(
        const std::unordered_set<std::uint64_t>&) override {
        return {};
    }

  private:
    std::uint64_t nextInode_ = 1;
};

}  // namespace velmora::fuzzing
