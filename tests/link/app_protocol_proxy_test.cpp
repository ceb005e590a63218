// The client end of the remote protocol and the notification bus, against the fake background
// application on a private session bus.

#include "link/AppProtocolProxy.h"
#include "link/FakeAppPeer.h"
#include "link/NotificationBus.h"
#include "platform/PlistValue.h"
#include "support/PlistCompare.h"
#include "support/TestEnvironment.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>
#include <QSet>
#include <QXmlStreamReader>
#include <functional>
#include <gtest/gtest.h>
#include <ostream>

// Readable failure messages for strings.
inline void PrintTo(const QString& string, std::ostream* os)
{
    *os << '"' << string.toStdString() << '"';
}

using namespace nimbrel;
using nimbrel::test::FakeAppPeer;

namespace {

// Deep equality where a null result equals a null expectation.
bool identical(const QVariant& a, const QVariant& b)
{
    return (!a.isValid() && !b.isValid()) || test::identical(a, b);
}

const QString kNoOwner = QStringLiteral("org.freedesktop.DBus.Error.NameHasNoOwner");

} // namespace

namespace {

QString s(const char* text)
{
    return QString::fromUtf8(text);
}

QVariantMap calendar(const char* uid)
{
    return {{s("uid"), s(uid)},
            {s("title"), s("Work")},
            {s("order"), qint64(3)},
            {s("publishedToBonjour"), true},
            {s("syncTime"), QDateTime(QDate(2008, 1, 2), QTime(3, 4, 5), Qt::UTC)}};
}

// Method names of the interface as checked in.
QSet<QString> xmlMethods()
{
    QFile file(test::sourcePath(s("dbus/com.quorvia.Nimbrel.AppProtocol.xml")));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    QSet<QString> names;
    QXmlStreamReader xml(&file);
    while (!xml.atEnd()) {
        if (xml.readNext() == QXmlStreamReader::StartElement && xml.name() == QLatin1String("method"))
            names.insert(xml.attributes().value(QLatin1String("name")).toString());
    }
    EXPECT_FALSE(xml.hasError()) << qPrintable(xml.errorString());
    return names;
}

struct SyncCase
{
    const char* method;
    std::function<QVariant(const AppProtocolProxy&)> invoke;
    std::function<void(FakeAppPeer&)> script; // sets an answer the default would not give
    QVariant scripted;                        // what the proxy then yields
    QVariant failed;                          // what it yields when the call fails
};

const QVariantList kList{calendar("A"), calendar("B")};

std::vector<SyncCase> syncCases()
{
    const auto list = [](const char* method, QVariantList (AppProtocolProxy::*fetch)() const) {
        return SyncCase{method, [fetch](const AppProtocolProxy& p) { return QVariant((p.*fetch)()); },
                        [method](FakeAppPeer& f) {
                            f.setListAnswer(s(method), QVariantList{kList.value(0), s(method)});
                        },
                        plist::normalized(QVariantList{kList.value(0), s(method)}), QVariantList()};
    };
    return {
        {"version",
         [](const AppProtocolProxy& p) {
             const auto v = p.version();
             return v ? QVariant(*v) : QVariant();
         },
         [](FakeAppPeer& f) { f.setVersion(4); }, 4, QVariant()},
        list("calendarsPublishableViaBonjour", &AppProtocolProxy::calendarsPublishableViaBonjour),
        list("sourceListOfBonjourCalendars", &AppProtocolProxy::sourceListOfBonjourCalendars),
        list("calendarsPublishableToGoogle", &AppProtocolProxy::calendarsPublishableToGoogle),
        list("sourceListOfGoogleCalendars", &AppProtocolProxy::sourceListOfGoogleCalendars),
        {"bonjourPublisherInfo", [](const AppProtocolProxy& p) { return QVariant(p.bonjourPublisherInfo()); },
         [](FakeAppPeer& f) {
             f.setBonjourInfo({{s("name"), s("Den")}, {s("port"), 8008}});
         },
         QVariantMap{{s("name"), s("Den")}, {s("port"), qint64(8008)}}, QVariantMap()},
        {"googleSyncInProgress", [](const AppProtocolProxy& p) { return QVariant(p.googleSyncInProgress()); },
         [](FakeAppPeer& f) { f.setGoogleSyncInProgress(true); }, true, false},
        {"techSupportInfo",
         [](const AppProtocolProxy& p) {
             p.techSupportInfo();
             return QVariant();
         },
         [](FakeAppPeer&) {}, QVariant(), QVariant()},
    };
}

struct OneWayCase
{
    const char* method;
    std::function<void(const AppProtocolProxy&)> invoke;
    QVariantList arguments;
};

std::vector<OneWayCase> oneWayCases()
{
    const QVariantMap dict = calendar("C");
    const auto withDict = [dict](const char* method, void (AppProtocolProxy::*op)(const QVariantMap&) const) {
        return OneWayCase{
            method, [op, dict](const AppProtocolProxy& p) { (p.*op)(dict); }, {plist::normalized(dict)}};
    };
    const auto bare = [](const char* method, void (AppProtocolProxy::*op)() const) {
        return OneWayCase{method, [op](const AppProtocolProxy& p) { (p.*op)(); }, {}};
    };
    return {
        withDict("publishCalendarViaBonjour", &AppProtocolProxy::publishCalendarViaBonjour),
        withDict("publishCalendarToGoogle", &AppProtocolProxy::publishCalendarToGoogle),
        withDict("subscribeTo", &AppProtocolProxy::subscribeTo),
        withDict("publishOptions", &AppProtocolProxy::publishOptions),
        withDict("subscribeOptions", &AppProtocolProxy::subscribeOptions),
        withDict("bonjourIPServiceOptions", &AppProtocolProxy::bonjourIPServiceOptions),
        withDict("disconnectBonjourIPService", &AppProtocolProxy::disconnectBonjourIPService),
        withDict("googleServiceOptions", &AppProtocolProxy::googleServiceOptions),
        withDict("disconnectGoogleService", &AppProtocolProxy::disconnectGoogleService),
        withDict("setBonjourPublisherInfo", &AppProtocolProxy::setBonjourPublisherInfo),
        {"log", [](const AppProtocolProxy& p) { p.log(s("pane: hello")); }, {s("pane: hello")}},
        bare("checkForUpdate", &AppProtocolProxy::checkForUpdate),
        bare("autoCheckForUpdatesChanged", &AppProtocolProxy::autoCheckForUpdatesChanged),
        bare("syncHistoryWillBeReset", &AppProtocolProxy::syncHistoryWillBeReset),
        bare("syncHistoryWasReset", &AppProtocolProxy::syncHistoryWasReset),
        bare("resetDatabase", &AppProtocolProxy::resetDatabase),
        bare("shutdown", &AppProtocolProxy::shutdown),
    };
}

class AppProtocol : public ::testing::Test
{
protected:
    FakeAppPeer peer;
    AppProtocolProxy proxy;
};

} // namespace

