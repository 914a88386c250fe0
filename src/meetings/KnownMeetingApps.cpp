#include "meetings/KnownMeetingApps.h"

namespace velmora::KnownMeetingApps {

const std::vector<Row>& table() {
    // FaceTime alone matches exactly: its helper processes are not calls.
    static const std::vector<Row> rows{
        {"us.zoom.xos", true, "zoom", "Zoom"},
        {"com.microsoft.teams", true, "teams", "Microsoft Teams"},
        {"com.microsoft.teams2", true, "teams", "Microsoft Teams"},
        {"com.cisco.webexmeetingsapp", true, "webex", "Webex"},
        {"com.webex.meetingmanager", true, "webex", "Webex"},
        {"Cisco-Systems.Spark", true, "webex", "Webex"},
        {"com.tinyspeck.slackmacgap", true, "slack", "Slack"},
        {"com.apple.FaceTime", false, "facetime", "FaceTime"},
        {"com.hnc.Discord", true, "discord", "Discord"},
        {"com.google.Chrome", true, "browser", "Google Chrome"},
        {"com.microsoft.edgemac", true, "browser", "Microsoft Edge"},
        {"org.mozilla.firefox", true, "browser", "Firefox"},
        {"company.thebrowser.Browser", true, "browser", "Arc"},
        {"com.brave.Browser", true, "browser", "Brave"},
        {"com.vivaldi.Vivaldi", true, "browser", "Vivaldi"},
        {"com.operasoftware.Opera", true, "browser", "Opera"},
        // Linux applications without a row above, after them so that the rows above keep their
        // order and their matches.
        {"org.chromium.Chromium", true, "browser", "Chromium"},
    };
    return rows;
}

namespace {

bool extendsByDot(std::string_view bundleId, std::string_view base) {
    return bundleId.size() > base.size() && bundleId.starts_with(base) &&
           bundleId[base.size()] == '.';
}

}  // namespace

std::optional<MeetingApp> match(std::string_view bundleId) {
    for (const Row& row : table()) {
        if (bundleId == row.match || (row.prefix && extendsByDot(bundleId, row.match))) {
            return MeetingApp{std::string(row.key), std::string(row.name), std::string(row.match)};
        }
    }
    return std::nullopt;
}

bool isIgnored(std::string_view bundleId, std::string_view ownBundleId) {
    return bundleId == ownBundleId || extendsByDot(bundleId, ownBundleId) ||
           bundleId.starts_with("com.apple.WebKit");
}

std::map<std::string, MeetingApp> usingApps(const std::vector<std::string>& bundleIds,
                                            std::string_view ownBundleId) {
    std::map<std::string, MeetingApp> apps;
    for (const std::string& bundleId : bundleIds) {
        if (isIgnored(bundleId, ownBundleId)) {
            continue;
        }
        if (auto app = match(bundleId)) {
            std::string id = app->bundleId;
            apps.insert_or_assign(std::move(id), std::move(*app));
        }
    }
    return apps;
}

}  // namespace velmora::KnownMeetingApps
