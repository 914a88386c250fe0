// Sends one text message per input to the helper server from a page connected over an in-memory
// stream: JSON parsing, the dispatch on "type", the start pass check and the replies.
//
// Input: one flags byte, then the message text, optionally followed by a NUL byte and a pass
// payload.
//   flags bits 0-1  the page's origin (from `origins` below)
//   flags bit 2     "$PASS" in the text becomes a freshly issued, valid pass for that origin
//   payload         when present, "$PASS" becomes a pass whose payload is exactly these bytes,
//                   signed with the server's key, so the payload parser is reached too
//
// Every reply (what the page is sent before the answer to a ping that follows) must be compact
// JSON with a string "type", and the reply to each kind of command must be the one the protocol
// fixes. A message that is not UTF-8 must close the connection unanswered.

#include <boost/beast/http/field.hpp>
#include <boost/beast/http/verb.hpp>
#include <boost/beast/websocket/detail/utf8_checker.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "access/HelperPass.h"
#include "access/PassIssuer.h"
#include "config/AudioKit.h"
#include "config/SerialQueue.h"
#include "server/HelperServer.h"
#include "server/PageCommand.h"
#include "server/ProtocolMessages.h"
#include "support/FuzzDoubles.h"
#include "support/InMemoryPage.h"
#include "support/QuietLog.h"

namespace {

using namespace velmora;

// Origins as a page's handshake could have left them: ordinary, empty, local and unnormalised.
const std::string origins[] = {
    "https://page.example",
    "",
    "http://localhost:5173",
    "HTTPS://Page.Example/",
};

[[noreturn]] void failure(const std::string& what, std::string_view text,
                          const std::vector<std::string>& replies) {
    std::fprintf(stderr, "page_message_fuzzer: %s\n  message: %.*s\n", what.c_str(),
                 static_cast<int>(text.size()), text.data());
    for (const auto& reply : replies) std::fprintf(stderr, "  reply: %s\n", reply.c_str());
    std::abort();
}

struct Harness {
    static constexpr std::uint16_t port = 8765;
    SerialQueue mainQueue{"com.velmora.fuzz.main"};
    PassIssuer issuer = PassIssuer::generate();
    std::shared_ptr<HelperServer> server;

