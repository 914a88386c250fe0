#include "app/tray/DBusMenuExporter.h"

#include <QActionGroup>
#include <QTimer>

namespace velmora {
namespace {

// dbusmenu marks a mnemonic with "_" where Qt uses "&".
QString dbusLabel(QString text) {
    text.replace('_', "__");
    QString label;
    for (qsizetype index = 0; index < text.size(); ++index) {
        if (text[index] == '&' && index + 1 < text.size()) {
            ++index;
            label += text[index] == '&' ? QString("&") : "_" + QString(text[index]);
        } else {
            label += text[index];
        }
    }
    return label;
}

}  // namespace

DBusMenuExporter::DBusMenuExporter(QMenu& menu, std::function<void()> aboutToShow)
    : menu_(menu), aboutToShow_(std::move(aboutToShow)) {}

int DBusMenuExporter::idOf(QAction* action) {
    auto found = ids_.constFind(action);
    if (found != ids_.constEnd()) return *found;
    int id = nextId_++;
    ids_.insert(action, id);
    actions_.insert(id, action);
    connect(action, &QAction::changed, this, [this] { scheduleLayoutUpdate(); });
    connect(action, &QObject::destroyed, this, [this, action, id] {
        ids_.remove(action);
        actions_.remove(id);
    });
    return id;
}

QAction* DBusMenuExporter::actionOf(int id) const {
    return actions_.value(id).data();
}

QVariantMap DBusMenuExporter::propertiesOf(int id, const QStringList& names) {
    QVariantMap properties;
    if (id == 0) {
        properties.insert("children-display", "submenu");
    } else if (QAction* action = actionOf(id)) {
        if (action->isSeparator()) {
            properties.insert("type", "separator");
        } else {
            properties.insert("label", dbusLabel(action->text()));
        }
        // Absent means the protocol's defaults: enabled and visible.
        if (!action->isEnabled()) properties.insert("enabled", false);
        if (!action->isVisible()) properties.insert("visible", false);
        if (action->isCheckable()) {
            properties.insert("toggle-type", action->actionGroup() != nullptr &&
                                                     action->actionGroup()->isExclusive()
                                                 ? "radio"
                                                 : "checkmark");
            properties.insert("toggle-state", action->isChecked() ? 1 : 0);
        }
    }
    if (!names.isEmpty()) {
        for (auto entry = properties.begin(); entry != properties.end();) {
            entry = names.contains(entry.key()) ? std::next(entry) : properties.erase(entry);
        }
    }
    return properties;
}

uint DBusMenuExporter::GetLayout(int parentId, int recursionDepth, const QStringList& propertyNames,
                                 DBusMenuLayout& layout) {
    layout = {.id = parentId, .properties = propertiesOf(parentId, propertyNames), .children = {}};
    // The menu is flat: only the root has rows below it.
    if (parentId == 0 && recursionDepth != 0) {
        for (QAction* action : menu_.actions()) {
            int id = idOf(action);
            layout.children.append(
                {.id = id, .properties = propertiesOf(id, propertyNames), .children = {}});
        }
    }
    return revision_;
}

DBusMenuItemList DBusMenuExporter::GetGroupProperties(const QList<int>& ids,
                                                      const QStringList& propertyNames) {
    DBusMenuItemList items;
    for (int id : ids) {
        if (id == 0 || actionOf(id) != nullptr) {
            items.append({.id = id, .properties = propertiesOf(id, propertyNames)});
        }
    }
    return items;
}

QDBusVariant DBusMenuExporter::GetProperty(int id, const QString& name) {
    return QDBusVariant(propertiesOf(id, {name}).value(name));
}

bool DBusMenuExporter::activate(int id, const QString& eventId) {
    QAction* action = actionOf(id);
    if (action == nullptr) return false;
    if (eventId != "clicked" || !action->isEnabled() || action->isSeparator()) return true;
    // After the reply: an action may run a modal dialog or quit.
    QTimer::singleShot(0, action, [action] { action->trigger(); });
    return true;
}

void DBusMenuExporter::Event(int id, const QString& eventId, const QDBusVariant&, uint) {
    activate(id, eventId);
}

QList<int> DBusMenuExporter::EventGroup(const DBusMenuEventList& events) {
    QList<int> idErrors;
    for (const DBusMenuEvent& event : events) {
        if (!activate(event.id, event.eventId)) idErrors.append(event.id);
    }
    return idErrors;
}

bool DBusMenuExporter::AboutToShow(int id) {
    if (id != 0) return false;
    uint before = revision_;
    if (aboutToShow_) aboutToShow_();
    // Changes it made reach the panel with the reply: it reads the layout again.
    if (updateScheduled_) {
        updateScheduled_ = false;
        ++revision_;
    }
    return revision_ != before;
}

QList<int> DBusMenuExporter::AboutToShowGroup(const QList<int>& ids, QList<int>& idErrors) {
    QList<int> updatesNeeded;
    for (int id : ids) {
        if (id != 0 && actionOf(id) == nullptr) {
            idErrors.append(id);
        } else if (AboutToShow(id)) {
            updatesNeeded.append(id);
        }
    }
    return updatesNeeded;
}

void DBusMenuExporter::scheduleLayoutUpdate() {
    if (updateScheduled_) return;
    updateScheduled_ = true;
    // Several changes in one pass of the event loop make one update.
    QTimer::singleShot(0, this, [this] {
        if (!updateScheduled_) return;
        updateScheduled_ = false;
        ++revision_;
        Q_EMIT LayoutUpdated(revision_, 0);
    });
}

}  // namespace velmora
