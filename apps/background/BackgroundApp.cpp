#include "BackgroundApp.h"
#include "Publishing.h"

#include "NimbrelState.h"
#include "SharedSettings.h"
#include "UpdateCheck.h"
#include "logging/Log.h"
#include "platform/Bundle.h"
#include "platform/PlistCodec.h"
#include "platform/SettingsStore.h"
#include "platform/SignalNotifier.h"
#include "protocol/AppProtocol.h"
#include "protocol/NotificationBus.h"
#include "protocol/Notifications.h"

#include <QDBusMessage>
#include <QDir>
#include <QEventLoop>
#include <QFileInfo>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#ifndef NIMBREL_VERSION
#define NIMBREL_VERSION "0"
#endif

namespace nimbrel::background {

namespace {

const QString kLogName = QStringLiteral("Nimbrel");
constexpr long kLogKeepCount = 5;
constexpr int kLogFlushIntervalMs = 5000;
constexpr int kBusFlushTimeoutMs = 2000;
const QString kRunning = notification::running;
const QString kStopped = notification::stopped;

void printError(const QString& message)
{
    std::fprintf(stderr, "%s\n", message.toLocal8Bit().constData());
    std::fflush(stderr);
}

QVariantMap userDefaults(const QString& appBundlePath)
{
    const QString path =
        Bundle(appBundlePath).pathForResource(QStringLiteral("UserDefaults"), QStringLiteral("plist"));
    if (path.isEmpty())
        return {};
    return plist::readFile(path).value_or(QVariant()).toMap();
}

long logLevel(const SettingsStore& shared)
{
    const std::optional<double> level = shared.numberValue(QStringLiteral("logLevel"));
    return level && std::isfinite(*level) && std::fabs(*level) < 1e6 ? long(*level) : 2;
}

} // namespace

BackgroundOptions BackgroundOptions::defaults(const QString& appBundlePath)
{
    BackgroundOptions options;
    options.appBundlePath = appBundlePath;
    options.settingsPath = SettingsStore::domainPath(QStringLiteral("com.quorvia.Nimbrel"));
    options.dataFolder = background::supportFolder();
    options.databasePath = background::databasePath();
    options.calendarsFolder = background::calendarsFolder();
    options.backupFolder = background::backupFolder();
    return options;
}

QString BackgroundApp::appVersion(const QString& appBundlePath)
{
    const QString version = Bundle(appBundlePath)
                                .objectForInfoDictionaryKey(QStringLiteral("CFBundleShortVersionString"))
                                .toString();
    return version.isEmpty() ? QStringLiteral(NIMBREL_VERSION) : version;
}

BackgroundApp::BackgroundApp(BackgroundOptions options, QObject* parent)
    : QObject(parent), m_options(std::move(options)), m_version(appVersion(m_options.appBundlePath)),
      m_userDefaults(userDefaults(m_options.appBundlePath))
{
    m_flushTimer.setInterval(kLogFlushIntervalMs);
    connect(&m_flushTimer, &QTimer::timeout, this, [] { LogFlush(); });
}

BackgroundApp::~BackgroundApp()
{
    if (m_serving) {
        m_serving = false;
        teardown();
    }
    if (m_logOpen)
        closeLog();
}

int BackgroundApp::start()
{
    if (m_serving)
        return ExitOk;
    if (m_options.handleSignals) {
        m_signals = std::make_unique<SignalNotifier>(std::initializer_list<int>{SIGTERM, SIGINT});
        if (m_signals->isValid())
            connect(m_signals.get(), &SignalNotifier::signalReceived, this, [this](int signalNumber) {
                stop(signalNumber == SIGTERM ? QStringLiteral("SIGTERM") : QStringLiteral("SIGINT"));
            });
        else
            printError(QStringLiteral("Nimbrel: signals cannot be watched"));
    }
    if (!m_options.connection.isConnected()) {
        printError(
            QStringLiteral("Nimbrel: no session bus: %1").arg(m_options.connection.lastError().message()));
        teardown();
        return ExitFailure;
    }

    m_shared = std::make_unique<SettingsStore>(m_options.settingsPath);
    m_state =
        std::make_unique<NimbrelState>(m_options.databasePath, m_options.calendarsFolder,
                                       m_options.backupFolder, [this](const QString& name) { post(name); });
    m_service = std::make_unique<BackgroundService>(*m_state, *m_shared, m_version);
    // The name comes first: a second instance must not touch the log or the database of the first.
    switch (m_service->serve(m_options.connection)) {
    case BackgroundService::ServeResult::Serving:
        break;
    case BackgroundService::ServeResult::NameTaken:
        printError(
            QStringLiteral("Nimbrel is already running: %1 is owned by another process on the session bus.")
                .arg(kAppProtocolService));
        teardown();
        return ExitAlreadyRunning;
    case BackgroundService::ServeResult::Failed:
        printError(QStringLiteral("Nimbrel: cannot serve %1 on the session bus: %2")
                       .arg(kAppProtocolService, m_options.connection.lastError().message()));
        teardown();
        return ExitFailure;
    }
    // Another session of the same user (another bus) must not share the log or the database either.
    if (!lockDataFolder()) {
        teardown();
        return ExitAlreadyRunning;
    }

    if (m_options.keepLog)
        openLog();
    Log(10, "Nimbrel %@ starting (pid %d)", m_version, static_cast<long long>(::getpid()));
    noteCorruptSettings(*m_shared);
    if (!m_state->open()) {
        Log(13, "Nimbrel cannot start: no usable database: %@", m_state->lastError());
        teardown();
        return ExitFailure;
    }

    m_updates =
        std::make_unique<UpdateScheduler>(updateFeedUrl(m_userDefaults), m_version, *m_shared, m_userDefaults,
                                          [this](const QString& name) { post(name); });
    connect(m_service.get(), &BackgroundService::updateCheckRequested, m_updates.get(),
            [this] { m_updates->checkNow(true); });
    connect(m_service.get(), &BackgroundService::updateScheduleChanged, m_updates.get(),
            &UpdateScheduler::reschedule);
    connect(m_service.get(), &BackgroundService::shutdownRequested, this,
            [this] { stop(QStringLiteral("shutdown requested")); });
    m_options.connection.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"),
                                 QStringLiteral("org.freedesktop.DBus.Local"), QStringLiteral("Disconnected"),
                                 this, SLOT(busDisconnected()));
    m_updates->reschedule();
    // Serving the published calendars does not wait for Avahi; the announcement follows by itself.
    m_publishing = std::make_unique<Publishing>(*m_state, QFileInfo(m_options.databasePath).absolutePath(),
                                                [this](const QString& name) { post(name); });
    m_publishing->start();

