#include "app/HelperServices.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "config/HelperInfo.h"
#include "config/HelperSettings.h"
#include "config/SerialQueue.h"
#include "config/TemporaryFolder.h"
#include "support/FreePort.h"

namespace velmora {
namespace {

using testing::TemporaryFolder;

bool acceptsConnections(std::uint16_t port) {
    const int socketFd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (socketFd < 0) return false;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool connected =
        ::connect(socketFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(socketFd);
    return connected;
}

class HelperServicesTest : public ::testing::Test {
  protected:
    TemporaryFolder folder;
    HelperSettings settings{folder / "velmora-audio-helper" / "settings.json"};
};

TEST_F(HelperServicesTest, ThePolicyReadsTheSettingsAnewAtEveryCall) {
    ServerPolicy policy = serverPolicyFrom(settings);
    EXPECT_EQ(policy.port(), HelperInfo::defaultPort);
    ASSERT_TRUE(settings.setPort(3000));
    EXPECT_EQ(policy.port(), 3000);

    for (const std::string& origin : HelperInfo::builtInOrigins()) {
        EXPECT_TRUE(policy.isOriginAllowed(origin)) << origin;
    }
    EXPECT_FALSE(policy.isOriginAllowed(std::nullopt));
    EXPECT_FALSE(policy.isOriginAllowed("http://localhost:3000"));
    ASSERT_TRUE(settings.setExtraOrigins({"http://localhost:3000"}));
    EXPECT_TRUE(policy.isOriginAllowed("http://localhost:3000"));
}

TEST_F(HelperServicesTest, TheServerIsBuiltUnstartedAndListensOnTheSavedPort) {
    const std::uint16_t port = testing::freePort();
    ASSERT_TRUE(settings.setPort(port));
    SerialQueue mainQueue("com.velmora.tests.main");
    HelperServices services = makeHelperServices(mainQueue, settings);
    ASSERT_TRUE(services.server);
    ASSERT_TRUE(services.permission);
    EXPECT_EQ(services.server->status(), HelperStatus{});
    EXPECT_FALSE(acceptsConnections(port));

    services.server->start();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (services.server->status().server != ServerState::listening() &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(services.server->status().server, ServerState::listening());
    EXPECT_TRUE(acceptsConnections(port));

    services.server->shutdown();
    services.server.reset();
    mainQueue.runAndWait([] {});
}

}  // namespace
}  // namespace velmora
