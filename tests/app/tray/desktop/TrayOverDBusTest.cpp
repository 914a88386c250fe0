#include <gtest/gtest.h>
#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "PrivateDesktop.h"
#include "StatusNotifierWatcherStandIn.h"
#include "config/HelperInfo.h"
#include "server/TestPage.h"
#include "support/FreePort.h"
#include "support/PassSigner.h"
#include "support/SoundServer.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;

struct ToolTip {
    QString iconName;
    int pixmapCount = 0;
    QString title;
};

struct MenuRow {
    int id = 0;
    QVariantMap properties;
    QString label() const { return properties.value("label").toString(); }
    bool isSeparator() const { return properties.value("type").toString() == "separator"; }
    // Absent properties have their protocol defaults: enabled and visible.
    bool enabled() const { return properties.value("enabled", true).toBool(); }
    bool visible() const { return properties.value("visible", true).toBool(); }
};

// An icon's pixmaps as the item sends them (width, height, ARGB bytes), one text per pixmap.
QByteArrayList readPixmaps(const QDBusArgument& argument) {
    QByteArrayList pixmaps;
    argument.beginArray();
    while (!argument.atEnd()) {
        int width = 0;
        int height = 0;
        QByteArray pixels;
        argument.beginStructure();
        argument >> width >> height >> pixels;
        argument.endStructure();
        pixmaps.append(QByteArray::number(width) + "x" + QByteArray::number(height) + ":" +
                       pixels.toHex());
    }
    argument.endArray();
    return pixmaps;
}

// Keeps the test's own D-Bus objects answering while it waits.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 30s) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    return condition();
}

class TrayOverDBusTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string whyNot;
        if (!SoundServer::isAvailable(SoundServer::Kind::pulseAudio, &whyNot)) {
            GTEST_SKIP() << "PulseAudio is not available: " << whyNot;
        }
        if (!PassSigner::developmentKeyIsBuiltIn()) {
            GTEST_SKIP() << "this build does not trust the development pass key";
        }
        sound_ = SoundServer::start(SoundServer::Kind::pulseAudio);
        desktop_ = std::make_unique<PrivateDesktop>();
        bus_.emplace(QDBusConnection::connectToBus(QString::fromStdString(desktop_->busAddress()),
                                                   "velmora-tray-test"));
        ASSERT_TRUE(bus_->isConnected()) << bus_->lastError().message().toStdString();
        port_ = freePort();
        desktop_->saveHelperPort(port_);
    }

    void TearDown() override {
        helper_.reset();
        if (bus_) QDBusConnection::disconnectFromBus("velmora-tray-test");
        bus_.reset();
        desktop_.reset();
        sound_.reset();
    }

    // Plays the panel's part: a StatusNotifierItem host is there.
    void registerWatcher() {
        ASSERT_TRUE(bus_->registerObject("/StatusNotifierWatcher", &watcher_,
                                         QDBusConnection::ExportAllContents));
        ASSERT_TRUE(bus_->registerService("org.kde.StatusNotifierWatcher"));
    }

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

    // True when a window of the helper sits inside trayer's panel window.
    bool iconIsInTheXEmbedPanel() {
        std::istringstream tree(runOnDisplay("xwininfo -root -tree"));
        std::string line;
        std::size_t panelIndent = std::string::npos;
        while (std::getline(tree, line)) {
            std::size_t indent = line.find_first_not_of(' ');
            if (line.find("(\"panel\" \"trayer\")") != std::string::npos) {
                panelIndent = indent;
                continue;
            }
            if (panelIndent == std::string::npos) continue;
            if (indent <= panelIndent) {
                panelIndent = std::string::npos;
                continue;
            }
            if (line.find("(\"velmora-audio-helper\" \"Velmora Audio Helper\")") !=
                std::string::npos) {
                return true;
            }
        }
        return false;
    }

    void startHelper() {
        helper_ = desktop_->launch({VELMORA_HELPER_EXECUTABLE, "--no-install"},
                                   sound_->environment(), "helper");
    }

    // The helper's log file, then its standard output and error.
    std::string helperLog() {
        std::ifstream file(desktop_->folder() / "state" / "velmora-audio-helper" /
                           "VelmoraAudioHelper.log");
        std::string log((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        return log + desktop_->readLog("helper");
    }

    // The helper ended with 0, and the streaming page saw its connection close without an error.
    void expectCleanEnd(TestPage& page) {
        std::optional<int> exitCode;
        ASSERT_TRUE(waitUntil([&] {
            exitCode = helper_->waitFor(10ms);
            return exitCode.has_value();
        })) << helperLog();
        EXPECT_EQ(*exitCode, 0) << helperLog();
        EXPECT_TRUE(page.waitClosed());
        while (auto message = page.next(100ms)) {
            if (message->binary) continue;
            auto json = nlohmann::json::parse(message->data, nullptr, false);
            EXPECT_NE(json.value("type", ""), "error") << message->data;
        }
    }

    QVariant itemProperty(const QString& name) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            watcher_.itemService(), watcher_.itemPath(), "org.freedesktop.DBus.Properties", "Get");
        call << "org.kde.StatusNotifierItem" << name;
        QDBusMessage reply = bus_->call(call, QDBus::Block, 10'000);
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return {};
        return reply.arguments().front().value<QDBusVariant>().variant();
    }

    ToolTip toolTip() {
        ToolTip toolTip;
        QVariant value = itemProperty("ToolTip");
        if (!value.canConvert<QDBusArgument>()) return toolTip;
        const QDBusArgument argument = value.value<QDBusArgument>();
        argument.beginStructure();
        argument >> toolTip.iconName;
        toolTip.pixmapCount = static_cast<int>(readPixmaps(argument).size());
        QString description;
        argument >> toolTip.title >> description;
        argument.endStructure();
        return toolTip;
    }

    // What the panel would draw: the icon's name and its pixels, as one comparable text.
    QByteArray iconSeen() {
        QByteArray seen = itemProperty("IconName").toString().toUtf8() + "|";
        QVariant pixmaps = itemProperty("IconPixmap");
        if (pixmaps.canConvert<QDBusArgument>()) {
            seen += readPixmaps(pixmaps.value<QDBusArgument>()).join();
        }
        return seen;
    }

    static void readLayout(const QDBusArgument& argument, std::vector<MenuRow>& rows, bool isRoot) {
        int id = 0;
        MenuRow row;
        argument.beginStructure();
        argument >> id >> row.properties;
        row.id = id;
        argument.beginArray();
        while (!argument.atEnd()) {
            QDBusVariant child;
            argument >> child;
            readLayout(child.variant().value<QDBusArgument>(), rows, false);
        }
        argument.endArray();
        argument.endStructure();
        if (!isRoot) rows.push_back(row);
    }

    std::vector<MenuRow> menuRows() {
        QString menuPath = itemProperty("Menu").value<QDBusObjectPath>().path();
        QDBusMessage call = QDBusMessage::createMethodCall(watcher_.itemService(), menuPath,
                                                           "com.canonical.dbusmenu", "GetLayout");
        call << 0 << -1 << QStringList();
        QDBusMessage reply = bus_->call(call, QDBus::Block, 10'000);
        std::vector<MenuRow> rows;
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() < 2) {
            return rows;
        }
        readLayout(reply.arguments()[1].value<QDBusArgument>(), rows, true);
        return rows;
    }

    std::string startMessage() {
        double now =
            std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
                .count();
        return nlohmann::json{
            {"type", "start"},
            {"pass", PassSigner::development().issue(HelperInfo::builtInOrigins().front(), now)}}
            .dump();
    }

    std::unique_ptr<SoundServer> sound_;
    std::unique_ptr<PrivateDesktop> desktop_;
    std::optional<QDBusConnection> bus_;
    StatusNotifierWatcherStandIn watcher_;
    std::unique_ptr<SoundServer::Process> helper_;
    int port_ = 0;
};

