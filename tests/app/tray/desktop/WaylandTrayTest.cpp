#include <gtest/gtest.h>
#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <optional>

#include "PrivateDesktop.h"
#include "StatusNotifierWatcherStandIn.h"
#include "support/FreePort.h"
#include "support/SoundServer.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;

constexpr auto trayWaitBound = 10s;
const std::string waylandSocket = "velmora-wayland";

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 30s) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    return condition();
}

std::string run(const std::string& command) {
    std::string output;
    if (FILE* pipe = ::popen((command + " 2>&1").c_str(), "r")) {
        char buffer[4096];
        while (std::size_t read = std::fread(buffer, 1, sizeof buffer, pipe)) {
            output.append(buffer, read);
        }
        ::pclose(pipe);
    }
    return output;
}

// The helper on a Wayland session: Weston, with its X11 back end on the private Xvfb display so
// that it has a seat (a keyboard and a pointer the test drives), and a private session bus. The
// helper itself sees only the Wayland display.
class WaylandTrayTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (run("command -v weston").empty()) GTEST_SKIP() << "weston is not installed";
        std::string whyNot;
        if (!SoundServer::isAvailable(SoundServer::Kind::pulseAudio, &whyNot)) {
            GTEST_SKIP() << "PulseAudio is not available: " << whyNot;
        }
        sound_ = SoundServer::start(SoundServer::Kind::pulseAudio);
        desktop_ = std::make_unique<PrivateDesktop>();
        port_ = freePort();
        desktop_->saveHelperPort(port_);
        // --debug lets the test read the scene graph: which windows the compositor shows.
        compositor_ = desktop_->launch(
            {"weston", "--backend=x11-backend.so", "--use-pixman", "--socket=" + waylandSocket,
             "--width=1024", "--height=768", "--debug", "--idle-time=0"},
            {}, "weston");
        ASSERT_TRUE(waitUntil([&] {
            return std::filesystem::exists(desktop_->folder() / "runtime" / waylandSocket) &&
                   !compositorWindow().empty();
        })) << desktop_->readLog("weston");
        bus_.emplace(QDBusConnection::connectToBus(QString::fromStdString(desktop_->busAddress()),
                                                   "velmora-wayland-test"));
        ASSERT_TRUE(bus_->isConnected());
    }

    void TearDown() override {
        helper_.reset();
        if (bus_) QDBusConnection::disconnectFromBus("velmora-wayland-test");
        bus_.reset();
        compositor_.reset();
        desktop_.reset();
        sound_.reset();
    }

    std::string onDisplay(const std::string& command) {
        return run("env -i PATH=/usr/bin:/bin DISPLAY=" + desktop_->display() + " " + command);
    }

    // Weston's own window on the X display, by id.
    std::string compositorWindow() {
        std::string tree = onDisplay("xwininfo -root -tree");
        std::size_t at = tree.find("\"Weston Compositor");
        if (at == std::string::npos) return {};
        std::size_t start = tree.rfind("0x", at);
        return tree.substr(start, tree.find(' ', start) - start);
    }

    std::string onWayland(const std::string& command) {
        return run("env -i PATH=/usr/bin:/bin XDG_RUNTIME_DIR=" +
                   (desktop_->folder() / "runtime").string() + " WAYLAND_DISPLAY=" + waylandSocket +
                   " " + command);
    }

    // The helper's top-level windows as the compositor lists them.
    int helperWindows() {
        std::string graph = onWayland("timeout 5 weston-debug scene-graph");
        std::string window = "top-level window 'Velmora Audio Helper' of velmora-audio-helper";
        int count = 0;
        for (std::size_t at = graph.find(window); at != std::string::npos;
             at = graph.find(window, at + 1)) {
            ++count;
        }
        return count;
    }

    void startHelper() {
        std::vector<std::string> environment = desktop_->environment(sound_->environment());
        std::erase_if(environment,
                      [](const std::string& value) { return value.starts_with("DISPLAY="); });
        environment.push_back("WAYLAND_DISPLAY=" + waylandSocket);
        // Under the sanitizers, their settings reach the helper too, with full stacks, so that
        // the suppressions of what Qt's Wayland plug-in keeps until exit match.
        std::string sanitizerOptions = "ASAN_OPTIONS=fast_unwind_on_malloc=0";
        if (const char* value = std::getenv("ASAN_OPTIONS"))
            sanitizerOptions += ":" + std::string(value);
        environment.push_back(sanitizerOptions);
        for (const char* name : {"LSAN_OPTIONS", "UBSAN_OPTIONS"}) {
            if (const char* value = std::getenv(name)) {
                environment.push_back(std::string(name) + "=" + value);
            }
        }
        helper_ = SoundServer::Process::spawn({VELMORA_HELPER_EXECUTABLE, "--no-install"},
                                              environment, desktop_->folder() / "helper.log");
    }

    void registerWatcher() {
        ASSERT_TRUE(bus_->registerObject("/StatusNotifierWatcher", &watcher_,
                                         QDBusConnection::ExportAllContents));
        ASSERT_TRUE(bus_->registerService("org.kde.StatusNotifierWatcher"));
    }

    std::string helperLog() {
        std::ifstream file(desktop_->folder() / "state" / "velmora-audio-helper" /
                           "VelmoraAudioHelper.log");
        std::string log((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        return log + desktop_->readLog("helper");
    }

    bool logged(const std::string& text) { return helperLog().find(text) != std::string::npos; }

    QVariant itemProperty(const QString& name) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            watcher_.itemService(), watcher_.itemPath(), "org.freedesktop.DBus.Properties", "Get");
        call << "org.kde.StatusNotifierItem" << name;
        QDBusMessage reply = bus_->call(call, QDBus::Block, 10'000);
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return {};
        return reply.arguments().front().value<QDBusVariant>().variant();
    }

    // The menu's rows by label, with their ids, as the panel reads them.
    std::map<QString, int> menuRows() {
        QString menuPath = itemProperty("Menu").value<QDBusObjectPath>().path();
        QDBusMessage call = QDBusMessage::createMethodCall(watcher_.itemService(), menuPath,
                                                           "com.canonical.dbusmenu", "GetLayout");
        call << 0 << -1 << QStringList();
        QDBusMessage reply = bus_->call(call, QDBus::Block, 10'000);
        std::map<QString, int> rows;
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() < 2) return rows;
        const QDBusArgument layout = reply.arguments()[1].value<QDBusArgument>();
        int id = 0;
        QVariantMap properties;
        layout.beginStructure();
        layout >> id >> properties;
        layout.beginArray();
        while (!layout.atEnd()) {
            QDBusVariant child;
            layout >> child;
            const QDBusArgument row = child.variant().value<QDBusArgument>();
            row.beginStructure();
            row >> id >> properties;
            row.beginArray();
            row.endArray();
            row.endStructure();
            rows[properties.value("label").toString()] = id;
        }
        layout.endArray();
        layout.endStructure();
        return rows;
    }

    // What the panel does when the user picks a row of the item's menu.
    void click(int row) {
        QString menuPath = itemProperty("Menu").value<QDBusObjectPath>().path();
        QDBusMessage event = QDBusMessage::createMethodCall(watcher_.itemService(), menuPath,
                                                            "com.canonical.dbusmenu", "Event");
        event << row << "clicked" << QVariant::fromValue(QDBusVariant(0)) << 0u;
        bus_->call(event, QDBus::Block, 10'000);
    }

    // Keys typed on the compositor's keyboard reach whichever window it gave the focus.
    void typeOnTheCompositor(const std::string& keys) {
        onDisplay("xdotool windowfocus --sync " + compositorWindow());
        onDisplay("xdotool " + keys);
    }

    void endHelper() {
        ASSERT_TRUE(helper_->isRunning()) << helperLog();
        ::kill(helper_->pid(), SIGTERM);
        EXPECT_EQ(helper_->waitFor(30s), 0) << helperLog();
    }

    std::unique_ptr<SoundServer> sound_;
    std::unique_ptr<PrivateDesktop> desktop_;
    std::unique_ptr<SoundServer::Process> compositor_;
    std::optional<QDBusConnection> bus_;
    StatusNotifierWatcherStandIn watcher_;
    std::unique_ptr<SoundServer::Process> helper_;
    int port_ = 0;
};

TEST_F(WaylandTrayTest, TheItemsMenuOpensWhereThePanelPutsItAndThePortDialogTakesTheKeyboard) {
    registerWatcher();
    startHelper();
    ASSERT_TRUE(waitUntil([&] { return !watcher_.itemService().isEmpty(); })) << helperLog();
    std::ifstream mapsFile("/proc/" + std::to_string(helper_->pid()) + "/maps");
    std::string maps((std::istreambuf_iterator<char>(mapsFile)), std::istreambuf_iterator<char>());
    EXPECT_NE(maps.find("libQt6WaylandClient"), std::string::npos) << "not on Wayland";

    // A plain click shows the menu the item exports, placed by the panel.
    EXPECT_EQ(itemProperty("ItemIsMenu").toBool(), true);
    std::map<QString, int> rows = menuRows();
    ASSERT_EQ(rows.count("Port\u2026"), 1u) << helperLog();
    // A panel that sends Activate anyway gets no menu placed by guesswork.
    QDBusMessage activate = QDBusMessage::createMethodCall(
        watcher_.itemService(), watcher_.itemPath(), "org.kde.StatusNotifierItem", "Activate");
    activate << 10 << 10;
    EXPECT_EQ(bus_->call(activate, QDBus::Block, 10'000).type(), QDBusMessage::ReplyMessage);
    EXPECT_EQ(helperWindows(), 0);

    click(rows["Port\u2026"]);
    ASSERT_TRUE(waitUntil([&] { return helperWindows() == 1; })) << helperLog();
    // Typed without a click into the dialog: the keys reach its field only if it has the focus.
    // Keys sent while the compositor is still handing the focus over are lost, not misplaced, so
    // a second round is fair; a dialog that never gets the focus fails every round.
    int newPort = freePort();
    std::string listening = "Listening on ws://127.0.0.1:" + std::to_string(newPort) + "/";
    for (int round = 0; round < 3 && !logged(listening); ++round) {
        typeOnTheCompositor("key --delay 50 ctrl+a BackSpace type --delay 50 " +
                            std::to_string(newPort));
        typeOnTheCompositor("key Return");
        waitUntil([&] { return logged(listening); }, 10s);
    }
    EXPECT_TRUE(logged(listening)) << helperLog() << onWayland("timeout 5 weston-debug scene-graph")
                                   << desktop_->readLog("weston");
    EXPECT_TRUE(waitUntil([&] { return helperWindows() == 0; })) << helperLog();
    endHelper();
}

TEST_F(WaylandTrayTest, WithoutAPanelTheWindowComesAfterTheBoundAndGoesWhenOneComes) {
    startHelper();
    ASSERT_TRUE(waitUntil([&] { return helperWindows() == 1; }, trayWaitBound + 30s))
        << helperLog();
    EXPECT_TRUE(logged("No system tray is available on this desktop")) << helperLog();
    registerWatcher();
    ASSERT_TRUE(waitUntil([&] { return !watcher_.itemService().isEmpty(); })) << helperLog();
    EXPECT_TRUE(waitUntil([&] { return helperWindows() == 0; })) << helperLog();
    endHelper();
}

}  // namespace
}  // namespace velmora::testing
