#include "app/tray/DBusMenuExporter.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QSignalSpy>

namespace velmora {
namespace {

class DBusMenuExporterTest : public ::testing::Test {
  protected:
    DBusMenuExporterTest() : exporter_(menu_, [this] { ++aboutToShowCount_; }) {
        open_ = menu_.addAction("Open && Go");
        menu_.addSeparator();
        snake_ = menu_.addAction("snake_case &Port");
        check_ = menu_.addAction("Start at Login");
        check_->setCheckable(true);
        hidden_ = menu_.addAction("Hidden");
        hidden_->setVisible(false);
        disabled_ = menu_.addAction("Disabled");
        disabled_->setEnabled(false);
    }

    DBusMenuLayout layout() {
        DBusMenuLayout root;
        exporter_.GetLayout(0, -1, {}, root);
        return root;
    }

    QMenu menu_;
    int aboutToShowCount_ = 0;
    DBusMenuExporter exporter_;
    QAction* open_ = nullptr;
    QAction* snake_ = nullptr;
    QAction* check_ = nullptr;
    QAction* hidden_ = nullptr;
    QAction* disabled_ = nullptr;
};

TEST_F(DBusMenuExporterTest, RowsCarryTheirLabelsStatesAndCheckMarksInTheProtocolsTerms) {
    DBusMenuLayout root = layout();
    EXPECT_EQ(root.id, 0);
    EXPECT_EQ(root.properties.value("children-display").toString(), "submenu");
    ASSERT_EQ(root.children.size(), 6);
    // "&&" is a literal ampersand; "_" doubles; "&P" marks a mnemonic, which is "_P" here.
    EXPECT_EQ(root.children[0].properties.value("label").toString(), "Open & Go");
    EXPECT_EQ(root.children[1].properties.value("type").toString(), "separator");
    EXPECT_EQ(root.children[2].properties.value("label").toString(), "snake__case _Port");
    EXPECT_EQ(root.children[3].properties.value("toggle-type").toString(), "checkmark");
    EXPECT_EQ(root.children[3].properties.value("toggle-state").toInt(), 0);
    EXPECT_EQ(root.children[4].properties.value("visible"), QVariant(false));
    EXPECT_EQ(root.children[5].properties.value("enabled"), QVariant(false));
    // Defaults are left out, as the protocol allows.
    EXPECT_FALSE(root.children[0].properties.contains("enabled"));
    EXPECT_FALSE(root.children[0].properties.contains("visible"));

    QList<int> ids;
    for (const DBusMenuLayout& row : root.children) ids.append(row.id);
    EXPECT_EQ(QSet<int>(ids.begin(), ids.end()).size(), 6) << "row ids must be distinct";
    EXPECT_EQ(layout().children[3].id, root.children[3].id) << "ids must stay the same";
}

TEST_F(DBusMenuExporterTest, OnlyTheAskedPropertiesAreSent) {
    DBusMenuLayout root;
    exporter_.GetLayout(0, -1, {"label"}, root);
    EXPECT_EQ(root.children[3].properties.keys(), QStringList{"label"});
    int id = root.children[3].id;
    EXPECT_EQ(exporter_.GetProperty(id, "toggle-state").variant().toInt(), 0);
    DBusMenuItemList items = exporter_.GetGroupProperties({id, 999}, {});
    ASSERT_EQ(items.size(), 1) << "an unknown id is left out";
    EXPECT_EQ(items[0].properties.value("label").toString(), "Start at Login");
}

TEST_F(DBusMenuExporterTest, AChangeTellsThePanelToReadTheLayoutAgain) {
    DBusMenuLayout root = layout();
    QSignalSpy updated(&exporter_, &DBusMenuExporter::LayoutUpdated);
    check_->setChecked(true);
    snake_->setText("Renamed");
    ASSERT_TRUE(updated.wait(5000));
    EXPECT_EQ(updated.size(), 1) << "changes in one pass make one update";
    DBusMenuLayout after;
    uint revision = exporter_.GetLayout(0, -1, {}, after);
    EXPECT_EQ(updated.front().at(0).toUInt(), revision);
    EXPECT_EQ(after.children[3].properties.value("toggle-state").toInt(), 1);
    EXPECT_EQ(after.children[2].properties.value("label").toString(), "Renamed");
}

TEST_F(DBusMenuExporterTest, AboutToShowRefreshesTheMenuAndSaysWhetherItChanged) {
    layout();
    EXPECT_FALSE(exporter_.AboutToShow(0));
    EXPECT_EQ(aboutToShowCount_, 1);
    // What the refresh changed reaches the panel through the answer.
    DBusMenuExporter changing(menu_, [this] { check_->setChecked(!check_->isChecked()); });
    DBusMenuLayout root;
    changing.GetLayout(0, -1, {}, root);
    EXPECT_TRUE(changing.AboutToShow(0));
    QList<int> errors;
    EXPECT_EQ(changing.AboutToShowGroup({0, 999}, errors), QList<int>{0});
    EXPECT_EQ(errors, QList<int>{999});
}

TEST_F(DBusMenuExporterTest, AClickTriggersItsRowAfterTheAnswerAndOnlyAnEnabledOne) {
    DBusMenuLayout root = layout();
    QSignalSpy opened(open_, &QAction::triggered);
    QSignalSpy refused(disabled_, &QAction::triggered);
    exporter_.Event(root.children[0].id, "clicked", QDBusVariant(0), 0);
    exporter_.Event(root.children[5].id, "clicked", QDBusVariant(0), 0);
    exporter_.Event(root.children[0].id, "hovered", QDBusVariant(0), 0);
    EXPECT_EQ(opened.size(), 0) << "the row runs after the call returns";
    QCoreApplication::processEvents();
    EXPECT_EQ(opened.size(), 1);
    EXPECT_EQ(refused.size(), 0);

    QList<int> errors = exporter_.EventGroup(
        {{.id = root.children[0].id, .eventId = "clicked", .data = QDBusVariant(0), .timestamp = 0},
         {.id = 999, .eventId = "clicked", .data = QDBusVariant(0), .timestamp = 0}});
    EXPECT_EQ(errors, QList<int>{999});
    QCoreApplication::processEvents();
    EXPECT_EQ(opened.size(), 2);
}

}  // namespace
}  // namespace velmora

int main(int argc, char** argv) {
    // Menus need widgets, not a display: also when the tests are only being listed.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
