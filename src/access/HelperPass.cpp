#include "access/HelperPass.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "access/Base64.h"
#include "access/EcdsaSignature.h"
#include "access/OriginText.h"
#include "access/PassPayload.h"
#include "access/UsedNonces.h"
#include "config/BuildConfig.h"

namespace velmora::HelperPass {
namespace {

// Twice the window: a nonce is remembered for as long as its pass could still be accepted.
constexpr double nonceRetention = 600.0;

UsedNonces& usedNonces() {
    static UsedNonces nonces(nonceRetention);
    return nonces;
}

double currentTime() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// One pass part: base64url or standard base64, padded or not.
std::optional<std::string> decodePart(std::string_view part) {
    std::string text(part);
    std::replace(text.begin(), text.end(), '-', '+');
    std::replace(text.begin(), text.end(), '_', '/');
    text.append((4 - text.size() % 4) % 4, '=');
    return Base64::decode(text);
}

std::string normalize(std::string_view origin) {
    return std::string(OriginText::withoutTrailingSlashes(
        OriginText::lowercased(OriginText::trimWhitespace(origin))));
}

}  // namespace

std::optional<VerificationKey> keyFromBase64(std::string_view base64X963) {
    const auto point = Base64::decode(base64X963);
    return point ? VerificationKey::fromX963(*point) : std::nullopt;
}

namespace {

// A built-in key, handed to OpenSSL at the first pass check rather than at launch: parsing keys
// touches megabytes of OpenSSL that an idle helper never needs. A release's configure has
// already refused a production key that is not a point on the curve.
std::optional<VerificationKey> builtInKey(std::string_view base64X963) {
    const auto point = Base64::decode(base64X963);
    return point ? VerificationKey::parsedOnFirstUse(*point) : std::nullopt;
}

}  // namespace

const std::vector<VerificationKey>& keys() {
    static const std::vector<VerificationKey> builtIn = [] {
        std::vector<VerificationKey> result;
        const auto add = [&](std::string_view text) {
            if (auto key = builtInKey(text)) {
                result.push_back(std::move(*key));
            }
        };
        add(build::productionKey);
        std::for_each(std::begin(build::devKeys), std::end(build::devKeys), add);
        return result;
    }();
    return builtIn;
}

KeyCount keyCount() {
    const auto development =
        std::count_if(std::begin(build::devKeys), std::end(build::devKeys),
                      [](std::string_view text) { return builtInKey(text).has_value(); });
    return {keys().size(), static_cast<std::size_t>(development)};
}

std::string trustedKeysText(KeyCount count) {
    if (count.total == 0) {
        return "Trusting no pass-signing key: every start pass will be refused";
    }
    std::string text = "Trusting " + std::to_string(count.total) + " pass-signing key" +
                       (count.total == 1 ? "" : "s");
    if (count.development == 0) {
        return text + ", no development key";
    }
    return text + ", of which " + std::to_string(count.development) +
           (count.development == 1 ? " is a development key" : " are development keys") +
           ": anyone can sign passes for this build";
}

bool required(std::string_view) {
    return true;
}

Verdict check(const std::optional<std::string>& pass, std::string_view origin) {
    return check(pass, origin, currentTime());
}

Verdict check(const std::optional<std::string>& pass, std::string_view origin, double now) {
    return check(pass, origin, now, keys());
}

Verdict check(const std::optional<std::string>& pass, std::string_view origin, double now,
              const std::vector<VerificationKey>& keys) {
    if (!pass || pass->empty()) {
        return Verdict::missing();
    }
    const std::size_t dot = pass->find('.');
    if (dot == std::string::npos || pass->find('.', dot + 1) != std::string::npos) {
        return Verdict::invalid("malformed");
    }
    const auto payloadBytes = decodePart(std::string_view(*pass).substr(0, dot));
    if (!payloadBytes) {
        return Verdict::invalid("malformed");
    }
    const auto signatureBytes = decodePart(std::string_view(*pass).substr(dot + 1));
    if (!signatureBytes) {
        return Verdict::invalid("malformed");
    }
    const auto signature = EcdsaSignature::derFromRaw(*signatureBytes);
    if (!signature) {
        return Verdict::invalid("malformed");
    }
    if (std::none_of(keys.begin(), keys.end(), [&](const VerificationKey& key) {
            return key.verifies(*payloadBytes, *signature);
        })) {
        return Verdict::invalid("signature");
    }
    const auto payload = PassPayload::parse(*payloadBytes);
    if (!payload) {
        return Verdict::invalid("payload");
    }
    if (normalize(payload->origin) != normalize(origin)) {
        return Verdict::invalid("origin");
    }
    // Written so that a NaN distance counts as too far.
    if (!(std::fabs(now - payload->iat) <= window)) {
        return Verdict::invalid("expired");
    }
    if (!usedNonces().claim(payload->nonce, now)) {
        return Verdict::invalid("used");
    }
    return Verdict::ok();
}

}  // namespace velmora::HelperPass
