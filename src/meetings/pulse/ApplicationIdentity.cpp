#include "meetings/pulse/ApplicationIdentity.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

#include "meetings/KnownMeetingApps.h"

namespace velmora {
namespace {

struct Alias {
    std::string_view linuxName;   // lower case; compared without regard to case
    std::string_view identifier;  // a table identifier
};

// Linux executables, Flatpak ids, snap names and application names of the table's
// applications. Arc and FaceTime have no Linux version.
constexpr std::array aliases{
    Alias{"zoom", "us.zoom.xos"},
    Alias{"zoom-client", "us.zoom.xos"},
    Alias{"zoom.real", "us.zoom.xos"},
    Alias{"us.zoom.zoom", "us.zoom.xos"},
    Alias{"zoom voiceengine", "us.zoom.xos"},
    Alias{"teams", "com.microsoft.teams"},
    Alias{"microsoft teams", "com.microsoft.teams"},
    // The Flatpak of the older (Electron) Microsoft Teams, com.microsoft.Teams.
    Alias{"com.microsoft.teams", "com.microsoft.teams"},
    Alias{"teams-for-linux", "com.microsoft.teams"},
    Alias{"com.github.ismaelmartinez.teams_for_linux", "com.microsoft.teams"},
    Alias{"webex", "Cisco-Systems.Spark"},
    Alias{"ciscocollabhost", "Cisco-Systems.Spark"},
    Alias{"slack", "com.tinyspeck.slackmacgap"},
    Alias{"com.slack.slack", "com.tinyspeck.slackmacgap"},
    Alias{"discord", "com.hnc.Discord"},
    Alias{"com.discordapp.discord", "com.hnc.Discord"},
    Alias{"chrome", "com.google.Chrome"},
    Alias{"google-chrome", "com.google.Chrome"},
    Alias{"google-chrome-stable", "com.google.Chrome"},
    Alias{"google-chrome-beta", "com.google.Chrome"},
    Alias{"google-chrome-unstable", "com.google.Chrome"},
    Alias{"google chrome", "com.google.Chrome"},
    Alias{"msedge", "com.microsoft.edgemac"},
    Alias{"microsoft-edge", "com.microsoft.edgemac"},
    Alias{"microsoft-edge-stable", "com.microsoft.edgemac"},
    Alias{"microsoft-edge-beta", "com.microsoft.edgemac"},
    Alias{"microsoft-edge-dev", "com.microsoft.edgemac"},
    Alias{"com.microsoft.edge", "com.microsoft.edgemac"},
    Alias{"microsoft edge", "com.microsoft.edgemac"},
    Alias{"firefox", "org.mozilla.firefox"},
    Alias{"firefox-esr", "org.mozilla.firefox"},
    Alias{"firefox-bin", "org.mozilla.firefox"},
    Alias{"brave", "com.brave.Browser"},
    Alias{"brave-browser", "com.brave.Browser"},
    Alias{"brave-browser-stable", "com.brave.Browser"},
    Alias{"vivaldi", "com.vivaldi.Vivaldi"},
    Alias{"vivaldi-bin", "com.vivaldi.Vivaldi"},
    Alias{"vivaldi-stable", "com.vivaldi.Vivaldi"},
    Alias{"chromium", "org.chromium.Chromium"},
    Alias{"chromium-browser", "org.chromium.Chromium"},
    Alias{"opera", "com.operasoftware.Opera"},
    Alias{"com.opera.opera", "com.operasoftware.Opera"},
};

// The executable of Google Chrome, and of Chromium in its Flatpak and snap builds; the icon
// name each browser gives its streams tells them apart.
constexpr std::string_view sharedBrowserBinary = "chrome";

// A snap name PipeWire sets when it could not read the client's confinement.
constexpr std::string_view unknownSnap = "unknown";

bool equalsIgnoringCase(std::string_view text, std::string_view lowerCase) {
    return std::ranges::equal(text, lowerCase, [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == b;
    });
}

// The table identifier a value names, if any: a known alias, or an identifier the table itself
// matches (a Flatpak id such as "org.mozilla.firefox" is already one).
std::optional<std::string> knownIdentifier(std::string_view value) {
    if (KnownMeetingApps::match(value)) {
        return std::string(value);
    }
    for (const Alias& alias : aliases) {
        if (equalsIgnoringCase(value, alias.linuxName)) {
            return std::string(alias.identifier);
        }
    }
    return std::nullopt;
}

// The browser an icon name names ("chromium-browser", "google-chrome"), if any.
std::optional<std::string> browserOfIcon(std::string_view iconName) {
    auto identifier = knownIdentifier(iconName);
    if (identifier && KnownMeetingApps::match(*identifier)->key == "browser") {
        return identifier;
    }
    return std::nullopt;
}

}  // namespace

ApplicationIdentity ApplicationIdentity::fromProperties(
    const std::function<std::string(std::string_view)>& property) {
    ApplicationIdentity identity{
        .flatpakId = property(flatpakIdProperty),
        .snapId = property(snapIdProperty),
        .applicationId = property(applicationIdProperty),
        .binary = property(binaryProperty),
        .name = property(nameProperty),
        .iconName = property(iconNameProperty),
    };
    if (identity.flatpakId.empty() && property(securityEngineProperty) == flatpakEngine) {
        identity.flatpakId = property(securityAppIdProperty);
    }
    return identity;
}

std::optional<std::string> ApplicationIdentity::identifier() const {
    if (!flatpakId.empty()) {
        return knownIdentifier(flatpakId).value_or(flatpakId);
    }
    if (!snapId.empty() && snapId != unknownSnap) {
        return knownIdentifier(snapId).value_or(snapId);
    }
    const std::array<const std::string*, 3> fields{&applicationId, &binary, &name};
    for (const std::string* field : fields) {
        if (field->empty()) {
            continue;
        }
        if (field == &binary && equalsIgnoringCase(binary, sharedBrowserBinary)) {
            if (auto browser = browserOfIcon(iconName)) {
                return browser;
            }
        }
        if (auto known = knownIdentifier(*field)) {
            return known;
        }
    }
    for (const std::string* field : fields) {
        if (!field->empty()) {
            return *field;
        }
    }
    return std::nullopt;
}

}  // namespace velmora
