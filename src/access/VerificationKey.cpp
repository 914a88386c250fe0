#include "access/VerificationKey.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include <mutex>

namespace velmora::HelperPass {
namespace {

constexpr std::size_t x963PointSize = 65;
constexpr unsigned char uncompressedPointTag = 0x04;

template <typename Type, void (*release)(Type*)>
struct Releaser {
    void operator()(Type* object) const { release(object); }
};
using ContextPointer = std::unique_ptr<EVP_PKEY_CTX, Releaser<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using DigestPointer = std::unique_ptr<EVP_MD_CTX, Releaser<EVP_MD_CTX, EVP_MD_CTX_free>>;
using ParametersPointer = std::unique_ptr<OSSL_PARAM, Releaser<OSSL_PARAM, OSSL_PARAM_free>>;
using BuilderPointer =
    std::unique_ptr<OSSL_PARAM_BLD, Releaser<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>>;

std::shared_ptr<EVP_PKEY> publicKeyFromPoint(std::string_view point) {
    BuilderPointer builder(OSSL_PARAM_BLD_new());
    if (!builder ||
        OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, "prime256v1",
                                        0) != 1 ||
        OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                         point.size()) != 1) {
        return nullptr;
    }
    ParametersPointer parameters(OSSL_PARAM_BLD_to_param(builder.get()));
    ContextPointer context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
    EVP_PKEY* key = nullptr;
    if (!parameters || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
        EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters.get()) != 1) {
        return nullptr;
    }
    std::shared_ptr<EVP_PKEY> shared(key, EVP_PKEY_free);
    // fromdata already refuses points off the curve; the public check also refuses infinity.
    ContextPointer checker(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    if (!checker || EVP_PKEY_public_check(checker.get()) != 1) {
        return nullptr;
    }
    return shared;
}

bool hasX963Form(std::string_view point) {
    return point.size() == x963PointSize &&
           static_cast<unsigned char>(point.front()) == uncompressedPointTag;
}

}  // namespace

// The point, and OpenSSL's key once it has been made from it (null when the point is refused).
struct VerificationKey::Parsed {
    explicit Parsed(std::string_view bytes) : point(bytes) {}

    EVP_PKEY* key() {
        std::call_once(once, [this] {
            parsedKey = publicKeyFromPoint(point);
            // A refused key leaves its reasons on this thread's OpenSSL error queue; nobody
            // reads them.
            ERR_clear_error();
        });
        return parsedKey.get();
    }

    const std::string point;
    std::once_flag once;
    std::shared_ptr<EVP_PKEY> parsedKey;
};

std::optional<VerificationKey> VerificationKey::fromX963(std::string_view point) {
    std::optional<VerificationKey> key = parsedOnFirstUse(point);
    if (!key || !key->parsed_->key()) {
        return std::nullopt;
    }
    return key;
}

std::optional<VerificationKey> VerificationKey::parsedOnFirstUse(std::string_view point) {
    if (!hasX963Form(point)) {
        return std::nullopt;
    }
    return VerificationKey(std::make_shared<Parsed>(point));
}

VerificationKey::VerificationKey(std::shared_ptr<Parsed> parsed) : parsed_(std::move(parsed)) {}

bool VerificationKey::verifies(std::string_view message, std::string_view derSignature) const {
    EVP_PKEY* key = parsed_->key();
    if (!key) {
        return false;
    }
    DigestPointer context(EVP_MD_CTX_new());
    const bool verified =
        context && EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
        EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(derSignature.data()),
                         derSignature.size(),
                         reinterpret_cast<const unsigned char*>(message.data()),
                         message.size()) == 1;
    ERR_clear_error();
    return verified;
}

}  // namespace velmora::HelperPass
