#pragma once

// The tray companion put together: the watch on the background application as the source of truth,
// the controller fed by it, the menu and the tray icon (shown once a system tray exists).

#include "BackgroundAppWatch.h"
#include "MenuBarController.h"

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <memory>

class QSystemTrayIcon;
class QTimer;

namespace nimbrel {

class MenuBarMenu;

// The pane bundle the executable travels in (<pane>/Resources/NimbrelMenu.app/NimbrelMenu), or
// Bundle::defaultPaneBundlePath() when the executable is not inside one.
QString paneBundlePathForExecutable(const QString& executablePath);

// The control panel: <prefix>/bin/nimbrel-preferences for the pane bundle
// <prefix>/lib/nimbrel/Nimbrel.prefPane (the build tree has the same shape), else the one on PATH.
QString preferencesProgramPath(const QString& paneBundlePath);

class MenuBarApp : public QObject
{
    Q_OBJECT
public:
    explicit MenuBarApp(const QString& paneBundlePath,
                        const QDBusConnection& connection = QDBusConnection::sessionBus(),
                        QObject* parent = nullptr);
    ~MenuBarApp() override;

    BackgroundAppWatch& watch() { return *m_watch; }
    MenuBarController& controller() { return *m_controller; }
    MenuBarMenu& menu() { return *m_menu; }
    // Looked for on every use: the control panel may be installed or removed while the tray runs.
    QString preferencesProgram() const { return preferencesProgramPath(m_paneBundlePath); }

    // Starts watching the background application and shows the tray icon, or waits for a tray.
    void start();

    // How often the absence of a system tray is looked at again (milliseconds).
    static constexpr int kTrayPollInterval = 5000;

signals:
    // Quit chosen in the menu.
    void quitRequested();

private:
    void showTrayIconIfAvailable();
    void updateTrayIcon();

    QString m_paneBundlePath;
    std::unique_ptr<MenuBarController> m_controller;
    std::unique_ptr<BackgroundAppWatch> m_watch;
    std::unique_ptr<MenuBarMenu> m_menu;
    std::unique_ptr<QSystemTrayIcon> m_tray;
    QTimer* m_trayPoll = nullptr;
};

} // namespace nimbrel
