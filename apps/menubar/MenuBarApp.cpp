#include "MenuBarApp.h"

#include "MenuBarIcons.h"
#include "MenuBarMenu.h"
#include "logging/Log.h"
#include "platform/Bundle.h"

#include <QCursor>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QSystemTrayIcon>
#include <QTimer>
#include <cstdio>

namespace nimbrel {

QString paneBundlePathForExecutable(const QString& executablePath)
{
    const QDir appBundle = QFileInfo(executablePath).absoluteDir();
    QDir pane = appBundle;
    if (appBundle.dirName().endsWith(QLatin1String(".app")) && pane.cdUp() &&
        pane.dirName() == QLatin1String("Resources") && pane.cdUp() &&
        QFileInfo::exists(pane.filePath(QStringLiteral("Info.plist"))))
        return pane.absolutePath();
    return Bundle::defaultPaneBundlePath();
}

QString preferencesProgramPath(const QString& paneBundlePath)
{
    const QString beside =
        QDir::cleanPath(paneBundlePath + QStringLiteral("/../../../bin/nimbrel-preferences"));
    if (QFileInfo(beside).isExecutable())
        return beside;
    const QString onPath = QStandardPaths::findExecutable(QStringLiteral("nimbrel-preferences"));
    return onPath.isEmpty() ? beside : onPath;
}

MenuBarApp::MenuBarApp(const QString& paneBundlePath, const QDBusConnection& connection, QObject* parent)
    : QObject(parent), m_paneBundlePath(paneBundlePath)
{
    MenuBarCommands commands;
    commands.setBackgroundAppRunning = [this](bool wanted) { m_watch->setBackgroundAppRunning(wanted); };
    commands.preferencesAvailable = [this] { return QFileInfo(preferencesProgram()).isExecutable(); };
    commands.openPreferences = [this] {
        const QString program = preferencesProgram();
        if (QProcess::startDetached(program, {}))
            return true;
        Log(13, "NimbrelMenu: cannot start %@", program);
        return false;
    };
    m_controller = std::make_unique<MenuBarController>(std::move(commands));
    m_watch = std::make_unique<BackgroundAppWatch>(
        Bundle(paneBundlePath),
        [this](bool running, bool responding) {
            m_controller->backgroundAppStateChange(running, responding);
        },
        nullptr, connection);
    m_menu = std::make_unique<MenuBarMenu>(m_controller.get());
    connect(m_menu.get(), &MenuBarMenu::quitRequested, this, &MenuBarApp::quitRequested);
    connect(m_controller.get(), &MenuBarController::changed, this, &MenuBarApp::updateTrayIcon);
}

// The watch goes first: its pending performs and notifications must not reach a dead controller.
MenuBarApp::~MenuBarApp()
{
    m_tray.reset();
    m_watch.reset();
}

void MenuBarApp::start()
{
    m_watch->start();
    showTrayIconIfAvailable();
}

void MenuBarApp::showTrayIconIfAvailable()
{
    if (m_tray)
        return;
    if (!QSystemTrayIcon::isSystemTrayAvailable()) {
        if (!m_trayPoll) {
            std::fprintf(stderr,
                         "NimbrelMenu: no system tray is available; the icon appears once there is one\n");
            m_trayPoll = new QTimer(this);
            m_trayPoll->setInterval(kTrayPollInterval);
            connect(m_trayPoll, &QTimer::timeout, this, &MenuBarApp::showTrayIconIfAvailable);
            m_trayPoll->start();
        }
        return;
    }
    if (m_trayPoll)
        m_trayPoll->stop();
    m_tray = std::make_unique<QSystemTrayIcon>();
    m_tray->setContextMenu(m_menu.get());
    // A plain click opens the same menu: on most desktops that is what a tray icon is expected to do.
    connect(m_tray.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger)
                    m_menu->popup(QCursor::pos());
            });
    updateTrayIcon();
    m_tray->show();
}

void MenuBarApp::updateTrayIcon()
{
    if (!m_tray)
        return;
    m_tray->setIcon(menuBarIcon(m_controller->state()));
    m_tray->setToolTip(m_controller->toolTip());
}

} // namespace nimbrel
