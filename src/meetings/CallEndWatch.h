#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "meetings/MeetingApp.h"

namespace velmora {

// Decides that a call in a known meeting application has ended: the application has been off the
// microphone for `grace` seconds after holding it for at least `minimumCall` seconds. Reads no
// clock; `now` is monotonic seconds supplied by the caller. Not thread-safe: confine to one queue.
class CallEndWatch final {
  public:
    // One application's microphone use, from its first to its latest sighting.
    struct Track {
        MeetingApp app;  // as first seen
        double since;
        double lastSeen;
    };

    explicit CallEndWatch(std::string ownBundleId, double grace = 15.0, double minimumCall = 10.0);

    // Feeds one tick's microphone users; returns the applications whose call has just ended,
    // in ascending order of their identifiers.
    std::vector<MeetingApp> update(const std::vector<std::string>& inputBundleIds, double now);

    // Forgets every call without reporting any, so none carries over into another session.
    void reset();

    const std::string& ownBundleId() const { return ownBundleId_; }

    // The track of an application (by its table identifier), for inspection.
    std::optional<Track> track(const std::string& bundleId) const;
    std::size_t trackCount() const { return tracks_.size(); }

    double grace;        // seconds of absence after which a call counts as ended
    double minimumCall;  // least first-to-last sighting length that counts as a call

  private:
    std::string ownBundleId_;
    std::map<std::string, Track> tracks_;  // ordered by key, which fixes the report order
};

}  // namespace velmora
