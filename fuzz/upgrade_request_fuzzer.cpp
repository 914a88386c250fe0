// Feeds arbitrary bytes, as an HTTP upgrade request arriving in arbitrary pieces, to the
// connection's upgrade phase and the helper server's admission by origin.
//
// Input: one byte choosing the piece sizes (bit 7 also decides whether a page without an Origin
// header is allowed), then the bytes the peer sends, after which it finishes sending.
//
// What must hold: the phase always ends (no hang); the answer is nothing (an incomplete request)
// or one of 101, 400, 403, 426 (with its Upgrade and version headers), 431; admission is asked
// only about a well-formed WebSocket upgrade, is told the first Origin header (any letter case)
// or none, and its answer alone decides between 101 and 403; 431 only for a request whose header
// does not end within the 8 KiB cap, and no such request is ever admitted.

#include <boost/asio/io_context.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "access/HelperPass.h"
#include "config/AudioKit.h"
#include "config/SerialQueue.h"
#include "server/HelperServer.h"
#include "server/WebSocketLimits.h"
#include "server/WebSocketUpgrade.h"
#include "support/Chunks.h"
#include "support/FuzzDoubles.h"
#include "support/InMemoryPage.h"
#include "support/QuietLog.h"
#include "support/SocketPair.h"

namespace {

using namespace velmora;
using boost::system::error_code;

[[noreturn]] void failure(const std::string& what, std::string_view request,
                          std::string_view answer) {
    std::fprintf(stderr,
                 "upgrade_request_fuzzer: %s\n  request (%zu bytes): %.*s\n  answer: %.*s\n",
                 what.c_str(), request.size(),
                 static_cast<int>(std::min<std::size_t>(request.size(), 2000)), request.data(),
                 static_cast<int>(std::min<std::size_t>(answer.size(), 2000)), answer.data());
    std::abort();
}

// What the origin hook was asked during one input, and what it answered.
struct OriginQuestion {
    bool asked = false;
    std::optional<std::string> origin;
    bool answer = false;
};

OriginQuestion question;
constexpr std::uint16_t port = 8765;
bool allowAbsentOrigin = false;

struct Harness {
    SerialQueue mainQueue{"com.velmora.fuzz.main"};
    std::shared_ptr<HelperServer> server;

    Harness() {
        fuzzing::sendLogNowhere();
        ServerPolicy policy{
            .port = [] { return port; },
            .isOriginAllowed =
                [](const std::optional<std::string>& origin) {
                    question.asked = true;
                    question.origin = origin;
                    question.answer =
                        origin ? origin->starts_with("https://page") : allowAbsentOrigin;
                    return question.answer;
                },
        };
        server = HelperServer::create(std::make_unique<fuzzing::UnavailableTap>(),
                                      std::make_shared<fuzzing::RefusedPermission>(),
                                      std::make_shared<fuzzing::NoMicrophoneUsers>(), mainQueue,
                                      std::move(policy), {}, HelperPass::keys(),
                                      std::make_shared<fuzzing::OwnPeers>());
    }
};

Harness& harness() {
    static Harness* instance = new Harness();  // never destroyed: libFuzzer exits from anywhere
    return *instance;
}

// A session that was admitted: nothing to do but to end.
class IdleHandler final : public WebSocketSession::Handler {
  public:
    void opened(WebSocketSession&) override {}
    void textReceived(WebSocketSession&, std::string_view) override {}
    void ended(WebSocketSession&, const error_code&) override {}
};

// Admission as the helper does it, with the request checked on the way.
class OriginAdmission final : public WebSocketListenerDelegate {
  public:
    explicit OriginAdmission(std::string_view input) : input_(input) {}

    void stateChanged(WebSocketListener&, State, const error_code&) override {}

    // The peer and Host checks need a real connection; the origin decision is what is fuzzed.
    velmora::Admission admit(const WebSocketSession::UpgradeRequest& request,
                             const ConnectionEndpoints&) override {
        namespace http = boost::beast::http;
        // Everything the WebSocket layer checks before it answers 101.
        if (!boost::beast::websocket::is_upgrade(request) ||
            request[http::field::sec_websocket_version] != "13" ||
            request[http::field::sec_websocket_key].empty() ||
            request[http::field::sec_websocket_key].size() > 24 ||
            request.count(http::field::host) == 0) {
            failure("admission asked about a request that is no WebSocket upgrade", input_, {});
        }
        std::optional<std::string> firstOrigin;
        for (const auto& field : request) {
            if (boost::beast::iequals(field.name_string(), "origin")) {
                firstOrigin = std::string(field.value());
                break;
            }
        }
        question = {};
        // The server decides on the request as it arrives from one of this user's pages
        // naming the helper in Host; a page it admits is answered 101.
        auto asServed = request;
        asServed.set(http::field::host, "127.0.0.1:" + std::to_string(port));
        const bool admitted =
            fuzzing::InMemoryPage(*harness().server, asServed, port).readUpgradeAnswer() == 101;
        if (!question.asked) failure("admission did not ask the origin hook", input_, {});
        if (question.origin != firstOrigin) {
            failure("the origin hook was not given the first Origin header", input_, {});
        }
        if (admitted != question.answer) failure("admission overrode the origin hook", input_, {});
        asked_ = true;
        admitted_ = admitted;
        return admitted ? velmora::Admission::admitted : velmora::Admission::forbidden;
    }

