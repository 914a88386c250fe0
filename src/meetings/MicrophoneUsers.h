#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace velmora {

// Which processes are taking microphone input now, as application identifiers.
class MicrophoneUsers {
  public:
    virtual ~MicrophoneUsers() = default;

    // Identifiers in the order the audio system lists its streams; duplicates allowed, never an
    // empty string; a failed query is an empty list.
    virtual std::vector<std::string> bundleIds() = 0;

    // How many recording streams the audio system lists; 0 when the query fails.
    virtual std::int64_t processObjectCount() = 0;
};

}  // namespace velmora
