#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace velmora::HelperPass {

// A P-256 public key that start passes are checked against. Cheap to copy: copies share the
// one OpenSSL key, which is safe to use from several threads at once.
class VerificationKey {
  public:
    // The key of a 65-byte ANSI X9.63 uncompressed point (0x04, X, Y), or nothing when the bytes
    // are not a point on P-256.
    static std::optional<VerificationKey> fromX963(std::string_view point);

    // The same key, handed to OpenSSL only when it first checks a signature: until a page asks
    // to start, the helper touches none of OpenSSL's key code. Nothing when the bytes do not have
    // the form of an uncompressed point; a point that turns out to be off the curve verifies
    // nothing.
    static std::optional<VerificationKey> parsedOnFirstUse(std::string_view point);

    // Whether derSignature is this key's ECDSA signature over SHA-256 of message.
    bool verifies(std::string_view message, std::string_view derSignature) const;

  private:
    struct Parsed;
    explicit VerificationKey(std::shared_ptr<Parsed> parsed);

    std::shared_ptr<Parsed> parsed_;
};

}  // namespace velmora::HelperPass
