#include "app/installer/QtInstallerFrontEnd.h"

#include <QApplication>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QMessageBox>
#include <QPushButton>
#include <QThread>
#include <cstdlib>
#include <string_view>

#include "app/installer/InstallerError.h"

namespace velmora {
namespace {

// Dialogs need a widget application; a process without one (or without a display) answers
// "Not Now" and keeps launching.
bool canShowDialogs() {
    return qobject_cast<QApplication*>(QCoreApplication::instance()) != nullptr;
}

}  // namespace

QtInstallerFrontEnd::QtInstallerFrontEnd(std::optional<bool> scriptedAnswer)
    : scriptedAnswer_(scriptedAnswer) {}

std::optional<bool> QtInstallerFrontEnd::scriptedAnswerFromEnvironment() {
#ifdef VELMORA_TEST_SWITCHES
    const char* answer = std::getenv("VELMORA_INSTALLER_ANSWER");
    if (answer == nullptr) return std::nullopt;
    if (std::string_view(answer) == "install") return true;
    if (std::string_view(answer) == "not-now") return false;
#endif
    // A release build has no such switch: whatever the environment says, a person answers.
    return std::nullopt;
}

bool QtInstallerFrontEnd::askToInstall(const std::string& message, const std::string& informative) {
    if (scriptedAnswer_) return *scriptedAnswer_;
    if (!canShowDialogs()) return false;
    QMessageBox box;
    box.setIcon(QMessageBox::Question);
    box.setText(QString::fromStdString(message));
    box.setInformativeText(QString::fromStdString(informative));
    QPushButton* install = box.addButton(QStringLiteral("Install"), QMessageBox::AcceptRole);
    box.addButton(QStringLiteral("Not Now"), QMessageBox::RejectRole);
    box.setDefaultButton(install);
    box.setWindowFlag(Qt::WindowStaysOnTopHint);
    box.show();
    box.raise();
    box.activateWindow();
    box.exec();
    return box.clickedButton() == install;
}

void QtInstallerFrontEnd::showFailure(const std::string& message, const std::string& informative) {
    if (scriptedAnswer_ || !canShowDialogs()) return;
    QMessageBox box;
    box.setIcon(QMessageBox::Warning);
    box.setText(QString::fromStdString(message));
    box.setInformativeText(QString::fromStdString(informative));
    box.setStandardButtons(QMessageBox::Ok);
    box.exec();
}

void QtInstallerFrontEnd::moveToTrash(const std::filesystem::path& path) {
    QFile file(QString::fromStdString(path.string()));
    if (!file.moveToTrash()) {
        const QString reason = file.errorString();
        throw InstallerError("Couldn't move " + path.string() + " to the Trash" +
                             (reason.isEmpty() ? std::string() : ": " + reason.toStdString()) +
                             ".");
    }
}

void QtInstallerFrontEnd::turnEventLoop(std::chrono::milliseconds duration) {
    if (QCoreApplication::instance() == nullptr) {
        QThread::msleep(static_cast<unsigned long>(duration.count()));
        return;
    }
    QDeadlineTimer deadline(static_cast<qint64>(duration.count()));
    while (!deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents,
                                        static_cast<int>(deadline.remainingTime()));
        QThread::msleep(5);
    }
}

}  // namespace velmora