TEST_F(TrayOverDBusTest, PanelSeesTheItemItsMenuAndTheSendingStateAndSigtermEndsCleanly) {
    registerWatcher();
    startHelper();
    ASSERT_TRUE(waitUntil([&] { return !watcher_.itemService().isEmpty(); }))
        << "the helper never registered a tray item\n"
        << helperLog();

    QString waiting = "Velmora Audio Helper \u2014 Ready \u00B7 waiting for Velmora (port " +
                      QString::number(port_) + ")";
    ASSERT_TRUE(waitUntil([&] { return toolTip().title == waiting; }))
        << toolTip().title.toStdString() << "\n"
        << helperLog();
    EXPECT_EQ(itemProperty("Title").toString().toStdString(), "Velmora Audio Helper");
    QByteArray waitingIcon = iconSeen();
    EXPECT_NE(waitingIcon, "|") << "the item shows no icon";

    std::vector<MenuRow> rows = menuRows();
    ASSERT_EQ(rows.size(), 9u) << helperLog();
    EXPECT_EQ(rows[0].label(),
              "Velmora Audio Helper " + QString::fromStdString(HelperInfo::version()));
    EXPECT_FALSE(rows[0].enabled());
    EXPECT_EQ(rows[1].label(),
              "Ready \u00B7 waiting for Velmora (port " + QString::number(port_) + ")");
    EXPECT_FALSE(rows[1].enabled());
    EXPECT_EQ(rows[2].label(), "Allow System Audio Recording\u2026");
    EXPECT_FALSE(rows[2].visible());
    EXPECT_TRUE(rows[3].isSeparator());
    EXPECT_EQ(rows[4].label(), "Open Velmora");
    EXPECT_EQ(rows[5].label(), "Port\u2026");
    EXPECT_EQ(rows[6].label(), "Start at Login");
    EXPECT_EQ(rows[6].properties.value("toggle-type").toString(), "checkmark");
    EXPECT_EQ(rows[6].properties.value("toggle-state").toInt(), 0);
    EXPECT_TRUE(rows[7].isSeparator());
    EXPECT_EQ(rows[8].label(), "Quit Velmora Audio Helper");
    for (int row : {4, 5, 6, 8}) {
        EXPECT_TRUE(rows[row].enabled()) << row;
        EXPECT_TRUE(rows[row].visible()) << row;
    }

    PageNetwork network;
    auto opening = TestPage::open(network, static_cast<std::uint16_t>(port_),
                                  {.origin = HelperInfo::builtInOrigins().front()});
    ASSERT_TRUE(opening.page) << opening.error.message();
    auto page = opening.page;
    auto hello = page->nextJson();
    ASSERT_TRUE(hello);
    ASSERT_FALSE(page->sendText(startMessage()));
    auto started = page->nextJson();
    ASSERT_TRUE(started);
    ASSERT_EQ(*started, nlohmann::json({{"type", "started"}})) << helperLog();
    ASSERT_TRUE(page->waitForBinaryCount(3));

    QString sending =
        "Velmora Audio Helper \u2014 \u25CF Sending system audio to "
        "app.velmora.example";
    EXPECT_TRUE(waitUntil([&] { return toolTip().title == sending; }))
        << toolTip().title.toStdString();
    EXPECT_NE(iconSeen(), waitingIcon) << "the icon did not change to the sending state";

    ::kill(helper_->pid(), SIGTERM);
    expectCleanEnd(*page);
}

TEST_F(TrayOverDBusTest, QuitFromThePanelsMenuEndsCleanlyWhileAPageStreams) {
    registerWatcher();
    startHelper();
    ASSERT_TRUE(waitUntil([&] { return !watcher_.itemService().isEmpty(); })) << helperLog();
    ASSERT_TRUE(waitUntil([&] { return toolTip().title.contains("waiting for Velmora"); }))
        << helperLog();

    PageNetwork network;
    auto opening = TestPage::open(network, static_cast<std::uint16_t>(port_),
                                  {.origin = HelperInfo::builtInOrigins().front()});
    ASSERT_TRUE(opening.page) << opening.error.message();
    auto page = opening.page;
    ASSERT_TRUE(page->nextJson());
    ASSERT_FALSE(page->sendText(startMessage()));
    ASSERT_EQ(page->nextJson(), nlohmann::json({{"type", "started"}})) << helperLog();

    std::vector<MenuRow> rows = menuRows();
    ASSERT_EQ(rows.size(), 9u);
    ASSERT_EQ(rows[8].label(), "Quit Velmora Audio Helper");
    QString menuPath = itemProperty("Menu").value<QDBusObjectPath>().path();
    QDBusMessage click = QDBusMessage::createMethodCall(watcher_.itemService(), menuPath,
                                                        "com.canonical.dbusmenu", "Event");
    click << rows[8].id << "clicked" << QVariant::fromValue(QDBusVariant(0)) << 0u;
    bus_->call(click, QDBus::NoBlock);

    expectCleanEnd(*page);
}

TEST_F(TrayOverDBusTest, WithoutAWatcherTheIconGoesIntoAnXEmbedTray) {
    auto trayer = desktop_->launch({"trayer", "--edge", "top", "--align", "right", "--widthtype",
                                    "pixel", "--width", "200", "--height", "24"},
                                   {}, "trayer");
    ASSERT_TRUE(waitUntil([&] {
        return runOnDisplay("xwininfo -root -tree").find("(\"panel\" \"trayer\")") !=
               std::string::npos;
    })) << desktop_->readLog("trayer");
    startHelper();
    EXPECT_TRUE(waitUntil([&] { return iconIsInTheXEmbedPanel(); }))
        << runOnDisplay("xwininfo -root -tree") << helperLog();
    // The listener's first line comes after the tray was chosen, so a fallback would show.
    ASSERT_TRUE(waitUntil([&] { return helperLog().find("Listening on") != std::string::npos; }))
        << helperLog();
    EXPECT_EQ(helperLog().find("No system tray"), std::string::npos) << helperLog();
    ::kill(helper_->pid(), SIGTERM);
    EXPECT_EQ(helper_->waitFor(30s), 0) << helperLog();
}

