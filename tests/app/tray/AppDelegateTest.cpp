#include "app/tray/AppDelegate.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDesktopServices>
#include <QLineEdit>
#include <QMessageBox>
#include <QSignalSpy>
#include <QThread>
#include <QTimer>
#include <QtTest>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>

#include "app/HelperServices.h"
#include "app/XdgAutostartLoginItem.h"
#include "app/tray/MainThreadStatusRelay.h"
#include "app/tray/StatusIcons.h"
#include "config/BuildConfig.h"
#include "config/HelperInfo.h"
#include "config/HelperSettings.h"
#include "config/SerialQueue.h"
#include "config/TemporaryFolder.h"
#include "server/TestPage.h"
#include "support/FakeAudioTap.h"
#include "support/FakeCapturePermission.h"
#include "support/FakeMicrophoneUsers.h"
#include "support/FreePort.h"
#include "support/PassSigner.h"

using namespace velmora;
using velmora::testing::FakeAudioTap;
using velmora::testing::FakeCapturePermission;
using velmora::testing::FakeMicrophoneUsers;
using velmora::testing::PageNetwork;
using velmora::testing::TestPage;

namespace {

// Settings, log and autostart entries in a private folder, before anything reads them.
const velmora::testing::PrivateUserFolders privateUserFolders;

constexpr int generousMilliseconds = 20'000;

// Answers the modal alerts that an action shows while it blocks, in order, and records what
// each said. Alerts are found as the user meets them: the application's active modal widget.
class AlertScript {
  public:
    struct Shown {
        QString text;
        QString informativeText;
        QStringList buttons;
    };
    using Answer = std::function<void(QMessageBox&)>;

    AlertScript() {
        timer_.setInterval(20);
        QObject::connect(&timer_, &QTimer::timeout, [this] { look(); });
        timer_.start();
    }

    AlertScript& then(Answer answer) {
        answers_.push_back(std::move(answer));
        return *this;
    }

    const std::vector<Shown>& shown() const { return shown_; }
    bool finished() const { return answers_.empty(); }

    static Answer click(const QString& title) {
        return [title](QMessageBox& alert) {
            for (QAbstractButton* button : alert.buttons()) {
                if (button->text() == title) {
                    button->click();
                    return;
                }
            }
            QFAIL(qPrintable("no button " + title));
        };
    }
    static Answer enterPort(const QString& entry, const QString& button = "Save") {
        return [entry, button](QMessageBox& alert) {
            auto* field = alert.findChild<QLineEdit*>("portField");
            QVERIFY(field != nullptr);
            field->setText(entry);
            click(button)(alert);
        };
    }

  private:
    void look() {
        auto* alert = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (alert == nullptr || alert == last_ || !alert->isVisible()) return;
        last_ = alert;
        Shown shown{alert->text(), alert->informativeText(), {}};
        for (QAbstractButton* button : alert->buttons()) shown.buttons << button->text();
        if (auto* field = alert->findChild<QLineEdit*>("portField")) {
            shown.buttons << "field:" + field->text();
        }
        shown_.push_back(shown);
        if (answers_.empty()) {
            alert->reject();  // an alert the test did not expect; shown() tells
            return;
        }
        Answer answer = std::move(answers_.front());
        answers_.pop_front();
        answer(*alert);
    }

    QTimer timer_;
    QMessageBox* last_ = nullptr;
    std::deque<Answer> answers_;
    std::vector<Shown> shown_;
};

}  // namespace

// Stands in for the desktop's browser.
class UrlCatcher : public QObject {
    Q_OBJECT
  public:
    QList<QUrl> opened;
  public Q_SLOTS:
    void open(const QUrl& url) { opened << url; }
};

class AppDelegateTest : public QObject {
    Q_OBJECT

