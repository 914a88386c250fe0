#include <gtest/gtest.h>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <sstream>

#include "PrivateDesktop.h"
#include "StatusNotifierWatcherStandIn.h"
#include "support/FreePort.h"
#include "support/SoundServer.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;

// How long the helper waits for a tray before it shows its window.
constexpr auto trayWaitBound = 10s;

// Keeps the test's own D-Bus objects answering while it waits.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 30s) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    return condition();
}

void keepAnswering(std::chrono::milliseconds duration) {
    waitUntil([] { return false; }, duration);
}

// The helper starts on a desktop whose panel is not there yet; the test plays the panel.
class TrayComesLaterTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string whyNot;
        if (!SoundServer::isAvailable(SoundServer::Kind::pulseAudio, &whyNot)) {
            GTEST_SKIP() << "PulseAudio is not available: " << whyNot;
        }
        sound_ = SoundServer::start(SoundServer::Kind::pulseAudio);
        desktop_ = std::make_unique<PrivateDesktop>();
        bus_.emplace(QDBusConnection::connectToBus(QString::fromStdString(desktop_->busAddress()),
                                                   "velmora-panel-test"));
        ASSERT_TRUE(bus_->isConnected()) << bus_->lastError().message().toStdString();
        desktop_->saveHelperPort(freePort());
    }

    void TearDown() override {
        helper_.reset();
        watcher_.reset();
        if (bus_) QDBusConnection::disconnectFromBus("velmora-panel-test");
        bus_.reset();
        desktop_.reset();
        sound_.reset();
    }

    void startHelper() {
        started_ = std::chrono::steady_clock::now();
        helper_ = desktop_->launch({VELMORA_HELPER_EXECUTABLE, "--no-install"},
                                   sound_->environment(), "helper");
    }

    // The panel comes up: a new watcher takes the well-known name.
    void panelStarts() {
        watcher_ = std::make_unique<StatusNotifierWatcherStandIn>();
        ASSERT_TRUE(bus_->registerObject("/StatusNotifierWatcher", watcher_.get(),
                                         QDBusConnection::ExportAllContents));
        ASSERT_TRUE(bus_->registerService("org.kde.StatusNotifierWatcher"));
    }

    // The panel ends (a crash or a restart): its name leaves the bus.
    void panelEnds() {
        ASSERT_TRUE(bus_->unregisterService("org.kde.StatusNotifierWatcher"));
        bus_->unregisterObject("/StatusNotifierWatcher");
        watcher_.reset();
    }

    bool itemRegistered() { return watcher_ && !watcher_->itemService().isEmpty(); }

    // Runs an X client on the private display and returns its standard output.
    std::string runOnDisplay(const std::string& command) {
        std::string line =
            "env -i PATH=/usr/bin:/bin DISPLAY=" + desktop_->display() + " " + command + " 2>&1";
        std::string output;
        if (FILE* pipe = ::popen(line.c_str(), "r")) {
            char buffer[4096];
            while (std::size_t read = std::fread(buffer, 1, sizeof buffer, pipe)) {
                output.append(buffer, read);
            }
            ::pclose(pipe);
        }
        return output;
    }

    // The id of the helper's visible window, or nothing.
    std::string visibleWindow() {
        return runOnDisplay("xdotool search --onlyvisible --name '^Velmora Audio Helper$'");
    }

    // True when a window of the helper sits inside trayer's panel window.
    bool iconIsInTheXEmbedPanel() {
        std::istringstream tree(runOnDisplay("xwininfo -root -tree"));
        std::string line;
        std::size_t panelIndent = std::string::npos;
        while (std::getline(tree, line)) {
            std::size_t indent = line.find_first_not_of(' ');
            if (line.find("(\"panel\" \"trayer\")") != std::string::npos) {
                panelIndent = indent;
            } else if (panelIndent != std::string::npos && indent <= panelIndent) {
                panelIndent = std::string::npos;
            } else if (panelIndent != std::string::npos &&
                       line.find("(\"velmora-audio-helper\" \"Velmora Audio Helper\")") !=
                           std::string::npos) {
                return true;
            }
        }
        return false;
    }

    std::string helperLog() {
        std::ifstream file(desktop_->folder() / "state" / "velmora-audio-helper" /
                           "VelmoraAudioHelper.log");
        std::string log((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        return log + desktop_->readLog("helper");
    }

    bool logged(const std::string& text) { return helperLog().find(text) != std::string::npos; }

    void endHelper() {
        ASSERT_TRUE(helper_->isRunning()) << helperLog();
        ::kill(helper_->pid(), SIGTERM);
        EXPECT_EQ(helper_->waitFor(30s), 0) << helperLog();
    }

    std::unique_ptr<SoundServer> sound_;
    std::unique_ptr<PrivateDesktop> desktop_;
    std::optional<QDBusConnection> bus_;
    std::unique_ptr<StatusNotifierWatcherStandIn> watcher_;
    std::unique_ptr<SoundServer::Process> helper_;
    std::chrono::steady_clock::time_point started_;
};

TEST_F(TrayComesLaterTest, APanelThreeSecondsLateGetsTheItemAndNoWindowIsLeft) {
    startHelper();
    ASSERT_TRUE(waitUntil([&] { return logged("Listening on"); })) << helperLog();
    keepAnswering(3s);
    panelStarts();
    ASSERT_TRUE(waitUntil([&] { return itemRegistered(); }))
        << "the helper never registered its item with the late panel\n"
        << helperLog();
    // Past the bound: a window would have shown by now.
    keepAnswering(trayWaitBound);
    EXPECT_EQ(visibleWindow(), "") << helperLog();
    EXPECT_FALSE(logged("No system tray")) << helperLog();
    endHelper();
}

TEST_F(TrayComesLaterTest, WithNoTrayTheWindowComesAfterTheBoundAndGoesWhenAPanelComes) {
    startHelper();
    std::string window;
    ASSERT_TRUE(waitUntil(
        [&] {
            window = visibleWindow();
            return !window.empty();
        },
        trayWaitBound + 30s))
        << helperLog();
    EXPECT_GE(std::chrono::steady_clock::now() - started_, trayWaitBound);
    EXPECT_TRUE(logged("No system tray is available on this desktop")) << helperLog();

    panelStarts();
    ASSERT_TRUE(waitUntil([&] { return itemRegistered(); })) << helperLog();
    EXPECT_TRUE(waitUntil([&] { return visibleWindow().empty(); })) << helperLog();
    EXPECT_TRUE(
        logged("A system tray appeared (StatusNotifierItem); the status moves from its "
               "window into the tray"))
        << helperLog();
    // The window went away without quitting the helper.
    endHelper();
}

TEST_F(TrayComesLaterTest, APanelThatRestartsGetsTheItemAgain) {
    panelStarts();
    startHelper();
    ASSERT_TRUE(waitUntil([&] { return itemRegistered(); })) << helperLog();
    panelEnds();
    keepAnswering(1s);
    panelStarts();
    ASSERT_TRUE(waitUntil([&] { return itemRegistered(); }))
        << "the item did not come back to the restarted panel\n"
        << helperLog();
    EXPECT_EQ(visibleWindow(), "") << helperLog();
    endHelper();
}

TEST_F(TrayComesLaterTest, APanelThatGoesForGoodLeavesTheWindow) {
    panelStarts();
    startHelper();
    ASSERT_TRUE(waitUntil([&] { return itemRegistered(); })) << helperLog();
    panelEnds();
    EXPECT_TRUE(waitUntil([&] { return !visibleWindow().empty(); }, trayWaitBound + 30s))
        << helperLog();
    endHelper();
}

TEST_F(TrayComesLaterTest, AnXEmbedTrayThreeSecondsLateGetsTheIconAndNoWindowIsLeft) {
    startHelper();
    ASSERT_TRUE(waitUntil([&] { return logged("Listening on"); })) << helperLog();
    keepAnswering(3s);
    auto trayer = desktop_->launch({"trayer", "--edge", "top", "--align", "right", "--widthtype",
                                    "pixel", "--width", "200", "--height", "24"},
                                   {}, "trayer");
    EXPECT_TRUE(waitUntil([&] { return iconIsInTheXEmbedPanel(); }))
        << runOnDisplay("xwininfo -root -tree") << helperLog();
    keepAnswering(trayWaitBound);
    EXPECT_EQ(visibleWindow(), "") << helperLog();
    EXPECT_FALSE(logged("No system tray")) << helperLog();
    endHelper();
}

TEST_F(TrayComesLaterTest, AnXEmbedTrayAfterTheWindowTakesTheIconAndTheWindowGoes) {
    startHelper();
    ASSERT_TRUE(waitUntil([&] { return !visibleWindow().empty(); }, trayWaitBound + 30s))
        << helperLog();
    auto trayer = desktop_->launch({"trayer", "--edge", "top", "--align", "right", "--widthtype",
                                    "pixel", "--width", "200", "--height", "24"},
                                   {}, "trayer");
    EXPECT_TRUE(waitUntil([&] { return iconIsInTheXEmbedPanel(); }))
        << runOnDisplay("xwininfo -root -tree") << helperLog();
    EXPECT_TRUE(waitUntil([&] { return visibleWindow().empty(); })) << helperLog();
    EXPECT_TRUE(logged("A system tray appeared (XEmbed)")) << helperLog();
    endHelper();
}

}  // namespace
}  // namespace velmora::testing