TEST_F(TrayOverDBusTest, WithNeitherTrayTheStatusShowsInAWindow) {
    startHelper();
    std::string windows;
    ASSERT_TRUE(waitUntil([&] {
        windows = runOnDisplay("xdotool search --onlyvisible --name '^Velmora Audio Helper$'");
        return !windows.empty() && helperLog().find("Listening on") != std::string::npos;
    })) << helperLog()
        << "\nXvfb: " << desktop_->readLog("xvfb");
    EXPECT_NE(helperLog().find("No system tray is available on this desktop"), std::string::npos)
        << helperLog();
    std::string window = windows.substr(0, windows.find('\n'));
    std::string geometry = runOnDisplay("xdotool getwindowgeometry " + window);
    EXPECT_EQ(geometry.find("Geometry: 1x1"), std::string::npos) << geometry;
    ::kill(helper_->pid(), SIGTERM);
    EXPECT_EQ(helper_->waitFor(30s), 0) << helperLog();
}

TEST_F(TrayOverDBusTest, HeadlessAndCommandsNeverLoadQtPluginsEvenWithADisplay) {
    registerWatcher();
    helper_ = desktop_->launch({VELMORA_HELPER_EXECUTABLE, "--headless"}, {"QT_DEBUG_PLUGINS=1"},
                               "helper");
    ASSERT_TRUE(waitUntil([&] { return helperLog().find("Listening on") != std::string::npos; }))
        << helperLog();
    std::ifstream mapsFile("/proc/" + std::to_string(helper_->pid()) + "/maps");
    std::string maps((std::istreambuf_iterator<char>(mapsFile)), std::istreambuf_iterator<char>());
    // Not even the libraries: the tray and Qt are a module that only the tray loads.
    EXPECT_EQ(maps.find("libQt6"), std::string::npos);
    EXPECT_EQ(maps.find("velmora-tray.so"), std::string::npos);
    EXPECT_TRUE(watcher_.itemService().isEmpty());
    EXPECT_EQ(runOnDisplay("xdotool search --onlyvisible --name '^Velmora Audio Helper$'"), "");
    ::kill(helper_->pid(), SIGTERM);
    EXPECT_EQ(helper_->waitFor(30s), 0) << helperLog();
    EXPECT_EQ(helperLog().find("qt.core.plugin"), std::string::npos) << helperLog();

    auto settings = desktop_->launch({VELMORA_HELPER_EXECUTABLE, "settings"},
                                     {"QT_DEBUG_PLUGINS=1"}, "settings");
    EXPECT_EQ(settings->waitFor(30s), 0);
    std::string output = desktop_->readLog("settings");
    EXPECT_NE(output.find("port"), std::string::npos) << output;
    EXPECT_EQ(output.find("qt.core.plugin"), std::string::npos) << output;
}

TEST_F(TrayOverDBusTest, WithoutItsTrayModuleTheHelperSaysWhyAndServesHeadless) {
    // A copy of the program that lost its module, as a half-copied portable folder would be. It
    // keeps its core library, which it cannot start without, where its run path finds it in the
    // build tree: the folder above its own.
    std::filesystem::path lonely = desktop_->folder() / "lonely" / "bin";
    std::filesystem::create_directories(lonely);
    std::filesystem::copy_file(VELMORA_HELPER_EXECUTABLE, lonely / "velmora-audio-helper");
    const std::filesystem::path core = VELMORA_CORE_LIBRARY;
    std::filesystem::copy_file(core, lonely.parent_path() / core.filename());
    registerWatcher();
    helper_ = desktop_->launch({(lonely / "velmora-audio-helper").string(), "--no-install"},
                               sound_->environment(), "helper");
    ASSERT_TRUE(waitUntil([&] { return helperLog().find("Listening on") != std::string::npos; }))
        << helperLog();
    EXPECT_NE(helperLog().find("velmora-audio-helper: the tray could not be loaded: no "
                               "velmora-tray.so beside the program or in"),
              std::string::npos)
        << helperLog();
    EXPECT_NE(helperLog().find("velmora-audio-helper: running headless instead"), std::string::npos)
        << helperLog();
    EXPECT_TRUE(watcher_.itemService().isEmpty());
    ::kill(helper_->pid(), SIGTERM);
    EXPECT_EQ(helper_->waitFor(30s), 0) << helperLog();
}

}  // namespace
}  // namespace velmora::testing

int main(int argc, char** argv) {
    // D-Bus objects answer from this thread's event loop, which the waits keep turning.
    QCoreApplication application(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
