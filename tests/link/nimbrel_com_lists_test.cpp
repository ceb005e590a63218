// The link's four calendar lists over the private bus: lazy fetch and cache, merge in place on a
// recalculation, lookups, and the requests rows send with their delayed delegate notices.

#include "link/FakeAppPeer.h"
#include "link/MockDelegate.h"
#include "link/NimbrelCom.h"
#include "platform/VirtualRunLoop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace nimbrel {
namespace {

using test::FakeAppPeer;
using test::MockDelegate;
using ::testing::InSequence;
using ::testing::Mock;
using ::testing::StrictMock;

const QString kPublishable = QStringLiteral("calendarsPublishableViaBonjour");
const QString kBonjourSources = QStringLiteral("sourceListOfBonjourCalendars");
const QString kGooglePublishable = QStringLiteral("calendarsPublishableToGoogle");
const QString kGoogleSources = QStringLiteral("sourceListOfGoogleCalendars");

QVariantMap calendar(const QString& uid, const QString& title, qint64 order = 0)
{
    return {{QStringLiteral("uid"), uid}, {QStringLiteral("title"), title}, {QStringLiteral("order"), order}};
}

QVariantMap source(const QString& uid, const QString& title, const QVariantList& calendars)
{
    QVariantMap s = calendar(uid, title);
    s.insert(QStringLiteral("source"), true);
    s.insert(QStringLiteral("calendars"), calendars);
    return s;
}

QStringList titles(const CalendarList& list)
{
    QStringList out;
    for (const CalendarRef& row : list)
        out << row->title().toString();
    return out;
}

class NimbrelComListsTest : public ::testing::Test
{
protected:
    NimbrelComListsTest()
    {
        com.setProcessLookup([](const QString& identifier) -> qint64 {
            return identifier == kBackgroundAppIdentifier ? 4242 : 0;
        });
        com.setHandshakeTimeout(300);
    }

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
    NimbrelCom com{&delegate, Bundle(), &loop};
};

TEST_F(NimbrelComListsTest, GettersFetchOnceSortAndEmptyAfterDisconnect)
{
    peer.setListAnswer(kPublishable, {calendar(QStringLiteral("b"), QStringLiteral("Bravo"), 2),
                                      calendar(QStringLiteral("a"), QStringLiteral("Alpha"), 1)});
    peer.setListAnswer(kBonjourSources, {source(QStringLiteral("s2"), QStringLiteral("Zeta"), {}),
                                         source(QStringLiteral("s1"), QStringLiteral("alpha"), {})});
    activateConnected();

    const auto published = com.calendarsPublishableViaBonjour();
    EXPECT_EQ(titles(*published), QStringList({QStringLiteral("Alpha"), QStringLiteral("Bravo")}));
    EXPECT_EQ(titles(*com.sourceListOfBonjourCalendars()),
              QStringList({QStringLiteral("alpha"), QStringLiteral("Zeta")}));
    EXPECT_EQ(com.calendarsPublishableViaBonjour(), published);
    for (const QString& method : {kPublishable, kBonjourSources, kGooglePublishable, kGoogleSources})
        EXPECT_EQ(peer.callCount(method), 1) << method.toStdString();

    {
        InSequence order;
        delegate.expectRefresh();
    }
    com.deactivate();
    EXPECT_TRUE(com.calendarsPublishableViaBonjour()->isEmpty());
    EXPECT_TRUE(com.sourceListOfBonjourCalendars()->isEmpty());
    EXPECT_TRUE(com.calendarsPublishableToGoogle()->isEmpty());
    EXPECT_TRUE(com.sourceListOfGoogleCalendars()->isEmpty());
    EXPECT_EQ(peer.callCount(kPublishable), 1);
}

TEST_F(NimbrelComListsTest, RecalculationMergesIntoTheSameObjects)
{
    peer.setListAnswer(kPublishable, {calendar(QStringLiteral("a"), QStringLiteral("A"), 1),
                                      calendar(QStringLiteral("b"), QStringLiteral("B"), 2)});
    peer.setListAnswer(kBonjourSources, {source(QStringLiteral("s"), QStringLiteral("Desk"),
                                                {calendar(QStringLiteral("c1"), QStringLiteral("Home")),
                                                 calendar(QStringLiteral("c2"), QStringLiteral("Work"))})});
    activateConnected();
    const auto published = com.calendarsPublishableViaBonjour();
    const CalendarRef rowA = published->at(0);
    const auto sources = com.sourceListOfBonjourCalendars();
    const CalendarRef desk = sources->at(0);
    const CalendarRef home = desk->children()->at(0);

    peer.setListAnswer(kPublishable, {calendar(QStringLiteral("a"), QStringLiteral("A renamed"), 3),
                                      calendar(QStringLiteral("c"), QStringLiteral("C"), 1)});
    peer.setListAnswer(kBonjourSources, {source(QStringLiteral("s"), QStringLiteral("Desk"),
                                                {calendar(QStringLiteral("c1"), QStringLiteral("Home 2")),
                                                 calendar(QStringLiteral("c3"), QStringLiteral("Trips"))})});
    {
        InSequence order;
        EXPECT_CALL(delegate, nimbrelPublishedCalendarsChanged());
        EXPECT_CALL(delegate, nimbrelSubscribedCalendarsChanged());
    }
    com.calendarsChanged();

    EXPECT_EQ(com.calendarsPublishableViaBonjour(), published);
    EXPECT_EQ(titles(*published),
              QStringList({QStringLiteral("C"), QStringLiteral("A renamed")})); // by order
    EXPECT_EQ(published->at(1), rowA);
    EXPECT_EQ(com.sourceListOfBonjourCalendars(), sources);
    ASSERT_EQ(sources->size(), 1);
    EXPECT_EQ(sources->at(0), desk);
    EXPECT_EQ(titles(*desk->children()), QStringList({QStringLiteral("Home 2"), QStringLiteral("Trips")}));
    EXPECT_EQ(desk->children()->at(0), home);
    EXPECT_EQ(peer.callCount(kGooglePublishable), 2);
    EXPECT_EQ(peer.callCount(kGoogleSources), 2);
}

TEST_F(NimbrelComListsTest, LookupsSearchDeepAndSourceOfUsesOnlyTheCache)
{
    peer.setListAnswer(kBonjourSources, {source(QStringLiteral("s1"), QStringLiteral("Desk"),
                                                {calendar(QStringLiteral("c1"), QStringLiteral("Home"))}),
                                         source(QStringLiteral("s2"), QStringLiteral("Laptop"), {})});
    activateConnected();
    const auto sources = com.sourceListOfBonjourCalendars();
    const CalendarRef desk = sources->at(0);

    const QVariantMap home = calendar(QStringLiteral("c1"), QStringLiteral("renamed"));
    EXPECT_EQ(com.calendarWithDict(home, *sources), desk->children()->at(0));
    EXPECT_EQ(com.sourceOfCalendarWithDict(home), desk);
    EXPECT_EQ(com.sourceOfCalendarWithDict(calendar(QStringLiteral("s1"), QStringLiteral("Desk"))), nullptr);

    // A calendar the background application added since is not known until the next recalculation.
    peer.setListAnswer(kBonjourSources, {source(QStringLiteral("s2"), QStringLiteral("Laptop"),
                                                {calendar(QStringLiteral("c9"), QStringLiteral("New"))})});
    EXPECT_EQ(com.sourceOfCalendarWithDict(calendar(QStringLiteral("c9"), QStringLiteral("New"))), nullptr);
    EXPECT_EQ(peer.callCount(kBonjourSources), 1);
}

TEST_F(NimbrelComListsTest, GoogleProgressIsFalseWithoutConnection)
{
    {
        InSequence order;
        EXPECT_CALL(delegate, nimbrelPublishedCalendarsChanged());
        EXPECT_CALL(delegate, nimbrelSubscribedCalendarsChanged());
        EXPECT_CALL(delegate, nimbrelGoogleSyncProgress(false));
    }
    com.googleServiceUpdate();
}

struct RequestCase
{
    const char* name;
    bool publish; // publishViaBonjour, else subscribeTo
    QVariantMap dictionary;
    bool inform;
    bool notice;
};

void PrintTo(const RequestCase& c, std::ostream* os)
{
    *os << c.name;
}

class RowRequestTest : public NimbrelComListsTest, public ::testing::WithParamInterface<RequestCase>
{
};

TEST_P(RowRequestTest, SendsAtOnceAndNoticesOnTheNextPass)
{
    const RequestCase& c = GetParam();
    activateConnected();
    const QString method =
        c.publish ? QStringLiteral("publishCalendarViaBonjour") : QStringLiteral("subscribeTo");
    if (c.publish)
        com.publishViaBonjour(c.dictionary, c.inform);
    else
        com.subscribeTo(c.dictionary, c.inform);

    // The request leaves before the run loop turns; the notice waits for it, aimed at the delegate.
    ASSERT_TRUE(peer.waitForCall(method));
    EXPECT_EQ(peer.calls(method).first().arguments, QVariantList{c.dictionary});
    const void* pane = static_cast<NimbrelComDelegate*>(&delegate);
    EXPECT_EQ(loop.pendingPerformCount(pane), c.notice ? 1 : 0);
    if (c.notice && c.publish)
        EXPECT_CALL(delegate, nimbrelPublishingCalendar(c.dictionary));
    if (c.notice && !c.publish)
        EXPECT_CALL(delegate, nimbrelSubscribingToCalendar(c.dictionary));
    EXPECT_EQ(loop.runPending(), c.notice ? 1 : 0);
}

QVariantMap flags(std::initializer_list<std::pair<const char*, bool>> entries)
{
    QVariantMap m = calendar(QStringLiteral("u"), QStringLiteral("Home"));
    for (const auto& [key, value] : entries)
        m.insert(QLatin1String(key), value);
    return m;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RowRequestTest,
    ::testing::Values(RequestCase{"PublishOn", true, flags({{"publishedToBonjour", true}}), true, true},
                      RequestCase{"PublishOff", true, flags({{"publishedToBonjour", false}}), true, false},
                      RequestCase{"PublishQuiet", true, flags({{"publishedToBonjour", true}}), false, false},
                      RequestCase{"SubscribeBonjour", false,
                                  flags({{"subscribedTo", true}, {"bonjour", true}}), true, true},
                      RequestCase{"SubscribeRemote", false,
                                  flags({{"subscribedTo", true}, {"bonjour", false}}), true, false},
                      RequestCase{"SubscribeNoOrigin", false, flags({{"subscribedTo", true}}), true, false},
                      RequestCase{"Unsubscribe", false, flags({{"subscribedTo", false}, {"bonjour", true}}),
                                  true, false},
                      RequestCase{"SubscribeQuiet", false, flags({{"subscribedTo", true}, {"bonjour", true}}),
                                  false, false}),
    [](const ::testing::TestParamInfo<RequestCase>& info) { return std::string(info.param.name); });

} // namespace
} // namespace nimbrel
