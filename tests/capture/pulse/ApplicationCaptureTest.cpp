// What the capture hears on a real sound server with several outputs: every application, on
// whichever output it plays, each exactly once, while applications come, move, pause and go.

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <fstream>
#include <numbers>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "capture/SignalAnalysis.h"
#include "capture/SystemAudioCapture.h"
#include "capture/pulse/CorkableTone.h"
#include "capture/pulse/FrameRecorder.h"
#include "capture/pulse/PulseAudioTap.h"
#include "capture/pulse/SoundServerKinds.h"
#include "config/SerialQueue.h"
#include "support/CaptureLog.h"
#include "support/SoundServer.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Kind = SoundServer::Kind;
using testing::FrameRecorder;
using Frame = FrameRecorder::Frame;

constexpr double frameRateHz = 16000;
constexpr double toneAmplitude = 0.5;  // what SoundServer::playTone and CorkableTone play
// A second, measured from 2.5 s on: by then every player runs and every record stream has
// settled (on PulseAudio a record stream attached just before its application starts playing
// can go quiet once, and is attached afresh within about 0.4 s).
constexpr std::size_t measuredFrames = 10;

// The samples of `count` frames from `first` on, end to end.
std::vector<float> joined(const std::vector<Frame>& frames, std::size_t first, std::size_t count) {
    std::vector<float> samples;
    for (std::size_t index = first; index < first + count && index < frames.size(); ++index) {
        samples.insert(samples.end(), frames[index].samples.begin(), frames[index].samples.end());
    }
    return samples;
}

// The amplitude of the `hz` component of the last second of frames.
double amplitudeAt(const std::vector<Frame>& frames, double hz) {
    const auto samples = joined(frames, frames.size() - measuredFrames, measuredFrames);
    return testing::fitSine(samples, 0, samples.size(), hz, frameRateHz, toneAmplitude).amplitude;
}

double lastSecondRms(const std::vector<Frame>& frames) {
    const auto samples = joined(frames, frames.size() - measuredFrames, measuredFrames);
    return testing::rms(samples, 0, samples.size());
}

double decibels(double level, double reference) {
    return 20.0 * std::log10(level / reference);
}

bool carriesTone(const Frame& frame, double hz) {
    return FrameRecorder::peak(frame) > 0.1f && std::abs(FrameRecorder::frequency(frame) - hz) < 30;
}

bool lastAll(const std::vector<Frame>& frames, std::size_t count,
             const std::function<bool(const Frame&)>& test) {
    if (frames.size() < count) return false;
    return std::all_of(frames.end() - static_cast<std::ptrdiff_t>(count), frames.end(), test);
}

class ApplicationCaptureTest : public ::testing::TestWithParam<Kind> {
  protected:
    void SetUp() override {
        std::string whyNot;
        if (!SoundServer::isAvailable(GetParam(), &whyNot)) {
            GTEST_SKIP() << whyNot;
        }
        server_ = SoundServer::start(GetParam());
        capture_ = SystemAudioCapture::create(
            std::make_unique<PulseAudioTap>(
                PulseAudioTap::Options{.server = server_->serverAddress()}),
            mainQueue_);
        capture_->setOnFrame([this](SystemAudioCapture::Frame frame) { frames_.record(frame); });
    }

    void TearDown() override {
        if (capture_) {
            serverQueue_.runAndWait([&] { capture_->stop(); });
            capture_.reset();
        }
        server_.reset();
    }

    void start() {
        serverQueue_.runAndWait([&] { capture_->start(); });
    }

    // Lets `frames` more frames arrive (a tenth of a second each) and returns all so far.
    std::vector<Frame> after(std::size_t frames) {
        EXPECT_TRUE(frames_.waitForMore(frames, std::chrono::milliseconds(frames * 100 + 5000)));
        return frames_.frames();
    }

    void waitFor(const std::function<bool(const std::vector<Frame>&)>& done,
                 const std::string& what) {
        ASSERT_TRUE(frames_.waitUntil(done, 10000ms)) << what;
    }

