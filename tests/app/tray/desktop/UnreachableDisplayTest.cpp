#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <thread>

#include "PrivateDesktop.h"
#include "config/HelperInfo.h"
#include "server/TestPage.h"
#include "support/FreePort.h"
#include "support/SoundServer.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;

// A display number that no X server here holds.
std::string deadDisplay() {
    for (int number = 97;; ++number) {
        std::string name = std::to_string(number);
        if (!std::filesystem::exists("/tmp/.X11-unix/X" + name) &&
            !std::filesystem::exists("/tmp/.X" + name + "-lock")) {
            return ":" + name;
        }
    }
}

TEST(UnreachableDisplayTest, AnXDisplayThatIsNotThereIsLoggedAndPagesAreStillServed) {
    std::string whyNot;
    if (!SoundServer::isAvailable(SoundServer::Kind::pulseAudio, &whyNot)) {
        GTEST_SKIP() << "PulseAudio is not available: " << whyNot;
    }
    auto sound = SoundServer::start(SoundServer::Kind::pulseAudio);
    PrivateDesktop desktop;
    int port = freePort();
    desktop.saveHelperPort(port);
    std::string display = deadDisplay();
    // The desktop's own environment, its display name turned stale.
    std::vector<std::string> environment = desktop.environment(sound->environment());
    std::erase_if(environment,
                  [](const std::string& value) { return value.starts_with("DISPLAY="); });
    environment.push_back("DISPLAY=" + display);
    auto helper = SoundServer::Process::spawn({VELMORA_HELPER_EXECUTABLE, "--no-install"},
                                              environment, desktop.folder() / "helper.log");
    auto helperLog = [&] {
        std::ifstream file(desktop.folder() / "state" / "velmora-audio-helper" /
                           "VelmoraAudioHelper.log");
        return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()) +
               desktop.readLog("helper");
    };

    auto deadline = std::chrono::steady_clock::now() + 30s;
    while (helperLog().find("Listening on") == std::string::npos && helper->isRunning() &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(50ms);
    }
    ASSERT_TRUE(helper->isRunning()) << helperLog();
    EXPECT_NE(helperLog().find("No display can be reached (the X display " + display + ": "),
              std::string::npos)
        << helperLog();
    EXPECT_NE(helperLog().find("; serving without a tray"), std::string::npos) << helperLog();

    PageNetwork network;
    auto opening = TestPage::open(network, static_cast<std::uint16_t>(port),
                                  {.origin = HelperInfo::builtInOrigins().front()});
    ASSERT_TRUE(opening.page) << opening.error.message() << "\n" << helperLog();
    auto hello = opening.page->nextJson();
    ASSERT_TRUE(hello) << helperLog();
    EXPECT_EQ(hello->value("type", ""), "hello");

    std::ifstream mapsFile("/proc/" + std::to_string(helper->pid()) + "/maps");
    std::string maps((std::istreambuf_iterator<char>(mapsFile)), std::istreambuf_iterator<char>());
    EXPECT_EQ(maps.find("libQt6"), std::string::npos) << "Qt was loaded for a dead display";

    ::kill(helper->pid(), SIGTERM);
    EXPECT_EQ(helper->waitFor(30s), 0) << helperLog();
}

}  // namespace
}  // namespace velmora::testing
