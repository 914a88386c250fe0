#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "meetings/CallEndWatch.h"
#include "meetings/KnownMeetingApps.h"
#include "meetings/pulse/PulseMicrophoneUsers.h"
#include "meetings/pulse/RecordingStream.h"
#include "support/SoundServer.h"

// Meeting applications from a Flatpak or a snap, recording from a real server's microphone.
// The properties are the ones each build gives its recording client; the sandbox's id is the
// one PipeWire's pulse server adds for a sandboxed client (a test client sets it itself, as no
// sandbox runs here). PulseAudio knows nothing of sandboxes and lists what the client says.
namespace velmora {
namespace {

using namespace std::chrono_literals;
using Kind = SoundServer::Kind;
using Properties = std::map<std::string, std::string>;

const std::string ownId = "com.velmora.audiohelper";
const MeetingApp chromium{"browser", "Chromium", "org.chromium.Chromium"};

// Polls until `condition` holds; false after 15 s.
bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + 15s;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(20ms);
    }
    return condition();
}

class SandboxedMeetingAppTest : public testing::TestWithParam<Kind> {
  protected:
    void SetUp() override {
        std::string whyNot;
        if (!SoundServer::isAvailable(GetParam(), &whyNot)) {
            GTEST_SKIP() << SoundServer::kindName(GetParam()) << " is not installed: " << whyNot;
        }
        server_ = SoundServer::start(GetParam());
        users_ = std::make_unique<PulseMicrophoneUsers>(
            PulseMicrophoneUsers::Options{.serverAddress = server_->serverAddress()});
        users_->startWatching();
    }

    bool onPipeWire() const { return GetParam() == Kind::pipeWire; }

    // Chromium-based recording: the input connection's name, the executable, and the icon name
    // on the stream; plus what the server adds for the sandbox.
    std::unique_ptr<RecordingStream> chromiumBasedRecording(const std::string& binary,
                                                            const Properties& sandbox) {
        Properties client{{"application.process.binary", binary},
                          {"application.name", "Chrome input"}};
        client.insert(sandbox.begin(), sandbox.end());
        return std::make_unique<RecordingStream>(RecordingStream::Options{
            .serverAddress = server_->serverAddress(),
            .source = SoundServer::microphone,
            .properties = client,
            .streamProperties = {{"application.icon_name", "chromium-browser"}}});
    }

    // The meeting applications recording now, as the call-end watch sees them.
    std::map<std::string, MeetingApp> meetingApps() {
        return KnownMeetingApps::usingApps(users_->bundleIds(), ownId);
    }

    // Waits until exactly `app` records, and shows what the server listed when it does not.
    void expectOnlyRecording(const MeetingApp& app) {
        const std::map<std::string, MeetingApp> expected{{app.bundleId, app}};
        EXPECT_TRUE(eventually([&] { return meetingApps() == expected; }))
            << "listed: " << testing::PrintToString(users_->bundleIds()) << "\n"
            << server_->run({"pactl", "list", "source-outputs"}).output;
    }

    std::unique_ptr<SoundServer> server_;
    std::unique_ptr<PulseMicrophoneUsers> users_;
};

TEST_P(SandboxedMeetingAppTest, ChromiumFlatpakIsReportedAsChromium) {
    // Inside the Flatpak the executable is /app/chromium/chrome, as Google Chrome's is.
    const Properties sandbox =
        onPipeWire() ? Properties{{"pipewire.access.portal.app_id", "org.chromium.Chromium"}}
                     : Properties{};
    auto recording = chromiumBasedRecording("chrome", sandbox);
    expectOnlyRecording(chromium);
}

TEST_P(SandboxedMeetingAppTest, ChromiumSnapIsReportedAsChromium) {
    const Properties sandbox = onPipeWire() ? Properties{{"pipewire.snap.id", "chromium"},
                                                         {"pipewire.snap.audio.record", "true"}}
                                            : Properties{};
    auto recording = chromiumBasedRecording("chrome", sandbox);
    expectOnlyRecording(chromium);
}

