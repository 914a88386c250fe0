#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "access/PassVerdict.h"
#include "access/VerificationKey.h"

// Checks the start pass a page must show before it gets audio: signed by the web application's
// server with a built-in key, bound to the page's origin, recent, and never used before.
namespace velmora::HelperPass {

// The key of standard base64 text of a 65-byte X9.63 uncompressed P-256 point, or nothing when
// the text or the point is not valid.
std::optional<VerificationKey> keyFromBase64(std::string_view base64X963);

// The built-in keys: the production key, then the development keys; entries that do not
// decode are left out. Built once, on first use, from the keys' text alone: OpenSSL reads each
// key when it first checks a pass.
const std::vector<VerificationKey>& keys();

// How many built-in keys there are, and how many of them are development keys.
struct KeyCount {
    std::size_t total = 0;
    std::size_t development = 0;
};
KeyCount keyCount();

// The line the helper logs at start about the keys it trusts, for example
// "Trusting 1 pass-signing key, no development key".
std::string trustedKeysText(KeyCount count);

// The largest allowed distance, in seconds and either direction, between a pass's issue time
// and now.
inline constexpr double window = 300.0;

// Whether a page of this origin must show a pass. Every origin must.
bool required(std::string_view origin);

// Checks a pass (absent when the page sent none) shown by a page of origin, at the current time
// or at now (seconds since 1970), against the built-in keys or the given ones. An accepted
// pass's nonce is recorded and refused as "used" for the next 600 seconds.
Verdict check(const std::optional<std::string>& pass, std::string_view origin);
Verdict check(const std::optional<std::string>& pass, std::string_view origin, double now);
Verdict check(const std::optional<std::string>& pass, std::string_view origin, double now,
              const std::vector<VerificationKey>& keys);

}  // namespace velmora::HelperPass
