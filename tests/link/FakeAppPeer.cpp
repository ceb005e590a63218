#include "link/FakeAppPeer.h"

#include "AppProtocolAdaptor.h"
#include "link/AppProtocolProxy.h"
#include "protocol/NotificationBus.h"
#include "protocol/WireCodec.h"

#include <QAtomicInt>
#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDeadlineTimer>
#include <QThread>
#include <QTimer>
#include <algorithm>

namespace nimbrel::test {

namespace {

QString nextConnectionName()
{
    static QAtomicInt counter;
    return QStringLiteral("nimbrel-fake-app-peer-%1").arg(counter.fetchAndAddRelaxed(1));
}

} // namespace

FakeAppPeer::FakeAppPeer()
    : m_thread(std::make_unique<QThread>()), m_connectionName(nextConnectionName()),
      m_connection(QDBusConnection::connectToBus(QDBusConnection::SessionBus, m_connectionName))
{
    new AppProtocolAdaptor(this);
    m_thread->setObjectName(QStringLiteral("FakeAppPeer"));
    m_thread->start();
    // Calls are delivered on the peer thread, so a client blocking the test thread gets its answer.
    moveToThread(m_thread.get());
}

FakeAppPeer::~FakeAppPeer()
{
    stop();
    QThread* const home = QThread::currentThread();
    runOnPeerThread([this, home] {
        // Pending delayed replies are dropped; the object comes home to be destroyed where it was made.
        qDeleteAll(findChildren<QTimer*>(Qt::FindDirectChildrenOnly));
        moveToThread(home);
    });
    m_thread->quit();
    m_thread->wait();
    QDBusConnection::disconnectFromBus(m_connectionName);
}

void FakeAppPeer::runOnPeerThread(const std::function<void()>& fn)
{
    QMetaObject::invokeMethod(this, fn, Qt::BlockingQueuedConnection);
}

// ---- Lifecycle --------------------------------------------------------------------------------------

bool FakeAppPeer::start()
{
    // m_mutex is not held across bus calls: QtDBus holds its own lock while a handler (which takes
    // m_mutex) runs on the peer thread.
    if (isStarted())
        return true;
    if (!m_connection.isConnected())
        return false;
    if (!m_connection.registerObject(kAppProtocolPath, this, QDBusConnection::ExportAdaptors))
        return false;
    if (!m_connection.registerService(kAppProtocolService)) {
        m_connection.unregisterObject(kAppProtocolPath);
        return false;
    }
    QMutexLocker lock(&m_mutex);
    m_started = true;
    return true;
}

void FakeAppPeer::stop()
{
    if (!isStarted())
        return;
    m_connection.unregisterService(kAppProtocolService);
    m_connection.unregisterObject(kAppProtocolPath);
    QMutexLocker lock(&m_mutex);
    m_started = false;
}

bool FakeAppPeer::isStarted() const
{
    QMutexLocker lock(&m_mutex);
    return m_started;
}

QString FakeAppPeer::uniqueName() const
{
    return m_connection.baseService();
}

// ---- Answers ----------------------------------------------------------------------------------------

void FakeAppPeer::setVersion(int version)
{
    QMutexLocker lock(&m_mutex);
    m_script.version = version;
}

void FakeAppPeer::setListAnswer(const QString& method, const QVariantList& list)
{
    const QVariantList wireList = wire::toWire(QVariant(list)).toList();
    QMutexLocker lock(&m_mutex);
    m_script.lists.insert(method, wireList);
}

void FakeAppPeer::setBonjourInfo(const QVariantMap& info)
{
    const QVariantMap wireInfo = wire::toWire(info);
    QMutexLocker lock(&m_mutex);
    m_script.bonjourInfo = wireInfo;
}

void FakeAppPeer::setGoogleSyncInProgress(bool inProgress)
{
    QMutexLocker lock(&m_mutex);
    m_script.googleSyncInProgress = inProgress;
}

void FakeAppPeer::setReplyDelay(const QString& method, int milliseconds)
{
    QMutexLocker lock(&m_mutex);
    if (milliseconds > 0)
        m_script.delays.insert(method, milliseconds);
    else
        m_script.delays.remove(method);
}

void FakeAppPeer::setNeverReply(const QString& method, bool never)
{
    QMutexLocker lock(&m_mutex);
    if (never)
        m_script.neverReply.insert(method);
    else
        m_script.neverReply.remove(method);
}

void FakeAppPeer::setErrorReply(const QString& method, const QString& errorName)
{
    QMutexLocker lock(&m_mutex);
    if (errorName.isEmpty())
        m_script.errors.remove(method);
    else
        m_script.errors.insert(method, errorName);
}

void FakeAppPeer::setPostOnCall(const QString& method, const QString& notificationName)
{
    QMutexLocker lock(&m_mutex);
    if (notificationName.isEmpty())
        m_script.postOnCall.remove(method);
    else
        m_script.postOnCall.insert(method, notificationName);
}

void FakeAppPeer::resetAnswers()
{
    QMutexLocker lock(&m_mutex);
    m_script = Script();
}

FakeAppPeer::Script FakeAppPeer::script() const
{
    QMutexLocker lock(&m_mutex);
    return m_script;
}

// ---- Recorded calls ---------------------------------------------------------------------------------

QList<RecordedCall> FakeAppPeer::calls() const
{
    QMutexLocker lock(&m_mutex);
    return m_calls;
}

QList<RecordedCall> FakeAppPeer::calls(const QString& method) const
{
    QList<RecordedCall> matching;
    for (const RecordedCall& call : calls()) {
        if (call.method == method)
            matching.append(call);
    }
    return matching;
}

int FakeAppPeer::callCount(const QString& method) const
{
    QMutexLocker lock(&m_mutex);
    return int(std::count_if(m_calls.cbegin(), m_calls.cend(),
                             [&method](const RecordedCall& call) { return call.method == method; }));
}

bool FakeAppPeer::waitForCall(const QString& method, int timeoutMs, int count)
{
    const QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        if (callCount(method) >= count)
            return true;
        if (deadline.hasExpired())
            return false;
        // The caller's own queued work (e.g. a one-way call posted on its loop) must get to run too.
        QCoreApplication::processEvents(QEventLoop::AllEvents);
        QMutexLocker lock(&m_mutex);
        m_callArrived.wait(&m_mutex, QDeadlineTimer(qMin<qint64>(5, deadline.remainingTime())));
    }
}

