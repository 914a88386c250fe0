#include "app/tray/StatusNotifierItem.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

#include "config/Log.h"

namespace velmora {
namespace {

const QString watcherService = "org.kde.StatusNotifierWatcher";
const QString watcherPath = "/StatusNotifierWatcher";

}  // namespace

StatusNotifierItemObject::StatusNotifierItemObject(std::function<void(QPoint)> popUpMenu)
    : popUpMenu_(std::move(popUpMenu)) {}

QString StatusNotifierItemObject::title() const {
    return QCoreApplication::applicationName();
}

void StatusNotifierItemObject::setAppearance(const QIcon& icon, const QString& toolTip) {
    bool iconChanged = icon.cacheKey() != icon_.cacheKey();
    bool toolTipChanged = toolTip != toolTip_.title;
    if (iconChanged) {
        icon_ = icon;
        // A name only where the icon theme has the icon: the panel then draws it in its own
        // colours.
        iconName_ = QIcon::hasThemeIcon(icon.name()) ? icon.name() : QString();
        toolTip_.iconName = iconName_;
        toolTip_.images = dbusImages(icon);
    }
    toolTip_.title = toolTip;
    if (iconChanged) Q_EMIT NewIcon();
    if (iconChanged || toolTipChanged) Q_EMIT NewToolTip();
}

void StatusNotifierItemObject::ContextMenu(int x, int y) {
    if (popUpMenu_) popUpMenu_(QPoint(x, y));
}

void StatusNotifierItemObject::Activate(int x, int y) {
    ContextMenu(x, y);
}

void StatusNotifierItemObject::SecondaryActivate(int, int) {}

void StatusNotifierItemObject::Scroll(int, const QString&) {}

StatusNotifierItem::StatusNotifierItem(QMenu& menu, std::function<void()> menuWillOpen,
                                       std::function<void(QPoint)> popUpMenu)
    : item_(std::move(popUpMenu)), menu_(menu, std::move(menuWillOpen)) {}

StatusNotifierItem::~StatusNotifierItem() {
    if (!bus_) return;
    bus_->unregisterObject("/StatusNotifierItem");
    bus_->unregisterObject("/MenuBar");
    if (!serviceName_.isEmpty()) bus_->unregisterService(serviceName_);
}

bool StatusNotifierItem::publish(QDBusConnection bus) {
    if (!bus.isConnected()) return false;
    registerDBusTrayTypes();
    bus_ = std::make_unique<QDBusConnection>(bus);
    if (!bus_->registerObject("/StatusNotifierItem", &item_,
                              QDBusConnection::ExportAllProperties |
                                  QDBusConnection::ExportAllSlots |
                                  QDBusConnection::ExportAllSignals) ||
        !bus_->registerObject("/MenuBar", &menu_,
                              QDBusConnection::ExportAllProperties |
                                  QDBusConnection::ExportAllSlots |
                                  QDBusConnection::ExportAllSignals)) {
        log("The tray item could not be put on the session bus: " +
            bus_->lastError().message().toStdString());
        return false;
    }
    // The name the protocol suggests; the connection's own name does where it is refused.
    QString wanted =
        QString("org.kde.StatusNotifierItem-%1-1").arg(QCoreApplication::applicationPid());
    serviceName_ = bus_->registerService(wanted) ? wanted : bus_->baseService();

    // A panel that hands its name straight to its successor changes the owner without the name
    // ever being free: that too is a new watcher to register with.
    watcher_ = std::make_unique<QDBusServiceWatcher>(watcherService, *bus_,
                                                     QDBusServiceWatcher::WatchForOwnerChange);
    connect(watcher_.get(), &QDBusServiceWatcher::serviceOwnerChanged, this,
            [this](const QString&, const QString&, const QString& newOwner) {
                if (newOwner.isEmpty()) {
                    watcherVanished();
                } else {
                    watcherAppeared();
                }
            });
    if (bus_->interface()->isServiceRegistered(watcherService)) watcherAppeared();
    return true;
}

void StatusNotifierItem::setAppearance(const QIcon& icon, const QString& toolTip) {
    item_.setAppearance(icon, toolTip);
}

void StatusNotifierItem::watcherAppeared() {
    watcherPresent_ = true;
    int attempt = ++attempt_;
    QDBusMessage call = QDBusMessage::createMethodCall(watcherService, watcherPath, watcherService,
                                                       "RegisterStatusNotifierItem");
    call << serviceName_;
    auto* pending = new QDBusPendingCallWatcher(bus_->asyncCall(call), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this,
            [this, attempt](QDBusPendingCallWatcher* finished) {
                finished->deleteLater();
                if (attempt != attempt_) return;
                QDBusPendingReply<> reply = *finished;
                if (reply.isError()) {
                    log("The panel did not take the tray item: " +
                        reply.error().message().toStdString());
                    return;
                }
                setRegistered(true);
            });
}

void StatusNotifierItem::watcherVanished() {
    watcherPresent_ = false;
    ++attempt_;
    setRegistered(false);
}

void StatusNotifierItem::setRegistered(bool registered) {
    if (registered == registered_) return;
    registered_ = registered;
    Q_EMIT registrationChanged();
}

}  // namespace velmora
