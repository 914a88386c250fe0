#include "capture/pulse/PulseAudioTap.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "capture/CaptureError.h"
#include "capture/pulse/SoundServerKinds.h"
#include "config/SerialQueue.h"
#include "support/SoundServer.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Kind = SoundServer::Kind;

// Counts the listener's reports and lets a test wait for the next one.
class Reports {
  public:
    std::function<void()> listener() {
        return [this] {
            {
                std::lock_guard lock(mutex_);
                ++count_;
            }
            changed_.notify_all();
        };
    }
    int count() {
        std::lock_guard lock(mutex_);
        return count_;
    }
    bool waitForCount(int count, std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return count_ >= count; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

// What the tap hands to its input handler.
class Received {
  public:
    PulseAudioTap::InputHandler handler(SerialQueue& queue) {
        return [this, &queue](const InputBufferList& list) {
            std::lock_guard lock(mutex_);
            ++calls_;
            if (!queue.isCurrent() || list.buffers.size() != 1 || tornDown_) {
                ++violations_;
                return;
            }
            const InputBuffer& buffer = list.buffers[0];
            channels_ = buffer.channelCount;
            const auto* samples = static_cast<const float*>(buffer.data);
            samples_.insert(samples_.end(), samples, samples + buffer.byteSize / sizeof(float));
        };
    }
    void markTornDown() {
        std::lock_guard lock(mutex_);
        tornDown_ = true;
    }
    int violations() {
        std::lock_guard lock(mutex_);
        return violations_;
    }
    std::uint32_t channels() {
        std::lock_guard lock(mutex_);
        return channels_;
    }
    std::size_t loudSamples(float level) {
        std::lock_guard lock(mutex_);
        return static_cast<std::size_t>(std::count_if(
            samples_.begin(), samples_.end(), [&](float s) { return std::abs(s) > level; }));
    }
    // Waits until `count` samples whose peak exceeds `level` have arrived.
    bool waitForLoudSamples(std::size_t count, float level, std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            {
                std::lock_guard lock(mutex_);
                std::size_t loud = 0;
                for (float sample : samples_) {
                    loud += std::abs(sample) > level ? 1 : 0;
                }
                if (loud >= count) {
                    return true;
                }
            }
            std::this_thread::sleep_for(20ms);
        }
        return false;
    }

  private:
    std::mutex mutex_;
    std::vector<float> samples_;
    std::uint32_t channels_ = 0;
    int calls_ = 0;
    int violations_ = 0;
    bool tornDown_ = false;
};

std::string deviceMessage(const std::function<void()>& step) {
    try {
        step();
    } catch (const CaptureError& error) {
        return error.code() + ": " + error.message();
    }
    return "no error";
}

class PulseAudioTapTest : public ::testing::TestWithParam<Kind> {
  protected:
    void SetUp() override {
        std::string whyNot;
        if (!SoundServer::isAvailable(GetParam(), &whyNot)) {
            GTEST_SKIP() << whyNot;
        }
        server_ = SoundServer::start(GetParam());
        tap_ = std::make_unique<PulseAudioTap>(
            PulseAudioTap::Options{.server = server_->serverAddress()});
    }

    void TearDown() override {
        tap_.reset();
        server_.reset();
    }

