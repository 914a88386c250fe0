#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "meetings/pulse/ApplicationIdentity.h"

namespace velmora {

// What the sound server lists that decides who records from a real input: its recording
// streams, its sources and its clients, each by the server's index. Kept current from the
// server's events; not thread-safe.
//
// A recording stream counts when it is running (not corked), records from a listed source that
// is not the monitor of an output, and is not a level meter. Recording from a monitor is how
// system audio is captured, the helper's own capture included, so such streams never count.
class RecordingStreamTable {
  public:
    struct Stream {
        std::uint32_t source = 0;
        std::uint32_t client = 0;
        bool corked = false;
        bool levelMeter = false;
        ApplicationIdentity identity = {};  // the stream's own properties
    };

    void putStream(std::uint32_t index, Stream stream);
    void removeStream(std::uint32_t index);
    void putSource(std::uint32_t index, bool isMonitor);
    void removeSource(std::uint32_t index);
    void putClient(std::uint32_t index, ApplicationIdentity identity);
    void removeClient(std::uint32_t index);
    void clear();

    // The application identifiers of the streams that count, in index order; a stream's
    // identity is completed from its client's.
    std::vector<std::string> bundleIds() const;
    // Every recording stream listed, counted or not.
    std::size_t streamCount() const { return streams_.size(); }

  private:
    std::map<std::uint32_t, Stream> streams_;
    std::map<std::uint32_t, bool> sourceIsMonitor_;
    std::map<std::uint32_t, ApplicationIdentity> clients_;
};

}  // namespace velmora