    Harness() {
        fuzzing::sendLogNowhere();
        auto key = HelperPass::keyFromBase64(issuer.publicKeyBase64());
        if (!key) std::abort();
        // Each accepted start arms a permission time-out; a short one keeps few of them pending.
        HelperServerTimings timings;
        timings.permissionTimeout = std::chrono::seconds(1);
        // Every origin is admitted: what pages of each send is what is fuzzed.
        server = HelperServer::create(
            std::make_unique<fuzzing::UnavailableTap>(),
            std::make_shared<fuzzing::RefusedPermission>(),
            std::make_shared<fuzzing::NoMicrophoneUsers>(), mainQueue,
            ServerPolicy{.port = [] { return port; },
                         .isOriginAllowed = [](const std::optional<std::string>&) { return true; }},
            timings, {*key}, std::make_shared<fuzzing::OwnPeers>());
    }
};

Harness& harness() {
    static Harness* instance = new Harness();  // never destroyed: libFuzzer exits from anywhere
    return *instance;
}

std::string replacePass(std::string text, const std::string& pass) {
    static constexpr std::string_view placeholder = "$PASS";
    for (auto at = text.find(placeholder); at != std::string::npos;
         at = text.find(placeholder, at + pass.size())) {
        text.replace(at, placeholder.size(), pass);
    }
    return text;
}

const std::string pong = ProtocolMessages::pong().dump();

WebSocketSession::UpgradeRequest upgradeRequest(const std::string& origin) {
    namespace http = boost::beast::http;
    WebSocketSession::UpgradeRequest request{http::verb::get, "/", 11};
    request.set(http::field::host, "127.0.0.1:" + std::to_string(Harness::port));
    request.set(http::field::upgrade, "websocket");
    request.set(http::field::connection, "Upgrade");
    request.set(http::field::sec_websocket_key, "dGhlIHNhbXBsZSBub25jZQ==");
    request.set(http::field::sec_websocket_version, "13");
    request.set(http::field::origin, origin);
    return request;
}

// Connects a page of `origin`, sends `text` and then a ping, and returns what the page is sent
// in between; nothing when the helper closes the connection instead.
std::optional<std::vector<std::string>> exchange(Harness& h, const std::string& origin,
                                                 const std::string& text) {
    fuzzing::InMemoryPage page(*h.server, upgradeRequest(origin), Harness::port);
    if (page.readUpgradeAnswer() != 101) failure("the page was not admitted", text, {});
    const auto hello = page.readFrame();
    if (!hello || hello->second.find(R"("type":"hello")") == std::string::npos) {
        failure("the page was not greeted", text, {});
    }
    // A write fails only once the helper has closed the connection, which the reads then see.
    if (page.writeFrame(0x1, text)) page.writeFrame(0x1, R"({"type":"ping"})");
    // A ping's own answer is a pong too: the second one then answers the ping sent after it.
    int pongsLeft = PageCommand::parse(text).kind == PageCommand::Kind::ping ? 2 : 1;
    std::vector<std::string> replies;
    for (;;) {
        auto frame = page.readFrame();
        if (!frame || frame->first == 0x8) {
            if (!replies.empty())
                failure("replies before the connection was closed", text, replies);
            return std::nullopt;
        }
        if (frame->first != 0x1) continue;
        if (frame->second == pong && --pongsLeft == 0) return replies;
        replies.push_back(std::move(frame->second));
    }
}

void checkReplies(std::string_view text, const std::vector<std::string>& replies) {
    std::vector<nlohmann::json> parsed;
    for (const auto& reply : replies) {
        auto json = nlohmann::json::parse(reply, nullptr, false);
        if (!json.is_object() || !json.contains("type") || !json["type"].is_string()) {
            failure("a reply is not a JSON object with a string type", text, replies);
        }
        if (json.dump() != reply) failure("a reply is not compact JSON", text, replies);
        parsed.push_back(std::move(json));
    }

    const PageCommand command = PageCommand::parse(text);
    const auto only = [&](const nlohmann::json& expected) {
        if (parsed.size() != 1 || parsed[0] != expected) {
            failure("expected exactly " + expected.dump(), text, replies);
        }
    };
    switch (command.kind) {
        case PageCommand::Kind::malformed:
            only(ProtocolMessages::error("bad_request", ProtocolMessages::malformedRequestText));
            return;
        case PageCommand::Kind::unknownType:
            only(ProtocolMessages::error("bad_request",
                                         ProtocolMessages::unknownTypeText(command.type)));
            return;
        case PageCommand::Kind::ping:
            only(ProtocolMessages::pong());
            return;
        case PageCommand::Kind::stop:
            only(ProtocolMessages::stopped());
            return;
        case PageCommand::Kind::start:
            // A refused pass is answered at once; an accepted one waits for the permission,
            // which is refused, before or after the ping that follows.
            if (parsed.size() > 1) failure("more than one reply to start", text, replies);
            if (parsed.size() == 1) {
                const auto& reply = parsed[0];
                const auto code = reply.value("code", std::string());
                if (reply["type"] != "error" ||
                    (code != "pass_required" && code != "pass_invalid" &&
                     code != "permission_denied")) {
                    failure("start answered with something other than a pass error", text, replies);
                }
                if (code == "pass_required" && command.pass && !command.pass->empty()) {
                    failure("a pass was shown but reported missing", text, replies);
                }
            }
            return;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    Harness& h = harness();
    const std::uint8_t flags = data[0];
    const std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::string& origin = origins[flags & 3];

    std::string text(rest.substr(0, rest.find('\0')));
    if (rest.find('\0') != std::string_view::npos) {
        const std::string payload(rest.substr(rest.find('\0') + 1));
        text = replacePass(std::move(text), h.issuer.signRaw(payload));
    } else if ((flags & 4) != 0) {
        text = replacePass(std::move(text), h.issuer.issue(origin, PassIssuer::currentTime(),
                                                           PassIssuer::randomNonce()));
    }

    const auto exchanged = exchange(h, origin, text);
    const bool utf8 = boost::beast::websocket::detail::check_utf8(text.data(), text.size());
    if (exchanged.has_value() != utf8) {
        failure(utf8 ? "a UTF-8 message closed the connection" : "a message not in UTF-8 was taken",
                text, exchanged.value_or(std::vector<std::string>{}));
    }
    if (!exchanged) return 0;
    const auto& replies = *exchanged;
    if (fuzzing::verbose()) {
        std::fprintf(stderr, "origin %s, message %s\n", origin.c_str(), text.c_str());
        for (const auto& reply : replies) std::fprintf(stderr, "  reply %s\n", reply.c_str());
    }
    checkReplies(text, replies);
    fuzzing::drainLogEvery(512);
    return 0;
}
