// The measuring end of bench/streaming-cost: writes its test sounds, and notes when a click is
// heard, either in parec's output or in the frames a page receives from the helper, on the
// machine's monotonic clock so that the two can be compared.
//   streaming-probe tone FILE SECONDS        440 Hz sine, 48 kHz stereo float32
//   streaming-probe clicks FILE COUNT        silence with COUNT clicks 450 to 750 ms apart
//   streaming-probe monitor                  reads parec's 48 kHz stereo float32 on stdin
//   streaming-probe page PORT SECONDS [KEY]  streams from the helper as a page
//   streaming-probe hold PORT SECONDS        stays connected as a page that never starts
// monitor and page print one line per click heard: "click <monotonic seconds>"; page then prints
// "frames <count> longest-gap-ms <ms>".
#include <unistd.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "access/PassIssuer.h"
#include "config/HelperInfo.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;

constexpr int rate = 48000;
// A click is a 2 ms step of this height; anything above the threshold after a quiet stretch is
// its onset. The resampler's ringing before the step stays far below.
constexpr float clickLevel = 0.8f;
constexpr float threshold = 0.3f;
constexpr double quietSeconds = 0.2;

double monotonicSeconds(Clock::time_point time) {
    return std::chrono::duration<double>(time.time_since_epoch()).count();
}

int usage() {
    std::cerr << "usage: streaming-probe tone FILE SECONDS | clicks FILE COUNT | monitor | "
                 "page PORT SECONDS [KEY] | hold PORT SECONDS\n";
    return 2;
}

bool writeStereo(const std::string& file, const std::vector<float>& mono) {
    std::vector<float> stereo(mono.size() * 2);
    for (std::size_t index = 0; index < mono.size(); ++index) {
        stereo[2 * index] = stereo[2 * index + 1] = mono[index];
    }
    std::ofstream out(file, std::ios::binary);
    out.write(reinterpret_cast<const char*>(stereo.data()),
              static_cast<std::streamsize>(stereo.size() * sizeof(float)));
    return static_cast<bool>(out);
}

int writeTone(const std::string& file, double seconds) {
    std::vector<float> samples(static_cast<std::size_t>(seconds * rate));
    for (std::size_t index = 0; index < samples.size(); ++index) {
        samples[index] =
            static_cast<float>(0.5 * std::sin(2 * M_PI * 440.0 * double(index) / rate));
    }
    return writeStereo(file, samples) ? 0 : 1;
}

int writeClicks(const std::string& file, int count) {
    // Gaps that are no multiple of anything: the clicks fall at every point of a 100 ms frame.
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> gap(rate * 450 / 1000, rate * 750 / 1000);
    std::vector<float> samples(rate / 2, 0.0f);
    for (int click = 0; click < count; ++click) {
        samples.insert(samples.end(), rate / 500, clickLevel);
        samples.insert(samples.end(), static_cast<std::size_t>(gap(random)), 0.0f);
    }
    return writeStereo(file, samples) ? 0 : 1;
}

// Onsets of clicks in a stream of mono samples, by sample position.
class ClickDetector {
  public:
    explicit ClickDetector(int sampleRate)
        : quietSamples_(static_cast<std::int64_t>(quietSeconds * sampleRate)) {}

    // True when these samples hold the onset of a new click.
    bool feed(const float* samples, std::size_t count, std::size_t stride) {
        bool onset = false;
        for (std::size_t index = 0; index < count; ++index, ++position_) {
            float value = 0;
            for (std::size_t channel = 0; channel < stride; ++channel) {
                value += samples[index * stride + channel];
            }
            value /= float(stride);
            if (std::fabs(value) > threshold) {
                if (position_ - lastLoud_ > quietSamples_) {
                    onset = true;
                }
                lastLoud_ = position_;
            }
        }
        return onset;
    }

  private:
    std::int64_t quietSamples_;
    std::int64_t position_ = 0;
    std::int64_t lastLoud_ = -(1LL << 40);
};

int readMonitor() {
    ClickDetector detector(rate);
    std::vector<char> buffer(1 << 16);
    std::size_t carried = 0;  // bytes of an incomplete stereo frame kept for the next read
    for (;;) {
        const ssize_t got = ::read(STDIN_FILENO, buffer.data() + carried, buffer.size() - carried);
        if (got <= 0) {
            return 0;
        }
        const auto arrival = Clock::now();
        const std::size_t bytes = carried + static_cast<std::size_t>(got);
        const std::size_t frameBytes = 2 * sizeof(float);
        const std::size_t frames = bytes / frameBytes;
        std::vector<float> samples(frames * 2);
        std::memcpy(samples.data(), buffer.data(), frames * frameBytes);
        if (detector.feed(samples.data(), frames, 2)) {
            std::printf("click %.6f\n", monotonicSeconds(arrival));
            std::fflush(stdout);
        }
        carried = bytes - frames * frameBytes;
        std::memmove(buffer.data(), buffer.data() + frames * frameBytes, carried);
    }
}

