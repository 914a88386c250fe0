// The tray helper under an X session manager: it must never be restarted by the session (start
// at login starts it, and a restored copy would be a second one).
#include <gtest/gtest.h>

#include <memory>

#include "../desktop/PrivateDesktop.h"
#include "SessionManagerStandIn.h"
#include "support/FreePort.h"

namespace velmora {
namespace {

using testing::PrivateDesktop;
using testing::SessionManagerStandIn;

constexpr int restartNever = 3;  // SmRestartNever

TEST(SessionRestore, TheTrayHelperAsksTheSessionManagerNeverToRestartIt) {
    PrivateDesktop desktop;
    desktop.saveHelperPort(testing::freePort());
    SessionManagerStandIn manager;
    auto helper = desktop.launch({VELMORA_HELPER_EXECUTABLE, "--no-install", "--no-welcome"},
                                 {"SESSION_MANAGER=" + manager.address()}, "helper");

    ASSERT_TRUE(
        manager.runUntil([&] { return manager.finishedSaves() >= 1; }, std::chrono::seconds(30)))
        << "the helper never saved its state for the session manager\n"
        << desktop.readLog("helper");
    EXPECT_EQ(manager.registeredClients(), 1);
    ASSERT_FALSE(manager.restartHints().empty()) << desktop.readLog("helper");
    EXPECT_EQ(manager.restartHints().back(), restartNever);
    EXPECT_TRUE(helper->isRunning());
}

}  // namespace
}  // namespace velmora
