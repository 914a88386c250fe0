#pragma once

#include <QDBusMessage>
#include <QObject>
#include <QStringList>

namespace velmora::testing {

// The panel's side of the StatusNotifierItem protocol, as small as a tray application needs to
// see a host: it reports one registered host and remembers the items that register.
class StatusNotifierWatcherStandIn final : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ registeredItems)
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ isHostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)

  public:
    QStringList registeredItems() const { return items_; }
    bool isHostRegistered() const { return true; }
    int protocolVersion() const { return 0; }

    // The item's bus name and object path, once one has registered.
    QString itemService() const { return service_; }
    QString itemPath() const { return path_; }

  public Q_SLOTS:
    // `serviceOrPath` is the item's bus name, or its object path on the caller's connection.
    void RegisterStatusNotifierItem(const QString& serviceOrPath, const QDBusMessage& message) {
        if (serviceOrPath.startsWith('/')) {
            service_ = message.service();
            path_ = serviceOrPath;
        } else {
            service_ = serviceOrPath;
            path_ = "/StatusNotifierItem";
        }
        items_ << service_ + path_;
        Q_EMIT StatusNotifierItemRegistered(service_ + path_);
    }
    void RegisterStatusNotifierHost(const QString&) {}

  Q_SIGNALS:
    void StatusNotifierItemRegistered(const QString& item);
    void StatusNotifierItemUnregistered(const QString& item);
    void StatusNotifierHostRegistered();

  private:
    QStringList items_;
    QString service_;
    QString path_;
};

}  // namespace velmora::testing
