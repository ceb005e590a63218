#pragma once

// A scriptable stand-in for the background application: serves the whole AppProtocol interface
// (com.quorvia.Nimbrel.AppProtocol at kAppProtocolPath, through the adaptor generated from the XML)
// on its own connection to the session bus, from its own thread, so that a client's blocking calls
// from the test thread get their answers without a deadlock.
//
// Typical use (the link tests run under a private bus):
//
//     FakeAppPeer peer;            // not on the bus yet: "background application not running"
//     peer.setVersion(4);
//     peer.start();                // owns kAppProtocolService from now on
//     ... client calls ...
//     ASSERT_TRUE(peer.waitForCall(QStringLiteral("shutdown")));
//     EXPECT_EQ(peer.calls(QStringLiteral("shutdown")).size(), 1);
//     peer.post(QStringLiteral("Nimbrel Stopped"));
//     peer.stop();                 // gives the name up again
//
// Everything a test calls is thread-safe and may be called at any time from the test thread, before
// or after start(). The answers apply to calls that arrive after the setter returns.

#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QHash>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QSet>
#include <QString>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>
#include <QWaitCondition>
#include <functional>
#include <memory>

class QThread;

namespace nimbrel::test {

// One call the peer received, in arrival order. `arguments` are the message's arguments after
// wire::fromWire (dictionaries as QVariantMap, arrays as QVariantList, dates as UTC QDateTime).
// `replyExpected` is false when the caller sent the call with the no-reply flag (one-way).
struct RecordedCall
{
    QString method;
    QVariantList arguments;
    bool replyExpected = true;
};

class FakeAppPeer : public QObject, protected QDBusContext
{
    Q_OBJECT
public:
    // Creates the peer thread and its private bus connection; the service name is not taken until
    // start().
    FakeAppPeer();
    // Gives the name up, answers nothing more (pending delayed replies are dropped) and leaves the bus.
    ~FakeAppPeer() override;

    // --- Lifecycle -------------------------------------------------------------------------------
    // Registers the object and takes kAppProtocolService; false if the bus refused (e.g. the name is
    // owned by another connection). Calling it again after stop() makes the application "appear".
    bool start();
    // Releases kAppProtocolService and unregisters the object: the client then sees
    // ServiceUnknown, as if the background application had quit.
    void stop();
    bool isStarted() const;
    // The peer connection's unique bus name (":1.42"), empty before the constructor finished.
    QString uniqueName() const;

    // --- Answers ---------------------------------------------------------------------------------
    // Answer of `version` (default kAppProtocolVersion = 5).
    void setVersion(int version);
    // Answer of one of the list methods: "calendarsPublishableViaBonjour",
    // "sourceListOfBonjourCalendars", "calendarsPublishableToGoogle", "sourceListOfGoogleCalendars"
    // (default: empty). Values go through wire::toWire before they are sent.
    void setListAnswer(const QString& method, const QVariantList& list);
    // Answer of `bonjourPublisherInfo` (default: empty dictionary).
    void setBonjourInfo(const QVariantMap& info);
    // Answer of `googleSyncInProgress` (default: false).
    void setGoogleSyncInProgress(bool inProgress);

    // --- Misbehaviour (synchronous methods; one-way calls have no reply to disturb) -------------
    // Replies to `method` only after `milliseconds` of real time (0 = at once, the default).
    void setReplyDelay(const QString& method, int milliseconds);
    // Never replies to `method`: the caller runs into its time-out.
    void setNeverReply(const QString& method, bool never = true);
    // Replies to `method` with an error of this D-Bus name (e.g. "org.freedesktop.DBus.Error.Failed");
    // an empty name restores normal answers.
    void setErrorReply(const QString& method, const QString& errorName);
    // After a call of `method` is recorded (any method, one-way ones included), the peer posts the
    // notification `name` from its connection, as the background application confirms requests
    // (e.g. "setBonjourPublisherInfo" → "Nimbrel Bonjour Name Published"). Empty name: no post.
    void setPostOnCall(const QString& method, const QString& notificationName);
    // Back to the defaults above (answers, delays, errors, posts); recorded calls are kept.
    void resetAnswers();

    // --- Recorded calls --------------------------------------------------------------------------
    QList<RecordedCall> calls() const;
    QList<RecordedCall> calls(const QString& method) const;
    int callCount(const QString& method) const;
    // Waits (spinning the calling thread's event loop) until at least `count` calls of `method`
    // have been recorded in total; false after `timeoutMs`. For one-way calls, which arrive
    // asynchronously.
    bool waitForCall(const QString& method, int timeoutMs = 5000, int count = 1);
    void clearCalls();

    // --- Notifications ---------------------------------------------------------------------------
    // Posts the notification `name` (NotificationBus's signal) from the peer's connection.
    bool post(const QString& name);

    // --- D-Bus handlers ----------------------------------------------------------------------------
    // Called by the generated adaptor on the peer thread; tests do not call these.
public slots:
    int version();
    QVariantList calendarsPublishableViaBonjour();
    QVariantList sourceListOfBonjourCalendars();
    QVariantList calendarsPublishableToGoogle();
    QVariantList sourceListOfGoogleCalendars();
    QVariantMap bonjourPublisherInfo();
    bool googleSyncInProgress();
    void techSupportInfo();
    void publishCalendarViaBonjour(const QVariantMap& calendar);
    void publishCalendarToGoogle(const QVariantMap& calendar);
    void subscribeTo(const QVariantMap& calendar);
    void publishOptions(const QVariantMap& calendar);
    void subscribeOptions(const QVariantMap& calendar);
    void bonjourIPServiceOptions(const QVariantMap& server);
    void disconnectBonjourIPService(const QVariantMap& server);
    void googleServiceOptions(const QVariantMap& settings);
    void disconnectGoogleService(const QVariantMap& settings);
    void setBonjourPublisherInfo(const QVariantMap& info);
    void log(const QString& text);
    void checkForUpdate();
    void autoCheckForUpdatesChanged();
    void syncHistoryWillBeReset();
    void syncHistoryWasReset();
    void resetDatabase();
    void shutdown();

private:
    struct Script
    {
        int version = 5;
        QHash<QString, QVariantList> lists;
        QVariantMap bonjourInfo;
        bool googleSyncInProgress = false;
        QHash<QString, int> delays;
        QSet<QString> neverReply;
        QHash<QString, QString> errors;
        QHash<QString, QString> postOnCall;
    };

    // Records the current message and posts what setPostOnCall asks for.
    void record(const QString& method);
    QVariantList listAnswer(const QString& method);
    // Answers the current (synchronous) call with `value` as scripted: at once (the adaptor sends the
    // return value), later, never or as an error. `value` invalid = no result (techSupportInfo).
    void answer(const QString& method, const QVariant& value);
    Script script() const;
    // Runs `fn` on the peer thread and waits for it.
    void runOnPeerThread(const std::function<void()>& fn);

    std::unique_ptr<QThread> m_thread;
    QString m_connectionName;
    QDBusConnection m_connection;

    mutable QMutex m_mutex;
    QWaitCondition m_callArrived;
    Script m_script;
    QList<RecordedCall> m_calls;
    bool m_started = false;
};

} // namespace nimbrel::test
