#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "meetings/MeetingApp.h"

namespace velmora {

// Reports each known meeting application once per call, after it has held the microphone for
// `debounce` seconds; an absence longer than `cooldown` seconds starts a new call. Reads no clock;
// `now` is monotonic seconds supplied by the caller. Not thread-safe: confine to one queue.
class MeetingDetectorLogic final {
  public:
    // One application's current episode on the microphone.
    struct Track {
        double since;     // start of the episode
        double lastSeen;  // latest sighting
        bool asked;       // already reported, or deliberately passed over, in this episode
    };

    explicit MeetingDetectorLogic(std::string ownBundleId, double debounce = 5.0,
                                  double cooldown = 30.0);

    // Feeds one tick's microphone users. Applications (table identifiers) in `suppressed`, and
    // any that appear while `capturing`, are passed over for the rest of their episode. Returns
    // the applications to report now, in ascending order of their identifiers.
    std::vector<MeetingApp> update(const std::vector<std::string>& inputBundleIds, double now,
                                   const std::set<std::string>& suppressed, bool capturing);

    void reset();

    // The track of an application (by its table identifier), for inspection.
    std::optional<Track> track(const std::string& bundleId) const;
    std::size_t trackCount() const { return tracks_.size(); }

    double debounce;          // seconds on the microphone before an episode is reported
    double cooldown;          // longest absence that still counts as the same call
    std::string ownBundleId;  // the helper's own identifier, never tracked

  private:
    std::map<std::string, Track> tracks_;
};

}  // namespace velmora
