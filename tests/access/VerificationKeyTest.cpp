#include "access/VerificationKey.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "access/Base64.h"
#include "support/PassSigner.h"

namespace velmora {
namespace {

using HelperPass::VerificationKey;

std::string pointOf(const PassSigner& signer) {
    return Base64::decode(signer.publicKeyBase64()).value();
}

TEST(VerificationKeyTest, AKeyReadOnFirstUseChecksSignaturesAsAKeyReadAtOnce) {
    const PassSigner signer = PassSigner::generate();
    const auto later = VerificationKey::parsedOnFirstUse(pointOf(signer));
    const auto now = VerificationKey::fromX963(pointOf(signer));
    ASSERT_TRUE(later && now);
    const std::string message = "{\"origin\":\"https://app.velmora.example\"}";
    for (const VerificationKey& key : {*later, *now}) {
        EXPECT_TRUE(key.verifies(message, signer.derSignature(message)));
        EXPECT_FALSE(key.verifies(message + " ", signer.derSignature(message)));
        EXPECT_FALSE(key.verifies(message, PassSigner::generate().derSignature(message)));
        EXPECT_FALSE(key.verifies(message, "not a signature"));
    }
}

TEST(VerificationKeyTest, APointOffTheCurveIsRefusedAtOnceOrVerifiesNothingWhenReadLater) {
    const PassSigner signer = PassSigner::generate();
    std::string moved = pointOf(signer);
    moved[64] = static_cast<char>(moved[64] ^ 1);
    EXPECT_FALSE(VerificationKey::fromX963(moved));
    const auto later = VerificationKey::parsedOnFirstUse(moved);
    ASSERT_TRUE(later) << "only the point's form is checked before first use";
    EXPECT_FALSE(later->verifies("message", signer.derSignature("message")));
    EXPECT_FALSE(later->verifies("message", signer.derSignature("message")));
}

TEST(VerificationKeyTest, OtherPointFormsAreRefusedBeforeOpenSslSeesThem) {
    const std::string point = pointOf(PassSigner::generate());
    const char compressedTag = (point[64] & 1) ? '\x03' : '\x02';
    EXPECT_FALSE(VerificationKey::parsedOnFirstUse(compressedTag + point.substr(1, 32)));
    EXPECT_FALSE(VerificationKey::parsedOnFirstUse(point.substr(1)));
    EXPECT_FALSE(VerificationKey::parsedOnFirstUse(point + '\0'));
    EXPECT_FALSE(VerificationKey::parsedOnFirstUse(""));
}

// The server checks passes on several sessions' threads: the first checks may race to read the
// key, and every copy shares the one result.
TEST(VerificationKeyTest, CopiesOfAKeyReadOnFirstUseCheckFromSeveralThreadsAtOnce) {
    const PassSigner signer = PassSigner::generate();
    const auto key = VerificationKey::parsedOnFirstUse(pointOf(signer));
    ASSERT_TRUE(key);
    const std::string message = "payload";
    const std::string signature = signer.derSignature(message);
    std::atomic<int> verified{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([copy = *key, &message, &signature, &verified] {
            if (copy.verifies(message, signature)) ++verified;
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(verified.load(), 8);
}

}  // namespace
}  // namespace velmora
