#pragma once

#include <QIcon>
#include <QMenu>
#include <QObject>
#include <QSystemTrayIcon>
#include <QTimer>
#include <chrono>
#include <functional>
#include <memory>

#include "app/TrayAppearance.h"
#include "app/tray/FallbackWindow.h"
#include "app/tray/StatusNotifierItem.h"
#include "app/tray/XEmbedTrayWatch.h"

namespace velmora {

// Where the helper shows itself, as the desktop changes under it: its own StatusNotifierItem
// whenever a panel's watcher is on the session bus; otherwise, on X, Qt's icon in an XEmbed
// tray; otherwise, once no tray has come for `trayWaitBound`, a small window. A tray that comes
// later, even after the window was shown, takes the icon and the window goes; a tray that goes
// away and does not come back within the bound brings the window back. Main thread only.
class TrayHost final : public QObject {
  public:
    // At login the session starts its autostart programs beside the panel, which needs a few
    // seconds on a slow disk to put up its tray; ten seconds covers that, and a desktop with no
    // tray at all still shows the window before anyone goes looking for the helper.
    static constexpr std::chrono::seconds trayWaitBound{10};

    struct Actions {
        // Before the menu opens, from whichever tray opens it.
        std::function<void()> menuWillOpen;
        // The fallback window was closed: it is then the helper's only face.
        std::function<void()> quit;
    };

    TrayHost(QMenu& menu, Actions actions);
    ~TrayHost() override;

    // Publishes the item and starts looking for a tray.
    void start();
    void show(const TrayAppearance& appearance);

    QString toolTip() const { return toolTip_; }
    const QIcon& icon() const { return icon_; }
    FallbackWindow* fallbackWindow() { return fallbackWindow_.get(); }
    QSystemTrayIcon* xembedIcon() { return xembedIcon_.get(); }
    const StatusNotifierItem& item() const { return item_; }

  private:
    void update();
    void showFallbackWindow();
    void createXEmbedIcon();
    void popUpMenu(QPoint where);

    QMenu& menu_;
    Actions actions_;
    StatusNotifierItem item_;
    XEmbedTrayWatch* xembedTray_ = nullptr;
    // Made only while no watcher is on the bus: Qt decides once per process whether its icons
    // go over D-Bus, and this one must stay in the XEmbed tray.
    std::unique_ptr<QSystemTrayIcon> xembedIcon_;
    std::unique_ptr<FallbackWindow> fallbackWindow_;
    QTimer waitForTray_;
    bool inATray_ = false;
    QIcon icon_;
    QString toolTip_;
    TrayAppearance appearance_;
};

}  // namespace velmora