    std::uint16_t port_ = 0;
    PassSigner signer_ = PassSigner::generate();
    std::shared_ptr<FakeAudioTap::Control> tap_;
    std::shared_ptr<FakeCapturePermission> permission_;
    std::shared_ptr<XdgAutostartLoginItem> loginItems_;
    std::unique_ptr<SerialQueue> mainQueue_;
    std::shared_ptr<HelperServer> server_;
    std::unique_ptr<AppDelegate> delegate_;
    std::unique_ptr<PageNetwork> network_;

    HelperSettings& settings() { return HelperSettings::shared(); }
    std::filesystem::path autostartFolder() {
        return privateUserFolders.path() / "config" / "autostart";
    }

    void launch(bool noWelcome = true) {
        delegate_ = std::make_unique<AppDelegate>(AppDelegate::Services{
            .server = server_,
            .permission = permission_,
            .loginItems = loginItems_,
            .installerTakesOver = [] { return false; },
            .noWelcome = noWelcome,
        });
        QVERIFY(delegate_->applicationDidFinishLaunching());
        QTRY_COMPARE_WITH_TIMEOUT(delegate_->status().server, ServerState::listening(),
                                  generousMilliseconds);
    }

    std::shared_ptr<TestPage> openPage() {
        auto opening =
            TestPage::open(*network_, port_, {.origin = HelperInfo::builtInOrigins().front()});
        if (!opening.page) return nullptr;
        auto hello = opening.page->nextJson();
        if (!hello || (*hello)["type"] != "hello") return nullptr;
        return opening.page;
    }

    std::string startMessage() {
        double now =
            std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
                .count();
        return nlohmann::json{{"type", "start"},
                              {"pass", signer_.issue(HelperInfo::builtInOrigins().front(), now)}}
            .dump();
    }

    QString statusText() { return delegate_->statusLine().text(); }
    QString waitingText(std::uint16_t port) {
        return "Ready \u00B7 waiting for Velmora (port " + QString::number(port) + ")";
    }

    // Runs the port dialog, answering it (and the invalid-port alert, if any) with `script`.
    void editPort(AlertScript& script) {
        delegate_->editPort();
        QVERIFY(script.finished());
    }

    // Asserts that the page's connection outlives a generous moment: no restart closed it.
    void expectServerUntouched(TestPage& page) {
        server_->status();  // anything posted to the server's queue has run
        QVERIFY(!page.waitClosed(std::chrono::milliseconds(1500)));
        QCOMPARE(delegate_->status().clients, 1);
    }

    void rejectedEntry(const QString& entry) {
        auto page = openPage();
        QVERIFY(page);
        AlertScript script;
        script.then(AlertScript::enterPort(entry)).then(AlertScript::click("OK"));
        editPort(script);
        QCOMPARE(script.shown().size(), size_t(2));
        QCOMPARE(script.shown()[1].text, QString("Invalid port"));
        QCOMPARE(script.shown()[1].informativeText,
                 QString("Enter a number between 1024 and 65535."));
        QCOMPARE(script.shown()[1].buttons, QStringList{"OK"});
        QCOMPARE(settings().port(), port_);
        expectServerUntouched(*page);
    }

    void acceptedEntry(const QString& entryAround) {
        auto page = openPage();
        QVERIFY(page);
        std::uint16_t newPort = velmora::testing::freePort();
        AlertScript script;
        script.then(AlertScript::enterPort(entryAround.arg(newPort)));
        editPort(script);
        QCOMPARE(script.shown().size(), size_t(1));
        QCOMPARE(settings().port(), newPort);
        QVERIFY(page->waitClosed());
        QTRY_COMPARE_WITH_TIMEOUT(statusText(), waitingText(newPort), generousMilliseconds);
        port_ = newPort;
        QVERIFY(openPage());
    }

  private Q_SLOTS:
    void initTestCase() { settings().installAsKitHooks(); }