    std::shared_ptr<WebSocketSession::Handler> sessionAdmitted(
        const std::shared_ptr<WebSocketSession>&) override {
        return std::make_shared<IdleHandler>();
    }

    bool asked() const { return asked_; }
    bool admitted() const { return admitted_; }

  private:
    std::string_view input_;
    bool asked_ = false;
    bool admitted_ = false;
};

// Whether the request's header (through its first empty line) fits in `cap` bytes.
bool headerEndsWithin(std::string_view request, std::size_t cap) {
    const auto end = request.find("\r\n\r\n");
    return end != std::string_view::npos && end + 4 <= cap;
}

int statusOf(std::string_view answer) {
    static constexpr std::string_view prefix = "HTTP/1.1 ";
    if (!answer.starts_with(prefix) || answer.size() < prefix.size() + 4) return -1;
    int status = 0;
    for (std::size_t i = prefix.size(); i < prefix.size() + 3; ++i) {
        if (answer[i] < '0' || answer[i] > '9') return -1;
        status = status * 10 + (answer[i] - '0');
    }
    return answer[prefix.size() + 3] == ' ' ? status : -1;
}

bool hasHeaderLine(std::string_view answer, std::string_view line) {
    const auto end = answer.find("\r\n\r\n");
    return answer.substr(0, end).find(line) != std::string_view::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    harness();
    fuzzing::Chunks chunks(data[0]);
    allowAbsentOrigin = (data[0] & 0x80) != 0;
    const std::string_view request(reinterpret_cast<const char*>(data + 1), size - 1);

    const WebSocketLimits limits;
    boost::asio::io_context context;
    fuzzing::SocketPair sockets(context);
    auto admission = std::make_shared<OriginAdmission>(request);
    auto upgrade = std::make_shared<WebSocketUpgrade>(std::move(sockets.server), limits, admission);
    int finishedCount = 0;
    upgrade->run([&] { ++finishedCount; });
    upgrade.reset();

    std::size_t sent = 0;
    while (sent < request.size() && !sockets.serverClosed()) {
        const std::size_t piece = std::min(chunks.next(), request.size() - sent);
        const std::size_t taken = sockets.writeSome(request.substr(sent, piece));
        sent += taken;
        context.poll();
        sockets.readAvailable();
        if (taken == 0 && context.stopped()) break;
        context.restart();
    }
    sockets.finishWriting();

    // Everything left must settle by itself: the request is complete or has ended.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!context.stopped()) {
        context.run_for(std::chrono::milliseconds(50));
        sockets.readAvailable();
        if (std::chrono::steady_clock::now() > deadline) {
            failure("the upgrade phase did not end", request, sockets.received());
        }
    }
    sockets.readAvailable();
    const std::string_view answer = sockets.received();

    if (finishedCount != 1)
        failure("the upgrade phase did not report its end once", request, answer);
    const int status = answer.empty() ? 0 : statusOf(answer);
    if (fuzzing::verbose()) {
        std::fprintf(stderr, "answer %d, admission %s\n", status,
                     !admission->asked()     ? "not asked"
                     : admission->admitted() ? "admitted"
                                             : "refused");
    }
    switch (status) {
        case 0:
            if (admission->asked())
                failure("an admission decision went unanswered", request, answer);
            break;
        case 101:
        case 403:
            if (!admission->asked() || admission->admitted() != (status == 101)) {
                failure("answer does not follow the admission decision", request, answer);
            }
            break;
        case 426:
            if (admission->asked()) failure("426 after admission", request, answer);
            if (!hasHeaderLine(answer, "\r\nUpgrade: websocket\r\n") ||
                !hasHeaderLine(answer, "\r\nSec-WebSocket-Version: 13\r\n")) {
                failure("426 without its Upgrade and version headers", request, answer);
            }
            break;
        case 400:
            if (admission->asked()) failure("400 after admission", request, answer);
            break;
        case 431:
            if (admission->asked() || headerEndsWithin(request, limits.maxHeaderBytes)) {
                failure("431 for a request within the header cap", request, answer);
            }
            break;
        default:
            failure("unexpected answer", request, answer);
    }
    if (admission->asked() && !headerEndsWithin(request, limits.maxHeaderBytes)) {
        failure("a request beyond the header cap reached admission", request, answer);
    }
    fuzzing::drainLogEvery(512);
    return 0;
}
