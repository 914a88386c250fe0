#include "app/ListenCommand.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <sstream>

#include "access/PassIssuer.h"
#include "app/WavWriter.h"
#include "config/HelperInfo.h"
#include "config/HelperSettings.h"

#ifndef VELMORA_DEV_KEY_FILE
#define VELMORA_DEV_KEY_FILE ""
#endif

namespace velmora {
namespace {

namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
using tcp = boost::asio::ip::tcp;

struct ListenOptions {
    double seconds = 5.0;
    std::string outFile;
    std::optional<int> port;
    std::string origin;
    std::string keyFile;
};

const char* usage =
    "usage: velmora-audio-helper listen [--seconds N] [--out FILE] [--port P] [--origin ORIGIN] "
    "[--key FILE]\n";

std::optional<ListenOptions> parse(const std::vector<std::string>& args, std::ostream& err) {
    ListenOptions options;
    options.origin = HelperInfo::builtInOrigins().front();
    const char* keyFromEnvironment = std::getenv("VELMORA_PASS_KEY");
    options.keyFile = keyFromEnvironment != nullptr ? keyFromEnvironment : VELMORA_DEV_KEY_FILE;
    for (std::size_t index = 0; index < args.size(); ++index) {
        const std::string& name = args[index];
        if (index + 1 >= args.size()) {
            err << "listen: " << name << " needs a value\n" << usage;
            return std::nullopt;
        }
        const std::string& value = args[++index];
        try {
            if (name == "--seconds") {
                std::size_t used = 0;
                options.seconds = std::stod(value, &used);
                if (used != value.size() || !(options.seconds > 0) || options.seconds > 86400)
                    throw std::invalid_argument(value);
            } else if (name == "--port") {
                std::size_t used = 0;
                int port = std::stoi(value, &used);
                if (used != value.size() || port < 1 || port > 65535)
                    throw std::invalid_argument(value);
                options.port = port;
            } else if (name == "--out") {
                options.outFile = value;
            } else if (name == "--origin") {
                options.origin = value;
            } else if (name == "--key") {
                options.keyFile = value;
            } else {
                err << "listen: unknown option " << name << "\n" << usage;
                return std::nullopt;
            }
        } catch (const std::exception&) {
            err << "listen: " << name << " takes "
                << (name == "--port" ? "a port 1-65535" : "a number of seconds") << ", not \""
                << value << "\"\n";
            return std::nullopt;
        }
    }
    if (options.keyFile.empty()) {
        err << "listen: no pass key; give --key FILE (a P-256 private key in PEM)\n";
        return std::nullopt;
    }
    return options;
}

std::optional<std::string> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string levelText(double rms) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(4) << rms;
    if (rms > 0) {
        text << " (" << std::setprecision(1) << 20.0 * std::log10(rms) << " dBFS)";
    } else {
        text << " (silence)";
    }
    return text.str();
}

}  // namespace

int runListenCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    auto options = parse(args, err);
    if (!options) return 2;

    auto pem = readFile(options->keyFile);
    if (!pem) {
        err << "listen: cannot read the pass key " << options->keyFile << "\n";
        return 2;
    }
    std::optional<PassIssuer> issuer;
    try {
        issuer.emplace(PassIssuer::fromPem(*pem));
    } catch (const std::exception& error) {
        err << "listen: " << error.what() << "\n";
        return 2;
    }

    const int port = options->port.value_or(HelperSettings::shared().port());
    std::vector<float> received;
    try {
        boost::asio::io_context context;
        websocket::stream<tcp::socket> socket(context);
        socket.next_layer().connect(tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"),
                                                  static_cast<unsigned short>(port)));
        // Blocking reads give up after a while, so a silent helper cannot hang the command.
        timeval timeout{5, 0};
        setsockopt(socket.next_layer().native_handle(), SOL_SOCKET, SO_RCVTIMEO, &timeout,
                   sizeof timeout);
        socket.set_option(websocket::stream_base::decorator([&](websocket::request_type& request) {
            request.set(beast::http::field::origin, options->origin);
        }));
        socket.read_message_max(1 << 20);
        try {
            socket.handshake("127.0.0.1:" + std::to_string(port), "/");
        } catch (const beast::system_error& error) {
            err << "listen: the helper refused the connection from origin " << options->origin
                << " (" << error.code().message() << ")\n";
            return 1;
        }

        beast::flat_buffer buffer;
        auto readText = [&]() -> nlohmann::json {
            for (;;) {
                buffer.clear();
                socket.read(buffer);
                if (socket.got_text())
                    return nlohmann::json::parse(beast::buffers_to_string(buffer.data()));
            }
        };

        auto hello = readText();
        out << "Connected to " << hello.value("app", "?") << " " << hello.value("version", "?")
            << " on " << hello.value("platform", "?") << " (" << hello.value("sampleRate", 0)
            << " Hz, " << hello.value("channels", 0) << " ch, " << hello.value("format", "?") << ")"
            << std::endl;

        nlohmann::json start = {{"type", "start"},
                                {"pass", issuer->issue(options->origin, PassIssuer::currentTime(),
                                                       PassIssuer::randomNonce())}};
        socket.text(true);
        socket.write(boost::asio::buffer(start.dump()));
        auto answer = readText();
        if (answer.value("type", "") != "started") {
            err << "listen: the helper did not start: " << answer.value("code", "?") << " — "
                << answer.value("message", answer.dump()) << "\n";
            return 1;
        }
        out << "Streaming for " << options->seconds << " s" << std::endl;

        const auto frameSamples = static_cast<std::size_t>(HelperInfo::frameSamples);
        const auto wanted = static_cast<std::size_t>(options->seconds * HelperInfo::sampleRate);
        double secondSquares = 0;
        std::size_t secondSamples = 0;
        int second = 0;
        while (received.size() < wanted) {
            buffer.clear();
            socket.read(buffer);
            if (socket.got_text()) {
                auto message = nlohmann::json::parse(beast::buffers_to_string(buffer.data()));
                out << "Message: " << message.dump() << std::endl;
                auto type = message.value("type", "");
                if (type == "error" || type == "stopped") return 1;
                continue;
            }
            auto bytes = beast::buffers_to_string(buffer.data());
            if (bytes.size() != frameSamples * sizeof(float)) {
                err << "listen: unexpected audio message of " << bytes.size() << " bytes\n";
                return 1;
            }
            const std::size_t offset = received.size();
            received.resize(offset + frameSamples);
            std::memcpy(received.data() + offset, bytes.data(), bytes.size());
            for (std::size_t index = offset; index < received.size(); ++index) {
                secondSquares += double(received[index]) * received[index];
            }
            secondSamples += frameSamples;
            if (secondSamples >= static_cast<std::size_t>(HelperInfo::sampleRate)) {
                out << "second " << ++second << ": level "
                    << levelText(std::sqrt(secondSquares / double(secondSamples))) << std::endl;
                secondSquares = 0;
                secondSamples = 0;
            }
        }

        socket.write(boost::asio::buffer(std::string(R"({"type":"stop"})")));
        socket.close(websocket::close_code::normal);
    } catch (const std::exception& error) {
        err << "listen: " << error.what() << " (is the helper running on port " << port << "?)\n";
        if (received.empty()) return 1;
    }

    out << "Received " << received.size() << " samples ("
        << double(received.size()) / HelperInfo::sampleRate << " s)" << std::endl;
    if (!options->outFile.empty()) {
        auto problem = writeFloatWav(options->outFile, HelperInfo::sampleRate, received);
        if (!problem.empty()) {
            err << "listen: " << problem << "\n";
            return 1;
        }
        out << "Wrote " << options->outFile << " (16 kHz mono, 32-bit float WAV)" << std::endl;
    }
    return 0;
}

}  // namespace velmora