    void pactl(const std::vector<std::string>& arguments) {
        std::vector<std::string> argv{"pactl"};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        const auto result = server_->run(argv);
        ASSERT_TRUE(result.succeeded()) << result.output;
    }

    void waitForSink(const std::string& name) {
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (std::chrono::steady_clock::now() < deadline) {
            const auto sinks = server_->run({"pactl", "list", "short", "sinks"});
            if (sinks.output.find("\t" + name + "\t") != std::string::npos) return;
            std::this_thread::sleep_for(50ms);
        }
        FAIL() << "no sink " << name;
    }

    // Plays a 0.5-amplitude stereo sine of `hz` into `sink` with pacat for 30 s, at `rate`.
    // Generous buffering keeps the player from running dry on a busy machine: a player that
    // underruns stops until it refills, which is no test of the capture.
    std::unique_ptr<SoundServer::Process> play(const std::string& sink, double hz,
                                               int rate = 48000) {
        const auto file = server_->directory() / ("player-" + std::to_string(++players_) + ".raw");
        {
            const auto frames = static_cast<std::size_t>(30 * rate);
            std::vector<float> samples(frames * 2);
            for (std::size_t frame = 0; frame < frames; ++frame) {
                samples[2 * frame] = samples[2 * frame + 1] =
                    static_cast<float>(toneAmplitude * std::sin(2 * std::numbers::pi * hz *
                                                                static_cast<double>(frame) / rate));
            }
            std::ofstream(file, std::ios::binary)
                .write(reinterpret_cast<const char*>(samples.data()),
                       static_cast<std::streamsize>(samples.size() * sizeof(float)));
        }
        return server_->launch({"pacat", "--playback", "--raw", "--device=" + sink,
                                "--format=float32le", "--rate=" + std::to_string(rate),
                                "--channels=2", "--latency-msec=200", file.string()});
    }

    // Lets players that were just started begin playing, as applications that already play
    // when a page starts streaming.
    static void settle() { std::this_thread::sleep_for(1s); }

    // The level of a 1 kHz tone played alone on the default output, as the capture hears it.
    double plainLevel() {
        auto tone = play(SoundServer::speakers, 1000);
        return lastSecondRms(after(35));
    }

    testing::CaptureLog log_;
    SerialQueue mainQueue_{"main"};
    SerialQueue serverQueue_{"com.velmora.audiohelper.server"};
    std::unique_ptr<SoundServer> server_;
    FrameRecorder frames_;
    std::shared_ptr<SystemAudioCapture> capture_;
    int players_ = 0;
};

TEST_P(ApplicationCaptureTest, AnApplicationOnAnOutputThatIsNotTheDefaultIsHeard) {
    ASSERT_EQ(server_->defaultSink(), SoundServer::speakers);
    auto tone = play(SoundServer::headphones, 700, 44100);
    settle();
    start();
    const auto frames = after(35);
    EXPECT_NEAR(decibels(amplitudeAt(frames, 700), toneAmplitude), 0.0, 1.0);
    EXPECT_EQ(frames_.badSizes(), 0u);
}

TEST_P(ApplicationCaptureTest, TwoApplicationsOnTwoOutputsAreBothHeard) {
    server_->loadNullSink("headset", 48000, 2);
    auto low = play(SoundServer::speakers, 600);
    auto high = play("headset", 1500);
    settle();
    start();
    const auto frames = after(35);
    EXPECT_NEAR(decibels(amplitudeAt(frames, 600), toneAmplitude), 0.0, 1.0);
    EXPECT_NEAR(decibels(amplitudeAt(frames, 1500), toneAmplitude), 0.0, 1.0);
    // Nothing else: the two tones make up the whole signal (RMS of two equal sines).
    EXPECT_NEAR(decibels(lastSecondRms(frames), toneAmplitude), 0.0, 1.0);
}