TEST_F(AppProtocol, TheTestsCoverEveryMethodOfTheInterface)
{
    QSet<QString> covered;
    for (const SyncCase& c : syncCases())
        covered.insert(s(c.method));
    for (const OneWayCase& c : oneWayCases())
        covered.insert(s(c.method));
    EXPECT_EQ(covered, xmlMethods());
}

TEST_F(AppProtocol, SynchronousOperationsYieldDefaultsThenScriptedAnswers)
{
    ASSERT_TRUE(peer.start());
    EXPECT_EQ(proxy.version(), std::optional<qint32>(kAppProtocolVersion));
    for (const SyncCase& c : syncCases()) {
        SCOPED_TRACE(c.method);
        if (s(c.method) != s("version") && s(c.method) != s("techSupportInfo")) {
            EXPECT_TRUE(identical(c.invoke(proxy), c.failed)); // the defaults equal the failure values
        }
        c.script(peer);
        EXPECT_TRUE(identical(c.invoke(proxy), c.scripted)) << qPrintable(c.invoke(proxy).toString());
        EXPECT_GE(peer.callCount(s(c.method)), 1);
        EXPECT_TRUE(peer.calls(s(c.method)).constFirst().replyExpected);
    }
}

TEST_F(AppProtocol, FailedCallsYieldNullEmptyFalseOrZero)
{
    proxy.setTimeout(300);
    const auto expectAllFail = [this](const QString& errorName) {
        for (const SyncCase& c : syncCases()) {
            SCOPED_TRACE(c.method);
            c.script(peer);
            EXPECT_TRUE(identical(c.invoke(proxy), c.failed));
            QDBusError error;
            EXPECT_FALSE(proxy.call(s(c.method), {}, &error).has_value());
            EXPECT_EQ(error.name(), errorName);
        }
    };
    {
        SCOPED_TRACE("not running");
        // Not ServiceUnknown: the bus was not asked to start the application.
        expectAllFail(kNoOwner);
        bool ok = true;
        proxy.bonjourPublisherInfo(&ok);
        EXPECT_FALSE(ok);
    }
    ASSERT_TRUE(peer.start());
    {
        SCOPED_TRACE("error replies");
        for (const SyncCase& c : syncCases())
            peer.setErrorReply(s(c.method), s("com.quorvia.Nimbrel.Error.Busy"));
        expectAllFail(s("com.quorvia.Nimbrel.Error.Busy"));
    }
    {
        SCOPED_TRACE("no reply within the time-out");
        peer.resetAnswers();
        peer.setNeverReply(s("version"));
        QDBusError error;
        QElapsedTimer clock;
        clock.start();
        EXPECT_EQ(proxy.version(&error), std::nullopt);
        EXPECT_GE(clock.elapsed(), 250);
        EXPECT_EQ(error.type(), QDBusError::NoReply) << qPrintable(error.name());
        EXPECT_EQ(proxy.calendarsPublishableToGoogle(), QVariantList()); // other methods still answer
        peer.setListAnswer(s("calendarsPublishableToGoogle"), kList);
        EXPECT_EQ(proxy.calendarsPublishableToGoogle().size(), 2);
    }
}

