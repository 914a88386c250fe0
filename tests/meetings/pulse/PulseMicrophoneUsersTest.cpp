#include "meetings/pulse/PulseMicrophoneUsers.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "capture/pulse/PulseAudioTap.h"
#include "config/SerialQueue.h"
#include "meetings/KnownMeetingApps.h"
#include "meetings/pulse/RecordingStream.h"
#include "support/SoundServer.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Kind = SoundServer::Kind;

const std::string zoomId = "us.zoom.xos";

// Polls until `condition` holds; false after 15 s. Servers list a new stream a moment after
// its client connected.
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

std::size_t countOf(const std::vector<std::string>& identifiers, const std::string& identifier) {
    return static_cast<std::size_t>(std::ranges::count(identifiers, identifier));
}

class PulseMicrophoneUsersTest : public testing::TestWithParam<Kind> {
  protected:
    void SetUp() override {
        std::string whyNot;
        if (!SoundServer::isAvailable(GetParam(), &whyNot)) {
            GTEST_SKIP() << SoundServer::kindName(GetParam()) << " is not installed: " << whyNot;
        }
        server_ = SoundServer::start(GetParam());
        users_ = std::make_unique<PulseMicrophoneUsers>(
            PulseMicrophoneUsers::Options{.serverAddress = server_->serverAddress()});
        // As the server does while a page receives audio.
        users_->startWatching();
    }

    // parec recording `device` as a client with the given properties (PULSE_PROP syntax).
    std::unique_ptr<SoundServer::Process> record(const std::string& device,
                                                 const std::string& clientProperties = {}) {
        std::vector<std::string> argv{"env"};
        if (!clientProperties.empty()) {
            argv.push_back("PULSE_PROP=" + clientProperties);
        }
        for (const char* argument : {"parec", "--raw", "--channels=1", "--rate=16000"}) {
            argv.emplace_back(argument);
        }
        argv.push_back("--device=" + device);
        argv.emplace_back("/dev/null");
        return server_->launch(argv);
    }

    RecordingStream::Options streamOn(const std::string& source) const {
        return RecordingStream::Options{.serverAddress = server_->serverAddress(),
                                        .source = source,
                                        .properties = {{"application.process.binary", "zoom"}}};
    }

    // Waits until the server lists `count` recording streams in all.
    void waitForStreams(std::int64_t count) {
        ASSERT_TRUE(eventually([&] { return users_->processObjectCount() == count; }))
            << "the server lists " << users_->processObjectCount() << " streams, not " << count
            << "\n"
            << server_->daemonOutput();
    }

    std::unique_ptr<SoundServer> server_;
    std::unique_ptr<PulseMicrophoneUsers> users_;
};

TEST_P(PulseMicrophoneUsersTest, NobodyRecordingYieldsAnEmptyList) {
    EXPECT_TRUE(users_->bundleIds().empty());
    EXPECT_EQ(users_->processObjectCount(), 0);
}

TEST_P(PulseMicrophoneUsersTest, ZoomRecordingTheMicrophoneIsListedAsZoom) {
    auto zoom = record(SoundServer::microphone, "application.process.binary=zoom");
    ASSERT_TRUE(eventually([&] { return countOf(users_->bundleIds(), zoomId) == 1; }))
        << server_->daemonOutput();
    EXPECT_EQ(users_->bundleIds(), std::vector<std::string>{zoomId});
    EXPECT_EQ(users_->processObjectCount(), 1);
}

TEST_P(PulseMicrophoneUsersTest, FlatpakApplicationIsListedByItsFlatpakId) {
    // The property PipeWire gives a sandboxed client; its binary says nothing.
    auto zoom = record(SoundServer::microphone,
                       "pipewire.access.portal.app_id=us.zoom.Zoom application.process.binary=app");
    ASSERT_TRUE(eventually([&] { return countOf(users_->bundleIds(), zoomId) == 1; }))
        << server_->daemonOutput();
}

TEST_P(PulseMicrophoneUsersTest, ApplicationIdentifiedByItsApplicationIdIsListed) {
    auto zoom = record(SoundServer::microphone, "application.id=us.zoom.Zoom");
    ASSERT_TRUE(eventually([&] { return countOf(users_->bundleIds(), zoomId) == 1; }))
        << server_->daemonOutput();
}

