// The client end of the remote protocol and the notification bus, against the fake background
// application on a private session bus.

#include "link/AppProtocolProxy.h"
#include "link/FakeAppPeer.h"
#include "protocol/NotificationBus.h"
#include "platform/PlistValue.h"
#include "support/PlistCompare.h"
#include "support/TestEnvironment.h"

#include <QElapsedTimer>
#include <QFile>
#include <QMap>
#include <QXmlStreamReader>
#include <gtest/gtest.h>

using namespace nimbrel;
using nimbrel::test::FakeAppPeer;
using nimbrel::test::identical;
using Proxy = nimbrel::AppProtocolProxy;

namespace {

using nimbrel::test::s;

const QString kNoOwner = s("org.freedesktop.DBus.Error.NameHasNoOwner");
const QString kBusy = s("com.quorvia.Nimbrel.Error.Busy");
const QVariantMap kCalendar{{s("uid"), s("C")},
                            {s("order"), qint64(3)},
                            {s("syncTime"), QDateTime(QDate(2008, 1, 2), QTime(3, 4, 5), Qt::UTC)}};

// The methods of the interface as checked in, each with whether it is one-way (NoReply).
QMap<QString, bool> xmlMethods()
{
    QFile file(test::sourcePath(s("dbus/com.quorvia.Nimbrel.AppProtocol.xml")));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    QMap<QString, bool> methods;
    QString method;
    QXmlStreamReader xml(&file);
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement)
            continue;
        const QString name = xml.attributes().value(QLatin1String("name")).toString();
        if (xml.name() == QLatin1String("method"))
            methods.insert(method = name, false);
        else if (xml.name() == QLatin1String("annotation") &&
                 name == s("org.freedesktop.DBus.Method.NoReply"))
            methods[method] = true;
    }
    EXPECT_FALSE(xml.hasError()) << qPrintable(xml.errorString());
    return methods;
}

// The synchronous methods in the order the test calls them; the rest of the interface is one-way.
const QStringList kSyncMethods =
    s("version calendarsPublishableViaBonjour sourceListOfBonjourCalendars "
      "calendarsPublishableToGoogle sourceListOfGoogleCalendars bonjourPublisherInfo "
      "googleSyncInProgress techSupportInfo")
        .split(u' ');
const std::pair<QString, std::optional<QVariantList> (Proxy::*)() const> kLists[] = {
    {kSyncMethods[1], &Proxy::calendarsPublishableViaBonjour},
    {kSyncMethods[2], &Proxy::sourceListOfBonjourCalendars},
    {kSyncMethods[3], &Proxy::calendarsPublishableToGoogle},
    {kSyncMethods[4], &Proxy::sourceListOfGoogleCalendars}};

class AppProtocol : public ::testing::Test
{
protected:
    FakeAppPeer peer;
    Proxy proxy;
};

} // namespace

