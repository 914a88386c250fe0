#include "access/EcdsaSignature.h"

#include <openssl/bn.h>
#include <openssl/ecdsa.h>

#include <memory>

namespace velmora::EcdsaSignature {
namespace {

constexpr int scalarSize = rawSize / 2;

struct SignatureFree {
    void operator()(ECDSA_SIG* signature) const { ECDSA_SIG_free(signature); }
};
using SignaturePointer = std::unique_ptr<ECDSA_SIG, SignatureFree>;

const unsigned char* bytesOf(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace

std::optional<std::string> derFromRaw(std::string_view raw) {
    if (raw.size() != rawSize) {
        return std::nullopt;
    }
    SignaturePointer signature(ECDSA_SIG_new());
    BIGNUM* r = BN_bin2bn(bytesOf(raw), scalarSize, nullptr);
    BIGNUM* s = BN_bin2bn(bytesOf(raw) + scalarSize, scalarSize, nullptr);
    if (!signature || !r || !s || ECDSA_SIG_set0(signature.get(), r, s) != 1) {
        BN_free(r);
        BN_free(s);
        return std::nullopt;
    }
    const int size = i2d_ECDSA_SIG(signature.get(), nullptr);
    if (size <= 0) {
        return std::nullopt;
    }
    std::string der(static_cast<std::size_t>(size), '\0');
    auto* out = reinterpret_cast<unsigned char*>(der.data());
    if (i2d_ECDSA_SIG(signature.get(), &out) != size) {
        return std::nullopt;
    }
    return der;
}

std::optional<std::string> rawFromDer(std::string_view der) {
    const unsigned char* in = bytesOf(der);
    SignaturePointer signature(d2i_ECDSA_SIG(nullptr, &in, static_cast<long>(der.size())));
    if (!signature) {
        return std::nullopt;
    }
    std::string raw(rawSize, '\0');
    auto* out = reinterpret_cast<unsigned char*>(raw.data());
    if (BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), out, scalarSize) != scalarSize ||
        BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), out + scalarSize, scalarSize) !=
            scalarSize) {
        return std::nullopt;
    }
    return raw;
}

}  // namespace velmora::EcdsaSignature
