#include "meetings/pulse/ApplicationIdentity.h"

#include <gtest/gtest.h>

#include "meetings/KnownMeetingApps.h"

namespace velmora {
namespace {

ApplicationIdentity fromBinary(std::string binary) {
    return ApplicationIdentity{.binary = std::move(binary)};
}

ApplicationIdentity fromFlatpak(std::string flatpakId) {
    return ApplicationIdentity{.flatpakId = std::move(flatpakId)};
}

TEST(ApplicationIdentity, ZoomBinaryAndFlatpakMapToZoom) {
    EXPECT_EQ(fromBinary("zoom").identifier(), "us.zoom.xos");
    EXPECT_EQ(fromBinary("zoom.real").identifier(), "us.zoom.xos");
    EXPECT_EQ(fromFlatpak("us.zoom.Zoom").identifier(), "us.zoom.xos");
}

TEST(ApplicationIdentity, ChromeBinariesAndFlatpakMapToChrome) {
    for (const char* binary : {"chrome", "google-chrome", "google-chrome-stable"}) {
        EXPECT_EQ(fromBinary(binary).identifier(), "com.google.Chrome") << binary;
    }
    EXPECT_EQ(fromFlatpak("com.google.Chrome").identifier(), "com.google.Chrome");
}

TEST(ApplicationIdentity, ChromiumBinariesAndFlatpakMapToChromiumNotChrome) {
    EXPECT_EQ(fromBinary("chromium").identifier(), "org.chromium.Chromium");
    EXPECT_EQ(fromBinary("chromium-browser").identifier(), "org.chromium.Chromium");
    EXPECT_EQ(fromFlatpak("org.chromium.Chromium").identifier(), "org.chromium.Chromium");
    const auto app = KnownMeetingApps::match(fromBinary("chromium").identifier().value_or(""));
    ASSERT_TRUE(app.has_value());
    EXPECT_EQ(app->name, "Chromium");
}

TEST(ApplicationIdentity, OtherMeetingApplicationsMapToTheirTableRows) {
    EXPECT_EQ(fromBinary("firefox").identifier(), "org.mozilla.firefox");
    EXPECT_EQ(fromBinary("firefox-esr").identifier(), "org.mozilla.firefox");
    EXPECT_EQ(fromFlatpak("org.mozilla.firefox").identifier(), "org.mozilla.firefox");
    EXPECT_EQ(fromBinary("slack").identifier(), "com.tinyspeck.slackmacgap");
    EXPECT_EQ(fromFlatpak("com.slack.Slack").identifier(), "com.tinyspeck.slackmacgap");
    EXPECT_EQ(fromBinary("Discord").identifier(), "com.hnc.Discord");
    EXPECT_EQ(fromFlatpak("com.discordapp.Discord").identifier(), "com.hnc.Discord");
    EXPECT_EQ(fromBinary("teams-for-linux").identifier(), "com.microsoft.teams");
    EXPECT_EQ(fromFlatpak("com.github.IsmaelMartinez.teams_for_linux").identifier(),
              "com.microsoft.teams");
    EXPECT_EQ(fromBinary("msedge").identifier(), "com.microsoft.edgemac");
    EXPECT_EQ(fromFlatpak("com.microsoft.Edge").identifier(), "com.microsoft.edgemac");
    EXPECT_EQ(fromBinary("brave").identifier(), "com.brave.Browser");
    EXPECT_EQ(fromFlatpak("com.brave.Browser").identifier(), "com.brave.Browser");
    EXPECT_EQ(fromBinary("vivaldi-bin").identifier(), "com.vivaldi.Vivaldi");
    EXPECT_EQ(fromBinary("opera").identifier(), "com.operasoftware.Opera");
    EXPECT_EQ(fromFlatpak("com.opera.Opera").identifier(), "com.operasoftware.Opera");
    EXPECT_EQ(fromBinary("CiscoCollabHost").identifier(), "Cisco-Systems.Spark");
}

TEST(ApplicationIdentity, EveryAliasLeadsToATableRow) {
    for (const char* binary : {"zoom", "teams", "webex", "slack", "discord", "chrome", "msedge",
                               "firefox", "brave", "vivaldi", "opera", "chromium"}) {
        const auto identifier = fromBinary(binary).identifier();
        ASSERT_TRUE(identifier.has_value()) << binary;
        EXPECT_TRUE(KnownMeetingApps::match(*identifier).has_value()) << binary;
    }
}

TEST(ApplicationIdentity, ApplicationNameAloneIsEnough) {
    EXPECT_EQ(ApplicationIdentity{.name = "Google Chrome"}.identifier(), "com.google.Chrome");
    EXPECT_EQ(ApplicationIdentity{.name = "Firefox"}.identifier(), "org.mozilla.firefox");
}

TEST(ApplicationIdentity, GenericBinaryGivesWayToATellingName) {
    const ApplicationIdentity electronApp{.binary = "electron", .name = "teams-for-linux"};
    EXPECT_EQ(electronApp.identifier(), "com.microsoft.teams");
}

TEST(ApplicationIdentity, ApplicationIdComesBeforeBinaryAndName) {
    const ApplicationIdentity identity{
        .applicationId = "org.mozilla.firefox", .binary = "zoom", .name = "Slack"};
    EXPECT_EQ(identity.identifier(), "org.mozilla.firefox");
}

TEST(ApplicationIdentity, FlatpakIdDecidesAloneEvenWhenUnknown) {
    // A sandboxed application could name its binary "zoom"; the sandbox's id is what counts.
    const ApplicationIdentity identity{.flatpakId = "org.example.Recorder", .binary = "zoom"};
    EXPECT_EQ(identity.identifier(), "org.example.Recorder");
}

TEST(ApplicationIdentity, UnknownApplicationKeepsItsFirstNonEmptyIdentity) {
    EXPECT_EQ((ApplicationIdentity{
                  .applicationId = "org.example.Recorder", .binary = "recorder", .name = "Recorder"}
                   .identifier()),
              "org.example.Recorder");
    EXPECT_EQ((ApplicationIdentity{.binary = "parec", .name = "parec"}.identifier()), "parec");
    EXPECT_EQ((ApplicationIdentity{.name = "ALSA plug-in [arecord]"}.identifier()),
              "ALSA plug-in [arecord]");
}

TEST(ApplicationIdentity, StreamWithoutAnyIdentityHasNoIdentifier) {
    EXPECT_EQ(ApplicationIdentity{}.identifier(), std::nullopt);
}

TEST(ApplicationIdentity, IdentifierTheTableKnowsPassesThroughUnchanged) {
    // Helper-process identifiers keep their suffix; the table's prefix rule groups them.
    EXPECT_EQ(ApplicationIdentity{.applicationId = "com.google.Chrome.helper"}.identifier(),
              "com.google.Chrome.helper");
}

}  // namespace
}  // namespace velmora