TEST_F(AppProtocol, SynchronousOperationsYieldTheAnswerOrNullEmptyOrFalse)
{
    proxy.setTimeout(300);
    const QVariantMap info{{s("name"), s("Den")}, {s("port"), 8008}};
    peer.setVersion(4);
    for (const auto& [method, fetch] : kLists)
        peer.setListAnswer(method, {kCalendar, method});
    peer.setBonjourInfo(info);
    peer.setGoogleSyncInProgress(true);

    // Whatever the peer would have answered, a failed call yields null, empty or false.
    const auto expectAllFail = [this](const QString& errorName) {
        EXPECT_EQ(proxy.version(), std::nullopt);
        for (const auto& [method, fetch] : kLists)
            EXPECT_EQ((proxy.*fetch)(), std::nullopt) << method.toStdString();
        bool ok = true;
        EXPECT_EQ(proxy.bonjourPublisherInfo(&ok), QVariantMap());
        EXPECT_FALSE(ok);
        EXPECT_FALSE(proxy.googleSyncInProgress());
        proxy.techSupportInfo();
        for (const QString& method : kSyncMethods) {
            QDBusError error;
            EXPECT_EQ(proxy.call(method, {}, &error), std::nullopt) << method.toStdString();
            EXPECT_EQ(error.name(), errorName);
        }
    };
    // Not running: NameHasNoOwner, not ServiceUnknown, since the bus was not asked to start it.
    expectAllFail(kNoOwner);
    EXPECT_TRUE(peer.calls().isEmpty());

    ASSERT_TRUE(peer.start());
    EXPECT_EQ(proxy.version(), std::optional<qint32>(4));
    for (const auto& [method, fetch] : kLists)
        EXPECT_TRUE(identical((proxy.*fetch)().value_or(QVariantList()),
                              plist::normalized(QVariantList{kCalendar, method})));
    EXPECT_TRUE(identical(proxy.bonjourPublisherInfo(), plist::normalized(info)));
    EXPECT_TRUE(proxy.googleSyncInProgress());
    proxy.techSupportInfo();
    QStringList methods;
    for (const test::RecordedCall& call : peer.calls()) {
        methods << call.method;
        EXPECT_TRUE(call.replyExpected) << call.method.toStdString();
    }
    EXPECT_EQ(methods, kSyncMethods);

    for (const QString& method : kSyncMethods)
        peer.setErrorReply(method, kBusy);
    expectAllFail(kBusy);

    // No reply: the proxy's own time-out ends the wait, not the bus default of 25 s.
    peer.resetAnswers();
    peer.setNeverReply(s("version"));
    QDBusError error;
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(proxy.version(&error), std::nullopt);
    EXPECT_GE(clock.elapsed(), 250);
    EXPECT_LT(clock.elapsed(), 5000);
    EXPECT_EQ(error.type(), QDBusError::NoReply) << qPrintable(error.name());
    EXPECT_TRUE(proxy.call(s("googleSyncInProgress")).has_value()); // the others still answer

    peer.stop(); // the application quit
    EXPECT_EQ(proxy.call(s("googleSyncInProgress"), {}, &error), std::nullopt);
    EXPECT_EQ(error.name(), kNoOwner);
}

TEST_F(AppProtocol, OneWayOperationsCarryTheirArgumentsWithoutReplyAndReturnAtOnce)
{
    const std::pair<const char*, void (Proxy::*)(const QVariantMap&) const> withDictionary[] = {
        {"publishCalendarViaBonjour", &Proxy::publishCalendarViaBonjour},
        {"publishCalendarToGoogle", &Proxy::publishCalendarToGoogle},
        {"subscribeTo", &Proxy::subscribeTo},
        {"publishOptions", &Proxy::publishOptions},
        {"subscribeOptions", &Proxy::subscribeOptions},
        {"bonjourIPServiceOptions", &Proxy::bonjourIPServiceOptions},
        {"disconnectBonjourIPService", &Proxy::disconnectBonjourIPService},
        {"googleServiceOptions", &Proxy::googleServiceOptions},
        {"disconnectGoogleService", &Proxy::disconnectGoogleService},
        {"setBonjourPublisherInfo", &Proxy::setBonjourPublisherInfo}};
    const std::pair<const char*, void (Proxy::*)() const> bare[] = {
        {"checkForUpdate", &Proxy::checkForUpdate},
        {"autoCheckForUpdatesChanged", &Proxy::autoCheckForUpdatesChanged},
        {"syncHistoryWillBeReset", &Proxy::syncHistoryWillBeReset},
        {"syncHistoryWasReset", &Proxy::syncHistoryWasReset},
        {"resetDatabase", &Proxy::resetDatabase},
        {"shutdown", &Proxy::shutdown}};

    EXPECT_TRUE(proxy.send(s("shutdown"))); // nobody there: dropped without a fuss
    ASSERT_TRUE(peer.start());
    QList<std::pair<QString, QVariantList>> expected; // in the order sent
    QElapsedTimer clock;
    clock.start();
    for (const auto& [method, send] : withDictionary) {
        (proxy.*send)(kCalendar);
        expected.append({s(method), {plist::normalized(kCalendar)}});
    }
    proxy.log(s("pane: hello"));
    expected.append({s("log"), {s("pane: hello")}});
    for (const auto& [method, send] : bare) {
        (proxy.*send)();
        expected.append({s(method), {}});
    }
    EXPECT_LT(clock.elapsed(), 1000);
    ASSERT_TRUE(peer.waitForCall(s("shutdown")));
    const QList<test::RecordedCall> calls = peer.calls();
    ASSERT_EQ(calls.size(), expected.size()); // the early shutdown is not among them
    QMap<QString, bool> covered;              // method → one-way
    for (qsizetype i = 0; i < calls.size(); ++i) {
        SCOPED_TRACE(expected[i].first.toStdString());
        EXPECT_EQ(calls[i].method, expected[i].first);
        EXPECT_TRUE(identical(calls[i].arguments, expected[i].second));
        EXPECT_FALSE(calls[i].replyExpected);
        covered.insert(calls[i].method, true);
    }

    // Between them the two tables call every method of the interface, one-way exactly where it says
    // so, and the fake serves them all.
    for (const QString& method : kSyncMethods)
        covered.insert(method, false);
    EXPECT_EQ(covered, xmlMethods());
}

