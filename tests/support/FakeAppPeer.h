#pragma once

// A scriptable stand-in for the background application: one recorder on the AppProtocol object that
// takes every method of dbus/com.quorvia.Nimbrel.AppProtocol.xml with the XML's signature, records the
// call and answers as scripted. Its own bus connection and thread let a client's blocking calls from
// the test thread get their answers. Not on the bus until start(): "not running". Setters apply to
// calls that arrive after they return; everything here may be called from the test thread any time.

#include <QDBusConnection>
#include <QHash>
#include <QList>
#include <QMutex>
#include <QSet>
#include <QString>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>
#include <QWaitCondition>
#include <functional>
#include <memory>

class QThread;

namespace nimbrel {
class NotificationBus;
}

namespace nimbrel::test {

// One call the peer received, in arrival order: arguments after wire::fromWire, whether the caller
// waits for a reply (false for one-way), and whether the peer has sent its reply yet.
struct RecordedCall
{
    QString method;
    QVariantList arguments;
    bool replyExpected = true;
    bool answered = false;
};

class FakeAppPeer
{
public:
    FakeAppPeer();
    ~FakeAppPeer(); // gives the name up; replies still pending are dropped
    FakeAppPeer(const FakeAppPeer&) = delete;
    FakeAppPeer& operator=(const FakeAppPeer&) = delete;

    // Takes kAppProtocolService (false if the bus refused); stop() gives it up, as if the application quit.
    bool start();
    void stop();
    bool isStarted() const;
    QString uniqueName() const; // the peer connection's unique bus name (":1.42")

    // Answers (defaults: version 5, empty lists, an empty dictionary, false). `method` of setListAnswer:
    // one of the four list methods. setRawAnswer replies with `value` as it stands, of whatever type.
    void setRawAnswer(const QString& method, const QVariant& value) { answer(method, value); }
    void setVersion(int version) { answer(QStringLiteral("version"), version); }
    void setListAnswer(const QString& method, const QVariantList& list);
    void setBonjourInfo(const QVariantMap& info);
    void setGoogleSyncInProgress(bool inProgress)
    {
        answer(QStringLiteral("googleSyncInProgress"), inProgress);
    }

    // Misbehaviour of synchronous methods: a reply after `milliseconds` of real time, none at all, or an
    // error of this D-Bus name (empty: normal answers again).
    void setReplyDelay(const QString& method, int milliseconds)
    {
        edit([&](Script& s) { s.delays.insert(method, milliseconds); });
    }
    void setNeverReply(const QString& method, bool never = true)
    {
        edit([&](Script& s) {
            never ? void(s.neverReply.insert(method)) : void(s.neverReply.remove(method));
        });
    }
    void setErrorReply(const QString& method, const QString& errorName)
    {
        edit([&](Script& s) { s.errors.insert(method, errorName); });
    }
    // After a call of `method` is recorded, the peer posts the notification `name` (empty: none), as the
    // background application confirms requests.
    void setPostOnCall(const QString& method, const QString& name)
    {
        edit([&](Script& s) { s.postOnCall.insert(method, name); });
    }
    // Back to the defaults above; recorded calls are kept.
    void resetAnswers();

    QList<RecordedCall> calls() const;
    QList<RecordedCall> calls(const QString& method) const;
    int callCount(const QString& method) const { return int(calls(method).size()); }
    // Spins the calling thread's event loop until `count` calls of `method` were recorded in total;
    // false after `timeoutMs`. For one-way calls, which arrive asynchronously.
    bool waitForCall(const QString& method, int timeoutMs = 5000, int count = 1);
    void clearCalls();

    // Posts the notification `name` from the peer's connection; deliver() also waits until it has
    // reached this process (a fence posted after it has arrived).
    bool post(const QString& name);
    bool deliver(const QString& name);

private:
    class Object;
    struct Script
    {
        QHash<QString, QVariant> answers; // by method: what a synchronous call replies
        QHash<QString, int> delays;
        QSet<QString> neverReply;
        QHash<QString, QString> errors, postOnCall;
    };
    void edit(const std::function<void(Script&)>& change);
    void answer(const QString& method, const QVariant& value)
    {
        edit([&](Script& s) { s.answers.insert(method, value); });
    }

    std::unique_ptr<QThread> m_thread;
    QString m_connectionName;
    QDBusConnection m_connection;
    Object* m_object; // lives on m_thread
    std::unique_ptr<NotificationBus> m_fence;
    int m_fences = 0;
    mutable QMutex m_mutex;
    QWaitCondition m_callArrived;
    Script m_script;
    QList<RecordedCall> m_calls;
    bool m_started = false;
};

} // namespace nimbrel::test
