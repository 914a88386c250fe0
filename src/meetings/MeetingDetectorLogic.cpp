#include "meetings/MeetingDetectorLogic.h"

#include <utility>

#include "meetings/KnownMeetingApps.h"

namespace velmora {

MeetingDetectorLogic::MeetingDetectorLogic(std::string ownBundleId, double debounce,
                                           double cooldown)
    : debounce(debounce), cooldown(cooldown), ownBundleId(std::move(ownBundleId)) {}

std::vector<MeetingApp> MeetingDetectorLogic::update(const std::vector<std::string>& inputBundleIds,
                                                     double now,
                                                     const std::set<std::string>& suppressed,
                                                     bool capturing) {
    const auto current = KnownMeetingApps::usingApps(inputBundleIds, ownBundleId);

    for (const auto& [id, app] : current) {
        auto found = tracks_.find(id);
        if (found == tracks_.end()) {
            tracks_.emplace(id, Track{now, now, false});
            continue;
        }
        Track& track = found->second;
        if (now - track.lastSeen > cooldown) {
            // Away longer than the cooldown: this is a new call.
            track.since = now;
            track.asked = false;
        }
        track.lastSeen = now;
    }

    std::erase_if(tracks_, [&](const auto& entry) {
        return !current.contains(entry.first) && now - entry.second.lastSeen > cooldown;
    });

    // `current` is ordered by key, which fixes the report order.
    std::vector<MeetingApp> report;
    for (const auto& [id, app] : current) {
        auto found = tracks_.find(id);
        if (found == tracks_.end() || found->second.asked) {
            continue;
        }
        Track& track = found->second;
        if (capturing || suppressed.contains(id)) {
            // Already being captured, or not wanted: not offered again in this episode.
            track.asked = true;
        } else if (now - track.since >= debounce) {
            track.asked = true;
            report.push_back(app);
        }
    }
    return report;
}

void MeetingDetectorLogic::reset() {
    tracks_.clear();
}

std::optional<MeetingDetectorLogic::Track> MeetingDetectorLogic::track(
    const std::string& bundleId) const {
    if (auto found = tracks_.find(bundleId); found != tracks_.end()) {
        return found->second;
    }
    return std::nullopt;
}

}  // namespace velmora
