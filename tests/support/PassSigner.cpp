#include "support/PassSigner.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "access/Base64.h"
#include "access/EcdsaSignature.h"
#include "config/BuildConfig.h"

namespace velmora {

PassSigner::PassSigner(PassIssuer issuer) : issuer_(std::move(issuer)) {}

PassSigner PassSigner::generate() {
    return PassSigner(PassIssuer::generate());
}

PassSigner PassSigner::development() {
    std::ifstream file(VELMORA_DEV_PASS_KEY_FILE, std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read the development key " VELMORA_DEV_PASS_KEY_FILE);
    }
    return PassSigner(PassIssuer::fromPem(std::string(std::istreambuf_iterator<char>(file), {})));
}

bool PassSigner::developmentKeyIsBuiltIn() {
    return std::ranges::find(build::devKeys, development().publicKeyBase64()) !=
           std::end(build::devKeys);
}

std::string PassSigner::publicKeyBase64() const {
    return issuer_.publicKeyBase64();
}

HelperPass::VerificationKey PassSigner::verificationKey() const {
    auto key = HelperPass::keyFromBase64(publicKeyBase64());
    if (!key) {
        throw std::logic_error("a generated public key did not load as a verification key");
    }
    return *key;
}

std::string PassSigner::issue(std::string_view origin, double iat, std::string_view nonce) const {
    return issuer_.issue(origin, iat, nonce);
}

std::string PassSigner::signRaw(std::string_view payload) const {
    return issuer_.signRaw(payload);
}

std::string PassSigner::rawSignature(std::string_view payload) const {
    return issuer_.sign(payload);
}

std::string PassSigner::derSignature(std::string_view payload) const {
    return EcdsaSignature::derFromRaw(rawSignature(payload)).value();
}

std::string PassSigner::uniqueNonce() {
    return PassIssuer::randomNonce();
}

}  // namespace velmora
