// The link's connection to the background application over the private bus: handshake, failure and
// retry, the running/responding state, the notification table and the Bonjour publisher settings.

#include "link/FakeAppPeer.h"
#include "link/MockDelegate.h"
#include "link/NimbrelCom.h"
#include "platform/VirtualRunLoop.h"
#include "support/TestEnvironment.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace nimbrel {
namespace {

using test::FakeAppPeer;
using test::MockDelegate;
using ::testing::Assign;
using ::testing::InSequence;
using ::testing::Mock;
using ::testing::StrictMock;

class NimbrelComConnectionTest : public ::testing::Test
{
protected:
    NimbrelComConnectionTest()
    {
        com.setProcessLookup([this](const QString& identifier) -> qint64 {
            asked << identifier;
            return identifier == kBackgroundAppIdentifier && backgroundRunning ? 4242 : 0;
        });
        com.setHandshakeTimeout(300);
    }

    const void* link() const { return static_cast<const QObject*>(&com); }

    // Starts the peer and activates the link against it; the handshake's notices are absorbed.
    void activateConnected()
    {
        ASSERT_TRUE(peer.start());
        {
            InSequence order;
            delegate.expectRefresh();
        }
        com.activate();
        ASSERT_TRUE(com.isConnected());
        Mock::VerifyAndClearExpectations(&delegate);
    }