TEST_P(PulseMicrophoneUsersTest, TwoStreamsOfOneApplicationAreListedTwice) {
    auto first = record(SoundServer::microphone, "application.process.binary=zoom");
    auto second = record(SoundServer::microphone, "application.process.binary=zoom");
    ASSERT_TRUE(eventually([&] { return countOf(users_->bundleIds(), zoomId) == 2; }))
        << server_->daemonOutput();
    EXPECT_EQ(users_->bundleIds().size(), 2u);
}

TEST_P(PulseMicrophoneUsersTest, UnknownApplicationKeepsItsOwnIdentityAndTheTableDropsIt) {
    auto recorder = record(SoundServer::microphone);
    // parec is pacat under another name; the executable is what the server is told.
    ASSERT_TRUE(eventually([&] { return countOf(users_->bundleIds(), "pacat") == 1; }))
        << testing::PrintToString(users_->bundleIds());
    EXPECT_TRUE(KnownMeetingApps::usingApps(users_->bundleIds(), "velmora-audio-helper").empty());
}

TEST_P(PulseMicrophoneUsersTest, RunningStreamOpenedWithLibpulseIsListed) {
    // The counterpart of the corked and level-meter streams below, opened the same way.
    RecordingStream running(streamOn(SoundServer::microphone));
    ASSERT_TRUE(eventually([&] { return countOf(users_->bundleIds(), zoomId) == 1; }))
        << server_->daemonOutput();
}

TEST_P(PulseMicrophoneUsersTest, CorkedStreamIsNotListed) {
    auto options = streamOn(SoundServer::microphone);
    options.corked = true;
    RecordingStream paused(options);
    waitForStreams(1);
    EXPECT_TRUE(users_->bundleIds().empty());
}

TEST_P(PulseMicrophoneUsersTest, StreamRecordingAMonitorIsNotListed) {
    auto fromMonitor =
        record(std::string(SoundServer::speakers) + ".monitor", "application.process.binary=zoom");
    waitForStreams(1);
    EXPECT_TRUE(users_->bundleIds().empty());
}

TEST_P(PulseMicrophoneUsersTest, HelpersOwnSystemAudioCaptureIsNeverListed) {
    // The helper's real capture records what applications play: one plays, so the capture has
    // a recording stream of its own for the server to list.
    auto tone = server_->playTone(SoundServer::speakers, 1000, 30);
    SerialQueue captureQueue("com.velmora.audiohelper.capture");
    PulseAudioTap tap(PulseAudioTap::Options{.server = server_->serverAddress()});
    tap.createTap();
    tap.createDevice();
    tap.startIO(captureQueue, [](const InputBufferList&) {});
    auto zoom = record(SoundServer::microphone, "application.process.binary=zoom");
    waitForStreams(2);
    ASSERT_TRUE(eventually([&] { return !users_->bundleIds().empty(); }));
    EXPECT_EQ(users_->bundleIds(), std::vector<std::string>{zoomId});
    tap.teardown();
}

TEST_P(PulseMicrophoneUsersTest, LevelMeterIsNotListed) {
    auto options = streamOn(SoundServer::microphone);
    options.levelMeter = true;
    RecordingStream meter(options);
    waitForStreams(1);
    EXPECT_TRUE(users_->bundleIds().empty());
}

TEST_P(PulseMicrophoneUsersTest, RunningStreamIsListedNextToUncountedOnes) {
    auto corked = streamOn(SoundServer::microphone);
    corked.corked = true;
    RecordingStream paused(corked);
    auto fromMonitor =
        record(std::string(SoundServer::speakers) + ".monitor", "application.process.binary=slack");
    auto zoom = record(SoundServer::microphone, "application.process.binary=zoom");
    waitForStreams(3);
    ASSERT_TRUE(eventually([&] { return !users_->bundleIds().empty(); }));
    EXPECT_EQ(users_->bundleIds(), std::vector<std::string>{zoomId});
}

