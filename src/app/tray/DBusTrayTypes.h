#pragma once

#include <QByteArray>
#include <QDBusArgument>
#include <QDBusVariant>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QVariantMap>

class QIcon;

namespace velmora {

// The values a panel reads from a StatusNotifierItem and its com.canonical.dbusmenu menu, with
// their D-Bus signatures.

// (iiay): one size of an icon, ARGB32 in network byte order.
struct DBusImage {
    int width = 0;
    int height = 0;
    QByteArray pixels;
};
using DBusImageList = QList<DBusImage>;

// (sa(iiay)ss)
struct DBusToolTip {
    QString iconName;
    DBusImageList images;
    QString title;
    QString description;
};

// (ia{sv}av): a menu row and, recursively, the rows below it.
struct DBusMenuLayout {
    int id = 0;
    QVariantMap properties;
    QList<DBusMenuLayout> children;
};

// (ia{sv})
struct DBusMenuItem {
    int id = 0;
    QVariantMap properties;
};
using DBusMenuItemList = QList<DBusMenuItem>;

// (isvu): one event of EventGroup.
struct DBusMenuEvent {
    int id = 0;
    QString eventId;
    QDBusVariant data;
    uint timestamp = 0;
};
using DBusMenuEventList = QList<DBusMenuEvent>;

// Registers the types above with Qt D-Bus; call before exporting an object that uses them.
void registerDBusTrayTypes();

// The icon's pixels at the sizes panels draw.
DBusImageList dbusImages(const QIcon& icon);

QDBusArgument& operator<<(QDBusArgument& argument, const DBusImage& image);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusImage& image);
QDBusArgument& operator<<(QDBusArgument& argument, const DBusToolTip& toolTip);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusToolTip& toolTip);
QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuLayout& layout);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuLayout& layout);
QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuItem& item);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuItem& item);
QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuEvent& event);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuEvent& event);

}  // namespace velmora

Q_DECLARE_METATYPE(velmora::DBusImage)
Q_DECLARE_METATYPE(velmora::DBusToolTip)
Q_DECLARE_METATYPE(velmora::DBusMenuLayout)
Q_DECLARE_METATYPE(velmora::DBusMenuItem)
Q_DECLARE_METATYPE(velmora::DBusMenuEvent)
