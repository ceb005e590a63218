// NimbrelCom: starting and stopping the background and menu-bar applications, and keeping their login
// items in step with the user's last choice.

#include "link/NimbrelCom.h"
#include "link/NimbrelComDelegate.h"
#include "logging/Log.h"
#include "platform/LoginItems.h"
#include "platform/ProcessLaunch.h"

namespace nimbrel {

namespace {

bool launchCompanion(const QString& appPath)
{
    QString error;
    if (!launchApplication(appPath, {}, nullptr, &error)) {
        Log(13, "NimbrelCom: launch failed: %@", error);
        return false;
    }
    return true;
}

} // namespace

void NimbrelCom::setApplicationLauncher(std::function<bool(const QString&)> launcher)
{
    m_launcher = std::move(launcher);
}

void NimbrelCom::setApplicationTerminator(std::function<void(qint64)> terminator)
{
    m_terminator = std::move(terminator);
}

QString NimbrelCom::backgroundAppPath() const
{
    return m_bundle.pathForResource(QStringLiteral("Nimbrel"), QStringLiteral("app"));
}

QString NimbrelCom::menuBarAppPath() const
{
    return m_bundle.pathForResource(QStringLiteral("NimbrelMenu"), QStringLiteral("app"));
}

void NimbrelCom::setBackgroundAppRunning(bool wanted)
{
    m_backgroundAppRunning = isRunning(m_backgroundAppIdentifier);
    if (m_backgroundAppRunning == wanted) {
        m_delegate->nimbrelBackgroundAppStateChange(wanted, m_backgroundAppResponding);
        return;
    }

    const QString path = backgroundAppPath();
    if (wanted) {
        // A failed launch is not reported here: the time-out below ends in "not responding".
        if (path.isEmpty())
            Log(13, "NimbrelCom: the background application is missing from %@", m_bundle.bundlePath());
        else
            m_launcher ? m_launcher(path) : launchCompanion(path);
    } else if (m_proxy) {
        m_proxy->shutdown();
    }
    if (!path.isEmpty())
        setStartsAtLogin(wanted, path);
    performAfterDelay("backgroundAppStateChangeTimeout", kBackgroundAppStateChangeDelay,
                      &NimbrelCom::backgroundAppStateChangeTimeout);
}

void NimbrelCom::stopBackgroundApp()
{
    if (m_backgroundAppRunning && m_proxy)
        m_proxy->shutdown();
}

void NimbrelCom::setMenuBarAppRunning(bool wanted)
{
    qint64 pid = 0;
    m_menuBarAppRunning = isRunning(menuBarAppIdentifier(), &pid);
    if (m_menuBarAppRunning == wanted)
        return;

    const QString path = menuBarAppPath();
    if (wanted) {
        if (path.isEmpty())
            Log(13, "NimbrelCom: the menu-bar application is missing from %@", m_bundle.bundlePath());
        else
            m_launcher ? m_launcher(path) : launchCompanion(path);
    } else if (m_terminator) {
        m_terminator(pid);
    } else {
        requestQuit(pid); // not waited for, as a quit request is fire-and-forget
    }
    if (!path.isEmpty())
        setStartsAtLogin(wanted, path);
    m_menuBarAppRunning = wanted; // no confirmation is awaited
}

bool NimbrelCom::launchBackgroundAppAtStartup()
{
    return startsAtLogin(backgroundAppPath());
}

bool NimbrelCom::launchMenuBarAppAtStartup()
{
    return startsAtLogin(menuBarAppPath());
}

bool NimbrelCom::startsAtLogin(const QString& appPath)
{
    return nimbrel::startsAtLogin(appPath);
}

void NimbrelCom::setStartsAtLogin(bool wanted, const QString& appPath)
{
    nimbrel::setStartsAtLogin(wanted, appPath);
}

} // namespace nimbrel
