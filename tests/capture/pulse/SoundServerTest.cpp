#include "support/SoundServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <thread>

namespace velmora {
namespace {

using Kind = SoundServer::Kind;

class SoundServerTest : public ::testing::TestWithParam<Kind> {
  protected:
    void SetUp() override {
        std::string whyNot;
        if (!SoundServer::isAvailable(GetParam(), &whyNot)) {
            GTEST_SKIP() << whyNot;
        }
        server_ = SoundServer::start(GetParam());
    }

    std::unique_ptr<SoundServer> server_;
};

TEST_P(SoundServerTest, StartsPrivatelyWithSpeakersAsTheDefaultSink) {
    EXPECT_EQ(server_->defaultSink(), SoundServer::speakers);
    EXPECT_EQ(server_->serverAddress().rfind("unix:" + server_->directory().string(), 0), 0u);
    auto sinks = server_->run({"pactl", "list", "short", "sinks"});
    ASSERT_TRUE(sinks.succeeded()) << sinks.output;
    EXPECT_NE(sinks.output.find("speakers\t"), std::string::npos) << sinks.output;
    EXPECT_NE(sinks.output.find("44100Hz"), std::string::npos) << sinks.output;
    auto sources = server_->run({"pactl", "list", "short", "sources"});
    EXPECT_NE(sources.output.find("microphone\t"), std::string::npos) << sources.output;
}

TEST_P(SoundServerTest, SwitchesTheDefaultSink) {
    server_->setDefaultSink(SoundServer::headphones);
    EXPECT_EQ(server_->defaultSink(), SoundServer::headphones);
}

TEST_P(SoundServerTest, RestartBringsBackLoadedSinksAndTheDefault) {
    server_->loadNullSink("extra", 32000, 1);
    server_->setDefaultSink("extra");
    server_->kill();
    EXPECT_FALSE(server_->run({"pactl", "info"}, std::chrono::milliseconds(3000)).succeeded());
    server_->restart();
    EXPECT_EQ(server_->defaultSink(), "extra");
}

TEST_P(SoundServerTest, PlaysAToneThatAClientCanRecord) {
    auto tone = server_->playTone(SoundServer::speakers, 1000, 5);
    const auto file = server_->directory() / "recorded.raw";
    auto recorder =
        server_->launch({"parec", "--raw", "--format=float32le", "--rate=48000", "--channels=1",
                         "--latency-msec=20", "--device=speakers.monitor"},
                        file);
    // A tenth of a second of 48 kHz float32, within a bound.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < deadline &&
           (!std::filesystem::exists(file) || std::filesystem::file_size(file) < 4800 * 4)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    recorder->terminate();
    // The tone is not silent.
    std::ifstream stream(file, std::ios::binary);
    std::vector<float> samples(4800);
    stream.read(reinterpret_cast<char*>(samples.data()), 4800 * sizeof(float));
    ASSERT_EQ(stream.gcount(), 4800 * 4);
    float peak = 0;
    for (float sample : samples) {
        peak = std::max(peak, std::abs(sample));
    }
    EXPECT_GT(peak, 0.1f);
}

TEST_P(SoundServerTest, TheDestructorLeavesNoProcessOrFolderBehind) {
    auto folder = server_->directory();
    server_.reset();
    EXPECT_FALSE(std::filesystem::exists(folder));
}

TEST(SoundServerCookieTest, AClientWithoutTheCookieIsRefused) {
    std::string whyNot;
    if (!SoundServer::isAvailable(Kind::pulseAudio, &whyNot)) {
        GTEST_SKIP() << whyNot;
    }
    auto server = SoundServer::start(Kind::pulseAudio, {.requireCookie = true});
    EXPECT_TRUE(server->run({"pactl", "info"}).succeeded());
    auto environment = server->environment();
    std::erase_if(environment,
                  [](const std::string& entry) { return entry.rfind("PULSE_COOKIE=", 0) == 0; });
    auto refused = SoundServer::Process::spawn({"pactl", "info"}, environment,
                                               server->directory() / "refused.out");
    EXPECT_NE(refused->waitFor(std::chrono::milliseconds(5000)), 0);
}

INSTANTIATE_TEST_SUITE_P(Servers, SoundServerTest,
                         ::testing::Values(Kind::pulseAudio, Kind::pipeWire),
                         [](const auto& info) { return SoundServer::kindName(info.param); });

}  // namespace
}  // namespace velmora
