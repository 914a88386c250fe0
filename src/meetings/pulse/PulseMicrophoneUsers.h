#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "meetings/MicrophoneUsers.h"
#include "meetings/pulse/RecordingStreamView.h"

namespace velmora {

// The applications recording from a real input, as the sound server (PulseAudio, or PipeWire's
// pulse server) lists them. While calls are watched, one connection keeps a view of the
// server's recording streams current from its events; a query reads that view at once and never
// waits on the server. Outside watching, and while the server hangs or is away, nobody records.
// Safe to call from any thread.
class PulseMicrophoneUsers final : public MicrophoneUsers {
  public:
    using Options = RecordingStreamView::Options;

    PulseMicrophoneUsers();
    explicit PulseMicrophoneUsers(Options options);
    ~PulseMicrophoneUsers() override;

    void startWatching() override;
    void stopWatching() override;

    // The streams that count (RecordingStreamTable) by application identifier.
    std::vector<std::string> bundleIds() override;
    // Every recording stream the server lists, counted or not; 0 without a view.
    std::int64_t processObjectCount() override;

    const Options& options() const { return options_; }

  private:
    const Options options_;
    std::mutex mutex_;
    std::unique_ptr<RecordingStreamView> view_;  // while watching
};

}  // namespace velmora