    void init() {
        std::filesystem::remove_all(autostartFolder());
        port_ = velmora::testing::freePort();
        QVERIFY(settings().setPort(port_));
        QVERIFY(settings().setHasShownWelcome(false));
        tap_ = std::make_shared<FakeAudioTap::Control>();
        permission_ = std::make_shared<FakeCapturePermission>();
        permission_->setStatus(AudioCapturePermission::Status::authorized);
        // Start at login shows as on only for an entry that starts a program that is there.
        loginItems_ = std::make_shared<XdgAutostartLoginItem>(
            autostartFolder(), QCoreApplication::applicationFilePath().toStdString());
        mainQueue_ = std::make_unique<SerialQueue>("com.velmora.audiohelper.main");
        server_ =
            HelperServer::create(std::make_unique<FakeAudioTap>(tap_), permission_,
                                 std::make_shared<FakeMicrophoneUsers>(), *mainQueue_,
                                 serverPolicyFrom(settings()), {}, {signer_.verificationKey()});
        network_ = std::make_unique<PageNetwork>();
    }

    void cleanup() {
        if (delegate_) delegate_->applicationWillTerminate();
        delegate_.reset();
        server_.reset();
        mainQueue_.reset();
        network_.reset();
    }

    void menuHasNineRowsWithTheirTitlesAndStates() {
        launch();
        QList<QAction*> rows = delegate_->menu().actions();
        QCOMPARE(rows.size(), 9);
        QCOMPARE(rows[0]->text(),
                 "Velmora Audio Helper " + QString::fromStdString(HelperInfo::version()));
        QVERIFY(!rows[0]->isEnabled());
        QCOMPARE(rows[1], &delegate_->statusLine());
        QVERIFY(!rows[1]->isEnabled());
        QCOMPARE(rows[2]->text(), QString("Allow System Audio Recording\u2026"));
        // Hidden until a start is refused the permission (Qt counts a hidden action as disabled).
        QVERIFY(!rows[2]->isVisible());
        QVERIFY(rows[3]->isSeparator());
        QCOMPARE(rows[4]->text(), QString("Open Velmora"));
        QCOMPARE(rows[5]->text(), QString("Port\u2026"));
        QCOMPARE(rows[6]->text(), QString("Start at Login"));
        QVERIFY(rows[6]->isCheckable());
        QVERIFY(!rows[6]->isChecked());
        QVERIFY(rows[7]->isSeparator());
        QCOMPARE(rows[8]->text(), QString("Quit Velmora Audio Helper"));
        QCOMPARE(rows[8]->shortcut(), QKeySequence("Ctrl+Q"));
        for (int row : {4, 5, 6, 8}) {
            QVERIFY2(rows[row]->isEnabled(), qPrintable(rows[row]->text()));
            QVERIFY2(rows[row]->isVisible(), qPrintable(rows[row]->text()));
        }
    }

    void statusLineAndToolTipShowTheWaitingPort() {
        launch();
        QCOMPARE(statusText(), waitingText(port_));
        QCOMPARE(delegate_->statusItem()->toolTip(),
                 "Velmora Audio Helper \u2014 " + waitingText(port_));
    }

    void connectedPageAndStreamingShowInTheTray() {
        launch();
        auto page = openPage();
        QVERIFY(page);
        QTRY_COMPARE_WITH_TIMEOUT(statusText(), QString("Connected \u00B7 ready to capture"),
                                  generousMilliseconds);
        QVERIFY(!page->sendText(startMessage()));
        QTRY_COMPARE_WITH_TIMEOUT(statusText(),
                                  QString("\u25CF Sending system audio to app.velmora.example"),
                                  generousMilliseconds);
        QCOMPARE(delegate_->statusItem()->toolTip(),
                 QString("Velmora Audio Helper \u2014 \u25CF Sending system audio to "
                         "app.velmora.example"));
        QCOMPARE(delegate_->statusItem()->icon().pixmap(16, 16).toImage(),
                 statusIcon("waveform.circle.fill").pixmap(16, 16).toImage());
    }

