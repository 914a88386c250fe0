#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "RawConnection.h"
#include "ServerFixture.h"
#include "config/AudioKit.h"

namespace velmora::testing {
namespace {

class ServerPolicyTest : public ServerFixture {};

// The kit's own hooks may point anywhere (another reader may have set them): the server listens
// and admits only as its creator said.
TEST_F(ServerPolicyTest, TheServerListensAndAdmitsAsItsCreatorSaysNotAsTheKitsHooksDo) {
    const std::uint16_t kitPort = freePort();
    ASSERT_NE(kitPort, port());
    AudioKit::modifyConfig([kitPort](AudioKitConfig& config) {
        config.port = [kitPort] { return kitPort; };
        config.isOriginAllowed = [](const std::optional<std::string>&) { return false; };
    });

    startServer();
    EXPECT_TRUE(log_.waitForLine("Listening on ws://127.0.0.1:" + std::to_string(port()) + "/"));
    EXPECT_FALSE(RawConnection(kitPort).connected());
    EXPECT_TRUE(connectPage(pageA));
    auto refused = TestPage::open(network_, port(), {.origin = refusedOrigin});
    EXPECT_FALSE(refused.page);
    EXPECT_EQ(refused.httpStatus, 403);
}

TEST_F(ServerPolicyTest, AServerWithoutAPortOrAnOriginCheckIsRefusedAtCreation) {
    auto createWith = [this](ServerPolicy policy) {
        return HelperServer::create(std::make_unique<FakeAudioTap>(tap_), permission_,
                                    microphoneUsers_, mainQueue_, std::move(policy));
    };
    ServerPolicy complete = policy();
    EXPECT_THROW(createWith({}), std::invalid_argument);
    EXPECT_THROW(createWith({.port = complete.port, .isOriginAllowed = nullptr}),
                 std::invalid_argument);
    EXPECT_THROW(createWith({.port = nullptr, .isOriginAllowed = complete.isOriginAllowed}),
                 std::invalid_argument);
    EXPECT_TRUE(createWith(complete));
}

}  // namespace
}  // namespace velmora::testing
