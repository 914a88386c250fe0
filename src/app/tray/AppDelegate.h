#pragma once

#include <QAction>
#include <QMenu>
#include <QObject>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/LoginItemService.h"
#include "app/tray/FallbackWindow.h"
#include "app/tray/MainThreadStatusRelay.h"
#include "app/tray/TrayHost.h"
#include "capture/AudioCapturePermission.h"
#include "server/HelperServer.h"
#include "server/HelperStatus.h"

namespace velmora {

// The tray front end: the tray icon and its menu, the port and welcome dialogs, start at login,
// and the server's life from launch to quit. Lives on the Qt main thread; every menu action,
// dialog and render runs there, and the server's statuses are brought there.
class AppDelegate final : public QObject {
  public:
    struct Services {
        std::shared_ptr<HelperServer> server;
        // Opened by "Allow System Audio Recording…"; the server asks the same one.
        std::shared_ptr<AudioCapturePermission> permission;
        std::shared_ptr<LoginItemService> loginItems;
        // True when an installed copy takes over and this process must end at once.
        std::function<bool()> installerTakesOver;
        // "--no-welcome" was given.
        bool noWelcome = false;
    };

    explicit AppDelegate(Services services);
    ~AppDelegate() override;

    // The launch sequence. False when the installer took over: the caller ends the process
    // without anything shown or started.
    bool applicationDidFinishLaunching();
    // Before the process exits: closes the listener and stops any capture, silently.
    void applicationWillTerminate();

    // The menu's actions.
    void menuWillOpen();
    void render();
    void openVelmora();
    void openPermissionSettings();
    void toggleLoginItem();
    void editPort();
    void quit();
    void showWelcome();

    QMenu& menu() { return menu_; }
    QAction& statusLine() { return *statusLine_; }
    QAction& permissionItem() { return *permissionItem_; }
    QAction& loginItem() { return *loginItem_; }
    // Null until launched.
    TrayHost* statusItem() { return statusItem_.get(); }
    const HelperStatus& status() const { return status_; }

  private:
    void fillMenu();
    void showLoginItemFailure(const std::string& reason);

    Services services_;
    // Before the tray item, which shows it and so must go first.
    QMenu menu_;
    std::unique_ptr<TrayHost> statusItem_;
    QAction* statusLine_ = nullptr;
    QAction* permissionItem_ = nullptr;
    QAction* loginItem_ = nullptr;
    HelperStatus status_;
    MainThreadStatusRelay relay_{this};
};

}  // namespace velmora