TEST_P(PulseMicrophoneUsersTest, StreamThatEndedIsNoLongerListed) {
    auto zoom = record(SoundServer::microphone, "application.process.binary=zoom");
    ASSERT_TRUE(eventually([&] { return countOf(users_->bundleIds(), zoomId) == 1; }));
    zoom.reset();
    ASSERT_TRUE(eventually([&] { return users_->bundleIds().empty(); }));
    EXPECT_EQ(users_->processObjectCount(), 0);
}

TEST_P(PulseMicrophoneUsersTest, ServerThatCrashedYieldsAnEmptyList) {
    auto zoom = record(SoundServer::microphone, "application.process.binary=zoom");
    ASSERT_TRUE(eventually([&] { return countOf(users_->bundleIds(), zoomId) == 1; }));
    server_->kill();
    EXPECT_TRUE(eventually([&] { return users_->bundleIds().empty(); }));
    EXPECT_EQ(users_->processObjectCount(), 0);
}

TEST_P(PulseMicrophoneUsersTest, ViewFollowsAStreamThatAppearsCorksResumesAndEnds) {
    EXPECT_TRUE(eventually([&] { return users_->processObjectCount() == 0; }));
    auto zoom = std::make_unique<RecordingStream>(streamOn(SoundServer::microphone));
    ASSERT_TRUE(eventually([&] { return users_->bundleIds() == std::vector<std::string>{zoomId}; }))
        << testing::PrintToString(users_->bundleIds());

    zoom->setCorked(true);
    ASSERT_TRUE(eventually([&] { return users_->bundleIds().empty(); }))
        << testing::PrintToString(users_->bundleIds());
    EXPECT_EQ(users_->processObjectCount(), 1);

    zoom->setCorked(false);
    ASSERT_TRUE(eventually([&] { return users_->bundleIds() == std::vector<std::string>{zoomId}; }))
        << testing::PrintToString(users_->bundleIds());

    zoom.reset();
    ASSERT_TRUE(eventually([&] { return users_->processObjectCount() == 0; }));
    EXPECT_TRUE(users_->bundleIds().empty());
}

TEST_P(PulseMicrophoneUsersTest, ViewFollowsRecordersThatComeAndGoOneByOne) {
    auto zoom = record(SoundServer::microphone, "application.process.binary=zoom");
    ASSERT_TRUE(
        eventually([&] { return users_->bundleIds() == std::vector<std::string>{zoomId}; }));
    auto teams = record(SoundServer::microphone, "application.process.binary=teams");
    const std::vector<std::string> both{zoomId, "com.microsoft.teams"};
    ASSERT_TRUE(eventually([&] {
        auto ids = users_->bundleIds();
        std::ranges::sort(ids);
        auto expected = both;
        std::ranges::sort(expected);
        return ids == expected;
    })) << testing::PrintToString(users_->bundleIds());
    zoom.reset();
    ASSERT_TRUE(eventually([&] {
        return users_->bundleIds() == std::vector<std::string>{"com.microsoft.teams"};
    })) << testing::PrintToString(users_->bundleIds());
}

TEST_P(PulseMicrophoneUsersTest, NothingIsListedWhileCallsAreNotWatched) {
    auto zoom = record(SoundServer::microphone, "application.process.binary=zoom");
    ASSERT_TRUE(eventually([&] { return countOf(users_->bundleIds(), zoomId) == 1; }));
    users_->stopWatching();
    EXPECT_TRUE(users_->bundleIds().empty());
    EXPECT_EQ(users_->processObjectCount(), 0);
    // Watching again finds the stream that kept recording meanwhile.
    users_->startWatching();
    EXPECT_TRUE(eventually([&] { return countOf(users_->bundleIds(), zoomId) == 1; }));
}

TEST_P(PulseMicrophoneUsersTest, HungServerYieldsAnEmptyListUntilItAnswersAgain) {
    auto zoom = record(SoundServer::microphone, "application.process.binary=zoom");
    ASSERT_TRUE(eventually([&] { return countOf(users_->bundleIds(), zoomId) == 1; }));
    server_->suspend();
    // Every query answers while the server is stopped; after the time limit the answer is empty.
    EXPECT_TRUE(eventually([&] { return users_->bundleIds().empty(); }));
    EXPECT_EQ(users_->processObjectCount(), 0);
    server_->resume();
    EXPECT_TRUE(eventually([&] { return countOf(users_->bundleIds(), zoomId) == 1; }))
        << server_->daemonOutput();
}

