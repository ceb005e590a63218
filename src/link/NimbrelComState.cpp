// NimbrelCom: the background application's process state (running, responding), activation, the
// time-out and failure handler, and the notification table.

#include "link/NimbrelCom.h"
#include "link/NimbrelComDelegate.h"
#include "platform/ProcessLookup.h"
#include "platform/RunLoop.h"
#include "platform/SettingsStore.h"
#include "protocol/NotificationBus.h"

namespace nimbrel {

bool NimbrelCom::isRunning(const QString& identifier, qint64* outPid) const
{
    const qint64 pid =
        m_processLookup ? m_processLookup(identifier) : findProcessByBundleIdentifier(identifier);
    if (outPid)
        *outPid = pid;
    return pid != 0;
}

void NimbrelCom::setProcessLookup(std::function<qint64(const QString&)> lookup)
{
    m_processLookup = std::move(lookup);
}

void NimbrelCom::activate()
{
    m_backgroundAppRunning = isRunning(m_backgroundAppIdentifier);
    m_backgroundAppResponding = true; // assumed until a handshake fails
    m_menuBarAppRunning = isRunning(menuBarAppIdentifier());
    registerNotifications();
    connect();
}

void NimbrelCom::deactivate()
{
    // Pending time-outs and the connect retry are left running on purpose.
    m_notifications->removeAllObservers();
    disconnect();
}

void NimbrelCom::registerNotifications()
{
    // A second activate without deactivate must not observe every name twice.
    m_notifications->removeAllObservers();

    const struct
    {
        QLatin1StringView name;
        void (NimbrelCom::*handler)();
    } table[] = {
        {notification::running, &NimbrelCom::backgroundAppLaunched},
        {notification::stopped, &NimbrelCom::backgroundAppTerminated},
        {notification::reset, &NimbrelCom::backgroundAppReset},
        {notification::calendarsChanged, &NimbrelCom::calendarsChanged},
        {notification::bonjourUpdate, &NimbrelCom::bonjourServiceUpdate},
        {notification::bonjourPublishableChange, &NimbrelCom::publishableCalendarsChanged},
        {notification::bonjourChange, &NimbrelCom::subscribeCalendarsChanged},
        {notification::bonjourNamePublished, &NimbrelCom::bonjourNamePublished},
        {notification::checkedUpdate, &NimbrelCom::updateChecked},
        {notification::googleUpdate, &NimbrelCom::googleServiceUpdate},
        {notification::googleChange, &NimbrelCom::googleSynchingChanged},
    };
    for (const auto& entry : table) {
        const auto handler = entry.handler;
        m_notifications->addObserver(entry.name, [this, handler] { (this->*handler)(); });
    }
}

void NimbrelCom::backgroundAppStateChangeTimeout()
{
    m_backgroundAppRunning = isRunning(m_backgroundAppIdentifier);
    m_backgroundAppResponding = false;
    m_delegate->nimbrelBackgroundAppStateChange(m_backgroundAppRunning, false);
    disconnect();
    performAfterDelay("connect", kReconnectDelay, &NimbrelCom::connect);
}

void NimbrelCom::backgroundAppLaunched()
{
    cancelPerform("backgroundAppStateChangeTimeout");
    cancelPerform("connect");
    m_backgroundAppRunning = true;
    m_backgroundAppResponding = true;
    m_delegate->nimbrelBackgroundAppStateChange(true, true);
    connect();
}

void NimbrelCom::backgroundAppTerminated()
{
    cancelPerform("backgroundAppStateChangeTimeout");
    cancelPerform("connect");
    m_backgroundAppRunning = false;
    m_backgroundAppResponding = true;
    m_delegate->nimbrelBackgroundAppStateChange(false, true);
    disconnect();
}

// ---- Confirmations of the update check and the database reset --------------------------------

void NimbrelCom::backgroundAppReset()
{
    cancelPerform("resetDatabaseTimeout");
    m_delegate->nimbrelResetFinished(true);
}

void NimbrelCom::updateChecked()
{
    cancelPerform("checkForUpdateTimeout");
    // The background application wrote the new check time; read it before the pane asks.
    sharedSettings().sync();
    m_delegate->nimbrelCheckedForUpdate();
}

} // namespace nimbrel
