#pragma once

// What the tray knows of the background application, without ever waiting for it: whether its
// process exists, its "Nimbrel Running" and "Nimbrel Stopped" notifications, and an asynchronous
// `version` probe that tells a running application from one that does not answer. Start is a
// detached launch, Stop the one-way `shutdown`; the login item follows either, as the control
// panel's Start/Stop keeps it. No call on the bus ever blocks the tray's event loop.
//
// The state is the control panel's (running, responding) pair with its transitions: an answer to
// Start/Stop is awaited 20 s, a probe 10 s; after either runs out the application counts as not
// responding and is probed again one second later for as long as its process exists. Timers run on
// the run loop, so tests drive them in virtual time.

#include "platform/Bundle.h"

#include <QDBusConnection>
#include <QObject>
#include <functional>
#include <memory>

class QDBusPendingCallWatcher;

namespace nimbrel {

class NotificationBus;
class RunLoop;

class BackgroundAppWatch : public QObject
{
    Q_OBJECT
public:
    static constexpr double kStateChangeDelay = 20.0;
    static constexpr double kProbeDelay = 10.0;
    static constexpr double kReprobeDelay = 1.0;

    // `changed` hears every (running, responding) the watch settles on, as the link tells its delegate.
    using StateHandler = std::function<void(bool running, bool responding)>;

    BackgroundAppWatch(const Bundle& paneBundle, StateHandler changed, RunLoop* runLoop = nullptr,
                       const QDBusConnection& connection = QDBusConnection::sessionBus(),
                       QObject* parent = nullptr);
    ~BackgroundAppWatch() override;

    // Looks for the process and observes the notifications. A stopped application is reported at
    // once; a running one once the first probe has answered or run out.
    void start();

    // Start or Stop, answered later through the state handler.
    void setBackgroundAppRunning(bool wanted);

    bool backgroundAppRunning() const { return m_running; }
    bool backgroundAppResponding() const { return m_responding; }
    QString backgroundAppPath() const;
    const QString& backgroundAppIdentifier() const { return m_identifier; }

    // Replace the process lookup (identifier → PID, 0 = none) and the launcher (app bundle path →
    // started); tests decide what runs. Empty functions restore the real ones.
    void setProcessLookup(std::function<qint64(const QString&)> lookup);
    void setApplicationLauncher(std::function<bool(const QString&)> launcher);

private:
    bool isRunning() const;
    void report();
    void probe();
    void dropProbe();
    void probeAnswered(QDBusPendingCallWatcher* watcher);
    void stateChangeTimeout();
    void reprobe();
    void launched();
    void terminated();
    void perform(const char* selector, double seconds, void (BackgroundAppWatch::*method)());
    void cancel(const char* selector);

    Bundle m_bundle;
    StateHandler m_changed;
    RunLoop* m_runLoop;
    QDBusConnection m_connection;
    QString m_identifier;
    std::unique_ptr<NotificationBus> m_notifications;
    std::unique_ptr<QDBusPendingCallWatcher> m_probe;
    std::function<qint64(const QString&)> m_processLookup;
    std::function<bool(const QString&)> m_launcher;
    bool m_running = false;
    bool m_responding = true;
    bool m_reported = false; // nothing said yet: the first probe's outcome is always reported
};

} // namespace nimbrel
