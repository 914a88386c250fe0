#pragma once

#include <string>
#include <string_view>

#include "access/HelperPass.h"
#include "access/PassIssuer.h"

namespace velmora {

// Signs start passes in tests with a key pair made for the test, whose public half the test
// hands to HelperPass::check as its keys.
class PassSigner {
  public:
    // A signer with a fresh random key pair.
    static PassSigner generate();

    // A signer with the committed development key, whose passes the built-in keys accept in
    // builds that trust it (see developmentKeyIsBuiltIn).
    static PassSigner development();

    // Whether this build's development keys hold the committed key's public half (not so in
    // release builds).
    static bool developmentKeyIsBuiltIn();

    // The public key as base64 of its X9.63 point, as the build takes it.
    std::string publicKeyBase64() const;
    HelperPass::VerificationKey verificationKey() const;

    // A pass for origin issued at iat; a nonce no other pass in this process uses by default.
    std::string issue(std::string_view origin, double iat,
                      std::string_view nonce = uniqueNonce()) const;

    // A pass carrying exactly these payload bytes, validly signed.
    std::string signRaw(std::string_view payload) const;

    // The signature over payload, raw r||s (64 bytes) or DER-encoded.
    std::string rawSignature(std::string_view payload) const;
    std::string derSignature(std::string_view payload) const;

    static std::string uniqueNonce();

  private:
    explicit PassSigner(PassIssuer issuer);

    PassIssuer issuer_;
};

}  // namespace velmora
