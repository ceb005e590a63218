// The client end of the remote protocol against the fake background application: answers, and every
// way a synchronous call can fail (nobody there, an error reply, no reply within the proxy's own
// time-out, an answer of the wrong type), each yielding null, empty or false.

#include "link/AppProtocolProxy.h"
#include "platform/PlistValue.h"
#include "support/FakeAppPeer.h"
#include "support/PlistCompare.h"
#include "support/TestEnvironment.h"

#include <gtest/gtest.h>

using namespace nimbrel;
using test::identical;
using test::s;

namespace {

const QVariantMap kCalendar{{s("uid"), s("C")},
                            {s("syncTime"), QDateTime::fromSecsSinceEpoch(1200000000, Qt::UTC)}};
const QVariantMap kInfo{{s("name"), s("Den")}, {s("port"), 8008}};
const QStringList kLists = s("calendarsPublishableViaBonjour sourceListOfBonjourCalendars "
                             "calendarsPublishableToGoogle sourceListOfGoogleCalendars")
                               .split(u' ');

// Every synchronous operation of the proxy, and the error of the last one.
struct Answers
{
    std::optional<qint32> version;
    QList<std::optional<QVariantList>> lists;
    QVariantMap info;
    bool infoOk = true, google = false;
    QString error;
};

Answers ask(const AppProtocolProxy& proxy)
{
    Answers a;
    a.version = proxy.version();
    a.lists = {proxy.calendarsPublishableViaBonjour(), proxy.sourceListOfBonjourCalendars(),
               proxy.calendarsPublishableToGoogle(), proxy.sourceListOfGoogleCalendars()};
    a.info = proxy.bonjourPublisherInfo(&a.infoOk);
    a.google = proxy.googleSyncInProgress();
    QDBusError error;
    proxy.call(s("techSupportInfo"), {}, &error);
    a.error = error.name();
    return a;
}

void expectFailed(const Answers& a, const QString& error)
{
    EXPECT_EQ(a.version, std::nullopt);
    for (const auto& list : a.lists)
        EXPECT_EQ(list, std::nullopt);
    EXPECT_EQ(a.info, QVariantMap());
    EXPECT_FALSE(a.infoOk);
    EXPECT_FALSE(a.google);
    EXPECT_EQ(a.error, error);
}

} // namespace

TEST(AppProtocolProxy, AnswersOrNullEmptyFalseWhateverWentWrong)
{
    test::FakeAppPeer peer;
    AppProtocolProxy proxy;
    proxy.setTimeout(300);
    const QString noOwner = s("org.freedesktop.DBus.Error.NameHasNoOwner");
    expectFailed(ask(proxy), noOwner); // not running: no owner, and the bus was not asked to start it
    EXPECT_TRUE(peer.calls().isEmpty());

    ASSERT_TRUE(peer.start());
    peer.setVersion(4);
    for (const QString& method : kLists)
        peer.setListAnswer(method, {kCalendar, method});
    peer.setBonjourInfo(kInfo);
    peer.setGoogleSyncInProgress(true);
    peer.setReplyDelay(s("version"), 100); // slow, but within the time-out
    Answers a = ask(proxy);
    EXPECT_EQ(a.version, std::optional<qint32>(4));
    for (qsizetype i = 0; i < kLists.size(); ++i)
        EXPECT_TRUE(identical(a.lists[i].value_or(QVariantList()),
                              plist::normalized(QVariantList{kCalendar, kLists[i]})));
    EXPECT_TRUE(identical(a.info, plist::normalized(kInfo)));
    EXPECT_TRUE(a.infoOk && a.google);
    EXPECT_EQ(a.error, QString());
    for (const test::RecordedCall& call : peer.calls())
        EXPECT_TRUE(call.replyExpected) << call.method.toStdString();

    // An answer of another type than the interface says.
    peer.setRawAnswer(s("version"), s("5"));
    for (const QString& method : kLists)
        peer.setRawAnswer(method, QVariantMap{{s("k"), 1}});
    peer.setRawAnswer(s("bonjourPublisherInfo"), QVariantList{1});
    peer.setRawAnswer(s("googleSyncInProgress"), 1);
    expectFailed(ask(proxy), QString());

    // Error replies; then no reply within the proxy's own time-out (a reply after it is too late).
    peer.resetAnswers();
    for (const QString& method :
         kLists + s("version bonjourPublisherInfo googleSyncInProgress techSupportInfo").split(u' '))
        peer.setErrorReply(method, s("com.quorvia.Nimbrel.Error.Busy"));
    expectFailed(ask(proxy), s("com.quorvia.Nimbrel.Error.Busy"));
    peer.resetAnswers();
    for (const QString& method : kLists + s("version bonjourPublisherInfo googleSyncInProgress").split(u' '))
        peer.setReplyDelay(method, 600);
    peer.setNeverReply(s("techSupportInfo"));
    expectFailed(ask(proxy), s("org.freedesktop.DBus.Error.NoReply"));

    peer.stop(); // the application quit
    expectFailed(ask(proxy), noOwner);
}
