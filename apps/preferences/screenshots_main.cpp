// nimbrel-screenshots DIR: opens the panel against the running background application and writes one
// PNG per tab and per sheet into DIR, so that a reader sees what a user sees. Used by
// scripts/screenshots; never installed.

#include "PreferencesHost.h"
#include "platform/Bundle.h"
#include "platform/PlistCodec.h"
#include "platform/SettingsStore.h"
#include "platform/Strings.h"
#include "platform/gui/GuiHooks.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFileDialog>
#include <QLineEdit>
#include <QMessageBox>
#include <QProcess>
#include <QTabWidget>
#include <QTableView>
#include <QThread>
#include <cstdio>

using namespace nimbrel;

namespace {

void settle(int milliseconds)
{
    QDeadlineTimer deadline(milliseconds);
    while (!deadline.hasExpired()) {
        QApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(10);
    }
}

bool save(QWidget* widget, const QString& path)
{
    if (!widget)
        return false;
    const bool ok = widget->grab().save(path);
    std::printf("%s %s\n", ok ? "wrote" : "FAILED", qPrintable(path));
    return ok;
}

// The open sheet or alert of the pane's window (the newest visible one).
template <class T> T* openTopLevel()
{
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        if (auto* found = qobject_cast<T*>(widget); found && found->isVisible())
            return found;
        for (T* child : widget->findChildren<T*>()) {
            if (child->isVisible())
                return child;
        }
    }
    return nullptr;
}

template <class T> T* child(QWidget* parent, const char* name)
{
    T* found = parent ? parent->findChild<T*>(QLatin1String(name)) : nullptr;
    if (!found)
        std::fprintf(stderr, "nimbrel-screenshots: no %s\n", name);
    return found;
}

void click(QWidget* parent, const char* button)
{
    if (auto* found = child<QAbstractButton>(parent, button))
        found->click();
    settle(300);
}

// Types into a field as a user does (the field's edits reach the pane's copy).
void type(QWidget* parent, const char* field, const QString& text)
{
    if (auto* edit = child<QLineEdit>(parent, field)) {
        edit->selectAll();
        edit->del();
        edit->insert(text);
    }
}

// A remote server's calendars as if they had been found there (the background application stores them
// once it can look; here they are written into its database as its tests do).
void addSubscriptions(const QString& sourceUid)
{
    const QString database =
        QDir(qEnvironmentVariable("XDG_DATA_HOME")).filePath(QStringLiteral("Nimbrel/Nimbrel.nsql"));
    struct Calendar
    {
        const char *uid, *title;
        bool subscribed, readOnly;
    };
    const Calendar calendars[] = {{"office-team", "Team meetings", true, false},
                                  {"office-rooms", "Meeting rooms", true, true},
                                  {"office-holidays", "Office holidays", false, true}};
    QString sql;
    for (const Calendar& calendar : calendars) {
        const QVariantMap record{{QStringLiteral("title"), QLatin1String(calendar.title)},
                                 {QStringLiteral("readableByAnyone"), true},
                                 {QStringLiteral("writableByAnyone"), !calendar.readOnly},
                                 {QStringLiteral("readOnly"), calendar.readOnly},
                                 {QStringLiteral("filterAttachments"), calendar.readOnly}};
        const QByteArray blob = plist::write(record).value_or(QByteArray());
        sql += QStringLiteral("INSERT INTO subscriptions (uid, source_uid, subscribed, record) "
                              "VALUES ('%1', '%2', %3, X'%4');")
                   .arg(QLatin1String(calendar.uid), sourceUid)
                   .arg(calendar.subscribed ? 1 : 0)
                   .arg(QString::fromLatin1(blob.toHex()));
    }
    QProcess sqlite;
    sqlite.start(QStringLiteral("sqlite3"), {database, sql});
    if (!sqlite.waitForFinished(10000) || sqlite.exitCode() != 0)
        std::fprintf(stderr, "nimbrel-screenshots: sqlite3 failed: %s\n",
                     sqlite.readAllStandardError().constData());
}

