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
#include <QThread>
#include <QTimer>
#include <QXmlStreamReader>

namespace nimbrel::test {

namespace {

const QString kFence = QStringLiteral("Nimbrel Test Fence");

struct Signature
{
    QString in;
    bool oneWay = false;
};

// The methods of the interface as checked in: name → argument signature and kind.
QHash<QString, Signature> interfaceMethods(const QString& xml)
{
    QHash<QString, Signature> methods;
    QXmlStreamReader reader(xml);
    QString method;
    while (!reader.atEnd()) {
        if (reader.readNext() != QXmlStreamReader::StartElement)
            continue;
        const auto attribute = [&reader](const char* name) {
            return reader.attributes().value(QLatin1StringView(name)).toString();
        };
        if (reader.name() == QLatin1StringView("method"))
            methods.insert(method = attribute("name"), {});
        else if (reader.name() == QLatin1StringView("arg") && attribute("direction") == QLatin1String("in"))
            methods[method].in += attribute("type");
        else if (reader.name() == QLatin1StringView("annotation") &&
                 attribute("name") == QLatin1String("org.freedesktop.DBus.Method.NoReply"))
            methods[method].oneWay = attribute("value") == QLatin1String("true");
    }
    return methods;
}

} // namespace

// The object on the bus: every call of its path arrives here, on the peer thread.
class FakeAppPeer::Object : public QDBusVirtualObject
{
public:
    explicit Object(FakeAppPeer* peer)
        : m_peer(peer), m_methods(interfaceMethods(QString::fromUtf8(
                            readFile(sourcePath(s("dbus/com.quorvia.Nimbrel.AppProtocol.xml"))))))
    {
    }

    QString introspect(const QString&) const override { return {}; } // nobody asks the fake

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
        qsizetype index;
        {
            QMutexLocker lock(&m_peer->m_mutex);
            index = m_peer->m_calls.size();
            m_peer->m_calls.append(std::move(recorded));
            script = m_peer->m_script;
        }
        m_peer->m_callArrived.wakeAll();
        if (const QString notification = script.postOnCall.value(method); !notification.isEmpty())
            NotificationBus::post(notification, connection);

        const bool sync = !found->oneWay;
        if (!message.isReplyRequired() || (sync && script.neverReply.contains(method)))
            return true;
        const QString error = sync ? script.errors.value(method) : QString();
        const QVariant answer = script.answers.value(method);
        const QDBusMessage reply =
            !error.isEmpty()
                ? message.createErrorReply(error, QStringLiteral("%1 failed as scripted").arg(method))
            : answer.isValid() ? message.createReply(answer)
                               : message.createReply();
        // Marked answered before it leaves: a caller that has its reply always finds the mark.
        const auto send = [peer = m_peer, connection, reply, index] {
            {
                QMutexLocker lock(&peer->m_mutex);
                if (index < peer->m_calls.size())
                    peer->m_calls[index].answered = true;
            }
            QDBusConnection(connection).send(reply);
        };
        if (const int delay = sync ? script.delays.value(method) : 0; delay > 0)
            QTimer::singleShot(delay, this, send);
        else
            send();
        return true;
    }

private:
    FakeAppPeer* m_peer;
    QHash<QString, Signature> m_methods;
};

FakeAppPeer::FakeAppPeer()
    : m_thread(std::make_unique<QThread>()), m_connectionName([] {
          static QAtomicInt counter;
          return QStringLiteral("nimbrel-fake-app-peer-%1").arg(counter.fetchAndAddRelaxed(1));
      }()),
      m_connection(QDBusConnection::connectToBus(QDBusConnection::SessionBus, m_connectionName)),
      m_object(new Object(this)), m_fence(std::make_unique<NotificationBus>())
{
    resetAnswers();
    m_thread->start();
    m_object->moveToThread(m_thread.get());
    m_fence->addObserver(kFence, [this] { ++m_fences; });
}

FakeAppPeer::~FakeAppPeer()
{
    stop();
    m_object->deleteLater(); // with its pending replies, on its own thread as that ends
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
    return m_started = true;
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

void FakeAppPeer::edit(const std::function<void(Script&)>& change)
{
    QMutexLocker lock(&m_mutex);
    change(m_script);
}

void FakeAppPeer::setListAnswer(const QString& method, const QVariantList& list)
{
    answer(method, wire::encodeList(list));
}

void FakeAppPeer::setBonjourInfo(const QVariantMap& info)
{
    answer(method::bonjourPublisherInfo, wire::toWire(info));
}

void FakeAppPeer::resetAnswers()
{
    edit([](Script& script) {
        script = Script();
        script.answers.insert(method::version, kAppProtocolVersion);
        for (const QLatin1StringView list :
             {method::calendarsPublishableViaBonjour, method::sourceListOfBonjourCalendars,
              method::calendarsPublishableToGoogle, method::sourceListOfGoogleCalendars})
            script.answers.insert(list, wire::encodeList({}));
        script.answers.insert(method::bonjourPublisherInfo, QVariantMap());
        script.answers.insert(method::googleSyncInProgress, false);
    });
}

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

bool FakeAppPeer::deliver(const QString& name)
{
    const int before = m_fences;
    return post(name) && post(kFence) && waitUntil([this, before] { return m_fences > before; });
}

} // namespace nimbrel::test
