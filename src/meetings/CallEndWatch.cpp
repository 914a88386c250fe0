#include "meetings/CallEndWatch.h"

#include <utility>

#include "meetings/KnownMeetingApps.h"

namespace velmora {

CallEndWatch::CallEndWatch(std::string ownBundleId, double grace, double minimumCall)
    : grace(grace), minimumCall(minimumCall), ownBundleId_(std::move(ownBundleId)) {}

std::vector<MeetingApp> CallEndWatch::update(const std::vector<std::string>& inputBundleIds,
                                             double now) {
    const auto current = KnownMeetingApps::usingApps(inputBundleIds, ownBundleId_);
    for (const auto& [id, app] : current) {
        if (auto found = tracks_.find(id); found != tracks_.end()) {
            found->second.lastSeen = now;
        } else {
            tracks_.emplace(id, Track{app, now, now});
        }
    }

    std::vector<MeetingApp> ended;
    for (auto it = tracks_.begin(); it != tracks_.end();) {
        const Track& track = it->second;
        // Still on the microphone, or absent for less than the grace period (strict: exactly
        // `grace` seconds of absence ends the call).
        if (current.contains(it->first) || now - track.lastSeen < grace) {
            ++it;
            continue;
        }
        // Too short to be a call (a sound check, a voice message): dropped without a report.
        if (track.lastSeen - track.since >= minimumCall) {
            ended.push_back(track.app);
        }
        it = tracks_.erase(it);
    }
    return ended;
}

void CallEndWatch::reset() {
    tracks_.clear();
}

std::optional<CallEndWatch::Track> CallEndWatch::track(const std::string& bundleId) const {
    if (auto found = tracks_.find(bundleId); found != tracks_.end()) {
        return found->second;
    }
    return std::nullopt;
}

}  // namespace velmora