TEST_P(PulseMicrophoneUsersTest, WatchingAHungServerListsNothingUntilItAnswers) {
    auto zoom = record(SoundServer::microphone, "application.process.binary=zoom");
    waitForStreams(1);
    users_->stopWatching();
    server_->suspend();
    users_->startWatching();
    EXPECT_TRUE(users_->bundleIds().empty());
    // A while later, still nothing: the connection cannot complete.
    std::this_thread::sleep_for(1500ms);
    EXPECT_TRUE(users_->bundleIds().empty());
    server_->resume();
    EXPECT_TRUE(eventually([&] { return countOf(users_->bundleIds(), zoomId) == 1; }))
        << server_->daemonOutput();
}

TEST_P(PulseMicrophoneUsersTest, ServerThatComesBackIsWatchedAgain) {
    auto zoom = record(SoundServer::microphone, "application.process.binary=zoom");
    ASSERT_TRUE(eventually([&] { return countOf(users_->bundleIds(), zoomId) == 1; }));
    server_->kill();
    zoom.reset();
    ASSERT_TRUE(eventually([&] { return users_->bundleIds().empty(); }));
    server_->restart();
    auto again = record(SoundServer::microphone, "application.process.binary=zoom");
    EXPECT_TRUE(eventually([&] { return countOf(users_->bundleIds(), zoomId) == 1; }))
        << server_->daemonOutput();
}

INSTANTIATE_TEST_SUITE_P(SoundServers, PulseMicrophoneUsersTest,
                         testing::Values(Kind::pulseAudio, Kind::pipeWire),
                         [](const testing::TestParamInfo<Kind>& info) {
                             return SoundServer::kindName(info.param);
                         });

TEST(PulseMicrophoneUsers, UnreachableServerYieldsAnEmptyList) {
    const auto missing = std::filesystem::temp_directory_path() / "velmora-no-such-server";
    PulseMicrophoneUsers users({.serverAddress = "unix:" + missing.string()});
    users.startWatching();
    EXPECT_TRUE(users.bundleIds().empty());
    EXPECT_EQ(users.processObjectCount(), 0);
    // Still nothing once the first attempts have failed.
    std::this_thread::sleep_for(1500ms);
    EXPECT_TRUE(users.bundleIds().empty());
}

// A socket that accepts connections and never answers, as a hung server would.
class SilentServer {
  public:
    SilentServer() {
        path_ = std::filesystem::temp_directory_path() /
                ("velmora-silent-" + std::to_string(::getpid()));
        std::filesystem::remove(path_);
        socket_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.string().copy(address.sun_path, sizeof(address.sun_path) - 1);
        if (socket_ < 0 ||
            ::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(socket_, 8) != 0) {
            throw std::runtime_error("could not listen on " + path_.string());
        }
    }
    ~SilentServer() {
        ::close(socket_);
        std::filesystem::remove(path_);
    }
    std::string address() const { return "unix:" + path_.string(); }

  private:
    std::filesystem::path path_;
    int socket_ = -1;
};

TEST(PulseMicrophoneUsers, ServerThatNeverAnswersYieldsAnEmptyListAndStopsCleanly) {
    SilentServer silent;
    PulseMicrophoneUsers users({.serverAddress = silent.address(), .timeout = 200ms});
    users.startWatching();
    std::this_thread::sleep_for(1500ms);
    EXPECT_TRUE(users.bundleIds().empty());
    EXPECT_EQ(users.processObjectCount(), 0);
    users.stopWatching();
    EXPECT_TRUE(users.bundleIds().empty());
}

TEST(PulseMicrophoneUsers, DefaultTimeoutIsHalfASecond) {
    EXPECT_EQ(PulseMicrophoneUsers().options().timeout, 500ms);
    EXPECT_EQ(PulseMicrophoneUsers().options().checkInterval, 1000ms);
    EXPECT_TRUE(PulseMicrophoneUsers().options().serverAddress.empty());
}

}  // namespace
}  // namespace velmora
