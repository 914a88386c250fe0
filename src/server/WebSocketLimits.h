#pragma once

#include <chrono>
#include <cstddef>

namespace velmora {

// What one local WebSocket endpoint tolerates from a peer before it gives up on it. The
// defaults suit pages on the same machine; tests shorten the times.
struct WebSocketLimits {
    // The whole HTTP upgrade request must arrive within this time after the TCP connection is
    // accepted; the 101 answer, and a closing handshake we start, get the same time again.
    std::chrono::milliseconds handshakeTimeout{10'000};
    // Request line and headers together; a larger request is answered 431 and closed.
    std::size_t maxHeaderBytes = 8 * 1024;
    // Connections still in the upgrade phase at once; more are closed as soon as they arrive,
    // so half-open or silent sockets cannot exhaust the process.
    std::size_t maxPendingUpgrades = 64;
    // Largest incoming message; a larger one ends the connection with a receive error.
    std::size_t maxMessageBytes = 65'536;
    // A peer from which nothing (not even the pong to our keep-alive ping, sent after half of
    // this) arrives for this long is dropped.
    std::chrono::milliseconds idleTimeout{60'000};
    // Outgoing backlog per connection, counting the message being written: 320 KiB is about
    // 5 s of audio (51 frames of 6 400 bytes). A peer that lets more pile up has stopped reading
    // and is dropped; the message count catches floods of small replies.
    std::size_t maxQueuedBytes = 320 * 1024;
    std::size_t maxQueuedMessages = 256;
    // Connections the helper's server keeps open at once, from everyone together and from one
    // process; more are answered 503 (the echo server of the conformance tests keeps no count). A
    // browser holds the connections of all its pages in one process, so the second is a limit per
    // browser: far above the pages of one web application a user keeps open (each holds one
    // connection, briefly two while it reconnects), and an eighth of the whole, so one runaway
    // process leaves room for others.
    std::size_t maxConnections = 256;
    std::size_t maxConnectionsPerProcess = 32;
    // The kernel send buffer of each connection; 0 keeps the system's (auto-tuned) size.
    int socketSendBufferBytes = 0;
};

}  // namespace velmora