    void deniedPermissionShowsThePermissionItemWhichOpensTheSettings() {
        permission_->setStatus(AudioCapturePermission::Status::denied);
        permission_->answerAtOnce(false);
        launch();
        auto page = openPage();
        QVERIFY(page);
        QVERIFY(!page->sendText(startMessage()));
        QTRY_COMPARE_WITH_TIMEOUT(statusText(), QString("System audio access was denied"),
                                  generousMilliseconds);
        QVERIFY(delegate_->permissionItem().isVisible());
        QVERIFY(delegate_->permissionItem().isEnabled());
        QCOMPARE(delegate_->statusItem()->icon().pixmap(16, 16).toImage(),
                 statusIcon("exclamationmark.triangle").pixmap(16, 16).toImage());
        delegate_->permissionItem().trigger();
        QCOMPARE(permission_->openSystemSettingsCount(), 1);
    }

    void checkMarkFollowsTheLoginItemWhenTheMenuOpens() {
        launch();
        loginItems_->registerItem();  // switched on behind the menu's back
        QVERIFY(!delegate_->loginItem().isChecked());
        delegate_->menu().popup(QPoint(0, 0));
        QVERIFY(delegate_->loginItem().isChecked());
        delegate_->menu().hide();
        loginItems_->unregisterItem();
        delegate_->menu().popup(QPoint(0, 0));
        QVERIFY(!delegate_->loginItem().isChecked());
        delegate_->menu().hide();
    }

    void startAtLoginItemTogglesTheAutostartEntry() {
        launch();
        delegate_->loginItem().trigger();
        QVERIFY(std::filesystem::exists(autostartFolder() / "velmora-audio-helper.desktop"));
        QVERIFY(delegate_->loginItem().isChecked());
        delegate_->loginItem().trigger();
        QVERIFY(!std::filesystem::exists(autostartFolder() / "velmora-audio-helper.desktop"));
        QVERIFY(!delegate_->loginItem().isChecked());
    }

    void loginItemFailureShowsTheAlertWithTheTip() {
        velmora::testing::writeText(autostartFolder(), "a file where the folder should be");
        launch();
        AlertScript script;
        script.then(AlertScript::click("OK"));
        delegate_->loginItem().trigger();
        QVERIFY(script.finished());
        QCOMPARE(script.shown().size(), size_t(1));
        QCOMPARE(script.shown()[0].text, QString("Couldn't change the login item"));
        QVERIFY2(script.shown()[0].informativeText.startsWith(
                     "Could not create " + QString::fromStdString(autostartFolder().string())),
                 qPrintable(script.shown()[0].informativeText));
        QVERIFY(script.shown()[0].informativeText.endsWith(
            "\n\nTip: you can also manage it in your desktop's Startup Applications settings, or "
            "with the files in ~/.config/autostart."));
        QCOMPARE(script.shown()[0].buttons, QStringList{"OK"});
        QVERIFY(!delegate_->loginItem().isChecked());
    }

    void portDialogShowsItsTextsAndTheCurrentPort() {
        launch();
        AlertScript script;
        script.then(AlertScript::click("Cancel"));
        editPort(script);
        QCOMPARE(script.shown().size(), size_t(1));
        QCOMPARE(script.shown()[0].text, QString("Helper port"));
        QCOMPARE(script.shown()[0].informativeText,
                 QString("Velmora connects to ws://127.0.0.1:<port>. If you change it, set the "
                         "same port in Velmora \u2192 Settings \u2192 Meeting Capture. Default: "
                         "52849."));
        QCOMPARE(script.shown()[0].buttons,
                 (QStringList{"Save", "Cancel", "field:" + QString::number(port_)}));
    }

    void portWithSpacesAroundIsAccepted() {
        launch();
        acceptedEntry(" %1 ");
    }

    void portWithTabsAndAPlusIsAccepted() {
        launch();
        acceptedEntry("\t+%1");
    }

    void port1023IsRejected() {
        launch();
        rejectedEntry("1023");
    }