// Connects `socket` to the helper on `port` and upgrades it as a page of `origin`.
void openAsPage(websocket::stream<boost::asio::ip::tcp::socket>& socket, int port,
                const std::string& origin) {
    socket.next_layer().connect(
        {boost::asio::ip::make_address("127.0.0.1"), static_cast<unsigned short>(port)});
    socket.set_option(websocket::stream_base::decorator([origin](websocket::request_type& request) {
        request.set(beast::http::field::origin, origin);
    }));
    socket.handshake("127.0.0.1:" + std::to_string(port), "/");
}

int streamAsPage(int port, double seconds, const std::string& keyFile) {
    std::ifstream keyStream(keyFile);
    std::stringstream pem;
    pem << keyStream.rdbuf();
    if (!keyStream) {
        std::cerr << "streaming-probe: cannot read the pass key " << keyFile << "\n";
        return 2;
    }
    const auto issuer = velmora::PassIssuer::fromPem(pem.str());
    const std::string origin = velmora::HelperInfo::builtInOrigins().front();

    boost::asio::io_context context;
    websocket::stream<boost::asio::ip::tcp::socket> socket(context);
    openAsPage(socket, port, origin);
    const nlohmann::json start = {{"type", "start"},
                                  {"pass", issuer.issue(origin, velmora::PassIssuer::currentTime(),
                                                        velmora::PassIssuer::randomNonce())}};
    socket.text(true);
    socket.write(boost::asio::buffer(start.dump()));

    ClickDetector detector(velmora::HelperInfo::sampleRate);
    beast::flat_buffer buffer;
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    std::optional<Clock::time_point> previous;
    Clock::duration longestGap{};
    long frames = 0;
    while (Clock::now() < end) {
        buffer.clear();
        socket.read(buffer);
        const auto arrival = Clock::now();
        if (socket.got_text()) {
            const auto message = nlohmann::json::parse(beast::buffers_to_string(buffer.data()));
            const std::string type = message.value("type", "");
            if (type == "error" || type == "stopped") {
                std::cerr << "streaming-probe: the helper said " << message.dump() << "\n";
                return 1;
            }
            continue;
        }
        ++frames;
        if (previous) {
            longestGap = std::max(longestGap, arrival - *previous);
        }
        previous = arrival;
        const auto data = buffer.data();
        std::vector<float> samples(data.size() / sizeof(float));
        std::memcpy(samples.data(), data.data(), samples.size() * sizeof(float));
        if (detector.feed(samples.data(), samples.size(), 1)) {
            std::printf("click %.6f\n", monotonicSeconds(arrival));
            std::fflush(stdout);
        }
    }
    socket.text(true);
    socket.write(boost::asio::buffer(std::string(R"({"type":"stop"})")));
    std::printf("frames %ld longest-gap-ms %.1f\n", frames,
                std::chrono::duration<double, std::milli>(longestGap).count());
    return 0;
}

// Connects as an allowed page and stays without starting, answering the helper's keep-alive pings
// while it reads; fails when the helper closes the connection first.
int holdAsPage(int port, double seconds) {
    const std::string origin = velmora::HelperInfo::builtInOrigins().front();
    boost::asio::io_context context;
    websocket::stream<boost::asio::ip::tcp::socket> socket(context);
    openAsPage(socket, port, origin);
    beast::flat_buffer buffer;
    std::optional<std::string> closed;
    std::function<void()> readNext = [&] {
        socket.async_read(buffer, [&](beast::error_code error, std::size_t) {
            if (error) {
                closed = error.message();
                return;
            }
            buffer.clear();
            readNext();
        });
    };
    readNext();
    context.run_for(
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)));
    if (closed) {
        std::cerr << "streaming-probe: the helper ended the idle page's connection: " << *closed
                  << "\n";
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    try {
        if (args.size() == 3 && args[0] == "tone") {
            return writeTone(args[1], std::stod(args[2]));
        }
        if (args.size() == 3 && args[0] == "clicks") {
            return writeClicks(args[1], std::stoi(args[2]));
        }
        if (args.size() == 1 && args[0] == "monitor") {
            return readMonitor();
        }
        if (args.size() == 3 && args[0] == "hold") {
            return holdAsPage(std::stoi(args[1]), std::stod(args[2]));
        }
        if ((args.size() == 3 || args.size() == 4) && args[0] == "page") {
            return streamAsPage(std::stoi(args[1]), std::stod(args[2]),
                                args.size() == 4 ? args[3] : VELMORA_DEV_KEY_FILE);
        }
    } catch (const std::exception& error) {
        std::cerr << "streaming-probe: " << error.what() << "\n";
        return 1;
    }
    return usage();
}