    std::unique_ptr<SoundServer> server_;
    // Declared before the tap, so they outlive its streams.
    Received received_;
    Reports reports_;
    SerialQueue queue_{"com.velmora.audiohelper.capture"};
    std::unique_ptr<PulseAudioTap> tap_;
};

TEST_P(PulseAudioTapTest, RecordsInterleavedFloat32AtFortyEightKilohertzStereo) {
    const TapStreamFormat format = tap_->createTap();
    EXPECT_TRUE(format.isLinearPCM);
    EXPECT_TRUE(format.isFloat);
    EXPECT_EQ(format.bitsPerChannel, 32u);
    EXPECT_EQ(format.sampleRate, 48000.0);
    EXPECT_EQ(format.channelsPerFrame, 2);
    EXPECT_FALSE(format.nonInterleaved);
    EXPECT_TRUE(tap_->hasTap());
}

TEST_P(PulseAudioTapTest, TheFormatDoesNotDependOnTheDefaultOutput) {
    // Applications are recorded wherever they play, so a 44.1 kHz default changes nothing.
    server_->setDefaultSink(SoundServer::headphones);
    const TapStreamFormat format = tap_->createTap();
    EXPECT_EQ(format.sampleRate, 48000.0);
    EXPECT_EQ(format.channelsPerFrame, 2);
}

TEST_P(PulseAudioTapTest, DeliversWhatIsPlayedAsOneInterleavedBufferOnTheGivenQueue) {
    auto tone = server_->playTone(SoundServer::speakers, 1000, 20);
    tap_->createTap();
    tap_->createDevice();
    tap_->startIO(queue_, received_.handler(queue_));
    EXPECT_TRUE(received_.waitForLoudSamples(4800, 0.1f, 10000ms));
    EXPECT_EQ(received_.channels(), 2u);
    EXPECT_EQ(received_.violations(), 0);
}

TEST_P(PulseAudioTapTest, NothingReachesTheHandlerAfterTeardownReturns) {
    auto tone = server_->playTone(SoundServer::speakers, 1000, 20);
    tap_->createTap();
    tap_->createDevice();
    tap_->startIO(queue_, received_.handler(queue_));
    ASSERT_TRUE(received_.waitForLoudSamples(480, 0.1f, 10000ms));
    tap_->teardown();
    received_.markTornDown();
    EXPECT_FALSE(tap_->hasTap());
    // Anything still on its way would arrive within a few fragments.
    std::this_thread::sleep_for(200ms);
    queue_.runAndWait([] {});
    EXPECT_EQ(received_.violations(), 0);
}

TEST_P(PulseAudioTapTest, TeardownAfterItsQueueIsGoneStillEndsTheStream) {
    auto tone = server_->playTone(SoundServer::speakers, 1000, 20);
    auto queue = std::make_unique<SerialQueue>("com.velmora.audiohelper.capture");
    tap_->createTap();
    tap_->createDevice();
    tap_->startIO(*queue, received_.handler(*queue));
    ASSERT_TRUE(received_.waitForLoudSamples(480, 0.1f, 10000ms));
    // Buffers already handed to the queue may still arrive until it has ended; none after.
    queue.reset();
    received_.markTornDown();
    tap_->teardown();
    EXPECT_FALSE(tap_->hasTap());
    // The server sees the record stream go: its connection was closed, not left behind.
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    std::string outputs = "?";
    while (!outputs.empty() && std::chrono::steady_clock::now() < deadline) {
        const auto listed = server_->run({"pactl", "list", "short", "source-outputs"});
        ASSERT_TRUE(listed.succeeded()) << listed.output;
        outputs = listed.output;
        if (!outputs.empty()) std::this_thread::sleep_for(50ms);
    }
    EXPECT_EQ(outputs, "");
    // And the tap starts again on another queue.
    tap_->createTap();
    tap_->createDevice();
    tap_->startIO(queue_, [](const InputBufferList&) {});
    tap_->teardown();
    EXPECT_EQ(received_.violations(), 0);
}

TEST_P(PulseAudioTapTest, TeardownWithNothingToDestroyIsHarmless) {
    tap_->teardown();
    tap_->teardown();
    EXPECT_FALSE(tap_->hasTap());
}

TEST_P(PulseAudioTapTest, ReportsADefaultSinkChangeWhileNoTapExists) {
    tap_->installDefaultOutputListener(reports_.listener());
    server_->setDefaultSink(SoundServer::headphones);
    EXPECT_TRUE(reports_.waitForCount(1, 5000ms));
}

TEST_P(PulseAudioTapTest, KeepsReportingChangesAcrossTeardownAndRecreate) {
    tap_->installDefaultOutputListener(reports_.listener());
    tap_->createTap();
    tap_->createDevice();
    tap_->startIO(queue_, received_.handler(queue_));
    tap_->teardown();
    tap_->createTap();
    server_->setDefaultSink(SoundServer::headphones);
    EXPECT_TRUE(reports_.waitForCount(1, 5000ms));
    tap_->teardown();
    server_->setDefaultSink(SoundServer::speakers);
    EXPECT_TRUE(reports_.waitForCount(2, 5000ms));
}

TEST_P(PulseAudioTapTest, AnApplicationWhoseOutputIsRemovedIsFollowedWhereTheServerMovesIt) {
    server_->loadNullSink("extra", 48000, 2);
    auto tone = server_->playTone("extra", 1000, 30);
    tap_->installDefaultOutputListener(reports_.listener());
    tap_->createTap();
    tap_->createDevice();
    tap_->startIO(queue_, received_.handler(queue_));
    ASSERT_TRUE(received_.waitForLoudSamples(4800, 0.1f, 10000ms));
    // The server moves the application to another output; its audio goes on being recorded
    // there, and nothing needs rebuilding.
    server_->removeSink("extra");
    const std::size_t before = received_.loudSamples(0.1f);
    EXPECT_TRUE(received_.waitForLoudSamples(before + 48000, 0.1f, 10000ms));
    EXPECT_EQ(reports_.count(), 0);
    EXPECT_EQ(tap_->recordedStreams(), 1u);
}

TEST_P(PulseAudioTapTest, ReportsARunningStreamWhenTheServerDies) {
    tap_->installDefaultOutputListener(reports_.listener());
    tap_->createTap();
    tap_->createDevice();
    tap_->startIO(queue_, received_.handler(queue_));
    server_->kill();
    EXPECT_TRUE(reports_.waitForCount(1, 5000ms));
}

TEST_P(PulseAudioTapTest, TheWatchReconnectsAfterTheServerComesBack) {
    tap_->installDefaultOutputListener(reports_.listener());
    server_->kill();
    server_->restart();
    // Reconnection backs off up to 4 s; then the watch knows the default again.
    const int before = reports_.count();
    const auto deadline = std::chrono::steady_clock::now() + 15s;
    bool reported = false;
    // Flip the default until the reconnected watch notices one flip.
    for (int flip = 0; !reported && std::chrono::steady_clock::now() < deadline; ++flip) {
        server_->setDefaultSink(flip % 2 == 0 ? SoundServer::headphones : SoundServer::speakers);
        reported = reports_.waitForCount(before + 1, 1000ms);
    }
    EXPECT_TRUE(reported);
}

TEST_P(PulseAudioTapTest, ItsOwnerMayLetGoOfItInsideTheListener) {
    // The listener may hold the last reference to the tap's owner for a moment.
    std::mutex mutex;
    std::condition_variable released;
    bool done = false;
    auto owned = std::make_shared<std::unique_ptr<PulseAudioTap>>(std::move(tap_));
    (*owned)->createTap();
    (*owned)->createDevice();
    (*owned)->startIO(queue_, received_.handler(queue_));
    (*owned)->installDefaultOutputListener([&] {
        auto last = std::move(owned);
        last.reset();
        std::lock_guard lock(mutex);
        done = true;
        released.notify_all();
    });
    server_->setDefaultSink(SoundServer::headphones);
    std::unique_lock lock(mutex);
    EXPECT_TRUE(released.wait_for(lock, 5s, [&] { return done; }));
}

TEST_P(PulseAudioTapTest, AServerThatWentAwayBeforeStartFailsToStart) {
    tap_->createTap();
    tap_->createDevice();
    server_->kill();
    const auto message = deviceMessage([&] { tap_->startIO(queue_, received_.handler(queue_)); });
    EXPECT_EQ(message.rfind("device_error: Could not start system audio capture (", 0), 0u)
        << message;
}

INSTANTIATE_TEST_SUITE_P(Servers, PulseAudioTapTest, testing::allSoundServers(),
                         testing::soundServerName);

// Without any server.

TEST(PulseAudioTapErrorsTest, NoServerFailsTapCreationWithConnectionRefused) {
    PulseAudioTap tap(PulseAudioTap::Options{.server = "unix:/nonexistent/velmora/native"});
    EXPECT_EQ(deviceMessage([&] { tap.createTap(); }),
              "device_error: Could not create the system audio tap (Connection refused, 6).");
}

TEST(PulseAudioTapErrorsTest, AServerThatNeverAnswersFailsTapCreationWithinTheTimeout) {
    // A socket that accepts connections into its backlog and never speaks.
    const auto folder =
        std::filesystem::temp_directory_path() / ("velmora-hung-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    const auto path = (folder / "native").string();
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(listener, 8), 0);

    PulseAudioTap tap(PulseAudioTap::Options{.server = "unix:" + path, .timeout = 300ms});
    EXPECT_EQ(deviceMessage([&] { tap.createTap(); }),
              "device_error: Could not create the system audio tap (Timeout, 8).");
    tap.teardown();
    ::close(listener);
    std::filesystem::remove_all(folder);
}

TEST(PulseAudioTapErrorsTest, StepsOutOfOrderFailWithBadState) {
    PulseAudioTap tap(PulseAudioTap::Options{.server = "unix:/nonexistent/velmora/native"});
    SerialQueue queue("com.velmora.audiohelper.capture");
    EXPECT_EQ(deviceMessage([&] { tap.createDevice(); }),
              "device_error: Could not create the capture device (Bad state, 15).");
    EXPECT_EQ(deviceMessage([&] { tap.startIO(queue, [](const InputBufferList&) {}); }),
              "device_error: Could not attach to the capture device (Bad state, 15).");
}

TEST(PulseAudioTapErrorsTest, AccessRefusedByTheServerIsPermissionDenied) {
    std::string whyNot;
    if (!SoundServer::isAvailable(Kind::pulseAudio, &whyNot)) {
        GTEST_SKIP() << whyNot;
    }
    SoundServer::Options options;
    options.requireCookie = true;
    auto server = SoundServer::start(Kind::pulseAudio, options);
    PulseAudioTap tap(PulseAudioTap::Options{.server = server->serverAddress()});
    try {
        tap.createTap();
        FAIL() << "the tap was created without the cookie";
    } catch (const CaptureError& error) {
        EXPECT_EQ(error, CaptureError::permissionDenied());
        EXPECT_EQ(error.code(), "permission_denied");
    }
}

}  // namespace
}  // namespace velmora
