#include "BackgroundAppWatch.h"

#include "logging/Log.h"
#include "platform/LoginItems.h"
#include "platform/ProcessLaunch.h"
#include "platform/ProcessLookup.h"
#include "platform/RunLoop.h"
#include "protocol/AppProtocol.h"
#include "protocol/NotificationBus.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

namespace nimbrel {

BackgroundAppWatch::BackgroundAppWatch(const Bundle& paneBundle, StateHandler changed, RunLoop* runLoop,
                                       const QDBusConnection& connection, QObject* parent)
    : QObject(parent), m_bundle(paneBundle), m_changed(std::move(changed)),
      m_runLoop(runLoop ? runLoop : &RunLoop::current()), m_connection(connection),
      m_notifications(std::make_unique<NotificationBus>(connection))
{
    const std::optional<Bundle> app = m_bundle.appBundleForResource(QStringLiteral("Nimbrel"));
    m_identifier = app ? app->bundleIdentifier() : QString();
    if (m_identifier.isEmpty())
        m_identifier = kBackgroundAppIdentifier;
}

BackgroundAppWatch::~BackgroundAppWatch()
{
    m_runLoop->cancelAllPerformRequests(this);
}

QString BackgroundAppWatch::backgroundAppPath() const
{
    return m_bundle.pathForResource(QStringLiteral("Nimbrel"), QStringLiteral("app"));
}

void BackgroundAppWatch::setProcessLookup(std::function<qint64(const QString&)> lookup)
{
    m_processLookup = std::move(lookup);
}

void BackgroundAppWatch::setApplicationLauncher(std::function<bool(const QString&)> launcher)
{
    m_launcher = std::move(launcher);
}

bool BackgroundAppWatch::isRunning() const
{
    return (m_processLookup ? m_processLookup(m_identifier) : findProcessByBundleIdentifier(m_identifier)) !=
           0;
}

void BackgroundAppWatch::report()
{
    m_reported = true;
    if (m_changed)
        m_changed(m_running, m_responding);
}

void BackgroundAppWatch::perform(const char* selector, double seconds, void (BackgroundAppWatch::*method)())
{
    m_runLoop->performAfterDelay(static_cast<QObject*>(this), QByteArray(selector), seconds,
                                 [this, method] { (this->*method)(); });
}

void BackgroundAppWatch::cancel(const char* selector)
{
    m_runLoop->cancelPreviousPerformRequests(static_cast<QObject*>(this), QByteArray(selector));
}

void BackgroundAppWatch::start()
{
    m_running = isRunning();
    m_responding = true;
    m_notifications->removeAllObservers();
    m_notifications->addObserver(notification::running, [this] { launched(); });
    m_notifications->addObserver(notification::stopped, [this] { terminated(); });
    if (m_running)
        probe();
    else
        report();
}

// ---- The probe ---------------------------------------------------------------------------------

void BackgroundAppWatch::probe()
{
    dropProbe();
    QDBusMessage call = QDBusMessage::createMethodCall(kAppProtocolService, kAppProtocolPath,
                                                       kAppProtocolInterface, method::version);
    call.setAutoStartService(false); // a stopped application stays stopped
    m_probe = std::make_unique<QDBusPendingCallWatcher>(m_connection.asyncCall(call));
    connect(m_probe.get(), &QDBusPendingCallWatcher::finished, this, &BackgroundAppWatch::probeAnswered);
    perform("probeTimeout", kProbeDelay, &BackgroundAppWatch::stateChangeTimeout);
}

void BackgroundAppWatch::dropProbe()
{
    cancel("probeTimeout");
    if (m_probe) {
        m_probe->disconnect(this);
        m_probe.release()->deleteLater(); // it may be the sender of the slot running now
    }
}

void BackgroundAppWatch::probeAnswered(QDBusPendingCallWatcher* watcher)
{
    if (watcher != m_probe.get())
        return; // an answer to a probe given up on
    const QDBusPendingReply<int> reply = *watcher;
    dropProbe();
    if (reply.isError()) {
        Log(13, "NimbrelMenu: Nimbrel does not answer: %@ %@", reply.error().name(), reply.error().message());
        stateChangeTimeout();
        return;
    }
    // Another version still means the application is alive; only version 5 brings it back from
    // not responding, as in the control panel.
    const bool wasResponding = m_responding;
    if (reply.value() == kAppProtocolVersion)
        m_responding = true;
    else
        Log(13, "NimbrelMenu: Nimbrel speaks protocol version %d, not %d", reply.value(),
            kAppProtocolVersion);
    if (!m_reported || m_responding != wasResponding)
        report();
}

// ---- State changes -----------------------------------------------------------------------------

void BackgroundAppWatch::stateChangeTimeout()
{
    dropProbe();
    m_running = isRunning();
    m_responding = false;
    report();
    perform("reprobe", kReprobeDelay, &BackgroundAppWatch::reprobe);
}

void BackgroundAppWatch::reprobe()
{
    if (m_running)
        probe();
}

void BackgroundAppWatch::launched()
{
    cancel("stateChangeTimeout");
    cancel("reprobe");
    m_running = true;
    m_responding = true;
    report();
    probe();
}

void BackgroundAppWatch::terminated()
{
    cancel("stateChangeTimeout");
    cancel("reprobe");
    dropProbe();
    m_running = false;
    m_responding = true;
    report();
}

void BackgroundAppWatch::setBackgroundAppRunning(bool wanted)
{
    m_running = isRunning();
    if (m_running == wanted) {
        report();
        return;
    }
    const QString path = backgroundAppPath();
    if (wanted) {
        QString error;
        if (path.isEmpty())
            Log(13, "NimbrelMenu: the background application is missing from %@", m_bundle.bundlePath());
        else if (m_launcher ? !m_launcher(path) : !launchApplication(path, {}, nullptr, &error))
            Log(13, "NimbrelMenu: launch failed: %@", error);
    } else {
        QDBusMessage shutdown = QDBusMessage::createMethodCall(kAppProtocolService, kAppProtocolPath,
                                                               kAppProtocolInterface, method::shutdown);
        shutdown.setAutoStartService(false);
        m_connection.send(shutdown); // one-way: no reply is waited for
    }
    setStartsAtLogin(wanted, path);
    perform("stateChangeTimeout", kStateChangeDelay, &BackgroundAppWatch::stateChangeTimeout);
}

} // namespace nimbrel