TEST_P(ApplicationCaptureTest, AnApplicationOnACombinedOutputIsHeardOnceAtItsOwnLevel) {
    start();
    const double plain = plainLevel();
    ASSERT_GT(plain, 0.3);
    pactl({"load-module", "module-combine-sink", "sink_name=combined",
           std::string("slaves=") + SoundServer::speakers + "," + SoundServer::headphones});
    waitForSink("combined");
    auto tone = play("combined", 1000);
    const double combined = lastSecondRms(after(35));
    // Twice heard would be 6 dB louder.
    EXPECT_NEAR(decibels(combined, plain), 0.0, 1.0) << combined << " against " << plain;
}

TEST_P(ApplicationCaptureTest, ALoopbackDoesNotDoubleWhatItLoops) {
    start();
    const double plain = plainLevel();
    ASSERT_GT(plain, 0.3);
    pactl({"load-module", "module-loopback",
           std::string("source=") + SoundServer::speakers + ".monitor",
           std::string("sink=") + SoundServer::headphones, "latency_msec=20"});
    auto tone = play(SoundServer::speakers, 1000);
    const double looped = lastSecondRms(after(35));
    EXPECT_NEAR(decibels(looped, plain), 0.0, 1.0) << looped << " against " << plain;
}

TEST_P(ApplicationCaptureTest, PipeWiresOwnLoopbackDoesNotDoubleWhatItLoops) {
    if (GetParam() != Kind::pipeWire) GTEST_SKIP() << "a PipeWire tool";
    start();
    const double plain = plainLevel();
    ASSERT_GT(plain, 0.3);
    // A virtual output made by PipeWire's own loopback (no pulse module owns it), playing on.
    auto loopback =
        server_->launch({"pw-loopback", "--capture-props=media.class=Audio/Sink node.name=virtual",
                         std::string("--playback-props=target.object=") + SoundServer::speakers});
    waitForSink("virtual");
    auto tone = play("virtual", 1000);
    const double looped = lastSecondRms(after(35));
    EXPECT_NEAR(decibels(looped, plain), 0.0, 1.0) << looped << " against " << plain;
}

TEST_P(ApplicationCaptureTest, AStreamThatStartsMovesCorksAndEndsKeepsTheFrameClock) {
    start();
    auto silent = [](const Frame& frame) { return FrameRecorder::peak(frame) < 0.01f; };
    auto toneFrames = [](const Frame& frame) { return carriesTone(frame, 1000); };
    waitFor([&](const auto& frames) { return lastAll(frames, 5, silent); }, "silence at first");

    auto tone = std::make_unique<testing::CorkableTone>(server_->serverAddress(),
                                                        SoundServer::speakers, 1000);
    waitFor([&](const auto& frames) { return lastAll(frames, 5, toneFrames); }, "tone starts");

    pactl({"move-sink-input", std::to_string(tone->sinkInput()), SoundServer::headphones});
    std::size_t mark = frames_.count();
    waitFor(
        [&](const auto& frames) {
            return frames.size() > mark + 10 && lastAll(frames, 10, toneFrames);
        },
        "tone follows the move");

    tone->cork(true);
    mark = frames_.count();
    waitFor(
        [&](const auto& frames) { return frames.size() > mark + 5 && lastAll(frames, 5, silent); },
        "silence while corked");
    tone->cork(false);
    mark = frames_.count();
    waitFor(
        [&](const auto& frames) {
            return frames.size() > mark + 5 && lastAll(frames, 5, toneFrames);
        },
        "tone again once uncorked");

    tone.reset();
    mark = frames_.count();
    waitFor(
        [&](const auto& frames) { return frames.size() > mark + 5 && lastAll(frames, 5, silent); },
        "silence once it ended");

    // Ten frames a second all along, without a hole.
    const auto frames = frames_.frames();
    const double seconds =
        std::chrono::duration<double>(frames.back().arrival - frames.front().arrival).count();
    EXPECT_NEAR(static_cast<double>(frames.size() - 1) / seconds, 10.0, 1.5);
    for (std::size_t index = 1; index < frames.size(); ++index) {
        EXPECT_LT(frames[index].arrival - frames[index - 1].arrival, 450ms) << "frame " << index;
    }
    EXPECT_EQ(frames_.badSizes(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Servers, ApplicationCaptureTest, testing::allSoundServers(),
                         testing::soundServerName);

}  // namespace
}  // namespace velmora
