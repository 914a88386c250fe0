#pragma once

#include <openssl/types.h>

#include <memory>
#include <optional>
#include <string_view>

namespace velmora::HelperPass {

// A P-256 public key that start passes are checked against. Cheap to copy: copies share the
// one OpenSSL key, which is safe to use from several threads at once.
class VerificationKey {
  public:
    // The key of a 65-byte ANSI X9.63 uncompressed point (0x04, X, Y), or nothing when the bytes
    // are not a point on P-256.
    static std::optional<VerificationKey> fromX963(std::string_view point);

    // Whether derSignature is this key's ECDSA signature over SHA-256 of message.
    bool verifies(std::string_view message, std::string_view derSignature) const;

  private:
    explicit VerificationKey(std::shared_ptr<EVP_PKEY> key);

    std::shared_ptr<EVP_PKEY> key_;
};

}  // namespace velmora::HelperPass
