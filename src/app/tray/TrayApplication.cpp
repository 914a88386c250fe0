#include "app/tray/TrayApplication.h"

#include <QApplication>
#include <QSessionManager>
#include <csignal>
#include <memory>

#include "access/HelperPass.h"
#include "app/HelperServices.h"
#include "app/TrayAppearance.h"
#include "app/XdgAutostartLoginItem.h"
#include "app/installer/AppInstaller.h"
#include "app/tray/AppDelegate.h"
#include "app/tray/StatusIcons.h"
#include "app/tray/TerminationSignals.h"
#include "config/HelperInfo.h"
#include "config/HelperSettings.h"
#include "config/Log.h"
#include "config/SerialQueue.h"

namespace velmora {
namespace {

const char* signalName(int signal) {
    switch (signal) {
        case SIGTERM:
            return "SIGTERM";
        case SIGINT:
            return "SIGINT";
        default:
            return "SIGHUP";
    }
}

}  // namespace

int runTrayApplication(const HelperArguments& arguments, const std::vector<std::string>& args,
                       int& argc, char** argv) {
    // Port and admitted origins come from the saved settings, read anew at every use.
    HelperSettings::shared().installAsKitHooks();
    // A page that vanishes mid-write must not end the process.
    std::signal(SIGPIPE, SIG_IGN);
    log(HelperPass::trustedKeysText(HelperPass::keyCount()));

    QApplication application(argc, argv);
    // Panels read the item's title, and with it its accessible name, from the application name.
    QApplication::setApplicationName("Velmora Audio Helper");
    QApplication::setApplicationDisplayName("Velmora Audio Helper");
    QApplication::setApplicationVersion(QString::fromStdString(HelperInfo::version()));
    QApplication::setDesktopFileName(HelperInfo::appId);
    // Without Qt's SVG icon engine (Debian 13 ships it apart from the SVG library) the tray item
    // is blank; the log says what to install.
    if (statusIcon(TrayIcons::idle).pixmap(16, 16).isNull()) {
        log("The tray's status icons cannot be drawn: Qt's SVG icon engine is missing (Debian: "
            "install qt6-svg-plugins, or libqt6svg6 on Debian 12)");
    }
    // Closing a dialog must not end a program whose home is the tray.
    QApplication::setQuitOnLastWindowClosed(false);
    // The X session manager must never start the helper again at the next login: start at login
    // does that, and a restored copy would be a second one.
    auto neverRestart = [](QSessionManager& manager) {
        manager.setRestartHint(QSessionManager::RestartNever);
    };
    QObject::connect(&application, &QGuiApplication::commitDataRequest, &application, neverRestart,
                     Qt::DirectConnection);
    QObject::connect(&application, &QGuiApplication::saveStateRequest, &application, neverRestart,
                     Qt::DirectConnection);

    TerminationSignals terminationSignals([](int signal) {
        log(std::string("Quitting (") + signalName(signal) + ")");
        QCoreApplication::quit();
    });

    // The server's main queue: its own thread, from which statuses are posted into Qt's event
    // loop; the capture's device-change debounce runs there too.
    SerialQueue mainQueue("com.velmora.audiohelper.main");
    auto [permission, server] = makeHelperServices(mainQueue, HelperSettings::shared());

    int exitCode = 0;
    {
        AppDelegate delegate({
            .server = server,
            .permission = permission,
            .loginItems = std::make_shared<XdgAutostartLoginItem>(),
            .installerTakesOver = [&args] { return AppInstaller::offerToInstallIfNeeded(args); },
            .noWelcome = arguments.noWelcome,
        });
        QObject::connect(&application, &QCoreApplication::aboutToQuit, &delegate,
                         [&delegate] { delegate.applicationWillTerminate(); });
        if (delegate.applicationDidFinishLaunching()) exitCode = QApplication::exec();
    }
    server.reset();
    flushLog();
    return exitCode;
}

}  // namespace velmora
