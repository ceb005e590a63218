#include "support/FakeAppPeer.h"

#include "protocol/AppProtocol.h"
#include "protocol/NotificationBus.h"
#include "protocol/WireCodec.h"
#include "support/TestEnvironment.h"

#include <QAtomicInt>
#include <QCoreApplication>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QDeadlineTimer>
#include <QFile>
#include <QThread>
#include <QTimer>
#include <QXmlStreamReader>

namespace nimbrel::test {

namespace {

const QString kInterfaceXml = QStringLiteral("dbus/com.quorvia.Nimbrel.AppProtocol.xml");

struct Signature
{
    QString in;
    bool oneWay = false;
};

// The methods of the interface as checked in: name → argument signature and kind.
QHash<QString, Signature> interfaceMethods(QString* xml)
{
    QFile file(sourcePath(kInterfaceXml));
    file.open(QIODevice::ReadOnly);
    *xml = QString::fromUtf8(file.readAll());
    QHash<QString, Signature> methods;
    QXmlStreamReader reader(*xml);
    QString method;
    while (!reader.atEnd()) {
        if (reader.readNext() != QXmlStreamReader::StartElement)
            continue;
        const auto attribute = [&reader](const char* name) {
            return reader.attributes().value(QLatin1StringView(name)).toString();
        };
        if (reader.name() == QLatin1StringView("method")) {
            method = attribute("name");
            methods.insert(method, {});
        } else if (reader.name() == QLatin1StringView("arg") &&
                   attribute("direction") == QLatin1String("in")) {
            methods[method].in += attribute("type");
        } else if (reader.name() == QLatin1StringView("annotation") &&
                   attribute("name") == QLatin1String("org.freedesktop.DBus.Method.NoReply")) {
            methods[method].oneWay = attribute("value") == QLatin1String("true");
        }
    }
    return methods;
}

QString nextConnectionName()
{
    static QAtomicInt counter;
    return QStringLiteral("nimbrel-fake-app-peer-%1").arg(counter.fetchAndAddRelaxed(1));
}

} // namespace

// The object on the bus: every call of the path arrives here, on the peer thread.
class FakeAppPeer::Object : public QDBusVirtualObject
{
public:
    explicit Object(FakeAppPeer* peer) : m_peer(peer) { m_methods = interfaceMethods(&m_xml); }

