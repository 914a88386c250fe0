#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace velmora {

// Which processes are taking microphone input now, as application identifiers.
class MicrophoneUsers {
  public:
    virtual ~MicrophoneUsers() = default;

    // Calls are watched between these two: a source that keeps its answer current (a connection
    // to the audio system, say) holds it open only then, so that bundleIds() answers at once.
    // Both return at once and may be called again; by default there is nothing to hold.
    virtual void startWatching() {}
    virtual void stopWatching() {}

    // Identifiers in the order the audio system lists its streams; duplicates allowed, never an
    // empty string; a failed query is an empty list. Never waits on the audio system.
    virtual std::vector<std::string> bundleIds() = 0;

    // How many recording streams the audio system lists; 0 when the query fails.
    virtual std::int64_t processObjectCount() = 0;
};

}  // namespace velmora
