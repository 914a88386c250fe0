// Feeds WebSocket frames, cut into arbitrary pieces, into a real WebSocketSession (the one the
// helper serves pages with) over an in-memory socket pair, with an echo handler so that writes
// run alongside the reads.
//
// Input: one byte that picks the piece sizes (bit 7: the peer never reads, so echoes pile up
// against the send backlog limit), then a list of operations, each starting with one byte:
//   op & 3 == 1  a frame with its payload from the input:
//                header byte (FIN, RSV, opcode), 2-byte length, 4-byte mask key, payload
//   op & 3 == 2  a frame with a generated payload, so messages can exceed the size limit:
//                header byte, 3-byte length (at most 256 KiB), fill byte, 4-byte mask key
//   otherwise    raw: the next byte n, then n bytes sent as they are
//   op bit 4     leave the frame unmasked (a protocol error from a client)
//   op bit 5     encode the length in the 8-byte form even when it is short
// After the operations the peer finishes sending.
//
// What must hold: no text or binary message larger than 65536 bytes reaches the handler; the
// session ends exactly once, and only after opening; nothing reaches the handler after its
// end; and the session always ends once the peer stops sending (no hang).

#include <boost/asio/io_context.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/http/verb.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "server/WebSocketLimits.h"
#include "server/WebSocketSession.h"
#include "support/Chunks.h"
#include "support/QuietLog.h"
#include "support/SocketPair.h"

namespace {

using namespace velmora;
using boost::system::error_code;

constexpr std::size_t largestGeneratedPayload = 256 * 1024;
constexpr int piecesBeforeLargeWrites = 1024;

[[noreturn]] void failure(const char* what) {
    std::fprintf(stderr, "websocket_frames_fuzzer: %s\n", what);
    std::abort();
}

// Turns the operations into the bytes a (mis)behaving client sends.
class FrameWriter {
  public:
    FrameWriter(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    std::string bytes() {
        std::string out;
        while (position_ < size_) {
            const std::uint8_t op = take();
            switch (op & 3) {
                case 1: {
                    const std::uint8_t header = take();
                    const std::size_t wanted = takeNumber(2);
                    const std::uint32_t mask = takeMask();
                    const std::size_t length = takeCount(wanted);
                    frame(
                        out, op, header, mask,
                        std::string_view(reinterpret_cast<const char*>(data_ + position_), length));
                    position_ += length;
                    break;
                }
                case 2: {
                    const std::uint8_t header = take();
                    const std::size_t length = std::min(takeNumber(3), largestGeneratedPayload);
                    const char fill = static_cast<char>(take());
                    const std::uint32_t mask = takeMask();
                    filledFrame(out, op, header, mask, length, fill);
                    break;
                }
                default: {
                    const std::size_t count = takeCount(take());
                    out.append(reinterpret_cast<const char*>(data_ + position_), count);
                    position_ += count;
                    break;
                }
            }
        }
        return out;
    }

  private:
    std::uint8_t take() { return position_ < size_ ? data_[position_++] : 0; }
    std::size_t takeCount(std::size_t wanted) { return std::min(wanted, size_ - position_); }
    // Little-endian, as many bytes as asked.
    std::size_t takeNumber(int bytes) {
        std::size_t number = 0;
        for (int i = 0; i < bytes; ++i) number |= std::size_t{take()} << (8 * i);
        return number;
    }
    std::uint32_t takeMask() {
        std::uint32_t mask = 0;
        for (int i = 0; i < 4; ++i) mask = (mask << 8) | take();
        return mask;
    }

    static void frame(std::string& out, std::uint8_t op, std::uint8_t header, std::uint32_t mask,
                      std::string_view payload) {
        appendHeader(out, op, header, payload.size());
        if ((op & 0x10) != 0) {
            out.append(payload);
            return;
        }
        const char key[4] = {static_cast<char>(mask >> 24), static_cast<char>(mask >> 16),
                             static_cast<char>(mask >> 8), static_cast<char>(mask)};
        out.append(key, 4);
        const std::size_t start = out.size();
        out.append(payload);
        for (std::size_t i = 0; i < payload.size(); ++i) out[start + i] ^= key[i % 4];
    }

    // A generated payload of `length` fill bytes, masked: a four-byte pattern, copied by
    // doubling rather than byte by byte (megabytes per input would otherwise dominate the run).
    static void filledFrame(std::string& out, std::uint8_t op, std::uint8_t header,
                            std::uint32_t mask, std::size_t length, char fill) {
        appendHeader(out, op, header, length);
        const bool masked = (op & 0x10) == 0;
        char pattern[4] = {fill, fill, fill, fill};
        if (masked) {
            const char key[4] = {static_cast<char>(mask >> 24), static_cast<char>(mask >> 16),
                                 static_cast<char>(mask >> 8), static_cast<char>(mask)};
            out.append(key, 4);
            for (int i = 0; i < 4; ++i) pattern[i] ^= key[i];
        }
        const std::size_t start = out.size();
        out.resize(start + length);
        char* payload = out.data() + start;
        std::size_t filled = std::min<std::size_t>(4, length);
        std::memcpy(payload, pattern, filled);
        while (filled < length) {
            const std::size_t copy = std::min(filled, length - filled);
            std::memcpy(payload + filled, payload, copy);
            filled += copy;
        }
    }

    static void appendHeader(std::string& out, std::uint8_t op, std::uint8_t header,
                             std::uint64_t length) {
        const std::uint8_t maskBit = (op & 0x10) == 0 ? 0x80 : 0;
        const bool longForm = (op & 0x20) != 0;
        out.push_back(static_cast<char>(header));
        if (longForm || length > 0xFFFF) {
            out.push_back(static_cast<char>(maskBit | 127));
            for (int shift = 56; shift >= 0; shift -= 8) {
                out.push_back(static_cast<char>((length >> shift) & 0xFF));
            }
        } else if (length > 125) {
            out.push_back(static_cast<char>(maskBit | 126));
            out.push_back(static_cast<char>(length >> 8));
            out.push_back(static_cast<char>(length & 0xFF));
        } else {
            out.push_back(static_cast<char>(maskBit | length));
        }
    }

    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t position_ = 0;
};

// Echoes every message, as the conformance server does, and checks what it is told.
class EchoChecker final : public WebSocketSession::Handler {
  public:
    explicit EchoChecker(std::size_t maxMessageBytes) : maxMessageBytes_(maxMessageBytes) {}

