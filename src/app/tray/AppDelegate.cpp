#include "app/tray/AppDelegate.h"

#include <QApplication>
#include <QDesktopServices>
#include <QDialogButtonBox>
#include <QGridLayout>
#include <QKeySequence>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSpacerItem>
#include <QTimer>
#include <QUrl>
#include <cstdlib>

#include "app/PortEntry.h"
#include "app/TrayAppearance.h"
#include "app/tray/StatusIcons.h"
#include "config/BuildConfig.h"
#include "config/HelperInfo.h"
#include "config/HelperSettings.h"
#include "config/Log.h"
#include "config/PlatformTexts.h"

namespace velmora {
namespace {

constexpr int welcomeDelayMilliseconds = 500;
constexpr int accessoryAlertWidth = 420;

QString text(std::string_view value) {
    return QString::fromUtf8(value.data(), static_cast<qsizetype>(value.size()));
}

// A tray application has no window of its own to raise: the dialog itself comes forward. Wayland
// lets no client keep itself above others or raise itself; there the compositor decides, and
// those in use give a new dialog the focus.
void bringToFront(QWidget& dialog) {
    if (!QGuiApplication::platformName().startsWith("wayland")) {
        dialog.setWindowFlag(Qt::WindowStaysOnTopHint);
    }
    dialog.show();
    dialog.raise();
    dialog.activateWindow();
}

// An alert with one default button, as every failure here is shown.
void showAlert(const QString& message, const QString& informativeText) {
    QMessageBox alert;
    alert.setWindowTitle(trayName);
    alert.setIcon(QMessageBox::Warning);
    alert.setText(message);
    alert.setInformativeText(informativeText);
    alert.setStandardButtons(QMessageBox::Ok);
    alert.setDefaultButton(QMessageBox::Ok);
    bringToFront(alert);
    alert.exec();
}

// Puts `field` below the alert's texts, above its buttons.
void addAccessory(QMessageBox& alert, QWidget* field) {
    auto* grid = qobject_cast<QGridLayout*>(alert.layout());
    auto* buttons = alert.findChild<QDialogButtonBox*>();
    if (grid == nullptr || buttons == nullptr) {
        alert.layout()->addWidget(field);
        return;
    }
    grid->removeWidget(buttons);
    int row = grid->rowCount();
    grid->addWidget(field, row, 1, Qt::AlignLeft);
    grid->addWidget(buttons, row + 1, 0, 1, grid->columnCount());
    // Wide enough that the address in the text is not broken over lines.
    grid->addItem(new QSpacerItem(accessoryAlertWidth, 0, QSizePolicy::Minimum), row + 2, 0, 1,
                  grid->columnCount());
}

}  // namespace

AppDelegate::AppDelegate(Services services) : services_(std::move(services)) {}

AppDelegate::~AppDelegate() {
    services_.server->setOnStatus(nullptr);
    // Clearing while the menu is whole lets it free the panel's copies of its rows; once its
    // destructor has begun, removing a row no longer reaches the code that frees them.
    menu_.clear();
}

bool AppDelegate::applicationDidFinishLaunching() {
    if (services_.installerTakesOver && services_.installerTakesOver()) return false;

    statusItem_ = std::make_unique<TrayHost>(menu_, TrayHost::Actions{
                                                        .menuWillOpen = [this] { menuWillOpen(); },
                                                        .quit = [this] { quit(); },
                                                    });

    // Enabled states are set by hand below; QMenu never changes them by itself.
    connect(&menu_, &QMenu::aboutToShow, this, [this] { menuWillOpen(); });
    fillMenu();
    render();
    statusItem_->start();

    services_.server->setOnStatus(relay_.handlerFor([this](const HelperStatus& status) {
        status_ = status;
        render();
    }));
    services_.server->start();

    HelperSettings& settings = HelperSettings::shared();
    if (!settings.hasShownWelcome() && !services_.noWelcome) {
        // Set first, so that a crash while it shows can't greet the user again and again.
        settings.setHasShownWelcome(true);
        QTimer::singleShot(welcomeDelayMilliseconds, this, [this] { showWelcome(); });
    }
    return true;
}

void AppDelegate::fillMenu() {
    auto add = [this](const QString& title, void (AppDelegate::*action)()) {
        QAction* item = menu_.addAction(title);
        if (action != nullptr)
            connect(item, &QAction::triggered, this, [this, action] { (this->*action)(); });
        return item;
    };
    add(QString(trayName) + " " + QString::fromStdString(HelperInfo::version()), nullptr)
        ->setEnabled(false);
    statusLine_ = add("Starting\u2026", nullptr);
    statusLine_->setEnabled(false);
    permissionItem_ =
        add("Allow System Audio Recording\u2026", &AppDelegate::openPermissionSettings);
    permissionItem_->setVisible(false);
    menu_.addSeparator();
    add("Open Velmora", &AppDelegate::openVelmora);
    add("Port\u2026", &AppDelegate::editPort);
    loginItem_ = add("Start at Login", &AppDelegate::toggleLoginItem);
    loginItem_->setCheckable(true);
    loginItem_->setChecked(services_.loginItems->status() == LoginItemService::Status::enabled);
    menu_.addSeparator();
    QAction* quitItem = add("Quit Velmora Audio Helper", &AppDelegate::quit);
    quitItem->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    quitItem->setShortcutVisibleInContextMenu(true);
}

void AppDelegate::applicationWillTerminate() {
    services_.server->shutdown();
}

void AppDelegate::menuWillOpen() {
    loginItem_->setChecked(services_.loginItems->status() == LoginItemService::Status::enabled);
    render();
}

void AppDelegate::render() {
    TrayAppearance appearance = velmora::render(status_, HelperSettings::shared().port());
    statusLine_->setText(QString::fromStdString(appearance.statusText));
    permissionItem_->setVisible(appearance.permissionItemVisible);
    if (statusItem_) statusItem_->show(appearance);
}

void AppDelegate::openVelmora() {
    QUrl address(text(build::webAppUrl), QUrl::StrictMode);
    if (!address.isValid() || address.scheme().isEmpty() || address.host().isEmpty()) {
        log("The web application's address \"" + std::string(build::webAppUrl) +
            "\" is not a URL; this build is broken");
        std::abort();
    }
    QDesktopServices::openUrl(address);
}

void AppDelegate::openPermissionSettings() {
    services_.permission->openSystemSettings();
}

void AppDelegate::toggleLoginItem() {
    LoginItemService& loginItems = *services_.loginItems;
    try {
        if (loginItems.status() == LoginItemService::Status::enabled) {
            loginItems.unregisterItem();
        } else {
            loginItems.registerItem();
        }
    } catch (const LoginItemError& error) {
        showLoginItemFailure(error.what());
    }
    LoginItemService::Status now = loginItems.status();
    loginItem_->setChecked(now == LoginItemService::Status::enabled);
    if (now == LoginItemService::Status::requiresApproval) loginItems.openSettings();
}

void AppDelegate::showLoginItemFailure(const std::string& reason) {
    showAlert("Couldn't change the login item", QString::fromStdString(reason) + "\n\n" +
                                                    text(PlatformTexts::current().loginItemTip));
}

void AppDelegate::editPort() {
    HelperSettings& settings = HelperSettings::shared();
    std::uint16_t current = settings.port();

    QMessageBox alert;
    alert.setWindowTitle(trayName);
    alert.setText("Helper port");
    alert.setInformativeText(
        "Velmora connects to ws://127.0.0.1:<port>. If you change it, set the same port in "
        "Velmora \u2192 Settings \u2192 Meeting Capture. Default: " +
        QString::number(HelperInfo::defaultPort) + ".");
    auto* field = new QLineEdit(QString::number(current));
    field->setObjectName("portField");
    field->setFixedSize(120, 24);
    QPushButton* save = alert.addButton("Save", QMessageBox::AcceptRole);
    alert.addButton("Cancel", QMessageBox::RejectRole);
    alert.setDefaultButton(save);
    addAccessory(alert, field);
    bringToFront(alert);
    field->setFocus();
    field->selectAll();
    alert.exec();
    if (alert.clickedButton() != save) return;

    std::optional<std::uint16_t> port = parsePortEntry(field->text().toStdString());
    if (!port) {
        showAlert("Invalid port", "Enter a number between 1024 and 65535.");
        return;
    }
    if (*port == current) return;
    // Unsaved, the new port would be lost at the next start and the page told the wrong one:
    // say why, and keep listening where the page already connects.
    if (!settings.setPort(*port)) {
        showAlert("Couldn't save the port",
                  QString::fromStdString(settings.lastSaveProblem().value_or(
                      "The settings file could not be written.")) +
                      "\n\nThe port was not changed; the helper keeps listening where it was.");
        return;
    }
    services_.server->restart();
}

void AppDelegate::quit() {
    QCoreApplication::quit();
}

void AppDelegate::showWelcome() {
    const PlatformTexts& texts = PlatformTexts::current();
    QMessageBox alert;
    alert.setWindowTitle(trayName);
    alert.setIconPixmap(statusIcon(TrayIcons::idle).pixmap(64, 64));
    alert.setText("Velmora Audio Helper is running");
    alert.setInformativeText(text(texts.welcomeWhereItLives) + "\n\n" +
                             text(texts.welcomeFirstTime));
    QPushButton* startAtLogin = alert.addButton("Start at Login", QMessageBox::AcceptRole);
    alert.addButton("Not Now", QMessageBox::RejectRole);
    alert.setDefaultButton(startAtLogin);
    bringToFront(alert);
    alert.exec();
    // A toggle, not a switch-on: on a first launch start at login is off, so this turns it on.
    if (alert.clickedButton() == startAtLogin) toggleLoginItem();
}

}  // namespace velmora
