#pragma once

// The tray companion put together: the pane's link as the source of truth, the controller as its
// delegate, the menu and the tray icon (shown once a system tray exists).

#include "MenuBarController.h"

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <memory>

class QSystemTrayIcon;
class QTimer;

namespace nimbrel {

class MenuBarMenu;
class NimbrelCom;

// The pane bundle the executable travels in (<pane>/Resources/NimbrelMenu.app/NimbrelMenu), or
// Bundle::defaultPaneBundlePath() when the executable is not inside one.
QString paneBundlePathForExecutable(const QString& executablePath);

// The control panel of an installation: <prefix>/bin/nimbrel-preferences for the pane bundle
// <prefix>/lib/nimbrel/Nimbrel.prefPane.
QString preferencesProgramPath(const QString& paneBundlePath);

class MenuBarApp : public QObject
{
    Q_OBJECT
public:
    explicit MenuBarApp(const QString& paneBundlePath,
                        const QDBusConnection& connection = QDBusConnection::sessionBus(),
                        QObject* parent = nullptr);
    ~MenuBarApp() override;

    NimbrelCom& link() { return *m_link; }
    MenuBarController& controller() { return *m_controller; }
    MenuBarMenu& menu() { return *m_menu; }
    QString preferencesProgram() const { return m_preferencesProgram; }

    // Activates the link, takes its state and shows the tray icon, or waits for a tray to appear.
    void start();

    // How often the absence of a system tray is looked at again (milliseconds).
    static constexpr int kTrayPollInterval = 5000;

signals:
    // Quit chosen in the menu.
    void quitRequested();

private:
    void showTrayIconIfAvailable();
    void updateTrayIcon();

    QString m_preferencesProgram;
    std::unique_ptr<MenuBarController> m_controller;
    std::unique_ptr<NimbrelCom> m_link;
    std::unique_ptr<MenuBarMenu> m_menu;
    std::unique_ptr<QSystemTrayIcon> m_tray;
    QTimer* m_trayPoll = nullptr;
};

} // namespace nimbrel