    m_serving = true;
    post(kRunning);
    Log(10, "Nimbrel serving protocol version %d as %@", kAppProtocolVersion, kAppProtocolService);
    return ExitOk;
}

void BackgroundApp::stop(const QString& reason)
{
    if (!m_serving)
        return;
    m_serving = false;
    Log(10, "Nimbrel stopping (%@)", reason);
    m_updates->stop();
    m_publishing.reset(); // the announcement withdrawn (the goodbye), the server closed
    m_state->close(); // everything on disk before anybody hears "Stopped"
    m_service->unserve();
    if (m_options.connection.isConnected()) {
        post(kStopped);
        flushBus();
    }
    m_lock.reset();
    Log(10, "Nimbrel stopped");
    if (m_logOpen)
        closeLog();
    emit finished(ExitOk);
}

int BackgroundApp::runUpdateCheck(const BackgroundOptions& options)
{
    const QString version = appVersion(options.appBundlePath);
    SettingsStore shared(options.settingsPath);
    if (options.keepLog) {
        // Appends to the application's log without rotating it: this is not the log's host.
        const QString path = logFilePath(kLogName);
        QDir().mkpath(QFileInfo(path).path());
        if (const int error = ReopenStandardError(path); error != 0)
            printError(QStringLiteral("Nimbrel: cannot open the log: %1")
                           .arg(QString::fromLocal8Bit(std::strerror(error))));
        SetLogLevel(logLevel(shared));
        OpenFilteredLogFile(kLogName, false, false);
    }
    Log(10, "Nimbrel %@: stand-alone update check", version);
    const QVariantMap defaults = userDefaults(options.appBundlePath);
    UpdateScheduler updates(updateFeedUrl(defaults), version, shared, defaults, {});
    QEventLoop loop;
    connect(&updates, &UpdateScheduler::checked, &loop, &QEventLoop::quit);
    updates.checkNow(false);
    if (updates.isChecking())
        loop.exec();
    if (options.keepLog) {
        LogFlush();
        CloseFilteredLogFile();
        std::fflush(stderr);
    }
    return ExitOk;
}

