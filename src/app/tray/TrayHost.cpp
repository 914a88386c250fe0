#include "app/tray/TrayHost.h"

#include <QCursor>
#include <QDBusConnection>
#include <QGuiApplication>

#include "app/tray/StatusIcons.h"
#include "config/Log.h"

namespace velmora {
namespace {

bool onX11() {
    return QGuiApplication::platformName() == "xcb";
}

}  // namespace

TrayHost::TrayHost(QMenu& menu, Actions actions)
    : menu_(menu),
      actions_(std::move(actions)),
      item_(menu, actions_.menuWillOpen, [this](QPoint where) { popUpMenu(where); }) {
    waitForTray_.setSingleShot(true);
    // A coarse timer may end a twentieth early; the bound is a promise to the panel.
    waitForTray_.setTimerType(Qt::PreciseTimer);
    waitForTray_.setInterval(trayWaitBound);
    connect(&waitForTray_, &QTimer::timeout, this, [this] { showFallbackWindow(); });
    connect(&item_, &StatusNotifierItem::registrationChanged, this, [this] { update(); });
}

TrayHost::~TrayHost() = default;

void TrayHost::start() {
    item_.publish(QDBusConnection::sessionBus());
    if (onX11()) {
        xembedTray_ = XEmbedTrayWatch::createForThisDisplay(this);
        if (xembedTray_ != nullptr) {
            connect(xembedTray_, &XEmbedTrayWatch::trayChanged, this, [this] { update(); });
        }
    }
    update();
}

void TrayHost::show(const TrayAppearance& appearance) {
    // The same icon keeps its cache key, so the item sends its pixels only when they change.
    if (icon_.isNull() || appearance.iconName != appearance_.iconName) {
        icon_ = statusIcon(appearance.iconName);
    }
    appearance_ = appearance;
    toolTip_ = QString::fromStdString(appearance.toolTip);
    item_.setAppearance(icon_, toolTip_);
    if (xembedIcon_) {
        xembedIcon_->setIcon(icon_);
        xembedIcon_->setToolTip(toolTip_);
    }
    if (fallbackWindow_) fallbackWindow_->show(appearance);
}

void TrayHost::update() {
    bool xembedTray = xembedTray_ != nullptr && xembedTray_->trayPresent();
    bool wantXEmbedIcon = xembedTray && !item_.isRegistered();
    if (wantXEmbedIcon && !xembedIcon_ && !item_.watcherPresent()) createXEmbedIcon();
    if (xembedIcon_) xembedIcon_->setVisible(wantXEmbedIcon);

    bool inATray = item_.isRegistered() || (xembedIcon_ && wantXEmbedIcon);
    if (inATray) {
        waitForTray_.stop();
        if (fallbackWindow_) {
            log(std::string("A system tray appeared (") +
                (item_.isRegistered() ? "StatusNotifierItem" : "XEmbed") +
                "); the status moves from its window into the tray");
            // Destroyed, not closed: closing the window means quitting.
            fallbackWindow_.reset();
        }
    } else if (!fallbackWindow_ && !waitForTray_.isActive()) {
        waitForTray_.start();
    }
    inATray_ = inATray;
}

void TrayHost::showFallbackWindow() {
    if (inATray_ || fallbackWindow_) return;
    log("No system tray is available on this desktop (no StatusNotifierItem host and no XEmbed "
        "tray); showing the status in a window instead");
    fallbackWindow_ = std::make_unique<FallbackWindow>(menu_, actions_.quit);
    fallbackWindow_->show(appearance_);
}

void TrayHost::createXEmbedIcon() {
    xembedIcon_ = std::make_unique<QSystemTrayIcon>();
    xembedIcon_->setIcon(icon_);
    xembedIcon_->setToolTip(toolTip_);
    xembedIcon_->setContextMenu(&menu_);
    // Some trays send a plain click rather than asking for the context menu.
    connect(xembedIcon_.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger) popUpMenu(QCursor::pos());
            });
}

void TrayHost::popUpMenu(QPoint where) {
    // Only X lets a client place a menu at a point of the screen; elsewhere the panel shows the
    // exported menu itself.
    if (onX11()) menu_.popup(where);
}

}  // namespace velmora