void FakeAppPeer::clearCalls()
{
    QMutexLocker lock(&m_mutex);
    m_calls.clear();
}

// ---- Notifications ----------------------------------------------------------------------------------

bool FakeAppPeer::post(const QString& name)
{
    return NotificationBus::post(name, m_connection);
}

// ---- Serving ----------------------------------------------------------------------------------------

void FakeAppPeer::record(const QString& method)
{
    const QDBusMessage call = message();
    RecordedCall recorded{method, {}, call.isReplyRequired()};
    for (const QVariant& argument : call.arguments())
        recorded.arguments.append(wire::fromWire(argument));

    QString notification;
    {
        QMutexLocker lock(&m_mutex);
        m_calls.append(std::move(recorded));
        notification = m_script.postOnCall.value(method);
    }
    m_callArrived.wakeAll();
    if (!notification.isEmpty())
        post(notification);
}

void FakeAppPeer::answer(const QString& method, const QVariant& value)
{
    const Script current = script();
    const QString errorName = current.errors.value(method);
    if (!errorName.isEmpty()) {
        sendErrorReply(errorName, QStringLiteral("%1 failed as scripted").arg(method));
        return;
    }
    if (current.neverReply.contains(method)) {
        setDelayedReply(true);
        return;
    }
    const int delay = current.delays.value(method);
    if (delay <= 0)
        return; // the adaptor sends the handler's return value
    setDelayedReply(true);
    const QDBusMessage reply = value.isValid() ? message().createReply(value) : message().createReply();
    auto* timer = new QTimer(this);
    timer->setSingleShot(true);
    connect(timer, &QTimer::timeout, this, [this, timer, reply] {
        m_connection.send(reply);
        timer->deleteLater();
    });
    timer->start(delay);
}