void BackgroundApp::busDisconnected()
{
    Log(13, "Nimbrel: the session bus went away; nothing can reach this instance any more");
    stop(QStringLiteral("the session bus went away"));
}

bool BackgroundApp::lockDataFolder()
{
    QDir().mkpath(m_options.dataFolder);
    m_lock = std::make_unique<QLockFile>(m_options.dataFolder + QStringLiteral("/Nimbrel.lock"));
    m_lock->setStaleLockTime(0); // held for as long as we run; a crashed holder's lock is still taken over
    if (m_lock->tryLock(0))
        return true;
    qint64 pid = 0;
    QString host;
    QString application;
    if (m_lock->error() == QLockFile::LockFailedError && m_lock->getLockInfo(&pid, &host, &application))
        printError(
            QStringLiteral("Nimbrel is already running on this data folder: %1 is in use by process %2 on "
                           "%3 (another session of this user).")
                .arg(m_options.dataFolder)
                .arg(pid)
                .arg(host));
    else
        printError(QStringLiteral("Nimbrel: cannot lock the data folder %1 (%2).")
                       .arg(m_options.dataFolder, m_lock->error() == QLockFile::PermissionError
                                                      ? QStringLiteral("no permission")
                                                      : QStringLiteral("held by another instance")));
    m_lock.reset();
    return false;
}

void BackgroundApp::post(const QString& name)
{
    Log(2, "Posting \"%@\"", name);
    const bool sent =
        m_options.post ? m_options.post(name) : NotificationBus::post(name, m_options.connection);
    if (!sent)
        Log(13, "post: \"%@\" could not be sent: %@", name, m_options.connection.lastError().message());
}

// Sent messages leave in order: once the bus has answered a later call, the earlier ones are out.
void BackgroundApp::flushBus()
{
    const QDBusMessage ping = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus.Peer"), QStringLiteral("Ping"));
    const QDBusMessage reply = m_options.connection.call(ping, QDBus::Block, kBusFlushTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage)
        Log(13, "flushBus: the bus did not answer: %@", reply.errorMessage());
}

void BackgroundApp::openLog()
{
    const QString path = prepLogFilePath(kLogName, kLogKeepCount);
    if (path.isEmpty())
        printError(QStringLiteral("Nimbrel: the log folder cannot be prepared; logging to standard error"));
    else if (const int error = ReopenStandardError(path); error != 0)
        printError(QStringLiteral("Nimbrel: cannot open %1: %2")
                       .arg(path, QString::fromLocal8Bit(std::strerror(error))));
    SetLogLevel(logLevel(*m_shared));
    // Not in update mode: every filtered line is on disk at once for the panel's log view.
    OpenFilteredLogFile(kLogName, false, false);
    m_flushTimer.start();
    m_logOpen = true;
}

void BackgroundApp::closeLog()
{
    m_flushTimer.stop();
    LogFlush();
    CloseFilteredLogFile();
    std::fflush(stderr);
    m_logOpen = false;
}

void BackgroundApp::teardown()
{
    m_publishing.reset();
    m_updates.reset();
    if (m_state && m_state->isOpen())
        m_state->close();
    m_service.reset();
    m_state.reset();
    m_lock.reset();
    m_signals.reset();
    if (m_logOpen)
        closeLog();
}

} // namespace nimbrel::background
