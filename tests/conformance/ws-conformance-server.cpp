// A WebSocket echo server over the helper's own listener and sessions, for running standard
// WebSocket conformance suites (a fuzzing client pointed at ws://127.0.0.1:<port>/) against the
// helper's WebSocket layer. Test-only; it never ships.
//
//   ws-conformance-server [port]     default 9001; 0 picks a free port
//
// Prints "Listening on ws://127.0.0.1:<port>/" once ready; stops on SIGINT or SIGTERM.

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "conformance/EchoServer.h"

namespace {

constexpr std::uint16_t defaultPort = 9001;

bool parsePort(std::string_view text, std::uint16_t& port) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

int main(int argc, char** argv) {
    std::uint16_t port = defaultPort;
    if (argc > 2 || (argc == 2 && !parsePort(argv[1], port))) {
        std::fprintf(stderr, "usage: ws-conformance-server [port]\n");
        return 2;
    }

    boost::asio::io_context context;
    int status = 0;
    velmora::conformance::EchoServer server(
        context, [&](velmora::WebSocketListener::State state,
                     const boost::system::error_code& error, std::uint16_t boundPort) {
            using State = velmora::WebSocketListener::State;
            if (state == State::ready) {
                std::printf("Listening on ws://127.0.0.1:%u/\n", static_cast<unsigned>(boundPort));
                std::fflush(stdout);
            } else if (state == State::failed) {
                std::fprintf(stderr, "Could not listen on port %u: %s\n",
                             static_cast<unsigned>(port), error.message().c_str());
                status = 1;
                context.stop();
            }
        });

    boost::asio::signal_set signals(context, SIGINT, SIGTERM);
    signals.async_wait([&](const boost::system::error_code& error, int) {
        if (error) return;
        server.stop();
        context.stop();
    });

    server.start(port);
    context.run();
    return status;
}
