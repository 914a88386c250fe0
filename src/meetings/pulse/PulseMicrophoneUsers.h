#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "meetings/MicrophoneUsers.h"

namespace velmora {

// The applications recording from a real input, as the sound server (PulseAudio, or PipeWire's
// pulse server) lists them. Each call opens its own short connection and drives it on the
// calling thread, so no thread outlives a call and a hung server costs at most `timeout`.
// Safe to call from any thread.
//
// A recording stream counts when it is running (not corked), records from a known source that
// is not the monitor of an output, and is not a level meter. Recording from a monitor is how
// system audio is captured, the helper's own capture included, so such streams never count.
class PulseMicrophoneUsers final : public MicrophoneUsers {
  public:
    struct Options {
        // The server to ask, as for PULSE_SERVER; empty for the user's default server.
        std::string serverAddress;
        // The longest one query may take, connection included.
        std::chrono::milliseconds timeout{500};
    };

    PulseMicrophoneUsers();
    explicit PulseMicrophoneUsers(Options options);

    std::vector<std::string> bundleIds() override;

    // Every recording stream the server lists, counted or not; 0 when the query fails.
    std::int64_t processObjectCount() override;

    const Options& options() const { return options_; }

  private:
    Options options_;
};

}  // namespace velmora
