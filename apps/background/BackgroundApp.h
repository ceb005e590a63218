#pragma once

// The background application's life: takes the bus name (a second instance on the bus stops there),
// locks the data folder (a second instance of another session on the same folder stops there), keeps
// its log the way every log host does, opens the state, serves the protocol, runs the update checks,
// posts "Nimbrel Running" once it serves, and on `shutdown`, SIGTERM or SIGINT closes the state, gives
// the name up and posts "Nimbrel Stopped". When the session bus goes away it closes the state and ends.
//
// Log: ~/.local/state/Nimbrel/Nimbrel.log (five old logs kept) and Nimbrel.filteredlog (level 10 and
// up), flushed every 5 s. The level is 2 unless the shared settings hold a number under "logLevel".

#include "BackgroundService.h"

#include <QDBusConnection>
#include <QLockFile>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QVariantMap>
#include <functional>
#include <memory>

namespace nimbrel {
class SettingsStore;
class SignalNotifier;
} // namespace nimbrel

namespace nimbrel::background {

class NimbrelState;
class UpdateScheduler;

struct BackgroundOptions
{
    QDBusConnection connection = QDBusConnection::sessionBus();
    QString appBundlePath; // Nimbrel.app: Info.plist and Resources/UserDefaults.plist
    QString settingsPath;  // the shared settings domain
    QString dataFolder;    // holds the lock file Nimbrel.lock
    QString databasePath;
    QString calendarsFolder;
    QString backupFolder;
    bool keepLog = true;       // make standard error the log file and keep the filtered log
    bool handleSignals = true; // SIGTERM and SIGINT stop the application cleanly
    // How a notification leaves, synchronously; empty: NotificationBus::post on `connection`.
    std::function<bool(const QString& name)> post;

    // The program's own: the session bus, the folders of NimbrelState, the com.quorvia.Nimbrel domain.
    static BackgroundOptions defaults(const QString& appBundlePath);
};

class BackgroundApp : public QObject
{
    Q_OBJECT
public:
    // Exit statuses of the program.
    enum ExitCode
    {
        ExitOk = 0,
        ExitAlreadyRunning = 1, // the bus name is owned, or the data folder locked, by another instance
        ExitFailure = 2,        // no session bus, the bus refused us, or no usable database
    };

    explicit BackgroundApp(BackgroundOptions options, QObject* parent = nullptr);
    ~BackgroundApp() override; // a running application is torn down without the Stopped post

    // ExitOk once serving (the event loop does the rest); otherwise the status to exit with, after a
    // message on standard error, and nothing is left running.
    int start();
    // Stops updates, closes the state, releases the name, posts "Nimbrel Stopped" (flushed to the bus)
    // and emits finished(ExitOk). Does nothing unless serving.
    void stop(const QString& reason);
    bool isServing() const { return m_serving; }
    const NimbrelState* state() const { return m_state.get(); } // null before start()

    // The "-sparkle" mode: one update check, its date recorded, then done. Always ExitOk.
    static int runUpdateCheck(const BackgroundOptions& options);

    // CFBundleShortVersionString of the app bundle (the build's version when there is none).
    static QString appVersion(const QString& appBundlePath);

signals:
    void finished(int exitCode);

private slots:
    void busDisconnected();

private:
    bool lockDataFolder();
    void post(const QString& name);
    void flushBus();
    void openLog();
    void closeLog();
    void teardown();

    BackgroundOptions m_options;
    QString m_version;
    QVariantMap m_userDefaults;
    std::unique_ptr<SettingsStore> m_shared;
    std::unique_ptr<NimbrelState> m_state;
    std::unique_ptr<BackgroundService> m_service;
    std::unique_ptr<UpdateScheduler> m_updates;
    std::unique_ptr<class Publishing> m_publishing;
    std::unique_ptr<SignalNotifier> m_signals;
    std::unique_ptr<QLockFile> m_lock;
    QTimer m_flushTimer;
    bool m_serving = false;
    bool m_logOpen = false;
};

} // namespace nimbrel::background
