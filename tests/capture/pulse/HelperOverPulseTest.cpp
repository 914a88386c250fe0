// The helper end to end on Linux: a real HelperServer capturing through PulseAudioTap from a
// private sound server (PulseAudio, or PipeWire's pulse server), watching that server's
// microphone users, and a page on a real WebSocket over loopback.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <numbers>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "capture/pulse/DesktopCapturePermission.h"
#include "capture/pulse/FrameRecorder.h"
#include "capture/pulse/ListeningPage.h"
#include "capture/pulse/PulseAudioTap.h"
#include "capture/pulse/SoundServerKinds.h"
#include "config/AudioKit.h"
#include "config/SerialQueue.h"
#include "meetings/pulse/PulseMicrophoneUsers.h"
#include "server/HelperServer.h"
#include "server/ServerStart.h"
#include "server/TestPage.h"
#include "support/CaptureLog.h"
#include "support/FreePort.h"
#include "support/PassSigner.h"
#include "support/SoundServer.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Kind = SoundServer::Kind;
using nlohmann::json;
using testing::CaptureLog;
using testing::FrameRecorder;
using testing::ListeningPage;
using testing::PageNetwork;
using testing::TestPage;
using Clock = std::chrono::steady_clock;
using Frame = FrameRecorder::Frame;

const std::string pageOrigin = "https://page.example";
const std::string zoomId = "us.zoom.xos";
const json zoomEnded = {{"type", "call_ended"}, {"app", "zoom"}, {"name", "Zoom"}, {"id", zoomId}};

// Deadlines for a busy two-core machine, possibly under a thread checker.
constexpr auto patience = 20000ms;
// The least stretch of audio a rate is judged over.
constexpr auto measuringSpan = 3s;
// The longest wait between two frames at the page. A rebuild takes a few round trips to the
// sound server while frames queue up behind it; the sanitizers slow each of them several times.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr auto longestAllowedGap = 1000ms;
#else
constexpr auto longestAllowedGap = 500ms;
#endif

// Short delays so the lifecycle runs in seconds, but with calls long enough to tell apart.
constexpr auto callInterval = 200ms;
constexpr double callGrace = 1.5;
constexpr double minimumCall = 0.3;

HelperServerTimings shortTimings() {
    HelperServerTimings timings;
    timings.permissionTimeout = 60s;
    timings.callInterval = callInterval;
    timings.callLeeway = 50ms;
    timings.callGrace = callGrace;
    timings.minimumCall = minimumCall;
    timings.capture.deviceChangeDebounce = 100ms;
    timings.capture.rebuildRetryDelay = 200ms;
    return timings;
}

// A port that nothing listened on a moment ago.
using testing::freePort;

double secondsSince1970() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