    void port65536IsRejected() {
        launch();
        rejectedEntry("65536");
    }

    void portWithALetterIsRejected() {
        launch();
        rejectedEntry("80a");
    }

    void emptyPortIsRejected() {
        launch();
        rejectedEntry("");
    }

    void currentPortLeavesTheServerUntouched() {
        launch();
        auto page = openPage();
        QVERIFY(page);
        AlertScript script;
        script.then(AlertScript::enterPort(" " + QString::number(port_)));
        editPort(script);
        QCOMPARE(script.shown().size(), size_t(1));
        QCOMPARE(settings().port(), port_);
        expectServerUntouched(*page);
    }

    // A port that can't be saved would be lost at the next start: the user is told why, and the
    // listener stays where the page connects.
    void unsavablePortIsShownAndTheServerKeepsItsPort() {
        launch();
        auto page = openPage();
        QVERIFY(page);
        const std::filesystem::path file = settings().file();
        const std::filesystem::path kept = file.string() + ".kept";
        std::filesystem::rename(file, kept);
        // A link planted where the settings go is never written through.
        std::filesystem::create_symlink(kept, file);
        struct Restore {
            std::filesystem::path file, kept;
            ~Restore() {
                std::filesystem::remove(file);
                std::filesystem::rename(kept, file);
            }
        } restore{file, kept};
        const std::string keptText = velmora::testing::readText(kept);

        AlertScript script;
        script.then(AlertScript::enterPort(QString::number(velmora::testing::freePort())))
            .then(AlertScript::click("OK"));
        editPort(script);
        QCOMPARE(script.shown().size(), size_t(2));
        QCOMPARE(script.shown()[1].text, QString("Couldn't save the port"));
        const QString informative = script.shown()[1].informativeText;
        QVERIFY2(informative.startsWith("Couldn't save the settings to " +
                                        QString::fromStdString(file.string()) + ": "),
                 qPrintable(informative));
        QVERIFY2(informative.endsWith(
                     "\n\nThe port was not changed; the helper keeps listening where it was."),
                 qPrintable(informative));
        QCOMPARE(script.shown()[1].buttons, QStringList{"OK"});
        QCOMPARE(velmora::testing::readText(kept), keptText);
        expectServerUntouched(*page);
    }

    void cancelledPortDialogChangesNothing() {
        launch();
        auto page = openPage();
        QVERIFY(page);
        AlertScript script;
        script.then(AlertScript::enterPort("40000", "Cancel"));
        editPort(script);
        QCOMPARE(settings().port(), port_);
        expectServerUntouched(*page);
    }

    void noWelcomeNeverShowsTheWelcomeAndLeavesTheFlag() {
        AlertScript script;
        launch(/*noWelcome=*/true);
        QTest::qWait(1500);
        QVERIFY(script.shown().empty());
        QVERIFY(!settings().hasShownWelcome());
    }

    void welcomeShowsOnceWithItsTextsAfterTheFlagIsSet() {
        AlertScript script;
        bool flagSetWhenShown = false;
        script.then([&](QMessageBox& alert) {
            flagSetWhenShown = settings().hasShownWelcome();
            AlertScript::click("Not Now")(alert);
        });
        launch(/*noWelcome=*/false);
        QTRY_VERIFY_WITH_TIMEOUT(script.finished(), generousMilliseconds);
        QVERIFY(flagSetWhenShown);
        QCOMPARE(script.shown()[0].text, QString("Velmora Audio Helper is running"));
        QCOMPARE(script.shown()[0].informativeText,
                 QString("It lives in the system tray (the waveform icon). When you capture an "
                         "online meeting in Velmora, it sends your computer's audio \u2014 what "
                         "the other people say \u2014 to Velmora for transcription. Nothing is "
                         "recorded or stored.\n\nThe first time, your desktop may ask you to "
                         "allow \"System Audio Recording\"."));
        QCOMPARE(script.shown()[0].buttons, (QStringList{"Start at Login", "Not Now"}));
        QCOMPARE(loginItems_->status(), LoginItemService::Status::notRegistered);
    }

