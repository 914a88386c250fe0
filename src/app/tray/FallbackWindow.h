#pragma once

#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QWidget>
#include <functional>

#include "app/TrayAppearance.h"

namespace velmora {

// Where the desktop shows no tray: a small window with the tray's icon and status text and a
// button that opens the tray's own menu, so every command stays within reach. Closing it quits,
// since it is then the helper's only face.
class FallbackWindow final : public QWidget {
  public:
    FallbackWindow(QMenu& menu, std::function<void()> closed);

    void show(const TrayAppearance& appearance);

    QLabel& statusLabel() { return status_; }
    QLabel& iconLabel() { return icon_; }
    QPushButton& menuButton() { return menuButton_; }

  protected:
    void closeEvent(QCloseEvent* event) override;

  private:
    QLabel icon_;
    QLabel status_;
    QPushButton menuButton_;
    std::function<void()> closed_;
};

}  // namespace velmora
