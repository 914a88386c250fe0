#include "app/tray/FallbackWindow.h"

#include <QCloseEvent>
#include <QHBoxLayout>

#include "app/tray/StatusIcons.h"

namespace velmora {

FallbackWindow::FallbackWindow(QMenu& menu, std::function<void()> closed)
    : menuButton_("Menu"), closed_(std::move(closed)) {
    setWindowTitle(trayName);
    icon_.setAccessibleName(trayName);
    status_.setTextInteractionFlags(Qt::TextSelectableByMouse);
    menuButton_.setMenu(&menu);
    auto* layout = new QHBoxLayout(this);
    layout->addWidget(&icon_);
    layout->addWidget(&status_, 1);
    layout->addWidget(&menuButton_);
}

void FallbackWindow::show(const TrayAppearance& appearance) {
    QIcon icon = statusIcon(appearance.iconName);
    setWindowIcon(icon);
    icon_.setPixmap(icon.pixmap(32, 32));
    status_.setText(QString::fromStdString(appearance.statusText));
    setToolTip(QString::fromStdString(appearance.toolTip));
    QWidget::show();
}

void FallbackWindow::closeEvent(QCloseEvent* event) {
    event->accept();
    if (closed_) closed_();
}

}  // namespace velmora