    VirtualRunLoop loop;
    StrictMock<MockDelegate> delegate;
    FakeAppPeer peer;
    bool backgroundRunning = true;
    QStringList asked;
    NimbrelCom com{&delegate, Bundle(), &loop};
};

TEST_F(NimbrelComConnectionTest, ConnectWhileNotRunningOnlyEmptiesTheLists)
{
    backgroundRunning = false;
    ASSERT_TRUE(peer.start());
    {
        InSequence order;
        delegate.expectRefresh();
    }
    com.activate();

    EXPECT_EQ(asked, QStringList({kBackgroundAppIdentifier, kMenuBarAppIdentifier}));
    EXPECT_FALSE(com.backgroundAppRunning());
    EXPECT_TRUE(com.backgroundAppResponsive());
    EXPECT_EQ(com.proxy(), nullptr);
    EXPECT_EQ(com.bonjourInfo(), nullptr);
    EXPECT_TRUE(peer.calls().isEmpty());
    EXPECT_EQ(loop.pendingPerformCount(), 0);
}

TEST_F(NimbrelComConnectionTest, GoodHandshakeWhileRespondingSaysNothing)
{
    activateConnected();
    EXPECT_EQ(peer.callCount(QStringLiteral("version")), 1);
    EXPECT_TRUE(com.backgroundAppRunning());
    EXPECT_TRUE(com.backgroundAppResponsive());
    EXPECT_EQ(loop.pendingPerformCount(), 0);
}

TEST_F(NimbrelComConnectionTest, WrongVersionKeepsTheProxyAndForwardsRequests)
{
    peer.setVersion(4);
    ASSERT_TRUE(peer.start());
    {
        InSequence order;
        EXPECT_CALL(delegate, nimbrelProtocolVersionError());
        delegate.expectRefresh();
    }
    com.activate();
    ASSERT_TRUE(com.isConnected());
    EXPECT_TRUE(com.backgroundAppResponsive());
    EXPECT_EQ(loop.pendingPerformCount(), 0); // no retry

    const QVariantMap record{{QStringLiteral("uid"), QStringLiteral("u1")}};
    const struct
    {
        void (NimbrelCom::*forward)(const QVariantMap&);
        const char* method;
    } forwarders[] = {
        {&NimbrelCom::setPublishOptions, "publishOptions"},
        {&NimbrelCom::setSubscribeOptions, "subscribeOptions"},
        {&NimbrelCom::setServerOptions, "bonjourIPServiceOptions"},
        {&NimbrelCom::disconnectServer, "disconnectBonjourIPService"},
        {&NimbrelCom::setGoogleOptions, "googleServiceOptions"},
        {&NimbrelCom::disconnectGoogle, "disconnectGoogleService"},
        {&NimbrelCom::publishToGoogle, "publishCalendarToGoogle"},
    };
    for (const auto& f : forwarders) {
        (com.*f.forward)(record);
        ASSERT_TRUE(peer.waitForCall(QLatin1String(f.method))) << f.method;
        EXPECT_EQ(peer.calls(QLatin1String(f.method)).first().arguments, QVariantList{record}) << f.method;
    }
    com.setAutoCheckForUpdates(false);
    EXPECT_TRUE(peer.waitForCall(QStringLiteral("autoCheckForUpdatesChanged")));
}

enum class Failure
{
    NotRegistered,
    NeverReplies,
    ErrorReply
};

const char* const kFailureNames[] = {"NotRegistered", "NeverReplies", "ErrorReply"};

// Readable, stable names for the discovered test cases.
void PrintTo(Failure failure, std::ostream* os)
{
    *os << kFailureNames[int(failure)];
}

class FailedHandshakeTest : public NimbrelComConnectionTest, public ::testing::WithParamInterface<Failure>
{
};

TEST_P(FailedHandshakeTest, MarksNotRespondingAndRetriesAfterOneSecond)
{
    const QString version = QStringLiteral("version");
    if (GetParam() == Failure::NeverReplies)
        peer.setNeverReply(version);
    if (GetParam() == Failure::ErrorReply)
        peer.setErrorReply(version, QStringLiteral("org.freedesktop.DBus.Error.Failed"));
    if (GetParam() != Failure::NotRegistered) {
        ASSERT_TRUE(peer.start());
    }
    {
        // The failure handler's disconnect refreshes once, the end of connect once more.
        InSequence order;
        EXPECT_CALL(delegate, nimbrelBackgroundAppStateChange(true, false));
        delegate.expectRefresh();
        delegate.expectRefresh();
    }
    com.activate();
    EXPECT_FALSE(com.isConnected());
    EXPECT_FALSE(com.backgroundAppResponsive());
    Mock::VerifyAndClearExpectations(&delegate);

    // The retry meets a healthy peer and reports the recovery.
    peer.resetAnswers();
    if (!peer.isStarted()) {
        ASSERT_TRUE(peer.start());
    }
    const int attempts = peer.callCount(version);
    EXPECT_EQ(loop.advance(0.99), 0);
    EXPECT_EQ(peer.callCount(version), attempts);
    {
        InSequence order;
        EXPECT_CALL(delegate, nimbrelBackgroundAppStateChange(true, true));
        delegate.expectRefresh();
    }
    EXPECT_EQ(loop.advance(0.01), 1);
    EXPECT_EQ(peer.callCount(version), attempts + 1);
    EXPECT_TRUE(com.isConnected());
    EXPECT_TRUE(com.backgroundAppResponsive());
}

INSTANTIATE_TEST_SUITE_P(Modes, FailedHandshakeTest,
                         ::testing::Values(Failure::NotRegistered, Failure::NeverReplies,
                                           Failure::ErrorReply));

// "Nimbrel Running" / "Nimbrel Stopped" end a pending start or stop and the connect retry.
class LaunchNoticeTest : public NimbrelComConnectionTest, public ::testing::WithParamInterface<bool>
{
};

TEST_P(LaunchNoticeTest, CancelsTimersAndTellsTheNewState)
{
    const bool launched = GetParam();
    {
        InSequence order;
        EXPECT_CALL(delegate, nimbrelBackgroundAppStateChange(true, false));
        delegate.expectRefresh();
        delegate.expectRefresh();
    }
    com.activate(); // nobody owns the service: a connect retry is pending
    loop.performAfterDelay(static_cast<QObject*>(&com), "backgroundAppStateChangeTimeout", 20.0,
                           [this] { com.backgroundAppStateChangeTimeout(); });
    ASSERT_EQ(loop.pendingPerformCount(link()), 2);
    Mock::VerifyAndClearExpectations(&delegate);

    ASSERT_TRUE(peer.start());
    bool done = false;
    {
        InSequence order;
        EXPECT_CALL(delegate, nimbrelBackgroundAppStateChange(launched, true));
        delegate.expectRefresh(&done);
    }
    peer.post(launched ? QStringLiteral("Nimbrel Running") : QStringLiteral("Nimbrel Stopped"));
    ASSERT_TRUE(test::waitUntil([&] { return done; }));

    EXPECT_EQ(loop.pendingPerformCount(link()), 0);
    EXPECT_EQ(com.backgroundAppRunning(), launched);
    EXPECT_TRUE(com.backgroundAppResponsive());
    EXPECT_EQ(com.isConnected(), launched);
    EXPECT_EQ(loop.advance(30.0), 0);
}

INSTANTIATE_TEST_SUITE_P(RunningAndStopped, LaunchNoticeTest, ::testing::Bool());

struct NotificationCase
{
    const char* name;
    QStringList expected;
};

void PrintTo(const NotificationCase& c, std::ostream* os)
{
    *os << c.name;
}

class NotificationTableTest : public NimbrelComConnectionTest,
                              public ::testing::WithParamInterface<NotificationCase>
{
};

TEST_P(NotificationTableTest, ReachesTheDelegate)
{
    peer.setGoogleSyncInProgress(true);
    activateConnected();
    QStringList log;
    delegate.recordInto(log);

    // Posted with no request pending: handlers never check that one was made.
    peer.post(QLatin1String(GetParam().name));
    const QStringList& expected = GetParam().expected;
    ASSERT_TRUE(test::waitUntil([&] { return log.size() >= expected.size(); }))
        << log.join(u' ').toStdString();
    EXPECT_EQ(log, expected);
}

const QString kPublished = QStringLiteral("Published");
const QString kSubscribed = QStringLiteral("Subscribed");
const QString kNamePublished = QStringLiteral("NamePublished");

INSTANTIATE_TEST_SUITE_P(
    Names, NotificationTableTest,
    ::testing::Values(
        NotificationCase{"Nimbrel Running",
                         {QStringLiteral("StateChange(1,1)"), kPublished, kSubscribed, kNamePublished}},
        NotificationCase{"Nimbrel Stopped",
                         {QStringLiteral("StateChange(0,1)"), kPublished, kSubscribed, kNamePublished}},
        NotificationCase{"Nimbrel Reset", {QStringLiteral("ResetFinished(1)")}},
        NotificationCase{"Nimbrel Calendars Changed", {kPublished, kSubscribed}},
        NotificationCase{"Nimbrel Bonjour Update", {kSubscribed}},
        NotificationCase{"Nimbrel Bonjour Publishable Change", {kPublished}},
        NotificationCase{"Nimbrel Bonjour Change", {kSubscribed}},
        NotificationCase{"Nimbrel Bonjour Name Published", {kNamePublished}},
        NotificationCase{"Nimbrel Bonjour Checked Update", {QStringLiteral("CheckedForUpdate")}},
        NotificationCase{"Nimbrel Google Update", {kPublished, kSubscribed, QStringLiteral("GoogleSync(1)")}},
        NotificationCase{"Nimbrel Google Change",
                         {kPublished, kSubscribed, QStringLiteral("GoogleSync(1)")}}));

// ---- Bonjour publisher settings ----------------------------------------------------------------

const QVariantMap kInfoA{{QStringLiteral("name"), QStringLiteral("Desk")}, {QStringLiteral("port"), 8080}};
const QVariantMap kInfoB{{QStringLiteral("name"), QStringLiteral("Laptop")}, {QStringLiteral("port"), 8080}};
const QVariantMap kInfoC{{QStringLiteral("name"), QStringLiteral("Laptop")}, {QStringLiteral("port"), 9090}};

TEST_F(NimbrelComConnectionTest, UnchangedBonjourInfoAnswersAtOnceAndSendsNothing)
{
    peer.setBonjourInfo(kInfoA);
    activateConnected();
    ASSERT_NE(com.bonjourInfo(), nullptr);
    EXPECT_EQ(*com.bonjourInfo(), kInfoA);

    EXPECT_CALL(delegate, nimbrelBonjourNamePublished());
    com.setBonjourInfo(kInfoA);
    Mock::VerifyAndClearExpectations(&delegate);

    com.setServerOptions({}); // one-way calls arrive in order: this one marks the end
    ASSERT_TRUE(peer.waitForCall(QStringLiteral("bonjourIPServiceOptions")));
    EXPECT_EQ(peer.callCount(QStringLiteral("setBonjourPublisherInfo")), 0);
    EXPECT_EQ(loop.pendingPerformCount(), 0);
}

TEST_F(NimbrelComConnectionTest, ChangedBonjourInfoWaitsForTheTimeOut)
{
    peer.setBonjourInfo(kInfoA);
    activateConnected();
    com.setBonjourInfo(kInfoB);
    ASSERT_TRUE(peer.waitForCall(QStringLiteral("setBonjourPublisherInfo")));
    EXPECT_EQ(peer.calls(QStringLiteral("setBonjourPublisherInfo")).first().arguments, QVariantList{kInfoB});
    EXPECT_EQ(*com.bonjourInfo(), kInfoA); // only the confirmation refreshes the cache

    EXPECT_EQ(loop.advance(9.9), 0);
    EXPECT_CALL(delegate, nimbrelBonjourNamePublished());
    EXPECT_EQ(loop.advance(0.1), 1);
}

TEST_F(NimbrelComConnectionTest, ConfirmationCancelsEveryTimerAndRefillsTheCacheInPlace)
{
    peer.setBonjourInfo(kInfoA);
    activateConnected();
    QVariantMap* const cache = com.bonjourInfo();
    com.setBonjourInfo(kInfoB);
    com.setBonjourInfo(kInfoC);
    EXPECT_EQ(loop.pendingPerformCount(link()), 2);

    peer.setBonjourInfo(kInfoC);
    bool done = false;
    EXPECT_CALL(delegate, nimbrelBonjourNamePublished()).WillOnce(Assign(&done, true));
    peer.post(QStringLiteral("Nimbrel Bonjour Name Published"));
    ASSERT_TRUE(test::waitUntil([&] { return done; }));
    EXPECT_EQ(loop.pendingPerformCount(link()), 0);
    EXPECT_EQ(loop.advance(20.0), 0);
    EXPECT_EQ(com.bonjourInfo(), cache);
    EXPECT_EQ(*cache, kInfoC);

    {
        InSequence order;
        delegate.expectRefresh();
    }
    com.deactivate();
    EXPECT_EQ(com.bonjourInfo(), nullptr);
    EXPECT_FALSE(com.isConnected());
}

} // namespace
} // namespace nimbrel
