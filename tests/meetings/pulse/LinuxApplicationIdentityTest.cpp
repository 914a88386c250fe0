#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>

#include "meetings/KnownMeetingApps.h"
#include "meetings/pulse/ApplicationIdentity.h"

// How Linux builds of the meeting applications present themselves to the sound server as a
// recording client: the stream's properties merged with its client's, as PulseAudio lists them
// and as PipeWire's pulse server lists them (which adds its own keys, and the sandbox's id).
namespace velmora {
namespace {

using Properties = std::map<std::string, std::string>;

const MeetingApp chromium{"browser", "Chromium", "org.chromium.Chromium"};
const MeetingApp classicTeams{"teams", "Microsoft Teams", "com.microsoft.teams"};
const MeetingApp zoom{"zoom", "Zoom", "us.zoom.xos"};
const MeetingApp slack{"slack", "Slack", "com.tinyspeck.slackmacgap"};
const MeetingApp firefox{"browser", "Firefox", "org.mozilla.firefox"};

ApplicationIdentity identityIn(const Properties& properties) {
    return ApplicationIdentity::fromProperties([&](std::string_view key) {
        const auto found = properties.find(std::string(key));
        return found == properties.end() ? std::string() : found->second;
    });
}

// The meeting application the helper reports for a recording stream with these properties.
std::optional<MeetingApp> meetingAppOf(const Properties& properties) {
    const auto identifier = identityIn(properties).identifier();
    return identifier ? KnownMeetingApps::match(*identifier) : std::nullopt;
}

// What libpulse adds to every client, and what PulseAudio adds to the listing.
Properties onPulseAudio(Properties properties) {
    properties.merge(Properties{{"native-protocol.peer", "UNIX socket client"},
                                {"native-protocol.version", "35"},
                                {"application.process.id", "4242"},
                                {"application.process.user", "alice"},
                                {"application.process.host", "desk"},
                                {"application.language", "en_GB.UTF-8"},
                                {"media.name", "RecordStream"}});
    return properties;
}

// The same client on PipeWire's pulse server, plus what that server adds itself (`sandbox`:
// the properties it sets for a Flatpak- or snap-confined client).
Properties onPipeWire(Properties properties, const Properties& sandbox = {}) {
    properties = onPulseAudio(std::move(properties));
    properties.erase("native-protocol.peer");
    properties.erase("native-protocol.version");
    properties.merge(Properties{{"client.api", "pipewire-pulse"},
                                {"pulse.server.type", "unix"},
                                {"media.class", "Stream/Input/Audio"},
                                {"node.name", "Chrome input"},
                                {"stream.is-live", "true"}});
    properties.insert(sandbox.begin(), sandbox.end());
    return properties;
}

// Chromium's recording client: its input connection's name and the icon name of its streams.
Properties chromiumClient(const std::string& binary) {
    return {{"application.process.binary", binary},
            {"application.name", "Chrome input"},
            {"application.icon_name", "chromium-browser"}};
}

TEST(LinuxApplicationIdentity, ChromiumExecutableIsChromiumOnBothServers) {
    for (const char* binary : {"chromium", "chromium-browser"}) {
        EXPECT_EQ(meetingAppOf(onPulseAudio(chromiumClient(binary))), chromium) << binary;
        EXPECT_EQ(meetingAppOf(onPipeWire(chromiumClient(binary))), chromium) << binary;
    }
}

TEST(LinuxApplicationIdentity, ChromiumFlatpakIsChromiumOnBothServers) {
    // Inside the Flatpak the executable is /app/chromium/chrome; PulseAudio knows no more.
    EXPECT_EQ(meetingAppOf(onPulseAudio(chromiumClient("chrome"))), chromium);
    EXPECT_EQ(meetingAppOf(onPipeWire(chromiumClient("chrome"),
                                      {{"pipewire.access.portal.app_id", "org.chromium.Chromium"},
                                       {"pipewire.client.access", "flatpak"}})),
              chromium);
    // Admitted through a Flatpak security context instead.
    EXPECT_EQ(meetingAppOf(onPipeWire(chromiumClient("chrome"),
                                      {{"pipewire.sec.engine", "org.flatpak"},
                                       {"pipewire.sec.app-id", "org.chromium.Chromium"}})),
              chromium);
}

TEST(LinuxApplicationIdentity, ChromiumSnapIsChromiumOnBothServers) {
    // /snap/chromium/<revision>/usr/lib/chromium-browser/chrome
    EXPECT_EQ(meetingAppOf(onPulseAudio(chromiumClient("chrome"))), chromium);
    EXPECT_EQ(meetingAppOf(
                  onPipeWire(chromiumClient("chrome"), {{"pipewire.snap.id", "chromium"},
                                                        {"pipewire.snap.audio.record", "true"},
                                                        {"pipewire.snap.audio.playback", "true"}})),
              chromium);
}

TEST(LinuxApplicationIdentity, SharedChromeExecutableBelongsToTheBrowserItsIconNames) {
    const MeetingApp chrome{"browser", "Google Chrome", "com.google.Chrome"};
    Properties client = chromiumClient("chrome");
    EXPECT_EQ(meetingAppOf(onPulseAudio(client)), chromium);
    EXPECT_EQ(meetingAppOf(onPipeWire(client)), chromium);
    client["application.icon_name"] = "google-chrome";
    EXPECT_EQ(meetingAppOf(onPulseAudio(client)), chrome);
    EXPECT_EQ(meetingAppOf(onPipeWire(client)), chrome);
    // An icon name that names no browser leaves the executable's meaning alone.
    client["application.icon_name"] = "zoom";
    EXPECT_EQ(meetingAppOf(onPulseAudio(client)), chrome);
    client.erase("application.icon_name");
    EXPECT_EQ(meetingAppOf(onPulseAudio(client)), chrome);
}

TEST(LinuxApplicationIdentity, OlderTeamsFlatpakIsClassicTeamsOnBothServers) {
    // Electron's recording client, from /app/extra/teams/teams.
    const Properties client = chromiumClient("teams");
    EXPECT_EQ(meetingAppOf(onPulseAudio(client)), classicTeams);
    EXPECT_EQ(
        meetingAppOf(onPipeWire(client, {{"pipewire.access.portal.app_id", "com.microsoft.Teams"},
                                         {"pipewire.client.access", "flatpak"}})),
        classicTeams);
    EXPECT_EQ(meetingAppOf(onPipeWire(client, {{"pipewire.sec.engine", "org.flatpak"},
                                               {"pipewire.sec.app-id", "com.microsoft.Teams"}})),
              classicTeams);
}

// A snap's name is set by the server from the client's confinement, so it alone is enough.
Properties snapOnPipeWire(Properties client, const std::string& snap) {
    return onPipeWire(std::move(client), {{"pipewire.snap.id", snap},
                                          {"pipewire.snap.audio.record", "true"},
                                          {"pipewire.snap.audio.playback", "true"}});
}

TEST(LinuxApplicationIdentity, ZoomSnapIsZoomOnBothServers) {
    const Properties client{{"application.process.binary", "zoom"},
                            {"application.name", "ZOOM VoiceEngine"}};
    EXPECT_EQ(meetingAppOf(onPulseAudio(client)), zoom);
    EXPECT_EQ(meetingAppOf(snapOnPipeWire(client, "zoom-client")), zoom);
    EXPECT_EQ(meetingAppOf(snapOnPipeWire({}, "zoom-client")), zoom);
}

TEST(LinuxApplicationIdentity, SlackSnapIsSlackOnBothServers) {
    const Properties client = chromiumClient("slack");
    EXPECT_EQ(meetingAppOf(onPulseAudio(client)), slack);
    EXPECT_EQ(meetingAppOf(snapOnPipeWire(client, "slack")), slack);
    EXPECT_EQ(meetingAppOf(snapOnPipeWire({}, "slack")), slack);
}

TEST(LinuxApplicationIdentity, FirefoxSnapIsFirefoxOnBothServers) {
    // /snap/firefox/<revision>/usr/lib/firefox/firefox
    const Properties client{{"application.process.binary", "firefox"},
                            {"application.name", "Firefox"}};
    EXPECT_EQ(meetingAppOf(onPulseAudio(client)), firefox);
    EXPECT_EQ(meetingAppOf(snapOnPipeWire(client, "firefox")), firefox);
    EXPECT_EQ(meetingAppOf(snapOnPipeWire({}, "firefox")), firefox);
}

TEST(LinuxApplicationIdentity, SnapNameDecidesOverWhatTheApplicationSaysOfItself) {
    const Properties posingAsZoom{{"application.process.binary", "zoom"},
                                  {"application.name", "Zoom"}};
    EXPECT_EQ(identityIn(snapOnPipeWire(posingAsZoom, "recorder")).identifier(), "recorder");
    EXPECT_EQ(meetingAppOf(snapOnPipeWire(posingAsZoom, "recorder")), std::nullopt);
    // The name PipeWire sets when it could not read the confinement says nothing.
    EXPECT_EQ(meetingAppOf(snapOnPipeWire(posingAsZoom, "unknown")), zoom);
}

TEST(LinuxApplicationIdentity, FlatpakIdComesFromThePortalOrAFlatpakSecurityContext) {
    const Properties zoomClient{{"application.process.binary", "zoom"}};
    EXPECT_EQ(identityIn(onPipeWire(zoomClient, {{"pipewire.sec.engine", "org.flatpak"},
                                                 {"pipewire.sec.app-id", "com.slack.Slack"}}))
                  .flatpakId,
              "com.slack.Slack");
    // Another sandbox's application id is not a Flatpak id.
    const Properties otherEngine = onPipeWire(
        zoomClient,
        {{"pipewire.sec.engine", "org.example.sandbox"}, {"pipewire.sec.app-id", "slack"}});
    EXPECT_EQ(identityIn(otherEngine).flatpakId, "");
    EXPECT_EQ(meetingAppOf(otherEngine), zoom);
    // The pulse server's own Flatpak id comes first.
    EXPECT_EQ(identityIn(onPipeWire({}, {{"pipewire.access.portal.app_id", "org.chromium.Chromium"},
                                         {"pipewire.sec.engine", "org.flatpak"},
                                         {"pipewire.sec.app-id", "com.slack.Slack"}}))
                  .flatpakId,
              "org.chromium.Chromium");
}

}  // namespace
}  // namespace velmora
