#pragma once

#include <optional>
#include <string>
#include <string_view>

// P-256 ECDSA signatures in their two encodings: passes carry the raw form (r then s, each a
// 32-byte big-endian integer); OpenSSL signs and verifies the DER form.
namespace velmora::EcdsaSignature {

inline constexpr std::size_t rawSize = 64;

// The DER form of a raw r||s signature, or nothing when the raw form is not 64 bytes.
std::optional<std::string> derFromRaw(std::string_view raw);

// The raw r||s form of a DER signature, or nothing when it is not a P-256 size DER signature.
std::optional<std::string> rawFromDer(std::string_view der);

}  // namespace velmora::EcdsaSignature
