#pragma once

// A scriptable stand-in for the background application: one recorder on the AppProtocol object
// (kAppProtocolPath) that takes every method of dbus/com.quorvia.Nimbrel.AppProtocol.xml with the
// signature the XML gives, records the call and answers as scripted. It has its own connection to the
// session bus and its own thread, so a client's blocking calls from the test thread get their answers.
//
//     FakeAppPeer peer;            // not on the bus yet: "background application not running"
//     peer.setVersion(4);
//     peer.start();                // owns kAppProtocolService from now on
//     ASSERT_TRUE(peer.waitForCall(QStringLiteral("shutdown")));
//     peer.post(QStringLiteral("Nimbrel Stopped"));
//     peer.stop();                 // gives the name up again
//
// Everything here is thread-safe and may be called at any time from the test thread. The answers apply
// to calls that arrive after the setter returns.

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
#include <memory>

class QThread;

namespace nimbrel::test {

// One call the peer received, in arrival order. `arguments` are the message's arguments after
// wire::fromWire. `replyExpected` is false when the caller sent it with the no-reply flag (one-way).
struct RecordedCall
{
    QString method;
    QVariantList arguments;
    bool replyExpected = true;
};

class FakeAppPeer
{
public:
    FakeAppPeer();
    // Gives the name up, answers nothing more (delayed replies are dropped) and leaves the bus.
    ~FakeAppPeer();
    FakeAppPeer(const FakeAppPeer&) = delete;
    FakeAppPeer& operator=(const FakeAppPeer&) = delete;

    // --- Lifecycle: start() takes kAppProtocolService (false if the bus refused), stop() gives it up
    // so that clients see ServiceUnknown, as if the application had quit.
    bool start();
    void stop();
    bool isStarted() const;
    QString uniqueName() const; // the peer connection's unique bus name (":1.42")

    // --- Answers (defaults: version 5, empty lists, an empty dictionary, false).
    void setVersion(int version);
    // `method`: one of the four list methods.
    void setListAnswer(const QString& method, const QVariantList& list);
    void setBonjourInfo(const QVariantMap& info);
    void setGoogleSyncInProgress(bool inProgress);

    // --- Misbehaviour of synchronous methods: a reply after `milliseconds` of real time, none at all,
    // or an error of this D-Bus name (empty: normal answers again).
    void setReplyDelay(const QString& method, int milliseconds);
    void setNeverReply(const QString& method, bool never = true);
    void setErrorReply(const QString& method, const QString& errorName);
    // After a call of `method` is recorded, the peer posts the notification `name` (empty: none), as the
    // background application confirms requests.
    void setPostOnCall(const QString& method, const QString& notificationName);
    // Back to the defaults above; recorded calls are kept.
    void resetAnswers();

    // --- Recorded calls.
    QList<RecordedCall> calls() const;
    QList<RecordedCall> calls(const QString& method) const;
    int callCount(const QString& method) const;
    // Spins the calling thread's event loop until `count` calls of `method` were recorded in total;
    // false after `timeoutMs`. For one-way calls, which arrive asynchronously.
    bool waitForCall(const QString& method, int timeoutMs = 5000, int count = 1);
    void clearCalls();

    // --- Posts the notification `name` from the peer's connection.
    bool post(const QString& name);

private:
    class Object;
    struct Script
    {
        QHash<QString, QVariant> answers; // by method: what a synchronous call replies
        QHash<QString, int> delays;
        QSet<QString> neverReply;
        QHash<QString, QString> errors;
        QHash<QString, QString> postOnCall;
    };
    static Script defaultScript();

    std::unique_ptr<QThread> m_thread;
    QString m_connectionName;
    QDBusConnection m_connection;
    Object* m_object; // lives on m_thread

    mutable QMutex m_mutex;
    QWaitCondition m_callArrived;
    Script m_script;
    QList<RecordedCall> m_calls;
    bool m_started = false;
};

} // namespace nimbrel::test