double seconds(Clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

bool isSilent(const Frame& frame) {
    return FrameRecorder::peak(frame) == 0.0f;
}

// The power of the frame's spectrum in the bin of `hz` (Goertzel). The bins of a 1 600-sample
// frame at 16 000 Hz are 10 Hz apart.
double binPower(const Frame& frame, double hz) {
    const double coefficient = 2 * std::cos(2 * std::numbers::pi * hz / 16000.0);
    double previous = 0;
    double beforePrevious = 0;
    for (float sample : frame.samples) {
        const double current = sample + coefficient * previous - beforePrevious;
        beforePrevious = previous;
        previous = current;
    }
    return previous * previous + beforePrevious * beforePrevious -
           coefficient * previous * beforePrevious;
}

// The strongest frequency of the frame between 100 Hz and 4 kHz, to the bin. A sound server
// starved of time by a busy machine drops or repeats bits of audio, which spreads clicks over
// the whole spectrum; the tone still stands out.
int dominantFrequency(const Frame& frame) {
    int strongest = 0;
    double strongestPower = -1;
    for (int hz = 100; hz <= 4000; hz += 10) {
        const double power = binPower(frame, hz);
        if (power > strongestPower) {
            strongest = hz;
            strongestPower = power;
        }
    }
    return strongest;
}

// The tone, to the 10 Hz bin: a page that took the frames for anything but 16 000 samples a
// second would hear another pitch.
bool carriesTone(const Frame& frame, int hz) {
    return FrameRecorder::peak(frame) > 0.1f && dominantFrequency(frame) == hz;
}

// The last `count` frames all carry the tone.
bool endsWithTone(const std::vector<Frame>& frames, int hz, std::size_t count) {
    return frames.size() >= count &&
           std::all_of(frames.end() - static_cast<std::ptrdiff_t>(count), frames.end(),
                       [&](const Frame& frame) { return carriesTone(frame, hz); });
}

// At least `span` of arrivals from frame `first` on.
bool spans(const std::vector<Frame>& frames, std::size_t first, Clock::duration span) {
    return frames.size() > first + 1 && frames.back().arrival - frames[first].arrival >= span;
}

// Frames per second from frame `first` on, by their arrival times at the page.
double frameRate(const std::vector<Frame>& frames, std::size_t first) {
    if (frames.size() < first + 2) {
        return 0;
    }
    return static_cast<double>(frames.size() - first - 1) /
           seconds(frames.back().arrival - frames[first].arrival);
}

// The longest wait between two frames from frame `first` on.
Clock::duration longestGap(const std::vector<Frame>& frames, std::size_t first) {
    Clock::duration longest{};
    for (std::size_t index = std::max<std::size_t>(first, 1); index < frames.size(); ++index) {
        longest = std::max(longest, frames[index].arrival - frames[index - 1].arrival);
    }
    return longest;
}

// The waits between frames from frame `first` on that were longer than 150 ms, for failure
// messages.
std::string describeLongGaps(const std::vector<Frame>& frames, std::size_t first) {
    std::string text;
    for (std::size_t index = std::max<std::size_t>(first, 1); index < frames.size(); ++index) {
        const auto gap = frames[index].arrival - frames[index - 1].arrival;
        if (gap > 150ms) {
            text += "frame " + std::to_string(index) + " after " +
                    std::to_string(static_cast<int>(seconds(gap) * 1000)) + " ms; ";
        }
    }
    return text;
}

// Peaks and frequencies of the last frames, for failure messages.
std::string describeLast(const std::vector<Frame>& frames, std::size_t count) {
    std::string text;
    for (std::size_t index = frames.size() > count ? frames.size() - count : 0;
         index < frames.size(); ++index) {
        text += std::to_string(FrameRecorder::peak(frames[index])) + "@" +
                std::to_string(dominantFrequency(frames[index])) + "Hz ";
    }
    return text;
}

// Polls `condition` until it holds or `timeout` has passed.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (!condition()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

class HelperOverPulseTest : public ::testing::TestWithParam<Kind> {
  protected:
    void SetUp() override {
        std::string whyNot;
        if (!SoundServer::isAvailable(GetParam(), &whyNot)) {
            GTEST_SKIP() << SoundServer::kindName(GetParam()) << " is not installed: " << whyNot;
        }
        sound_ = SoundServer::start(GetParam());
        server_ = HelperServer::create(
            std::make_unique<PulseAudioTap>(
                PulseAudioTap::Options{.server = sound_->serverAddress()}),
            std::make_shared<DesktopCapturePermission>(),
            std::make_shared<PulseMicrophoneUsers>(
                PulseMicrophoneUsers::Options{.serverAddress = sound_->serverAddress()}),
            mainQueue_, policy(), shortTimings(), {signer_.verificationKey()});
        ASSERT_TRUE(testing::startAndWaitUntilListening(*server_, patience))
            << "the helper does not listen on port " << port_;
    }

    // The server listens on this test's port and admits its page's origin alone.
    ServerPolicy policy() const {
        return {
            .port = [port = port_] { return port; },
            .isOriginAllowed =
                [](const std::optional<std::string>& origin) { return origin == pageOrigin; },
        };
    }

    void TearDown() override {
        if (server_) {
            server_->shutdown();
            server_.reset();
        }
        AudioKit::setConfig(AudioKitConfig::defaults());
        mainQueue_.runAndWait([] {});
        sound_.reset();
    }

    // A page of the allowed origin that has been greeted.
    std::unique_ptr<ListeningPage> connectPage() {
        auto opening = TestPage::open(network_, port_, {.origin = pageOrigin});
        EXPECT_FALSE(opening.error) << opening.error.message();
        if (!opening.page) {
            return nullptr;
        }
        auto page = std::make_unique<ListeningPage>(opening.page);
        EXPECT_TRUE(page->waitForType("hello", patience)) << "no hello";
        return page;
    }

    // Sends a start with a valid pass and waits for "started" after what the page has so far.
    ::testing::AssertionResult startStreaming(ListeningPage& page) {
        const std::size_t from = page.messages().size();
        const std::string start =
            json{{"type", "start"}, {"pass", signer_.issue(pageOrigin, secondsSince1970())}}.dump();
        if (!page.send(start)) {
            return ::testing::AssertionFailure() << "the start could not be sent";
        }
        if (!page.waitForType("started", patience, from)) {
            return ::testing::AssertionFailure() << "no \"started\"; messages: " << dump(page);
        }
        return ::testing::AssertionSuccess();
    }

    // A ping answered with a pong: the helper handled everything the page sent before.
    ::testing::AssertionResult answersPing(ListeningPage& page) {
        const std::size_t from = page.messages().size();
        if (!page.send(R"({"type":"ping"})") || !page.waitForType("pong", patience, from)) {
            return ::testing::AssertionFailure() << "no pong";
        }
        return ::testing::AssertionSuccess();
    }

    static std::string dump(const ListeningPage& page) {
        std::string text;
        for (const auto& message : page.messages()) {
            text += message.json.dump() + " ";
        }
        return text;
    }

    // parec on the silent input as a client with these properties (PULSE_PROP syntax).
    std::unique_ptr<SoundServer::Process> recordMicrophone(const std::string& clientProperties) {
        return sound_->launch({"env", "PULSE_PROP=" + clientProperties, "parec", "--raw",
                               "--channels=1", "--rate=16000",
                               std::string("--device=") + SoundServer::microphone, "/dev/null"});
    }

    // A meeting app records the microphone while the page streams, then stops: the page is told
    // once that its call ended, after the grace time.
    void expectCallEndAfterRecording(const std::string& clientProperties) {
        auto page = connectPage();
        ASSERT_TRUE(page);
        ASSERT_TRUE(startStreaming(*page));
        ASSERT_TRUE(page->frames().waitForMore(3, patience));

        PulseMicrophoneUsers users({.serverAddress = sound_->serverAddress()});
        users.startWatching();
        auto zoom = recordMicrophone(clientProperties);
        ASSERT_TRUE(eventually(
            [&] { return users.bundleIds() == std::vector<std::string>{zoomId}; }, patience))
            << sound_->daemonOutput();
        // Long enough on the microphone for the helper's polls to count it as a call.
        const auto seen = Clock::now();
        const auto callLength = std::chrono::duration<double>(minimumCall) + 3 * callInterval;
        ASSERT_TRUE(eventually(
            [&] {
                return users.bundleIds() == std::vector<std::string>{zoomId} &&
                       Clock::now() - seen >= callLength;
            },
            patience));
        EXPECT_EQ(page->countOfType("call_ended"), 0u) << "the call is still going on";

        const auto stopped = Clock::now();
        zoom.reset();
        const auto notice = page->waitForType("call_ended", patience);
        ASSERT_TRUE(notice) << dump(*page);
        EXPECT_EQ(notice->json, zoomEnded);
        // Not at the next poll but after the grace time; polls may run late on a busy machine,
        // so only half of it is certain.
        EXPECT_GE(seconds(notice->arrival - stopped), callGrace / 2);
        EXPECT_TRUE(log_.waitFor("Call ended: Zoom", 1, patience));

        // Streaming goes on, and several polls later the call has been reported only once.
        ASSERT_TRUE(page->frames().waitForMore(10, patience));
        EXPECT_EQ(page->countOfType("call_ended"), 1u) << dump(*page);
        EXPECT_EQ(page->countOfType("error"), 0u) << dump(*page);
    }

    CaptureLog log_;
    SerialQueue mainQueue_{"com.velmora.tests.main"};
    std::unique_ptr<SoundServer> sound_;
    PassSigner signer_ = PassSigner::generate();
    PageNetwork network_;
    std::uint16_t port_ = freePort();
    std::shared_ptr<HelperServer> server_;
};

TEST_P(HelperOverPulseTest, ToneReachesThePageAsOneKilohertzInTenFramesOfSixteenKilohertzASecond) {
    auto tone = sound_->playTone(SoundServer::speakers, 1000, 60);
    auto page = connectPage();
    ASSERT_TRUE(page);
    const auto hello = page->waitForType("hello", patience);
    ASSERT_TRUE(hello);
    EXPECT_EQ(hello->json["sampleRate"], 16000);
    EXPECT_EQ(hello->json["channels"], 1);
    EXPECT_EQ(hello->json["format"], "f32le");
    EXPECT_EQ(hello->json["platform"], "linux");
    ASSERT_TRUE(startStreaming(*page));

    const auto& frames = page->frames();
    ASSERT_TRUE(
        frames.waitUntil([](const auto& all) { return endsWithTone(all, 1000, 5); }, patience))
        << describeLast(frames.frames(), 20);
    const std::size_t first = frames.count() - 1;
    ASSERT_TRUE(frames.waitUntil([&](const auto& all) { return spans(all, first, measuringSpan); },
                                 patience));

    const auto received = frames.frames();
    EXPECT_EQ(frames.badSizes(), 0u) << "every binary message is 6 400 bytes";
    const double rate = frameRate(received, first);
    EXPECT_GE(rate, 8.0);
    EXPECT_LE(rate, 12.0);
    // Each frame's 1 600 samples hold 100 cycles of the tone: 16 000 samples a second.
    std::size_t toneFrames = 0;
    for (std::size_t index = first; index < received.size(); ++index) {
        EXPECT_EQ(received[index].samples.size(), 1600u);
        toneFrames += carriesTone(received[index], 1000) ? 1 : 0;
    }
    const std::size_t judged = received.size() - first;
    // A player starved by a busy machine may drop out for a moment; the tone is the rule.
    EXPECT_GE(toneFrames * 4, judged * 3) << describeLast(received, judged);
    EXPECT_EQ(page->countOfType("error"), 0u) << dump(*page);
}

TEST_P(HelperOverPulseTest, WithNothingPlayingSilentFramesKeepTheStreamsClock) {
    auto page = connectPage();
    ASSERT_TRUE(page);
    ASSERT_TRUE(startStreaming(*page));

    const auto& frames = page->frames();
    ASSERT_TRUE(frames.waitForMore(3, patience));
    const std::size_t first = frames.count() - 1;
    ASSERT_TRUE(frames.waitUntil([&](const auto& all) { return spans(all, first, measuringSpan); },
                                 patience));

    const auto received = frames.frames();
    EXPECT_TRUE(std::all_of(received.begin(), received.end(), isSilent))
        << describeLast(received, 10);
    EXPECT_EQ(frames.badSizes(), 0u);
    const double rate = frameRate(received, first);
    EXPECT_GE(rate, 8.0);
    EXPECT_LE(rate, 12.0);
    EXPECT_LT(longestGap(received, first), longestAllowedGap) << describeLongGaps(received, first);
}

TEST_P(HelperOverPulseTest, SwitchingTheDefaultSinkKeepsTheFrameRateAndWhatIsHeard) {
    // The application is heard wherever it plays: the switch (and the rebuild it causes) changes
    // nothing the page hears.
    auto speakersTone = sound_->playTone(SoundServer::speakers, 1000, 60);
    auto page = connectPage();
    ASSERT_TRUE(page);
    ASSERT_TRUE(startStreaming(*page));
    const auto& frames = page->frames();
    ASSERT_TRUE(
        frames.waitUntil([](const auto& all) { return endsWithTone(all, 1000, 5); }, patience))
        << describeLast(frames.frames(), 20);
    const std::size_t beforeSwitch = frames.count() - 1;

    sound_->setDefaultSink(SoundServer::headphones);
    EXPECT_TRUE(log_.waitFor("Default output device changed; rebuilding the tap", 1, patience));
    EXPECT_TRUE(log_.waitFor("Capture rebuilt (48000 Hz)", 1, patience));
    const std::size_t afterRebuild = frames.count();
    ASSERT_TRUE(frames.waitUntil(
        [&](const auto& all) {
            return all.size() >= afterRebuild + 10 && endsWithTone(all, 1000, 10);
        },
        patience))
        << describeLast(frames.frames(), 30);
    ASSERT_TRUE(frames.waitUntil(
        [&](const auto& all) { return spans(all, beforeSwitch, measuringSpan); }, patience));

    const auto received = frames.frames();
    EXPECT_EQ(log_.count("Default output device changed; rebuilding the tap"), 1u);
    EXPECT_EQ(frames.badSizes(), 0u);
    const double rate = frameRate(received, beforeSwitch);
    EXPECT_GE(rate, 8.0);
    EXPECT_LE(rate, 12.0);
    EXPECT_LT(longestGap(received, beforeSwitch), longestAllowedGap)
        << "from frame " << beforeSwitch << ": " << describeLongGaps(received, beforeSwitch);
    EXPECT_EQ(page->countOfType("error"), 0u) << dump(*page);
    EXPECT_EQ(page->countOfType("stopped"), 0u) << dump(*page);
}

TEST_P(HelperOverPulseTest, ALostSoundServerEndsInFiveAttemptsAndOneDeviceErrorThenStartWorks) {
    auto page = connectPage();
    ASSERT_TRUE(page);
    ASSERT_TRUE(startStreaming(*page));
    ASSERT_TRUE(page->frames().waitForMore(3, patience));

    sound_->kill();
    const std::string lastAttempt = "Rebuild failed (attempt 5 of 5): ";
    ASSERT_TRUE(eventually([&] { return !log_.startingWith(lastAttempt).empty(); }, patience))
        << sound_->daemonOutput();
    const auto error = page->waitForType("error", patience);
    ASSERT_TRUE(error) << dump(*page);
    EXPECT_EQ(error->json["code"], "device_error");
    const std::string message = error->json.value("message", "");
    EXPECT_TRUE(
        message.starts_with("System audio couldn't be reopened after the output device changed: "))
        << message;

    EXPECT_EQ(log_.count("Default output device changed; rebuilding the tap"), 1u);
    EXPECT_EQ(log_.startingWith("Rebuild failed (attempt ").size(), 5u);
    for (int attempt = 1; attempt <= 5; ++attempt) {
        EXPECT_EQ(
            log_.startingWith("Rebuild failed (attempt " + std::to_string(attempt) + " of 5): ")
                .size(),
            1u)
            << attempt;
    }
    EXPECT_EQ(log_.count("Capture failed: " + message), 1u);

    // The helper stays up: it answers the page, and a new page is greeted.
    EXPECT_TRUE(answersPing(*page));
    EXPECT_EQ(page->countOfType("error"), 1u) << dump(*page);
    auto another = connectPage();
    ASSERT_TRUE(another);
    EXPECT_TRUE(answersPing(*another));
    another.reset();

    // With a sound server back, the page starts again and hears it.
    sound_->restart();
    auto tone = sound_->playTone(SoundServer::speakers, 1000, 60);
    ASSERT_TRUE(startStreaming(*page));
    EXPECT_TRUE(page->frames().waitUntil([](const auto& all) { return endsWithTone(all, 1000, 5); },
                                         patience))
        << describeLast(page->frames().frames(), 20);
    EXPECT_EQ(page->countOfType("error"), 1u) << dump(*page);
}

TEST_P(HelperOverPulseTest, ZoomLeavingTheMicrophoneTellsThePageItsCallEnded) {
    expectCallEndAfterRecording("application.process.binary=zoom");
}

TEST_P(HelperOverPulseTest, FlatpakZoomLeavingTheMicrophoneTellsThePageItsCallEnded) {
    // The property PipeWire gives a sandboxed client; its binary says nothing.
    expectCallEndAfterRecording(
        "pipewire.access.portal.app_id=us.zoom.Zoom application.process.binary=app");
}

TEST_P(HelperOverPulseTest, TheHelpersOwnCaptureIsNeverAMicrophoneUser) {
    // An application plays, so the helper has a recording stream for the server to list.
    auto tone = sound_->playTone(SoundServer::speakers, 1000, 30);
    auto page = connectPage();
    ASSERT_TRUE(page);
    ASSERT_TRUE(startStreaming(*page));
    ASSERT_TRUE(page->frames().waitForMore(3, patience));

    // The server lists the helper's recording stream ...
    PulseMicrophoneUsers users({.serverAddress = sound_->serverAddress()});
    users.startWatching();
    ASSERT_TRUE(eventually([&] { return users.processObjectCount() >= 1; }, patience))
        << sound_->daemonOutput();
    // ... but never as a user of the microphone, for as long as it streams.
    const std::size_t until = page->frames().count() + 10;
    int queries = 0;
    while (page->frames().count() < until) {
        EXPECT_EQ(users.bundleIds(), std::vector<std::string>{});
        ++queries;
        ASSERT_LT(queries, 10000) << "the stream stalled";
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_EQ(page->countOfType("call_ended"), 0u);
}

INSTANTIATE_TEST_SUITE_P(Servers, HelperOverPulseTest, testing::allSoundServers(),
                         testing::soundServerName);

}  // namespace
}  // namespace velmora