TEST_F(AppProtocol, LateRepliesArriveWithinTheTimeOutOnly)
{
    ASSERT_TRUE(peer.start());
    peer.setListAnswer(s("sourceListOfBonjourCalendars"), kList);
    peer.setReplyDelay(s("sourceListOfBonjourCalendars"), 300);
    proxy.setTimeout(5000);
    EXPECT_TRUE(identical(proxy.sourceListOfBonjourCalendars(), plist::normalized(kList)));
    proxy.setTimeout(50);
    EXPECT_EQ(proxy.sourceListOfBonjourCalendars(), QVariantList());
    // The late answer to the abandoned call does not confuse the next one.
    proxy.setTimeout(5000);
    peer.setReplyDelay(s("sourceListOfBonjourCalendars"), 0);
    peer.setVersion(7);
    EXPECT_EQ(proxy.version(), std::optional<qint32>(7));
    EXPECT_EQ(proxy.sourceListOfBonjourCalendars().size(), 2);
}

TEST_F(AppProtocol, ApplicationThatAppearsAndQuitsIsFoundAndLost)
{
    QDBusError error;
    EXPECT_EQ(proxy.version(&error), std::nullopt);
    EXPECT_EQ(error.name(), kNoOwner);
    EXPECT_EQ(peer.calls().size(), 0); // not started on demand

    ASSERT_TRUE(peer.start());
    EXPECT_EQ(proxy.version(&error), std::optional<qint32>(5));
    EXPECT_FALSE(error.isValid());

    peer.stop();
    EXPECT_EQ(proxy.version(&error), std::nullopt);
    EXPECT_EQ(error.name(), kNoOwner);

    FakeAppPeer rival; // a second instance cannot take the name while the first holds it
    ASSERT_TRUE(peer.start());
    EXPECT_FALSE(rival.start());
}

TEST_F(AppProtocol, OneWayOperationsCarryTheirArgumentsWithoutReply)
{
    ASSERT_TRUE(peer.start());
    const std::vector<OneWayCase> cases = oneWayCases();
    for (const OneWayCase& c : cases)
        c.invoke(proxy);
    ASSERT_TRUE(peer.waitForCall(s(cases.back().method)));
    const QList<test::RecordedCall> calls = peer.calls();
    ASSERT_EQ(calls.size(), qsizetype(cases.size()));
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].method);
        EXPECT_EQ(calls[i].method, s(cases[i].method)); // in the order sent
        EXPECT_TRUE(identical(calls[i].arguments, cases[i].arguments));
        EXPECT_FALSE(calls[i].replyExpected);
    }
}

