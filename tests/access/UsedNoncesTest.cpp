#include "access/UsedNonces.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

TEST(UsedNonces, ClaimSucceedsOnceWhileRemembered) {
    UsedNonces nonces(600);
    EXPECT_TRUE(nonces.claim("a", 1000));
    EXPECT_FALSE(nonces.claim("a", 1000));
    EXPECT_FALSE(nonces.claim("a", 1599.999));
    EXPECT_TRUE(nonces.claim("b", 1000));
}

TEST(UsedNonces, NonceIsForgottenWhenItsExpiryIsReached) {
    UsedNonces nonces(600);
    EXPECT_TRUE(nonces.claim("a", 1000));
    EXPECT_TRUE(nonces.claim("a", 1600));
}

TEST(UsedNonces, EveryClaimPrunesAllExpiredNonces) {
    UsedNonces nonces(600);
    nonces.claim("a", 1000);
    nonces.claim("b", 1100);
    nonces.claim("c", 1200);
    EXPECT_EQ(nonces.size(), 3u);
    nonces.claim("d", 1700);
    EXPECT_EQ(nonces.size(), 2u);  // c and d
}

}  // namespace
}  // namespace velmora
