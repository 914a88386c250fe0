// Frame delivery through the running helper server: a device callback holding one frame's worth
// of 16 kHz mono audio enters the capture through the fake tap, passes the frame pipeline and
// the server, and leaves as a binary WebSocket message that a page reads over loopback.
//
// BM_FrameDeliveryLatency: from the callback's delivery to the whole message read by the page.
//   Counters median_us and p99_us (goals: under 200 us and under 1 ms).
// BM_StreamingCpu: CPU of the process while it streams 10 frames per second in real time, as
//   device callbacks of 100 ms (arg 1) or 10 ms (arg 10).
//   Counters helper_cpu_percent (every thread but the benchmark's own, which plays device and
//   page; goal under 0.2 % of one core) and process_cpu_percent (all threads).

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <numbers>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "access/HelperPass.h"
#include "access/PassIssuer.h"
#include "config/AudioKit.h"
#include "config/HelperInfo.h"
#include "config/SerialQueue.h"
#include "server/HelperServer.h"
#include "support/FakeAudioTap.h"
#include "support/FakeCapturePermission.h"
#include "support/FakeMicrophoneUsers.h"
#include "support/FreePort.h"

namespace velmora {
namespace {

namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
using tcp = boost::asio::ip::tcp;
using Clock = std::chrono::steady_clock;

const std::string pageOrigin = "https://bench.example";
constexpr std::size_t frameSamples = HelperInfo::frameSamples;

// The helper logs a few lines per session; they go to a private folder, not the user's log.
[[maybe_unused]] const bool privateLogFolder = [] {
    std::string folder = (std::filesystem::temp_directory_path() / "velmora-bench-XXXXXX").string();
    if (::mkdtemp(folder.data()) != nullptr) ::setenv("XDG_STATE_HOME", folder.c_str(), 1);
    return true;
}();

using testing::freePort;

double cpuSeconds(clockid_t clock) {
    timespec time{};
    ::clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// A helper server over the fake tap (16 kHz mono float, so frames pass the pipeline unchanged),
// listening on a free port, with one page that has started streaming. The page is a blocking
// Beast client on the benchmark's thread.
class StreamingHelper {
  public:
    StreamingHelper() : port_(freePort()) {
        tap_->setFormat(
            TapStreamFormat{.sampleRate = HelperInfo::sampleRate, .channelsPerFrame = 1});
        permission_->answerAtOnce(true);
        auto key = HelperPass::keyFromBase64(issuer_.publicKeyBase64());
        if (!key) throw std::runtime_error("the pass key does not decode");
        server_ = HelperServer::create(
            std::make_unique<testing::FakeAudioTap>(tap_), permission_, microphoneUsers_,
            mainQueue_,
            ServerPolicy{
                .port = [port = port_] { return port; },
                .isOriginAllowed =
                    [](const std::optional<std::string>& origin) { return origin == pageOrigin; }},
            HelperServerTimings{}, {*key});
        server_->start();
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        while (server_->status().server != ServerState::listening()) {
            if (Clock::now() > deadline) throw std::runtime_error("the helper did not listen");
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }

        page_.next_layer().connect({boost::asio::ip::address_v4::loopback(), port_});
        page_.set_option(websocket::stream_base::decorator([](websocket::request_type& request) {
            request.set(beast::http::field::origin, pageOrigin);
        }));
        page_.handshake("127.0.0.1:" + std::to_string(port_), "/");
        expectType("hello");
        const auto pass =
            issuer_.issue(pageOrigin, PassIssuer::currentTime(), PassIssuer::randomNonce());
        page_.write(boost::asio::buffer(nlohmann::json{{"type", "start"}, {"pass", pass}}.dump()));
        expectType("started");
        page_.binary(true);
    }

    ~StreamingHelper() {
        beast::error_code ignored;
        page_.next_layer().close(ignored);
        server_->shutdown();
        server_.reset();
        AudioKit::setConfig(AudioKitConfig::defaults());
        mainQueue_.runAndWait([] {});
    }

    // One device callback of mono samples, handled on the capture queue as a device's would be.
    void deliver(std::vector<float> samples) {
        if (!tap_->deliverInterleaved(std::move(samples), 1)) {
            throw std::runtime_error("the capture is not running");
        }
    }

    // Reads binary messages until the frame whose first sample is `marker` (skipping silent
    // padding frames the pipeline may have added while nothing was delivered).
    void readFrame(float marker) {
        while (true) {
            buffer_.clear();
            page_.read(buffer_);
            if (!page_.got_binary()) continue;
            const auto data = buffer_.cdata();
            if (data.size() != frameSamples * sizeof(float)) {
                throw std::runtime_error("a frame of unexpected size");
            }
            float first = 0;
            std::memcpy(&first, data.data(), sizeof first);
            if (first == marker) return;
        }
    }

  private:
    void expectType(const std::string& type) {
        buffer_.clear();
        page_.read(buffer_);
        auto message = nlohmann::json::parse(beast::buffers_to_string(buffer_.cdata()));
        if (message.value("type", "") != type) {
            throw std::runtime_error("expected " + type + ", got " + message.dump());
        }
    }

    std::uint16_t port_;
    SerialQueue mainQueue_{"com.velmora.bench.main"};
    std::shared_ptr<testing::FakeAudioTap::Control> tap_ =
        std::make_shared<testing::FakeAudioTap::Control>();
    std::shared_ptr<testing::FakeCapturePermission> permission_ =
        std::make_shared<testing::FakeCapturePermission>();
    std::shared_ptr<testing::FakeMicrophoneUsers> microphoneUsers_ =
        std::make_shared<testing::FakeMicrophoneUsers>();
    PassIssuer issuer_ = PassIssuer::generate();
    std::shared_ptr<HelperServer> server_;
    boost::asio::io_context context_;
    websocket::stream<tcp::socket> page_{context_};
    beast::flat_buffer buffer_;
};

// Speech-band tone; sample 0 of each callback carries a marker that identifies its frame.
std::vector<float> tone(std::size_t samples, std::size_t offset, float marker) {
    std::vector<float> result(samples);
    for (std::size_t n = 0; n < samples; ++n) {
        const double t = static_cast<double>(offset + n) / HelperInfo::sampleRate;
        result[n] = static_cast<float>(0.3 * std::sin(2 * std::numbers::pi * 440 * t));
    }
    result[0] = marker;
    return result;
}

double percentile(std::vector<double> values, double fraction) {
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1));
    return values[index];
}

void BM_FrameDeliveryLatency(benchmark::State& state) {
    StreamingHelper helper;
    std::vector<double> latencies;
    latencies.reserve(static_cast<std::size_t>(state.max_iterations));
    std::size_t offset = 0;
    float marker = 1.0f;
    for (auto _ : state) {
        // Markers above any sample value of the tone, different for every frame.
        marker += 1.0f;
        auto samples = tone(frameSamples, offset, marker);
        offset += frameSamples;
        const auto start = Clock::now();
        helper.deliver(std::move(samples));
        helper.readFrame(marker);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(seconds);
        latencies.push_back(seconds * 1e6);
    }
    state.counters["median_us"] = percentile(latencies, 0.5);
    state.counters["p99_us"] = percentile(latencies, 0.99);
    state.counters["max_us"] = percentile(latencies, 1.0);
}

void BM_StreamingCpu(benchmark::State& state) {
    const auto callbacksPerFrame = static_cast<std::size_t>(state.range(0));
    const std::size_t callbackSamples = frameSamples / callbacksPerFrame;
    const auto callbackPeriod = std::chrono::microseconds(100'000 / callbacksPerFrame);
    constexpr int frames = 30;  // 3 s of audio, in real time

    StreamingHelper helper;
    for (auto _ : state) {
        const double processStart = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
        const double threadStart = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
        const auto wallStart = Clock::now();
        auto next = wallStart;
        std::size_t offset = 0;
        for (int frame = 0; frame < frames; ++frame) {
            const float marker = 2.0f + static_cast<float>(frame);
            for (std::size_t callback = 0; callback < callbacksPerFrame; ++callback) {
                next += callbackPeriod;
                std::this_thread::sleep_until(next);
                helper.deliver(tone(callbackSamples, offset, callback == 0 ? marker : 0.0f));
                offset += callbackSamples;
            }
            helper.readFrame(marker);
        }
        const double wall = std::chrono::duration<double>(Clock::now() - wallStart).count();
        const double process = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - processStart;
        const double own = cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - threadStart;
        state.SetIterationTime(wall);
        state.counters["process_cpu_percent"] = 100.0 * process / wall;
        state.counters["helper_cpu_percent"] = 100.0 * (process - own) / wall;
        state.counters["helper_cpu_us_per_s"] = 1e6 * (process - own) / wall;
    }
}

BENCHMARK(BM_FrameDeliveryLatency)
    ->UseManualTime()
    ->Iterations(5000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_StreamingCpu)
    ->Arg(1)
    ->Arg(10)
    ->ArgName("callbacks_per_frame")
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace velmora

BENCHMARK_MAIN();