// ---- Notifications ---------------------------------------------------------------------------------

TEST(Notifications, EachNameReachesItsOwnHandlerOnlyUntilAllAreRemoved)
{
    // Names as the background application posts them: exact text, spaces included.
    const QStringList names{s("Nimbrel Running"), s("Nimbrel Bonjour Name Published"), s("Nimbrel Reset")};
    FakeAppPeer peer;
    NotificationBus bus, fence;
    QStringList received;
    int fences = 0;
    ASSERT_TRUE(fence.addObserver(s("fence"), [&fences] { ++fences; }));
    // Posts `name`, then a fence only `fence` observes: once that is in, `name` has been delivered.
    const auto postAndSettle = [&](const QString& name) {
        const int before = fences;
        ASSERT_TRUE(peer.post(name) && peer.post(s("fence")));
        ASSERT_TRUE(test::waitUntil([&] { return fences > before; }));
    };

    for (const QString& name : names)
        ASSERT_TRUE(bus.addObserver(name, [&received, name] { received.append(name); }));
    EXPECT_EQ(bus.observedNames(), names);
    for (const QString& name : names) {
        received.clear();
        postAndSettle(name);
        EXPECT_EQ(received, QStringList{name});
    }
    received.clear();
    bus.removeAllObservers();
    EXPECT_EQ(bus.observedNames(), QStringList());
    for (const QString& name : names)
        postAndSettle(name);
    EXPECT_EQ(received, QStringList());

    // Observing again works; a repeated name keeps one subscription with the newest handler, and a
    // handler may remove every observer, itself included.
    ASSERT_TRUE(bus.addObserver(names[0], [&] { received.append(s("first")); }));
    ASSERT_TRUE(bus.addObserver(names[0], [&] {
        received.append(s("second"));
        bus.removeAllObservers();
    }));
    postAndSettle(names[0]);
    postAndSettle(names[0]);
    EXPECT_EQ(received, QStringList{s("second")});

    // The fake confirms a request with the notification it was scripted to post.
    ASSERT_TRUE(bus.addObserver(names[1], [&] { received.append(names[1]); }));
    ASSERT_TRUE(peer.start());
    peer.setPostOnCall(s("setBonjourPublisherInfo"), names[1]);
    Proxy().setBonjourPublisherInfo({});
    EXPECT_TRUE(test::waitUntil([&] { return received.size() == 2; }));
    EXPECT_EQ(received, QStringList({s("second"), names[1]}));
}
