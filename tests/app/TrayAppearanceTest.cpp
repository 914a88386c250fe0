#include "app/TrayAppearance.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

HelperStatus listeningWith(int clients) {
    HelperStatus status;
    status.server = ServerState::listening();
    status.clients = clients;
    return status;
}

TEST(TrayAppearanceTest, WaitingForAPageShowsThePort) {
    TrayAppearance appearance = render(listeningWith(0), 52849);
    EXPECT_EQ(appearance.statusText, "Ready \u00B7 waiting for Velmora (port 52849)");
    EXPECT_EQ(appearance.iconName, "waveform");
    EXPECT_FALSE(appearance.permissionItemVisible);
    EXPECT_EQ(appearance.toolTip,
              "Velmora Audio Helper \u2014 Ready \u00B7 waiting for Velmora (port 52849)");
}

TEST(TrayAppearanceTest, WaitingShowsTheGivenPortNotTheDefault) {
    EXPECT_EQ(render(listeningWith(0), 8080).statusText,
              "Ready \u00B7 waiting for Velmora (port 8080)");
}

TEST(TrayAppearanceTest, StoppedServerIsStarting) {
    TrayAppearance appearance = render(HelperStatus{}, 52849);
    EXPECT_EQ(appearance.statusText, "Starting\u2026");
    EXPECT_EQ(appearance.iconName, "waveform");
    EXPECT_EQ(appearance.toolTip, "Velmora Audio Helper \u2014 Starting\u2026");
}

TEST(TrayAppearanceTest, ConnectedPageWithoutCaptureIsReadyToCapture) {
    EXPECT_EQ(render(listeningWith(1), 52849).statusText, "Connected \u00B7 ready to capture");
    EXPECT_EQ(render(listeningWith(3), 52849).statusText, "Connected \u00B7 ready to capture");
}

TEST(TrayAppearanceTest, CapturingWithPermissionDeniedStillShowsSendingAndThePermissionItem) {
    HelperStatus status = listeningWith(1);
    status.capturingFor = "https://app.example";
    status.permissionDenied = true;
    TrayAppearance appearance = render(status, 52849);
    EXPECT_EQ(appearance.statusText, "\u25CF Sending system audio to app.example");
    EXPECT_EQ(appearance.iconName, "waveform.circle.fill");
    EXPECT_TRUE(appearance.permissionItemVisible);
    EXPECT_EQ(appearance.toolTip,
              "Velmora Audio Helper \u2014 \u25CF Sending system audio to app.example");
}

TEST(TrayAppearanceTest, CapturingIgnoresTheLastError) {
    HelperStatus status = listeningWith(1);
    status.capturingFor = "http://localhost:3000";
    status.lastError = "The audio device stopped";
    EXPECT_EQ(render(status, 52849).statusText, "\u25CF Sending system audio to localhost");
}

TEST(TrayAppearanceTest, CapturingForAnOriginThatIsNotAURLNamesVelmora) {
    HelperStatus status = listeningWith(1);
    for (const char* origin : {"not a url", "", "null", "mailto:someone@example.com"}) {
        status.capturingFor = origin;
        TrayAppearance appearance = render(status, 52849);
        EXPECT_EQ(appearance.statusText, "\u25CF Sending system audio to Velmora") << origin;
        EXPECT_EQ(appearance.iconName, "waveform.circle.fill") << origin;
    }
}

TEST(TrayAppearanceTest, FailedServerWithLastErrorShowsTheLastErrorAndTheWarningIcon) {
    HelperStatus status;
    status.server = ServerState::failed("Port 52849 is already in use (is another copy running?)");
    status.lastError = "The audio device disappeared";
    TrayAppearance appearance = render(status, 52849);
    EXPECT_EQ(appearance.statusText, "The audio device disappeared");
    EXPECT_EQ(appearance.iconName, "exclamationmark.triangle");
    EXPECT_EQ(appearance.toolTip, "Velmora Audio Helper \u2014 The audio device disappeared");
}

TEST(TrayAppearanceTest, FailedServerShowsItsMessageAndTheWarningIcon) {
    HelperStatus status;
    status.server = ServerState::failed("Port 52849 is already in use (is another copy running?)");
    TrayAppearance appearance = render(status, 52849);
    EXPECT_EQ(appearance.statusText, "Port 52849 is already in use (is another copy running?)");
    EXPECT_EQ(appearance.iconName, "exclamationmark.triangle");
}

TEST(TrayAppearanceTest, DeniedPermissionWithoutCaptureOverridesEverything) {
    HelperStatus status = listeningWith(1);
    status.permissionDenied = true;
    status.lastError = "An older failure";
    TrayAppearance appearance = render(status, 52849);
    EXPECT_EQ(appearance.statusText, "System audio access was denied");
    EXPECT_EQ(appearance.iconName, "exclamationmark.triangle");
    EXPECT_TRUE(appearance.permissionItemVisible);
}

TEST(TrayAppearanceTest, LastErrorWhileListeningKeepsTheWaveformIcon) {
    HelperStatus status = listeningWith(0);
    status.lastError = "The audio device disappeared";
    TrayAppearance appearance = render(status, 52849);
    EXPECT_EQ(appearance.statusText, "The audio device disappeared");
    EXPECT_EQ(appearance.iconName, "waveform");
    EXPECT_FALSE(appearance.permissionItemVisible);
}

}  // namespace
}  // namespace velmora
