#pragma once

#include <QDBusConnection>
#include <QDBusObjectPath>
#include <QDBusServiceWatcher>
#include <QIcon>
#include <QMenu>
#include <QObject>
#include <QPoint>
#include <functional>
#include <memory>

#include "app/tray/DBusMenuExporter.h"
#include "app/tray/DBusTrayTypes.h"
#include "config/HelperInfo.h"

namespace velmora {

// What a panel reads at /StatusNotifierItem (org.kde.StatusNotifierItem).
class StatusNotifierItemObject final : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierItem")
    Q_PROPERTY(QString Category READ category)
    Q_PROPERTY(QString Id READ id)
    Q_PROPERTY(QString Title READ title)
    Q_PROPERTY(QString Status READ status)
    Q_PROPERTY(int WindowId READ windowId)
    Q_PROPERTY(QString IconThemePath READ emptyText)
    Q_PROPERTY(QString IconName READ iconName)
    Q_PROPERTY(velmora::DBusImageList IconPixmap READ iconPixmap)
    Q_PROPERTY(QString OverlayIconName READ emptyText)
    Q_PROPERTY(velmora::DBusImageList OverlayIconPixmap READ noImages)
    Q_PROPERTY(QString AttentionIconName READ emptyText)
    Q_PROPERTY(velmora::DBusImageList AttentionIconPixmap READ noImages)
    Q_PROPERTY(QString AttentionMovieName READ emptyText)
    Q_PROPERTY(velmora::DBusToolTip ToolTip READ toolTip)
    Q_PROPERTY(bool ItemIsMenu READ itemIsMenu)
    Q_PROPERTY(QDBusObjectPath Menu READ menu)

  public:
    // `popUpMenu` shows the menu at a point on the screen, for panels that ask the item to.
    explicit StatusNotifierItemObject(std::function<void(QPoint)> popUpMenu);

    QString category() const { return "ApplicationStatus"; }
    QString id() const { return HelperInfo::appId; }
    QString title() const;
    QString status() const { return "Active"; }
    int windowId() const { return 0; }
    QString emptyText() const { return {}; }
    QString iconName() const { return iconName_; }
    DBusImageList iconPixmap() const { return toolTip_.images; }
    DBusImageList noImages() const { return {}; }
    DBusToolTip toolTip() const { return toolTip_; }
    // The menu is all the item offers, so a plain click shows it where the panel puts menus;
    // a client cannot place it itself where the display server keeps the pointer from it.
    bool itemIsMenu() const { return true; }
    QDBusObjectPath menu() const { return QDBusObjectPath("/MenuBar"); }

    // Changes what the panel shows and tells it so.
    void setAppearance(const QIcon& icon, const QString& toolTip);
    const QIcon& icon() const { return icon_; }

  public Q_SLOTS:
    void ContextMenu(int x, int y);
    void Activate(int x, int y);
    void SecondaryActivate(int x, int y);
    void Scroll(int delta, const QString& orientation);

  Q_SIGNALS:
    void NewTitle();
    void NewIcon();
    void NewAttentionIcon();
    void NewOverlayIcon();
    void NewToolTip();
    void NewStatus(const QString& status);

  private:
    std::function<void(QPoint)> popUpMenu_;
    QIcon icon_;
    QString iconName_;
    DBusToolTip toolTip_;
};

// The tray item published over D-Bus by the helper itself, so that it can come and go with the
// panel: it registers with the panel's StatusNotifierWatcher whenever one appears, at launch or
// later, and again after the panel restarts. Main thread only.
class StatusNotifierItem final : public QObject {
    Q_OBJECT

  public:
    StatusNotifierItem(QMenu& menu, std::function<void()> menuWillOpen,
                       std::function<void(QPoint)> popUpMenu);
    ~StatusNotifierItem() override;

    // Puts the item and its menu on `bus` and starts following the watcher. False when the bus
    // cannot be used; the item then never registers.
    bool publish(QDBusConnection bus);

    void setAppearance(const QIcon& icon, const QString& toolTip);

    // A watcher is on the bus (the item may not have registered with it yet).
    bool watcherPresent() const { return watcherPresent_; }
    // The watcher accepted the item: a panel shows it.
    bool isRegistered() const { return registered_; }
    const StatusNotifierItemObject& item() const { return item_; }

  Q_SIGNALS:
    void registrationChanged();

  private:
    void watcherAppeared();
    void watcherVanished();
    void setRegistered(bool registered);

    StatusNotifierItemObject item_;
    DBusMenuExporter menu_;
    std::unique_ptr<QDBusConnection> bus_;
    std::unique_ptr<QDBusServiceWatcher> watcher_;
    QString serviceName_;
    bool watcherPresent_ = false;
    bool registered_ = false;
    // Counts registrations, so that a late answer to an earlier one is ignored.
    int attempt_ = 0;
};

}  // namespace velmora