    QString introspect(const QString&) const override
    {
        // The interface element of the checked-in file, as introspection wants it.
        const qsizetype start = m_xml.indexOf(QLatin1String("<interface"));
        const qsizetype end = m_xml.lastIndexOf(QLatin1String("</interface>"));
        return start < 0 || end < 0 ? QString() : m_xml.mid(start, end + 12 - start);
    }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override
    {
        const QString method = message.member();
        const auto found = m_methods.constFind(method);
        if (message.interface() != kAppProtocolInterface || found == m_methods.cend())
            return false; // the bus answers UnknownMethod
        if (message.signature() != found->in) {
            connection.send(message.createErrorReply(QDBusError::InvalidArgs,
                                                     QStringLiteral("%1 takes (%2)").arg(method, found->in)));
            return true;
        }

        RecordedCall recorded{method, {}, message.isReplyRequired()};
        for (const QVariant& argument : message.arguments())
            recorded.arguments.append(wire::fromWire(argument));
        Script script;
        {
            QMutexLocker lock(&m_peer->m_mutex);
            m_peer->m_calls.append(std::move(recorded));
            script = m_peer->m_script;
        }
        m_peer->m_callArrived.wakeAll();
        if (const QString notification = script.postOnCall.value(method); !notification.isEmpty())
            NotificationBus::post(notification, connection);

        if (!message.isReplyRequired())
            return true;
        if (const QString error = script.errors.value(method); !error.isEmpty() && !found->oneWay) {
            connection.send(
                message.createErrorReply(error, QStringLiteral("%1 failed as scripted").arg(method)));
            return true;
        }
        if (script.neverReply.contains(method) && !found->oneWay)
            return true;
        const QVariant answer = script.answers.value(method);
        const QDBusMessage reply = answer.isValid() ? message.createReply(answer) : message.createReply();
        const int delay = found->oneWay ? 0 : script.delays.value(method);
        if (delay <= 0) {
            connection.send(reply);
        } else {
            QDBusConnection sender = connection;
            QTimer::singleShot(delay, this, [sender, reply] { sender.send(reply); });
        }
        return true;
    }

private:
    FakeAppPeer* m_peer;
    QString m_xml;
    QHash<QString, Signature> m_methods;
};

FakeAppPeer::Script FakeAppPeer::defaultScript()
{
    Script script;
    script.answers.insert(method::version, kAppProtocolVersion);
    for (const QLatin1StringView list :
         {method::calendarsPublishableViaBonjour, method::sourceListOfBonjourCalendars,
          method::calendarsPublishableToGoogle, method::sourceListOfGoogleCalendars})
        script.answers.insert(list, wire::encodeList({}));
    script.answers.insert(method::bonjourPublisherInfo, QVariantMap());
    script.answers.insert(method::googleSyncInProgress, false);
    return script;
}

FakeAppPeer::FakeAppPeer()
    : m_thread(std::make_unique<QThread>()), m_connectionName(nextConnectionName()),
      m_connection(QDBusConnection::connectToBus(QDBusConnection::SessionBus, m_connectionName)),
      m_object(new Object(this)), m_script(defaultScript())
{
    m_thread->setObjectName(QStringLiteral("FakeAppPeer"));
    m_thread->start();
    m_object->moveToThread(m_thread.get());
}

FakeAppPeer::~FakeAppPeer()
{
    stop();
    // The object, and delayed replies still pending with it, go on its own thread when that ends.
    m_object->deleteLater();
    m_thread->quit();
    m_thread->wait();
    QDBusConnection::disconnectFromBus(m_connectionName);
}

bool FakeAppPeer::start()
{
    // m_mutex is not held across bus calls: the handler takes it on the peer thread.
    if (isStarted())
        return true;
    if (!m_connection.registerVirtualObject(kAppProtocolPath, m_object))
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

// ---- Script -----------------------------------------------------------------------------------------

void FakeAppPeer::setVersion(int version)
{
    QMutexLocker lock(&m_mutex);
    m_script.answers.insert(method::version, version);
}

void FakeAppPeer::setListAnswer(const QString& method, const QVariantList& list)
{
    const QByteArray encoded = wire::encodeList(list);
    QMutexLocker lock(&m_mutex);
    m_script.answers.insert(method, encoded);
}

void FakeAppPeer::setBonjourInfo(const QVariantMap& info)
{
    const QVariantMap encoded = wire::toWire(info);
    QMutexLocker lock(&m_mutex);
    m_script.answers.insert(method::bonjourPublisherInfo, encoded);
}

void FakeAppPeer::setGoogleSyncInProgress(bool inProgress)
{
    QMutexLocker lock(&m_mutex);
    m_script.answers.insert(method::googleSyncInProgress, inProgress);
}

void FakeAppPeer::setReplyDelay(const QString& method, int milliseconds)
{
    QMutexLocker lock(&m_mutex);
    m_script.delays.insert(method, milliseconds);
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
    m_script.errors.insert(method, errorName);
}

void FakeAppPeer::setPostOnCall(const QString& method, const QString& notificationName)
{
    QMutexLocker lock(&m_mutex);
    m_script.postOnCall.insert(method, notificationName);
}

void FakeAppPeer::resetAnswers()
{
    QMutexLocker lock(&m_mutex);
    m_script = defaultScript();
}

// ---- Recorded calls ---------------------------------------------------------------------------------

QList<RecordedCall> FakeAppPeer::calls() const
{
    QMutexLocker lock(&m_mutex);
    return m_calls;
}

QList<RecordedCall> FakeAppPeer::calls(const QString& method) const
{
    QList<RecordedCall> matching = calls();
    matching.removeIf([&method](const RecordedCall& call) { return call.method != method; });
    return matching;
}

int FakeAppPeer::callCount(const QString& method) const
{
    return int(calls(method).size());
}

bool FakeAppPeer::waitForCall(const QString& method, int timeoutMs, int count)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (callCount(method) < count) {
        if (deadline.hasExpired())
            return false;
        // The caller's own queued work (a one-way call posted on its loop) must get to run too.
        QCoreApplication::processEvents(QEventLoop::AllEvents);
        QMutexLocker lock(&m_mutex);
        m_callArrived.wait(&m_mutex, QDeadlineTimer(qMin<qint64>(5, deadline.remainingTime())));
    }
    return true;
}

void FakeAppPeer::clearCalls()
{
    QMutexLocker lock(&m_mutex);
    m_calls.clear();
}

bool FakeAppPeer::post(const QString& name)
{
    return NotificationBus::post(name, m_connection);
}

} // namespace nimbrel::test
