#include "access/HelperPass.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <latch>
#include <thread>

#include "access/Base64.h"
#include "config/BuildConfig.h"
#include "support/PassSigner.h"

namespace velmora {
namespace {

using HelperPass::Verdict;

constexpr double now = 1'700'000'000.0;
constexpr const char* origin = "https://app.example";

class HelperPassCheck : public testing::Test {
  protected:
    Verdict check(const std::optional<std::string>& pass, std::string_view pageOrigin = origin,
                  double at = now) const {
        return HelperPass::check(pass, pageOrigin, at, keys);
    }

    // A validly signed pass whose payload is the given JSON text.
    std::string signedPayload(std::string_view json) const { return signer.signRaw(json); }

    std::string payloadWith(std::string_view members) const {
        return std::string(R"({"origin":"https://app.example","iat":1700000000,"nonce":")") +
               PassSigner::uniqueNonce() + "\"" + std::string(members) + "}";
    }

    PassSigner signer = PassSigner::generate();
    std::vector<HelperPass::VerificationKey> keys = {signer.verificationKey()};
};

Verdict invalid(const char* reason) {
    return Verdict::invalid(reason);
}

std::pair<std::string, std::string> partsOf(const std::string& pass) {
    const auto dot = pass.find('.');
    return {pass.substr(0, dot), pass.substr(dot + 1)};
}

std::string padded(std::string part) {
    part.append((4 - part.size() % 4) % 4, '=');
    return part;
}

std::string standardAlphabet(std::string part) {
    std::replace(part.begin(), part.end(), '-', '+');
    std::replace(part.begin(), part.end(), '_', '/');
    return part;
}

// Verdict.

TEST(HelperPassVerdict, CarriesItsKindAndReason) {
    EXPECT_EQ(Verdict::ok().kind(), Verdict::Kind::ok);
    EXPECT_EQ(Verdict::missing().kind(), Verdict::Kind::missing);
    EXPECT_EQ(Verdict::invalid("used").kind(), Verdict::Kind::invalid);
    EXPECT_EQ(Verdict::invalid("used").reason(), "used");
    EXPECT_EQ(Verdict::ok().reason(), "");
    EXPECT_NE(Verdict::invalid("used"), Verdict::invalid("expired"));
}

// Accepting.

TEST_F(HelperPassCheck, AcceptsFreshPassForThePageOrigin) {
    EXPECT_EQ(check(signer.issue(origin, now)), Verdict::ok());
}

TEST_F(HelperPassCheck, AcceptsPassSignedByAnyOfTheKeys) {
    const PassSigner other = PassSigner::generate();
    keys.insert(keys.begin(), other.verificationKey());
    EXPECT_EQ(check(signer.issue(origin, now)), Verdict::ok());
    EXPECT_EQ(check(other.issue(origin, now)), Verdict::ok());
}

// Missing.

TEST_F(HelperPassCheck, AbsentPassIsMissing) {
    EXPECT_EQ(check(std::nullopt), Verdict::missing());
}

TEST_F(HelperPassCheck, EmptyPassIsMissing) {
    EXPECT_EQ(check(""), Verdict::missing());
}

TEST_F(HelperPassCheck, BlankPassIsMalformedNotMissing) {
    EXPECT_EQ(check(" "), invalid("malformed"));
}

// Malformed.

TEST_F(HelperPassCheck, PassWithoutDotIsMalformed) {
    const auto [payload, signature] = partsOf(signer.issue(origin, now));
    EXPECT_EQ(check(payload + signature), invalid("malformed"));
}

TEST_F(HelperPassCheck, PassWithThreePartsIsMalformed) {
    const std::string pass = signer.issue(origin, now);
    EXPECT_EQ(check(pass + ".AAAA"), invalid("malformed"));
    EXPECT_EQ(check(pass + "."), invalid("malformed"));
    EXPECT_EQ(check(".."), invalid("malformed"));
}

TEST_F(HelperPassCheck, SignatureOf63BytesIsMalformed) {
    const std::string payload = payloadWith("");
    const std::string signature = signer.rawSignature(payload).substr(0, 63);
    EXPECT_EQ(check(Base64::encodeUrl(payload) + "." + Base64::encodeUrl(signature)),
              invalid("malformed"));
}

TEST_F(HelperPassCheck, SignatureOf65BytesIsMalformed) {
    const std::string payload = payloadWith("");
    const std::string signature = signer.rawSignature(payload) + '\0';
    EXPECT_EQ(check(Base64::encodeUrl(payload) + "." + Base64::encodeUrl(signature)),
              invalid("malformed"));
}

TEST_F(HelperPassCheck, DerEncodedSignatureIsMalformed) {
    const std::string payload = payloadWith("");
    EXPECT_EQ(
        check(Base64::encodeUrl(payload) + "." + Base64::encodeUrl(signer.derSignature(payload))),
        invalid("malformed"));
}

TEST_F(HelperPassCheck, EmptySignaturePartIsMalformed) {
    const auto [payload, signature] = partsOf(signer.issue(origin, now));
    EXPECT_EQ(check(payload + "."), invalid("malformed"));
}

TEST_F(HelperPassCheck, PayloadPartThatIsNotBase64IsMalformed) {
    const auto [payload, signature] = partsOf(signer.issue(origin, now));
    EXPECT_EQ(check("e30!." + signature), invalid("malformed"));
    EXPECT_EQ(check(payload.substr(0, 4) + " " + payload.substr(4) + "." + signature),
              invalid("malformed"));
}

TEST_F(HelperPassCheck, SignaturePartThatIsNotBase64IsMalformed) {
    const auto [payload, signature] = partsOf(signer.issue(origin, now));
    EXPECT_EQ(check(payload + "." + signature + "\n"), invalid("malformed"));
    EXPECT_EQ(check(payload + "." + signature.substr(0, 10) + "=" + signature.substr(11)),
              invalid("malformed"));
}

TEST_F(HelperPassCheck, PartWithLengthRemainderOneIsMalformed) {
    const auto [payload, signature] = partsOf(signer.issue(origin, now));
    const std::string oddPayload = payload.size() % 4 == 1 ? payload : std::string(4 * 3 + 1, 'A');
    EXPECT_EQ(check(oddPayload + "." + signature), invalid("malformed"));
    EXPECT_EQ(check(payload + "." + signature + "A"), invalid("malformed"));
}

TEST_F(HelperPassCheck, TooMuchPaddingIsMalformed) {
    const auto [payload, signature] = partsOf(signer.issue(origin, now));
    EXPECT_EQ(check(payload + "." + padded(signature) + "===="), invalid("malformed"));
}

// Base64 forms.

TEST_F(HelperPassCheck, PaddedAndUnpaddedPartsAreAcceptedAlike) {
    const auto [payload, signature] = partsOf(signer.issue(origin, now));
    ASSERT_NE(payload.size() % 4, 0u) << "the payload's base64 should need padding";
    ASSERT_NE(signature.size() % 4, 0u);
    EXPECT_EQ(check(padded(payload) + "." + padded(signature)), Verdict::ok());

    const auto [payload2, signature2] = partsOf(signer.issue(origin, now));
    EXPECT_EQ(check(payload2 + "." + padded(signature2)), Verdict::ok());
    const auto [payload3, signature3] = partsOf(signer.issue(origin, now));
    EXPECT_EQ(check(padded(payload3) + "." + signature3), Verdict::ok());
}

TEST_F(HelperPassCheck, EitherBase64AlphabetIsAccepted) {
    // A signature's text that uses both URL-safe characters shows that both get translated.
    std::string pass;
    for (int attempt = 0; attempt < 1000 && pass.empty(); ++attempt) {
        const std::string candidate = signer.issue(origin, now);
        const auto signature = partsOf(candidate).second;
        if (signature.find('-') != std::string::npos && signature.find('_') != std::string::npos) {
            pass = candidate;
        }
    }
    ASSERT_FALSE(pass.empty());
    const auto [payload, signature] = partsOf(pass);
    EXPECT_EQ(check(standardAlphabet(payload) + "." + standardAlphabet(signature)), Verdict::ok());

    const auto [payload2, signature2] = partsOf(signer.issue(origin, now));
    EXPECT_EQ(
        check(padded(standardAlphabet(payload2)) + "." + padded(standardAlphabet(signature2))),
        Verdict::ok());
}

// Signature.

TEST_F(HelperPassCheck, PassSignedByAnotherKeyIsRefused) {
    const PassSigner stranger = PassSigner::generate();
    EXPECT_EQ(check(stranger.issue(origin, now)), invalid("signature"));
}

TEST_F(HelperPassCheck, NoKeysRefuseEveryPass) {
    EXPECT_EQ(HelperPass::check(signer.issue(origin, now), origin, now, {}), invalid("signature"));
}

TEST_F(HelperPassCheck, AlteredPayloadIsRefused) {
    const std::string payload = payloadWith("");
    std::string altered = payload;
    altered.replace(altered.find("app.example"), 11, "bad.example");
    const std::string signature = Base64::encodeUrl(signer.rawSignature(payload));
    EXPECT_EQ(check(Base64::encodeUrl(altered) + "." + signature, "https://bad.example"),
              invalid("signature"));
}

TEST_F(HelperPassCheck, EmptyPayloadIsRefusedForItsSignature) {
    EXPECT_EQ(check("." + Base64::encodeUrl(std::string(64, '\x01'))), invalid("signature"));
}

TEST_F(HelperPassCheck, ZeroSignatureIsRefused) {
    const std::string payload = payloadWith("");
    EXPECT_EQ(check(Base64::encodeUrl(payload) + "." + Base64::encodeUrl(std::string(64, '\0'))),
              invalid("signature"));
}

TEST_F(HelperPassCheck, SignatureIsCheckedBeforeThePayload) {
    const PassSigner stranger = PassSigner::generate();
    EXPECT_EQ(check(stranger.signRaw("not json")), invalid("signature"));
}

// Payload.

TEST_F(HelperPassCheck, PayloadThatIsNotJsonIsRefused) {
    EXPECT_EQ(check(signedPayload("not json")), invalid("payload"));
    EXPECT_EQ(check(signedPayload("")), invalid("payload"));
    EXPECT_EQ(check(signedPayload(payloadWith(R"(,"v":1)") + "}")), invalid("payload"));
}

TEST_F(HelperPassCheck, PayloadThatIsAJsonArrayIsRefused) {
    EXPECT_EQ(check(signedPayload(R"([1,"https://app.example",1700000000,"n"])")),
              invalid("payload"));
}

TEST_F(HelperPassCheck, PayloadThatIsAJsonScalarIsRefused) {
    EXPECT_EQ(check(signedPayload("1")), invalid("payload"));
    EXPECT_EQ(check(signedPayload(R"("text")")), invalid("payload"));
}

TEST_F(HelperPassCheck, PayloadWithInvalidUtf8IsRefused) {
    EXPECT_EQ(check(signedPayload(payloadWith(",\"v\":1,\"x\":\"\xFF\""))), invalid("payload"));
}

TEST_F(HelperPassCheck, VersionTwoIsRefused) {
    EXPECT_EQ(check(signedPayload(payloadWith(R"(,"v":2)"))), invalid("payload"));
}

TEST_F(HelperPassCheck, VersionAsStringIsRefused) {
    EXPECT_EQ(check(signedPayload(payloadWith(R"(,"v":"1")"))), invalid("payload"));
}

TEST_F(HelperPassCheck, MissingOrNullVersionIsRefused) {
    EXPECT_EQ(check(signedPayload(payloadWith(""))), invalid("payload"));
    EXPECT_EQ(check(signedPayload(payloadWith(R"(,"v":null)"))), invalid("payload"));
}

TEST_F(HelperPassCheck, VersionFractionIsCutOff) {
    EXPECT_EQ(check(signedPayload(payloadWith(R"(,"v":1.0)"))), Verdict::ok());
    EXPECT_EQ(check(signedPayload(payloadWith(R"(,"v":1.9)"))), Verdict::ok());
    EXPECT_EQ(check(signedPayload(payloadWith(R"(,"v":0.9)"))), invalid("payload"));
    EXPECT_EQ(check(signedPayload(payloadWith(R"(,"v":2.0)"))), invalid("payload"));
    EXPECT_EQ(check(signedPayload(payloadWith(R"(,"v":1e0)"))), Verdict::ok());
}

TEST_F(HelperPassCheck, HugeVersionIsRefused) {
    EXPECT_EQ(check(signedPayload(payloadWith(R"(,"v":18446744073709551617)"))),
              invalid("payload"));
    EXPECT_EQ(check(signedPayload(payloadWith(R"(,"v":4294967297)"))), invalid("payload"));
    EXPECT_EQ(check(signedPayload(payloadWith(R"(,"v":-1)"))), invalid("payload"));
}

TEST_F(HelperPassCheck, JsonTrueReadsAsVersionOne) {
    EXPECT_EQ(check(signedPayload(payloadWith(R"(,"v":true)"))), Verdict::ok());
    EXPECT_EQ(check(signedPayload(payloadWith(R"(,"v":false)"))), invalid("payload"));
}

TEST_F(HelperPassCheck, MissingOrNonStringOriginIsRefused) {
    EXPECT_EQ(check(signedPayload(R"({"v":1,"iat":1700000000,"nonce":"n1"})")), invalid("payload"));
    EXPECT_EQ(check(signedPayload(R"({"v":1,"origin":7,"iat":1700000000,"nonce":"n1"})")),
              invalid("payload"));
    EXPECT_EQ(check(signedPayload(R"({"v":1,"origin":null,"iat":1700000000,"nonce":"n1"})")),
              invalid("payload"));
}

TEST_F(HelperPassCheck, MissingOrNonNumericIssueTimeIsRefused) {
    EXPECT_EQ(check(signedPayload(R"({"v":1,"origin":"https://app.example","nonce":"n1"})")),
              invalid("payload"));
    EXPECT_EQ(check(signedPayload(
                  R"({"v":1,"origin":"https://app.example","iat":"1700000000","nonce":"n1"})")),
              invalid("payload"));
}

TEST_F(HelperPassCheck, JsonTrueReadsAsIssueTimeOne) {
    const std::string pass =
        signedPayload(R"({"v":1,"origin":"https://app.example","iat":true,"nonce":")" +
                      PassSigner::uniqueNonce() + "\"}");
    EXPECT_EQ(check(pass, origin, now), invalid("expired"));
    EXPECT_EQ(check(pass, origin, 100.0), Verdict::ok());
}

TEST_F(HelperPassCheck, FractionalIssueTimeIsAccepted) {
    EXPECT_EQ(check(signer.issue(origin, now - 12.75)), Verdict::ok());
}

TEST_F(HelperPassCheck, EmptyNonceIsRefused) {
    EXPECT_EQ(check(signer.issue(origin, now, "")), invalid("payload"));
}

TEST_F(HelperPassCheck, MissingOrNonStringNonceIsRefused) {
    EXPECT_EQ(check(signedPayload(R"({"v":1,"origin":"https://app.example","iat":1700000000})")),
              invalid("payload"));
    EXPECT_EQ(check(signedPayload(
                  R"({"v":1,"origin":"https://app.example","iat":1700000000,"nonce":12})")),
              invalid("payload"));
}

TEST_F(HelperPassCheck, OtherMembersAreIgnored) {
    EXPECT_EQ(check(signedPayload(payloadWith(R"(,"v":1,"sub":"user-7","extra":{"a":[1,2]})"))),
              Verdict::ok());
}

TEST_F(HelperPassCheck, PayloadIsCheckedBeforeTheOrigin) {
    EXPECT_EQ(check(signedPayload(payloadWith(R"(,"v":2)")), "https://other.example"),
              invalid("payload"));
}

// Origin.

TEST_F(HelperPassCheck, PassForAnotherOriginIsRefused) {
    EXPECT_EQ(check(signer.issue("https://other.example", now)), invalid("origin"));
    EXPECT_EQ(check(signer.issue("https://app.example:8443", now)), invalid("origin"));
}

TEST_F(HelperPassCheck, PayloadOriginIsNormalisedBeforeComparing) {
    EXPECT_EQ(check(signer.issue("HTTPS://App.Example/", now), "https://app.example"),
              Verdict::ok());
}

TEST_F(HelperPassCheck, PageOriginIsNormalisedBeforeComparing) {
    EXPECT_EQ(check(signer.issue(origin, now), " HTTPS://APP.example// "), Verdict::ok());
}

TEST_F(HelperPassCheck, NewlineAroundAnOriginIsNotTrimmed) {
    EXPECT_EQ(check(signer.issue(origin, now), "https://app.example\n"), invalid("origin"));
}

TEST_F(HelperPassCheck, OriginIsCheckedBeforeTheTime) {
    EXPECT_EQ(check(signer.issue("https://other.example", now - 1000)), invalid("origin"));
}

// Time.

TEST_F(HelperPassCheck, IssuedExactlyAWindowAgoIsAccepted) {
    EXPECT_EQ(check(signer.issue(origin, now - 300)), Verdict::ok());
}

TEST_F(HelperPassCheck, IssuedExactlyAWindowAheadIsAccepted) {
    EXPECT_EQ(check(signer.issue(origin, now + 300)), Verdict::ok());
}

TEST_F(HelperPassCheck, IssuedJustOverAWindowAgoIsExpired) {
    EXPECT_EQ(check(signer.issue(origin, now - 300.001)), invalid("expired"));
}

TEST_F(HelperPassCheck, IssuedJustOverAWindowAheadIsExpired) {
    EXPECT_EQ(check(signer.issue(origin, now + 300.001)), invalid("expired"));
}

TEST_F(HelperPassCheck, NonNumericTimeDistanceIsExpired) {
    EXPECT_EQ(check(signer.issue(origin, now), origin, std::nan("")), invalid("expired"));
    EXPECT_EQ(check(signer.issue(origin, now), origin, INFINITY), invalid("expired"));
}

// Replay.

TEST_F(HelperPassCheck, SamePassTwiceIsUsedTheSecondTime) {
    const std::string pass = signer.issue(origin, now);
    EXPECT_EQ(check(pass), Verdict::ok());
    EXPECT_EQ(check(pass, origin, now + 1), invalid("used"));
}

TEST_F(HelperPassCheck, ReplayAfterTheWindowIsExpiredNotUsed) {
    const std::string pass = signer.issue(origin, now);
    EXPECT_EQ(check(pass), Verdict::ok());
    EXPECT_EQ(check(pass, origin, now + 300.5), invalid("expired"));
}

TEST_F(HelperPassCheck, NonceIsRefusedAcrossDifferentPasses) {
    const std::string nonce = PassSigner::uniqueNonce();
    EXPECT_EQ(check(signer.issue(origin, now, nonce)), Verdict::ok());
    EXPECT_EQ(check(signer.issue(origin, now + 10, nonce), origin, now + 10), invalid("used"));
}

TEST_F(HelperPassCheck, NonceIsRememberedForSixHundredSeconds) {
    const std::string nonce = PassSigner::uniqueNonce();
    EXPECT_EQ(check(signer.issue(origin, now, nonce)), Verdict::ok());
    EXPECT_EQ(check(signer.issue(origin, now + 599.9, nonce), origin, now + 599.9),
              invalid("used"));
    EXPECT_EQ(check(signer.issue(origin, now + 600, nonce), origin, now + 600), Verdict::ok());
}

TEST_F(HelperPassCheck, NonceIsComparedCaseSensitively) {
    const std::string nonce = PassSigner::uniqueNonce() + "abc";
    std::string upper = nonce;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    EXPECT_EQ(check(signer.issue(origin, now, nonce)), Verdict::ok());
    EXPECT_EQ(check(signer.issue(origin, now, upper)), Verdict::ok());
    EXPECT_EQ(check(signer.issue(origin, now, " " + nonce)), Verdict::ok());
}

TEST_F(HelperPassCheck, PassRefusedForItsOriginCanSucceedLater) {
    const std::string pass = signer.issue(origin, now);
    EXPECT_EQ(check(pass, "https://other.example"), invalid("origin"));
    EXPECT_EQ(check(pass, origin), Verdict::ok());
}

TEST_F(HelperPassCheck, PassRefusedAsExpiredCanSucceedLater) {
    const std::string pass = signer.issue(origin, now);
    EXPECT_EQ(check(pass, origin, now - 301), invalid("expired"));
    EXPECT_EQ(check(pass, origin, now - 299), Verdict::ok());
}

TEST_F(HelperPassCheck, RefusedPassesDoNotUseUpTheNonce) {
    const std::string nonce = PassSigner::uniqueNonce();
    const PassSigner stranger = PassSigner::generate();
    EXPECT_EQ(check(stranger.issue(origin, now, nonce)), invalid("signature"));
    EXPECT_EQ(
        check(signedPayload(
            std::string(R"({"v":2,"origin":"https://app.example","iat":1700000000,"nonce":")") +
            nonce + "\"}")),
        invalid("payload"));
    EXPECT_EQ(check(signer.issue(origin, now, nonce)), Verdict::ok());
}

TEST_F(HelperPassCheck, ConcurrentChecksOfOneNonceAcceptExactlyOne) {
    constexpr int rounds = 50;
    for (int round = 0; round < rounds; ++round) {
        const std::string pass = signer.issue(origin, now);
        std::latch start(2);
        Verdict first = Verdict::missing();
        Verdict second = Verdict::missing();
        std::thread a([&] {
            start.arrive_and_wait();
            first = check(pass);
        });
        std::thread b([&] {
            start.arrive_and_wait();
            second = check(pass);
        });
        a.join();
        b.join();
        const std::vector<Verdict> verdicts = {first, second};
        EXPECT_EQ(std::count(verdicts.begin(), verdicts.end(), Verdict::ok()), 1)
            << "round " << round;
        EXPECT_EQ(std::count(verdicts.begin(), verdicts.end(), invalid("used")), 1)
            << "round " << round;
    }
}

// Whether a pass is needed.

TEST(HelperPassRequired, EveryOriginNeedsAPass) {
    EXPECT_TRUE(HelperPass::required("https://app.velmora.example"));
    EXPECT_TRUE(HelperPass::required("https://velmora.example"));
    EXPECT_TRUE(HelperPass::required("http://localhost:5173"));
    EXPECT_TRUE(HelperPass::required("null"));
    EXPECT_TRUE(HelperPass::required(""));
}

// Keys.

TEST(HelperPassKeys, KeyFromBase64AcceptsAnUncompressedPoint) {
    const PassSigner signer = PassSigner::generate();
    const std::string text = signer.publicKeyBase64();
    EXPECT_EQ(text.size(), 88u);
    EXPECT_TRUE(text.ends_with("=") && !text.ends_with("=="));
    EXPECT_TRUE(HelperPass::keyFromBase64(text));
}

TEST(HelperPassKeys, KeyFromBase64RefusesBadText) {
    EXPECT_FALSE(HelperPass::keyFromBase64(""));
    EXPECT_FALSE(HelperPass::keyFromBase64("not base64!"));
    const std::string text = PassSigner::generate().publicKeyBase64();
    EXPECT_FALSE(HelperPass::keyFromBase64(" " + text));
    EXPECT_FALSE(HelperPass::keyFromBase64(text.substr(0, 87)));
}

TEST(HelperPassKeys, KeyFromBase64RefusesPointsThatAreNotOnTheCurve) {
    const std::string point = Base64::decode(PassSigner::generate().publicKeyBase64()).value();
    std::string moved = point;
    moved[64] = static_cast<char>(moved[64] ^ 1);
    EXPECT_FALSE(HelperPass::keyFromBase64(Base64::encode(moved)));
    EXPECT_FALSE(HelperPass::keyFromBase64(Base64::encode("\x04" + std::string(64, '\0'))));
}

TEST(HelperPassKeys, KeyFromBase64RefusesOtherPointForms) {
    const std::string point = Base64::decode(PassSigner::generate().publicKeyBase64()).value();
    const char compressedTag = (point[64] & 1) ? '\x03' : '\x02';
    EXPECT_FALSE(HelperPass::keyFromBase64(Base64::encode(compressedTag + point.substr(1, 32))));
    EXPECT_FALSE(HelperPass::keyFromBase64(Base64::encode(point.substr(1))));
    EXPECT_FALSE(HelperPass::keyFromBase64(Base64::encode(point + '\0')));
}

TEST(HelperPassKeys, BuiltInKeysRefuseAPassSignedByAnUnknownKey) {
    const PassSigner stranger = PassSigner::generate();
    EXPECT_EQ(HelperPass::check(stranger.issue(origin, now), origin, now), invalid("signature"));
}

TEST(HelperPassKeys, BuiltInKeysHoldEveryConfiguredKeyThatDecodes) {
    std::vector<std::string_view> configured = {build::productionKey};
    configured.insert(configured.end(), std::begin(build::devKeys), std::end(build::devKeys));
    ASSERT_TRUE(configured.back().empty()) << "the list ends in an empty entry, which is skipped";
    const auto decodable = std::count_if(configured.begin(), configured.end(), [](auto text) {
        return HelperPass::keyFromBase64(text).has_value();
    });
    EXPECT_EQ(HelperPass::keys().size(), static_cast<std::size_t>(decodable));
}

TEST(HelperPassKeys, CurrentTimeCheckAcceptsFreshPassFromTheDevelopmentKey) {
    if (!PassSigner::developmentKeyIsBuiltIn()) {
        GTEST_SKIP() << "this build has no development pass key built in (release build)";
    }
    const std::string pass =
        PassSigner::development().issue("https://app.velmora.example", PassIssuer::currentTime());
    EXPECT_EQ(HelperPass::check(pass, "https://app.velmora.example"), Verdict::ok());
    EXPECT_EQ(HelperPass::check(pass, "https://app.velmora.example"), invalid("used"));
}

TEST(HelperPassKeys, KeyCountSaysHowManyBuiltInKeysAreDevelopmentKeys) {
    const auto decodes = [](std::string_view text) {
        return HelperPass::keyFromBase64(text).has_value();
    };
    const auto development =
        std::count_if(std::begin(build::devKeys), std::end(build::devKeys), decodes);
    const HelperPass::KeyCount count = HelperPass::keyCount();
    EXPECT_EQ(count.total, HelperPass::keys().size());
    EXPECT_EQ(count.development, static_cast<std::size_t>(development));
    EXPECT_EQ(count.development == 1, PassSigner::developmentKeyIsBuiltIn());
    EXPECT_EQ(count.total - count.development, decodes(build::productionKey) ? 1u : 0u);
}

TEST(HelperPassKeys, TrustedKeysTextSaysHowManyKeysAndWhetherAnyIsForDevelopment) {
    using HelperPass::trustedKeysText;
    EXPECT_EQ(trustedKeysText({0, 0}),
              "Trusting no pass-signing key: every start pass will be refused");
    EXPECT_EQ(trustedKeysText({1, 0}), "Trusting 1 pass-signing key, no development key");
    EXPECT_EQ(trustedKeysText({3, 0}), "Trusting 3 pass-signing keys, no development key");
    EXPECT_EQ(trustedKeysText({1, 1}),
              "Trusting 1 pass-signing key, of which 1 is a development key: anyone can sign "
              "passes for this build");
    EXPECT_EQ(trustedKeysText({3, 2}),
              "Trusting 3 pass-signing keys, of which 2 are development keys: anyone can sign "
              "passes for this build");
}

TEST(HelperPassKeys, BuiltInKeysAreBuiltOnce) {
    EXPECT_EQ(&HelperPass::keys(), &HelperPass::keys());
}

}  // namespace
}  // namespace velmora
