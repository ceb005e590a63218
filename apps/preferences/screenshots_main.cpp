// nimbrel-screenshots DIR: opens the panel against the running background application and writes one
// PNG per tab and per sheet into DIR, so that a reader sees what a user sees. Used by
// scripts/screenshots; never installed.

#include "PreferencesHost.h"
#include "platform/Bundle.h"
#include "platform/SettingsStore.h"
#include "platform/Strings.h"
#include "platform/gui/GuiHooks.h"

#include <QApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFileDialog>
#include <QMessageBox>
#include <QTabWidget>
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
    for (int i = 0; tabs && i < tabs->count(); ++i) {
        tabs->setCurrentIndex(i);
        settle(i == tabs->count() - 1 ? 1500 : 300);
        save(window, out.filePath(QStringLiteral("tab-%1.png").arg(tabs->widget(i)->objectName())));
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