// The publishing, subscription and Google tabs set up as a user would, with a picture of every sheet
// and alert on the way.
void calendarScenes(ComQuorviaNimbrelPref* pane, QWidget* window, QTabWidget* tabs, const QDir& out)
{
    const auto shot = [&out](QWidget* widget, const char* name) {
        save(widget, out.filePath(QLatin1String(name) + QStringLiteral(".png")));
    };
    // Publishing: tick the first calendar, give it passwords.
    tabs->setCurrentWidget(tabs->findChild<QWidget*>(QStringLiteral("publish")));
    settle(300);
    auto* publishTable = child<QTableView>(window, "publishTableView");
    pane->publishCheckbox(publishTable->model()->index(0, 0));
    settle(500);
    if (QDialog* sheet = openTopLevel<QDialog>()) {
        type(sheet, "readPasswordField", QStringLiteral("family"));
        settle(200);
        shot(sheet, "sheet-publish-options");
        click(sheet, "publishOptionsOKButton");
    }
    settle(1000);
    publishTable->selectRow(0);
    shot(window, "tab-publish");
    // Network settings: a fixed port, then one the formatter refuses.
    click(window, "networkSettingsButton");
    if (QDialog* sheet = openTopLevel<QDialog>()) {
        click(sheet, "fixedPortButton");
        shot(sheet, "sheet-network-settings");
        type(sheet, "portField", QStringLiteral("80"));
        click(sheet, "networkSettingsOKButton");
        if (auto* error = sheet->findChild<QMessageBox*>(QStringLiteral("portError"))) {
            shot(error, "alert-port");
            error->done(0);
        }
        settle(200);
        click(sheet, "networkSettingsCancelButton");
    }

    // Subscriptions: a remote server with three calendars.
    tabs->setCurrentWidget(tabs->findChild<QWidget*>(QStringLiteral("subscribe")));
    settle(300);
    click(window, "addServerButton");
    if (QDialog* sheet = openTopLevel<QDialog>()) {
        type(sheet, "serverTitleField", QStringLiteral("Office"));
        type(sheet, "serverURLField", QStringLiteral("https://calendar.example.org/dav/"));
        type(sheet, "serverLoginField", QStringLiteral("ann"));
        type(sheet, "serverPasswordField", QStringLiteral("secret"));
        settle(200);
        shot(sheet, "sheet-server-add");
        click(sheet, "serverSettingsOKButton");
    }
    settle(1000);
    const std::shared_ptr<CalendarList> sources = pane->subscribeCalendars();
    if (!sources->isEmpty()) {
        addSubscriptions(sources->first()->uid().toString());
        pane->com().calcChangesForSubscribedCalendars();
        settle(500);
    }
    pane->setSelectionIndexPath({0, 2});
    settle(300);
    shot(window, "tab-subscribe");
    click(window, "subscribeOptionsButton");
    if (QDialog* sheet = openTopLevel<QDialog>()) {
        shot(sheet, "sheet-subscribe-options");
        click(sheet, "subscribeOptionsCancelButton");
    }
    pane->setSelectionIndexPath({0});
    settle(200);
    click(window, "addServerButton");
    if (QDialog* sheet = openTopLevel<QDialog>()) {
        shot(sheet, "sheet-server-edit");
        click(sheet, "serverDisconnectButton");
        if (auto* alert = openTopLevel<QMessageBox>()) {
            shot(alert, "alert-disconnect");
            alert->done(0);
            settle(200);
        }
    }

    // Google: set up the account, publish a calendar to it, then its settings and disconnection.
    tabs->setCurrentWidget(tabs->findChild<QWidget*>(QStringLiteral("google")));
    settle(300);
    click(window, "googleSettingsButton");
    if (QDialog* sheet = openTopLevel<QDialog>()) {
        type(sheet, "googleLoginField", QStringLiteral("ann@example.com"));
        type(sheet, "googlePasswordField", QStringLiteral("secret"));
        settle(200);
        shot(sheet, "sheet-google-new");
        click(sheet, "googleSettingsOKButton");
    }
    settle(1000);
    auto* googleTable = child<QTableView>(window, "publishGoogleTableView");
    pane->publishGoogleCheckbox(googleTable->model()->index(1, 0));
    settle(1000);
    shot(window, "tab-google");
    click(window, "googleSettingsButton");
    if (QDialog* sheet = openTopLevel<QDialog>()) {
        shot(sheet, "sheet-google-settings");
        click(sheet, "googleDisconnectButton");
        if (auto* alert = openTopLevel<QMessageBox>()) {
            shot(alert, "alert-google-disconnect");
            alert->done(0);
            settle(200);
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    installGuiPlatformHooks();
    if (argc != 2) {
        std::fprintf(stderr, "usage: nimbrel-screenshots DIR\n");
        return 2;
    }
    const QDir out(QString::fromLocal8Bit(argv[1]));
    QDir().mkpath(out.path());

    const Bundle bundle(Bundle::defaultPaneBundlePath());
    if (!bundle.isValid() || !bundle.loadStringTable(kStringTable)) {
        std::fprintf(stderr, "nimbrel-screenshots: no usable pane bundle: %s\n", qPrintable(bundle.error()));
        return 2;
    }
    PaneEnvironment environment;
    // Nothing leaves this program: no browser, no mail, no restart; two users "logged in" so the
    // restart advice can be shown.
    environment.services.openUrl = [](const QString&) { return true; };
    environment.services.fetchUrl = [](const QString&) {};
    environment.services.restartComputer = [] { return QString(); };
    environment.services.nativeDialogs = false;
    const auto realRunTool = environment.services.runTool;
    environment.services.runTool = [realRunTool](const QString& program, const QStringList& arguments) {
        if (program == QLatin1String("/usr/bin/users"))
            return PaneServices::ToolResult{true, 0, "alice bob\n"};
        return realRunTool(program, arguments);
    };
    PreferencesHost host(bundle, environment);
    // The tray icon is not part of the pictures: its start is a no-op here.
    host.setPaneCreatedHandler([](ComQuorviaNimbrelPref& pane) {
        pane.com().setApplicationLauncher(
            [](const QString& path) { return path.endsWith(QLatin1String("NimbrelMenu.app")); });
    });
    host.start();
    ComQuorviaNimbrelPref* pane = host.pane();
    QWidget* window = host.window();

    // The background application answers within a second or two; the log needs a moment to show.
    QDeadlineTimer running(15000);
    while (!running.hasExpired() && pane->backgroundAppStatus() != ComQuorviaNimbrelPref::StatusRunning)
        settle(100);
    settle(500);

    // The first launch greets the user with the welcome sheet.
    if (QDialog* welcome = openTopLevel<QDialog>()) {
        save(welcome, out.filePath(QStringLiteral("sheet-welcome.png")));
        welcome->done(0);
        settle(200);
    }

    auto* tabs = window->findChild<QTabWidget*>(QStringLiteral("tabView"));
    calendarScenes(pane, window, tabs, out);
    for (const char* name : {"reset", "log"}) {
        tabs->setCurrentWidget(tabs->findChild<QWidget*>(QLatin1String(name)));
        settle(1500);
        save(window, out.filePath(QStringLiteral("tab-%1.png").arg(QLatin1String(name))));
    }

    // The reset confirmation.
    pane->resetButton(nullptr);
    settle(300);
    if (auto* alert = openTopLevel<QMessageBox>()) {
        save(alert, out.filePath(QStringLiteral("alert-reset.png")));
        alert->done(0);
        settle(200);
    }
    // The restart advice after an update on a shared computer.
    SettingsStore(ComQuorviaNimbrelPref::hostDefaultsPath())
        .remove(QStringLiteral("com.quorvia.Nimbrel.vers"));
    pane->checkUpdatedMultiuserSystem(false);
    settle(300);
    if (auto* alert = openTopLevel<QMessageBox>()) {
        save(alert, out.filePath(QStringLiteral("alert-restart.png")));
        alert->done(0);
        settle(200);
    }
    // Restore from backup: the file dialog in the Backup folder.
    QDir().mkpath(ComQuorviaNimbrelPref::backupFolder());
    pane->restoreFromBackupButton(nullptr);
    settle(500);
    if (auto* panel = openTopLevel<QFileDialog>()) {
        save(panel, out.filePath(QStringLiteral("sheet-restore.png")));
        panel->reject();
        settle(200);
    }
    host.terminate();
    settle(200);
    return 0;
}
