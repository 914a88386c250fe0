#pragma once

#include <QDBusVariant>
#include <QHash>
#include <QMenu>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <functional>

#include "app/tray/DBusTrayTypes.h"

namespace velmora {

// The tray's menu as a panel reads it over D-Bus (com.canonical.dbusmenu): rows, labels, check
// marks, enabled and visible states, and clicks back. Rows are the menu's actions, numbered on
// first sight; any change to one tells the panel to read the layout again. Exported at `path` on
// the connection by the caller; everything runs on the main thread.
class DBusMenuExporter final : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.canonical.dbusmenu")
    Q_PROPERTY(uint Version READ version)
    Q_PROPERTY(QString TextDirection READ textDirection)
    Q_PROPERTY(QString Status READ status)
    Q_PROPERTY(QStringList IconThemePath READ iconThemePath)

  public:
    // `aboutToShow` runs when the panel is about to show the menu, as QMenu::aboutToShow would.
    DBusMenuExporter(QMenu& menu, std::function<void()> aboutToShow);

    uint version() const { return 3; }
    QString textDirection() const { return "ltr"; }
    QString status() const { return "normal"; }
    QStringList iconThemePath() const { return {}; }

  public Q_SLOTS:
    uint GetLayout(int parentId, int recursionDepth, const QStringList& propertyNames,
                   velmora::DBusMenuLayout& layout);
    velmora::DBusMenuItemList GetGroupProperties(const QList<int>& ids,
                                                 const QStringList& propertyNames);
    QDBusVariant GetProperty(int id, const QString& name);
    void Event(int id, const QString& eventId, const QDBusVariant& data, uint timestamp);
    QList<int> EventGroup(const velmora::DBusMenuEventList& events);
    bool AboutToShow(int id);
    QList<int> AboutToShowGroup(const QList<int>& ids, QList<int>& idErrors);

  Q_SIGNALS:
    void LayoutUpdated(uint revision, int parent);
    void ItemActivationRequested(int id, uint timestamp);

  private:
    int idOf(QAction* action);
    QAction* actionOf(int id) const;
    QVariantMap propertiesOf(int id, const QStringList& names);
    bool activate(int id, const QString& eventId);
    void scheduleLayoutUpdate();

    QMenu& menu_;
    std::function<void()> aboutToShow_;
    QHash<QAction*, int> ids_;
    QHash<int, QPointer<QAction>> actions_;
    int nextId_ = 1;
    uint revision_ = 1;
    bool updateScheduled_ = false;
};

}  // namespace velmora