TEST_P(SandboxedMeetingAppTest, CallInChromiumFlatpakEndsAsAChromiumCall) {
    const Properties sandbox =
        onPipeWire() ? Properties{{"pipewire.access.portal.app_id", "org.chromium.Chromium"}}
                     : Properties{};
    CallEndWatch watch(ownId, /*grace=*/15.0, /*minimumCall=*/10.0);
    auto recording = chromiumBasedRecording("chrome", sandbox);
    ASSERT_TRUE(eventually([&] { return !meetingApps().empty(); }))
        << testing::PrintToString(users_->bundleIds());
    // Ticks of the watch on a clock of its own: a call of 12 s, then 15 s without the microphone.
    EXPECT_TRUE(watch.update(users_->bundleIds(), 0.0).empty());
    EXPECT_TRUE(watch.update(users_->bundleIds(), 12.0).empty());
    recording.reset();
    ASSERT_TRUE(eventually([&] { return users_->bundleIds().empty(); }));
    EXPECT_EQ(watch.update(users_->bundleIds(), 27.0), std::vector<MeetingApp>{chromium});
}

INSTANTIATE_TEST_SUITE_P(SoundServers, SandboxedMeetingAppTest,
                         testing::Values(Kind::pulseAudio, Kind::pipeWire),
                         [](const testing::TestParamInfo<Kind>& info) {
                             return SoundServer::kindName(info.param);
                         });

// PulseAudio sets no sandbox ids: there the executable names the application, as outside.
class SandboxedMeetingAppOnPipeWireTest : public SandboxedMeetingAppTest {};

TEST_P(SandboxedMeetingAppOnPipeWireTest, OlderTeamsFlatpakIsReportedAsTeams) {
    auto recording =
        chromiumBasedRecording("teams", {{"pipewire.access.portal.app_id", "com.microsoft.Teams"}});
    expectOnlyRecording(MeetingApp{"teams", "Microsoft Teams", "com.microsoft.teams"});
}

TEST_P(SandboxedMeetingAppOnPipeWireTest, SnapNamedByTheServerIsReportedAsItsApplication) {
    // A snap-confined client that names itself generically: the snap's name is what counts. It
    // records, so its audio-record plug is connected.
    auto recording = std::make_unique<RecordingStream>(
        RecordingStream::Options{.serverAddress = server_->serverAddress(),
                                 .source = SoundServer::microphone,
                                 .properties = {{"application.process.binary", "electron"},
                                                {"pipewire.snap.id", "slack"},
                                                {"pipewire.snap.audio.record", "true"}}});
    expectOnlyRecording(MeetingApp{"slack", "Slack", "com.tinyspeck.slackmacgap"});
}

TEST_P(SandboxedMeetingAppOnPipeWireTest, ChromiumInAFlatpakSandboxIsReportedAsChromium) {
    // A recorder whose root holds the sandbox's .flatpak-info, as every process in a Flatpak
    // sandbox has: the server reads the application id from there itself.
    if (::geteuid() != 0 || !server_->run({"unshare", "--mount", "true"}).succeeded()) {
        GTEST_SKIP() << "making a sandbox's root (a mount namespace and chroot) needs root";
    }
    const std::filesystem::path directory = server_->directory();
    const std::filesystem::path root = directory / "flatpak-root";
    for (const char* folder : {"usr", "dev"}) {
        std::filesystem::create_directories(root / folder);
    }
    std::filesystem::create_directories(root / directory.relative_path());
    for (const char* link : {"bin", "lib", "lib64", "sbin"}) {
        std::filesystem::create_symlink(std::filesystem::path("usr") / link, root / link);
    }
    std::ofstream(root / ".flatpak-info") << "[Application]\nname=org.chromium.Chromium\n"
                                             "runtime=runtime/org.freedesktop.Platform\n";
    const std::string script =
        "set -e; mount --bind /usr \"$1/usr\"; mount --bind /dev \"$1/dev\"; "
        "mount --bind \"$2\" \"$1$2\"; cd /; exec chroot \"$1\" env "
        "PULSE_PROP='application.process.binary=chrome' parec --device=microphone "
        "--property=application.icon_name=chromium-browser --raw /dev/null";
    auto recorder = server_->launch({"unshare", "--mount", "--propagation", "private", "sh", "-c",
                                     script, "sandbox", root.string(), directory.string()});
    expectOnlyRecording(chromium);
    EXPECT_TRUE(recorder->isRunning()) << "the sandboxed recorder stopped";
    EXPECT_NE(server_->run({"pactl", "list", "clients"})
                  .output.find("pipewire.access.portal.app_id = \"org.chromium.Chromium\""),
              std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(SoundServers, SandboxedMeetingAppOnPipeWireTest,
                         testing::Values(Kind::pipeWire),
                         [](const testing::TestParamInfo<Kind>& info) {
                             return SoundServer::kindName(info.param);
                         });

}  // namespace
}  // namespace velmora