    void welcomeIsNotShownASecondTime() {
        QVERIFY(settings().setHasShownWelcome(true));
        AlertScript script;
        launch(/*noWelcome=*/false);
        QTest::qWait(1500);
        QVERIFY(script.shown().empty());
    }

    void welcomeStartAtLoginSwitchesItOn() {
        AlertScript script;
        script.then(AlertScript::click("Start at Login"));
        launch(/*noWelcome=*/false);
        QTRY_VERIFY_WITH_TIMEOUT(script.finished(), generousMilliseconds);
        QTRY_COMPARE(loginItems_->status(), LoginItemService::Status::enabled);
        QVERIFY(delegate_->loginItem().isChecked());
    }

    void welcomeStartAtLoginTogglesAnEnabledLoginItemOff() {
        loginItems_->registerItem();
        AlertScript script;
        script.then(AlertScript::click("Start at Login"));
        launch(/*noWelcome=*/false);
        QTRY_VERIFY_WITH_TIMEOUT(script.finished(), generousMilliseconds);
        QTRY_COMPARE(loginItems_->status(), LoginItemService::Status::notRegistered);
        QVERIFY(!delegate_->loginItem().isChecked());
    }

    void relayDeliversStatusesInOrderOnTheMainThread() {
        QObject receiver;
        std::vector<int> seen;
        bool allOnMainThread = true;
        {
            MainThreadStatusRelay relay(&receiver);
            auto handler = relay.handlerFor([&](const HelperStatus& status) {
                allOnMainThread = allOnMainThread && QThread::currentThread() == qApp->thread();
                seen.push_back(status.clients);
            });
            SerialQueue other("relay-test");
            other.runAndWait([&] {
                for (int clients = 1; clients <= 50; ++clients) {
                    HelperStatus status;
                    status.clients = clients;
                    handler(status);
                }
            });
            QVERIFY(seen.empty());  // nothing runs on the other thread or before the loop turns
            QTRY_COMPARE(seen.size(), size_t(50));
        }
        QVERIFY(allOnMainThread);
        for (int index = 0; index < 50; ++index) QCOMPARE(seen[index], index + 1);
    }

    void relayPostsNothingOnceItIsGone() {
        QObject receiver;
        int calls = 0;
        HelperServer::StatusHandler handler;
        {
            MainThreadStatusRelay relay(&receiver);
            handler = relay.handlerFor([&](const HelperStatus&) { ++calls; });
        }
        handler(HelperStatus{});
        QTest::qWait(100);
        QCOMPARE(calls, 0);
    }

    void openVelmoraOpensTheWebApplicationInTheBrowser() {
        launch();
        UrlCatcher catcher;
        QDesktopServices::setUrlHandler("https", &catcher, "open");
        delegate_->menu().actions()[4]->trigger();
        QDesktopServices::unsetUrlHandler("https");
        QString address = QString::fromUtf8(build::webAppUrl.data(), build::webAppUrl.size());
        QCOMPARE(catcher.opened, QList<QUrl>{QUrl(address)});
    }

    void installerTakingOverEndsTheLaunchBeforeAnythingStarts() {
        delegate_ = std::make_unique<AppDelegate>(AppDelegate::Services{
            .server = server_,
            .permission = permission_,
            .loginItems = loginItems_,
            .installerTakesOver = [] { return true; },
            .noWelcome = false,
        });
        QVERIFY(!delegate_->applicationDidFinishLaunching());
        QCOMPARE(delegate_->statusItem(), nullptr);
        QVERIFY(!settings().hasShownWelcome());
        QVERIFY(!TestPage::open(*network_, port_, {}, std::chrono::milliseconds(2000)).page);
    }
};

QTEST_MAIN(AppDelegateTest)
#include "AppDelegateTest.moc"