TEST_F(AppProtocol, OneWayOperationsReturnAtOnceEvenWhenThePeerIsSlowOrAbsent)
{
    proxy.shutdown(); // nobody there: dropped without a fuss
    EXPECT_TRUE(proxy.send(s("shutdown")));
    ASSERT_TRUE(peer.start());
    peer.setNeverReply(s("resetDatabase"));
    QElapsedTimer clock;
    clock.start();
    proxy.resetDatabase();
    EXPECT_LT(clock.elapsed(), 1000);
    EXPECT_TRUE(peer.waitForCall(s("resetDatabase")));
    EXPECT_EQ(peer.callCount(s("shutdown")), 0);
}

// ---- Notifications ---------------------------------------------------------------------------------

namespace {

const QStringList kNames{
    s("Nimbrel Running"),
    s("Nimbrel Stopped"),
    s("Nimbrel Reset"),
    s("Nimbrel Calendars Changed"),
    s("Nimbrel Bonjour Update"),
    s("Nimbrel Bonjour Publishable Change"),
    s("Nimbrel Bonjour Change"),
    s("Nimbrel Bonjour Name Published"),
    s("Nimbrel Bonjour Checked Update"),
    s("Nimbrel Google Update"),
    s("Nimbrel Google Change"),
};

class Notifications : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const QString& name : kNames)
            ASSERT_TRUE(bus.addObserver(name, [this, name] { received.append(name); }));
        ASSERT_TRUE(fence.addObserver(s("fence"), [this] { ++fences; }));
    }

    // Posts `name`, then a fence that only `fence` observes; once the fence is in, everything
    // posted before it has been delivered too.
    void postAndSettle(const QString& name)
    {
        const int before = fences;
        ASSERT_TRUE(peer.post(name));
        ASSERT_TRUE(peer.post(s("fence")));
        ASSERT_TRUE(test::waitUntil([&] { return fences > before; }));
    }

    FakeAppPeer peer;
    NotificationBus bus;
    NotificationBus fence;
    QStringList received;
    int fences = 0;
};

} // namespace

TEST_F(Notifications, EachNameReachesItsOwnHandlerOnly)
{
    EXPECT_EQ(bus.observedNames(), kNames);
    for (const QString& name : kNames) {
        received.clear();
        postAndSettle(name);
        EXPECT_EQ(received, QStringList{name});
    }
    received.clear();
    for (const char* other : {"Nimbrel Bonjour", "nimbrel running", "Nimbrel Running ", ""})
        postAndSettle(s(other));
    EXPECT_EQ(received, QStringList());
}

TEST_F(Notifications, RemovingAllObserversStopsDelivery)
{
    bus.removeAllObservers();
    EXPECT_EQ(bus.observedNames(), QStringList());
    for (const QString& name : kNames)
        postAndSettle(name);
    EXPECT_EQ(received, QStringList());

    // Observing again after removal works, and a repeated name keeps one subscription.
    ASSERT_TRUE(bus.addObserver(kNames[0], [this] { received.append(s("first")); }));
    ASSERT_TRUE(bus.addObserver(kNames[0], [this] { received.append(s("second")); }));
    postAndSettle(kNames[0]);
    EXPECT_EQ(received, QStringList{s("second")});
}

TEST_F(Notifications, HandlerMayRemoveEveryObserver)
{
    bus.removeAllObservers();
    ASSERT_TRUE(bus.addObserver(kNames[1], [this] {
        received.append(kNames[1]);
        bus.removeAllObservers();
    }));
    postAndSettle(kNames[1]);
    postAndSettle(kNames[1]);
    EXPECT_EQ(received, QStringList{kNames[1]});
}

TEST_F(Notifications, PeerConfirmsRequestsWithTheScriptedNotification)
{
    ASSERT_TRUE(peer.start());
    peer.setPostOnCall(s("setBonjourPublisherInfo"), s("Nimbrel Bonjour Name Published"));
    AppProtocolProxy().setBonjourPublisherInfo({{s("name"), s("Den")}});
    EXPECT_TRUE(test::waitUntil([this] { return !received.isEmpty(); }));
    EXPECT_EQ(received, QStringList{s("Nimbrel Bonjour Name Published")});
}
