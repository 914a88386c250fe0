#include "access/PassIssuer.h"

#include <openssl/bio.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>

#include <array>
#include <chrono>
#include <stdexcept>

#include "access/Base64.h"
#include "access/EcdsaSignature.h"
#include "access/PassPayload.h"

namespace velmora {
namespace {

constexpr const char* curveName = "prime256v1";  // P-256, also called secp256r1
constexpr std::size_t nonceBytes = 16;

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct DigestFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

[[noreturn]] void fail(const std::string& message) {
    ERR_clear_error();
    throw std::runtime_error(message);
}

bool isP256(EVP_PKEY* key) {
    std::array<char, 64> group{};
    return EVP_PKEY_is_a(key, "EC") == 1 &&
           EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group.data(),
                                          group.size(), nullptr) == 1 &&
           std::string_view(group.data()) == curveName;
}

}  // namespace

PassIssuer::PassIssuer(std::shared_ptr<EVP_PKEY> key) : key_(std::move(key)) {}

PassIssuer PassIssuer::generate() {
    EVP_PKEY* key = EVP_EC_gen(curveName);
    if (!key) {
        fail("could not generate a P-256 key pair");
    }
    return PassIssuer(std::shared_ptr<EVP_PKEY>(key, EVP_PKEY_free));
}

PassIssuer PassIssuer::fromPem(std::string_view pem) {
    std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    // No pass phrase: an encrypted key is refused rather than prompted for on the terminal.
    const auto noPassPhrase = [](char*, int, int, void*) { return 0; };
    EVP_PKEY* key =
        bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, noPassPhrase, nullptr) : nullptr;
    if (!key) {
        fail("not an unencrypted PEM private key");
    }
    std::shared_ptr<EVP_PKEY> shared(key, EVP_PKEY_free);
    if (!isP256(key)) {
        fail("the private key is not a P-256 (prime256v1) EC key");
    }
    return PassIssuer(std::move(shared));
}

std::string PassIssuer::privateKeyPem() const {
    std::unique_ptr<BIO, BioFree> bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_PrivateKey(bio.get(), key_.get(), nullptr, nullptr, 0, nullptr,
                                         nullptr) != 1) {
        fail("could not write the private key as PEM");
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(size));
}

std::string PassIssuer::publicKeyBase64() const {
    std::array<unsigned char, 65> point{};
    std::size_t size = 0;
    if (EVP_PKEY_get_octet_string_param(key_.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                        point.size(), &size) != 1 ||
        size != point.size()) {
        fail("could not read the public key");
    }
    return Base64::encode(std::string_view(reinterpret_cast<const char*>(point.data()), size));
}

std::string PassIssuer::issue(std::string_view origin, double iat, std::string_view nonce) const {
    return signRaw(
        PassPayload{.origin = std::string(origin), .iat = iat, .nonce = std::string(nonce)}.json());
}

std::string PassIssuer::signRaw(std::string_view payload) const {
    return Base64::encodeUrl(payload) + "." + Base64::encodeUrl(sign(payload));
}

std::string PassIssuer::sign(std::string_view message) const {
    std::unique_ptr<EVP_MD_CTX, DigestFree> context(EVP_MD_CTX_new());
    std::size_t size = 0;
    if (!context ||
        EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key_.get()) != 1 ||
        EVP_DigestSign(context.get(), nullptr, &size,
                       reinterpret_cast<const unsigned char*>(message.data()),
                       message.size()) != 1) {
        fail("could not sign the pass");
    }
    std::string der(size, '\0');
    if (EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(der.data()), &size,
                       reinterpret_cast<const unsigned char*>(message.data()),
                       message.size()) != 1) {
        fail("could not sign the pass");
    }
    der.resize(size);
    auto raw = EcdsaSignature::rawFromDer(der);
    if (!raw) {
        fail("could not convert the signature to its raw form");
    }
    return *raw;
}

std::string PassIssuer::randomNonce() {
    std::string bytes(nonceBytes, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()),
                   static_cast<int>(bytes.size())) != 1) {
        fail("could not make a random nonce");
    }
    return Base64::encodeUrl(bytes);
}

double PassIssuer::currentTime() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace velmora
