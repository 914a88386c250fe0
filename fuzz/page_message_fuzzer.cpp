// Feeds one text message per input to the helper server's page-message handling, with no
// connection: JSON parsing, the dispatch on "type", the start pass check and the replies.
//
// Input: one flags byte, then the message text, optionally followed by a NUL byte and a pass
// payload.
//   flags bits 0-1  the page's origin (from `origins` below)
//   flags bit 2     "$PASS" in the text becomes a freshly issued, valid pass for that origin
//   payload         when present, "$PASS" becomes a pass whose payload is exactly these bytes,
//                   signed with the server's key, so the payload parser is reached too
//
// Every reply must be compact JSON with a string "type", and the reply to each kind of command
// must be the one the protocol fixes.

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
        // Pages come without a connection here: neither port nor origin is ever asked.
        const AudioKitConfig defaults = AudioKitConfig::defaults();
        server = HelperServer::create(
            std::make_unique<fuzzing::UnavailableTap>(),
            std::make_shared<fuzzing::RefusedPermission>(),
            std::make_shared<fuzzing::NoMicrophoneUsers>(), mainQueue,
            ServerPolicy{.port = defaults.port, .isOriginAllowed = defaults.isOriginAllowed},
            timings, {*key});
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
            // whose answer comes after this page has gone.
            if (parsed.size() > 1) failure("more than one reply to start", text, replies);
            if (parsed.size() == 1) {
                const auto& reply = parsed[0];
                const auto code = reply.value("code", std::string());
                if (reply["type"] != "error" ||
                    (code != "pass_required" && code != "pass_invalid")) {
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

    const auto replies = h.server->handleTextWithoutConnection(origin, text);
    if (fuzzing::verbose()) {
        std::fprintf(stderr, "origin %s, message %s\n", origin.c_str(), text.c_str());
        for (const auto& reply : replies) std::fprintf(stderr, "  reply %s\n", reply.c_str());
    }
    checkReplies(text, replies);
    fuzzing::drainLogEvery(512);
    return 0;
}
