#include "access/PassPayload.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

TEST(PassPayload, JsonListsMembersInWireOrder) {
    const PassPayload payload{.origin = "https://app.example", .iat = 1700000000, .nonce = "n-1"};
    EXPECT_EQ(payload.json(),
              R"({"v":1,"origin":"https://app.example","iat":1700000000,"nonce":"n-1"})");
}

TEST(PassPayload, JsonKeepsFractionalIssueTime) {
    const PassPayload payload{.origin = "o", .iat = 1700000000.25, .nonce = "n"};
    EXPECT_EQ(payload.json(), R"({"v":1,"origin":"o","iat":1700000000.25,"nonce":"n"})");
}

TEST(PassPayload, ParseReadsWhatJsonWrites) {
    const PassPayload payload{.origin = "https://a.example", .iat = 1700000000.001, .nonce = "x"};
    const auto parsed = PassPayload::parse(payload.json());
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->origin, payload.origin);
    EXPECT_EQ(parsed->iat, payload.iat);
    EXPECT_EQ(parsed->nonce, payload.nonce);
}

TEST(PassPayload, ParseReadsBooleansAsNumbers) {
    const auto parsed = PassPayload::parse(R"({"v":true,"origin":"o","iat":false,"nonce":"n"})");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->iat, 0.0);
}

TEST(PassPayload, ParseRefusesWrongShapes) {
    EXPECT_FALSE(PassPayload::parse(R"({"v":1,"origin":"o","iat":1,"nonce":""})"));
    EXPECT_FALSE(PassPayload::parse(R"({"v":1,"origin":"o","iat":null,"nonce":"n"})"));
    EXPECT_FALSE(PassPayload::parse(R"({"v":[1],"origin":"o","iat":1,"nonce":"n"})"));
    EXPECT_FALSE(PassPayload::parse(R"({"v":1,"origin":"o","iat":1,"nonce":"n"} trailing)"));
}

}  // namespace
}  // namespace velmora
