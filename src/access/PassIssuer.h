#pragma once

#include <openssl/types.h>

#include <memory>
#include <string>
#include <string_view>

namespace velmora {

// Issues start passes with a P-256 private key, as the web application's server does:
//   pass      = base64url(payload) "." base64url(signature), both without padding
//   payload   = {"v":1,"origin":"https://app.example","iat":1700000000,"nonce":"..."}
//   signature = ECDSA P-256 over SHA-256 of the payload bytes, raw r||s (64 bytes, not DER)
// Failures throw std::runtime_error with a sentence fit to show to a person.
class PassIssuer {
  public:
    // A new random key pair.
    static PassIssuer generate();

    // The key in PEM text (PKCS #8 "PRIVATE KEY" or SEC 1 "EC PRIVATE KEY"); it must be P-256.
    static PassIssuer fromPem(std::string_view pem);

    // The private key as PKCS #8 PEM text.
    std::string privateKeyPem() const;

    // The public key as the helper's build takes it: standard base64 of the 65-byte X9.63
    // uncompressed point.
    std::string publicKeyBase64() const;

    // A pass for a page of origin, issued at iat (seconds since 1970), with a single-use nonce.
    std::string issue(std::string_view origin, double iat, std::string_view nonce) const;

    // A pass whose payload is exactly these bytes, signed.
    std::string signRaw(std::string_view payload) const;

    // The raw 64-byte r||s signature over message.
    std::string sign(std::string_view message) const;

    // 16 random bytes in base64url: a fresh nonce.
    static std::string randomNonce();

    // Seconds since 1970, the default issue time.
    static double currentTime();

  private:
    explicit PassIssuer(std::shared_ptr<EVP_PKEY> key);

    std::shared_ptr<EVP_PKEY> key_;
};

}  // namespace velmora