int FakeAppPeer::version()
{
    record(QStringLiteral("version"));
    const int value = script().version;
    answer(QStringLiteral("version"), value);
    return value;
}

QVariantList FakeAppPeer::listAnswer(const QString& method)
{
    record(method);
    const QVariantList value = script().lists.value(method);
    answer(method, QVariant(value));
    return value;
}

QVariantList FakeAppPeer::calendarsPublishableViaBonjour()
{
    return listAnswer(QStringLiteral("calendarsPublishableViaBonjour"));
}

QVariantList FakeAppPeer::sourceListOfBonjourCalendars()
{
    return listAnswer(QStringLiteral("sourceListOfBonjourCalendars"));
}

QVariantList FakeAppPeer::calendarsPublishableToGoogle()
{
    return listAnswer(QStringLiteral("calendarsPublishableToGoogle"));
}

QVariantList FakeAppPeer::sourceListOfGoogleCalendars()
{
    return listAnswer(QStringLiteral("sourceListOfGoogleCalendars"));
}

QVariantMap FakeAppPeer::bonjourPublisherInfo()
{
    record(QStringLiteral("bonjourPublisherInfo"));
    const QVariantMap value = script().bonjourInfo;
    answer(QStringLiteral("bonjourPublisherInfo"), QVariant(value));
    return value;
}

bool FakeAppPeer::googleSyncInProgress()
{
    record(QStringLiteral("googleSyncInProgress"));
    const bool value = script().googleSyncInProgress;
    answer(QStringLiteral("googleSyncInProgress"), value);
    return value;
}

void FakeAppPeer::techSupportInfo()
{
    record(QStringLiteral("techSupportInfo"));
    answer(QStringLiteral("techSupportInfo"), QVariant());
}

void FakeAppPeer::publishCalendarViaBonjour(const QVariantMap&)
{
    record(QStringLiteral("publishCalendarViaBonjour"));
}

void FakeAppPeer::publishCalendarToGoogle(const QVariantMap&)
{
    record(QStringLiteral("publishCalendarToGoogle"));
}

void FakeAppPeer::subscribeTo(const QVariantMap&)
{
    record(QStringLiteral("subscribeTo"));
}

void FakeAppPeer::publishOptions(const QVariantMap&)
{
    record(QStringLiteral("publishOptions"));
}

void FakeAppPeer::subscribeOptions(const QVariantMap&)
{
    record(QStringLiteral("subscribeOptions"));
}

void FakeAppPeer::bonjourIPServiceOptions(const QVariantMap&)
{
    record(QStringLiteral("bonjourIPServiceOptions"));
}

void FakeAppPeer::disconnectBonjourIPService(const QVariantMap&)
{
    record(QStringLiteral("disconnectBonjourIPService"));
}

void FakeAppPeer::googleServiceOptions(const QVariantMap&)
{
    record(QStringLiteral("googleServiceOptions"));
}

void FakeAppPeer::disconnectGoogleService(const QVariantMap&)
{
    record(QStringLiteral("disconnectGoogleService"));
}

void FakeAppPeer::setBonjourPublisherInfo(const QVariantMap&)
{
    record(QStringLiteral("setBonjourPublisherInfo"));
}

void FakeAppPeer::log(const QString&)
{
    record(QStringLiteral("log"));
}

void FakeAppPeer::checkForUpdate()
{
    record(QStringLiteral("checkForUpdate"));
}

void FakeAppPeer::autoCheckForUpdatesChanged()
{
    record(QStringLiteral("autoCheckForUpdatesChanged"));
}

void FakeAppPeer::syncHistoryWillBeReset()
{
    record(QStringLiteral("syncHistoryWillBeReset"));
}

void FakeAppPeer::syncHistoryWasReset()
{
    record(QStringLiteral("syncHistoryWasReset"));
}

void FakeAppPeer::resetDatabase()
{
    record(QStringLiteral("resetDatabase"));
}

void FakeAppPeer::shutdown()
{
    record(QStringLiteral("shutdown"));
}

} // namespace nimbrel::test