    void opened(WebSocketSession&) override {
        if (opened_ || ended_) failure("opened twice or after the end");
        opened_ = true;
    }

    void textReceived(WebSocketSession& session, std::string_view text) override {
        received(text.size());
        session.sendText(std::string(text));
    }

    void binaryReceived(WebSocketSession& session, std::span<const std::byte> data) override {
        received(data.size());
        session.sendBinary(
            std::make_shared<const WebSocketSession::Bytes>(data.begin(), data.end()));
    }

    void ended(WebSocketSession& session, const error_code& error) override {
        if (fuzzing::verbose()) {
            std::fprintf(stderr, "%d messages, ended: %s\n", messages_, error.message().c_str());
        }
        if (ended_) failure("ended twice");
        if (session.isOpen()) failure("ended while still open");
        ended_ = true;
    }

    bool hasEnded() const { return ended_; }

  private:
    void received(std::size_t size) {
        if (!opened_ || ended_) failure("a message arrived outside the open session");
        if (size > maxMessageBytes_) failure("a message over the size limit was delivered");
        ++messages_;
    }

    std::size_t maxMessageBytes_;
    bool opened_ = false;
    bool ended_ = false;
    int messages_ = 0;
};

WebSocketSession::UpgradeRequest upgradeRequest() {
    namespace http = boost::beast::http;
    WebSocketSession::UpgradeRequest request{http::verb::get, "/", 11};
    request.set(http::field::host, "127.0.0.1");
    request.set(http::field::upgrade, "websocket");
    request.set(http::field::connection, "Upgrade");
    request.set(http::field::sec_websocket_key, "dGhlIHNhbXBsZSBub25jZQ==");
    request.set(http::field::sec_websocket_version, "13");
    return request;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzing::sendLogNowhere();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    fuzzing::Chunks chunks(data[0]);
    const bool peerReads = (data[0] & 0x80) == 0;
    const std::string bytes = FrameWriter(data + 1, size - 1).bytes();

    WebSocketLimits limits;
    // Short, so that a peer that stops reading (bit 7) and then waits for an answer to its close
    // or ping is cut off quickly; the size and backlog limits stay the product's.
    limits.handshakeTimeout = std::chrono::milliseconds(100);
    limits.idleTimeout = std::chrono::milliseconds(100);

    boost::asio::io_context context;
    fuzzing::SocketPair sockets(context);
    auto handler = std::make_shared<EchoChecker>(limits.maxMessageBytes);
    {
        auto session =
            WebSocketSession::overTcp(boost::beast::tcp_stream(std::move(sockets.server)), limits);
        session->accept(upgradeRequest(), handler, [] {});
    }

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::size_t sent = 0;
    std::size_t piece = 0;
    int pieces = 0;
    while (sent < bytes.size() && !sockets.serverClosed() && !handler->hasEnded()) {
        if (piece == 0) {
            // Past the first few thousand pieces, big generated payloads go in large writes.
            piece = ++pieces < piecesBeforeLargeWrites ? chunks.next() : bytes.size();
            piece = std::min(piece, bytes.size() - sent);
        }
        const std::size_t taken = sockets.writeSome(std::string_view(bytes).substr(sent, piece));
        sent += taken;
        piece -= taken;
        context.restart();
        if (taken == 0) {
            // The socket is full: the session must read (or end) to make room.
            context.run_one_for(std::chrono::milliseconds(100));
        } else {
            context.poll();
        }
        if (peerReads) {
            sockets.readAvailable();
            sockets.discardReceived();
        }
        if (std::chrono::steady_clock::now() > deadline) failure("the session stopped reading");
    }
    sockets.finishWriting();

    // The peer sends nothing more and reads everything: the session must end by itself.
    while (!handler->hasEnded()) {
        context.restart();
        context.run_one_for(std::chrono::milliseconds(50));
        sockets.readAvailable();
        sockets.discardReceived();
        if (std::chrono::steady_clock::now() > deadline) failure("the session did not end");
    }
    // What is ready to run after the end (cancelled timers) runs; the rest goes with the context.
    context.restart();
    context.poll();
    return 0;
}
