#pragma once

#include <QAbstractNativeEventFilter>
#include <QObject>
#include <cstdint>

struct xcb_connection_t;

namespace velmora {

// Follows the XEmbed system tray on an X display: the owner of the _NET_SYSTEM_TRAY_S<screen>
// selection. A tray announces itself with a MANAGER message to the root window and goes away
// with its window; both reach Qt's connection, where this filter sees them. Main thread only.
class XEmbedTrayWatch final : public QObject, public QAbstractNativeEventFilter {
    Q_OBJECT

  public:
    // Null when the application does not run on X (Wayland, offscreen).
    static XEmbedTrayWatch* createForThisDisplay(QObject* parent);
    ~XEmbedTrayWatch() override;

    bool trayPresent() const { return owner_ != 0; }

    bool nativeEventFilter(const QByteArray& eventType, void* message, qintptr* result) override;

  Q_SIGNALS:
    void trayChanged();

  private:
    XEmbedTrayWatch(xcb_connection_t* connection, std::uint32_t root, std::uint32_t selection,
                    std::uint32_t manager, QObject* parent);
    void lookForOwner();
    void addStructureEvents(std::uint32_t window);

    xcb_connection_t* connection_;
    std::uint32_t root_;
    std::uint32_t selection_;
    std::uint32_t manager_;
    std::uint32_t owner_ = 0;
};

}  // namespace velmora
