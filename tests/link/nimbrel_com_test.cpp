// NimbrelCom against the fake background application: handshake, failure and retry, the notification
// table, every request that goes out, the Bonjour publisher settings and the calendar lists.

#include "link/LinkFixture.h"
#include "platform/PlistValue.h"
#include "support/PlistCompare.h"

#include <QStandardPaths>

namespace nimbrel::test {
namespace {

const QStringList kBoth{s("Published"), s("Subscribed")};

QStringList titles(const CalendarList& list)
{
    QStringList out;
    for (const CalendarRef& row : list)
        out << row->title().toString();
    return out;
}

TEST_F(LinkTest, ConnectWhileNotRunningOnlyEmptiesTheLists)
{
    activate(false);
    EXPECT_EQ(asked, QStringList({kBackgroundAppIdentifier, kMenuBarAppIdentifier}));
    EXPECT_FALSE(com.backgroundAppRunning());
    EXPECT_TRUE(com.backgroundAppResponsive());
    EXPECT_FALSE(com.isConnected());
    EXPECT_EQ(com.bonjourInfo(), std::nullopt);
    EXPECT_EQ(loop.pendingPerformCount(), 0);
    com.googleServiceUpdate(); // no one to ask: not in progress
    EXPECT_EQ(delegate.take(), kBoth + QStringList{s("GoogleSync(0)")});
    EXPECT_TRUE(peer.calls().isEmpty());
}

TEST_F(LinkTest, AFailedHandshakeMarksNotRespondingAndRetriesEverySecondAWrongVersionDoesNot)
{
    for (const char* mode : {"NotRegistered", "NeverReplies", "ErrorReply"}) {
        SCOPED_TRACE(mode);
        if (mode == std::string("NotRegistered")) {
            com.activate(); // the peer has not started yet
        } else {
            mode == std::string("NeverReplies")
                ? peer.setNeverReply(s("version"))
                : peer.setErrorReply(s("version"), s("org.freedesktop.DBus.Error.Failed"));
            com.connect(); // as the retry and "Nimbrel Running" do
        }
        // The failure handler's disconnect refreshes once, the end of connect once more.
        EXPECT_EQ(delegate.take(), QStringList{s("StateChange(1,0)")} + kRefresh + kRefresh);
        EXPECT_FALSE(com.isConnected() || com.backgroundAppResponsive());

        // The retry meets a healthy peer and reports the recovery.
        peer.resetAnswers();
        ASSERT_TRUE(peer.start());
        EXPECT_EQ(loop.advance(0.99), 0);
        EXPECT_EQ(loop.advance(0.01), 1);
        EXPECT_EQ(delegate.take(), QStringList{s("StateChange(1,1)")} + kRefresh);
        EXPECT_TRUE(com.isConnected() && com.backgroundAppResponsive());
    }
    peer.setVersion(4);
    com.connect();
    EXPECT_EQ(delegate.take(), QStringList{s("VersionError")} + kRefresh);
    EXPECT_TRUE(com.isConnected() && com.backgroundAppResponsive()); // kept, and forwarding
    EXPECT_EQ(loop.pendingPerformCount(), 0);                        // no retry
}

TEST_F(LinkTest, RunningAndStoppedCancelTheTimersAndTellTheNewState)
{
    com.activate(); // nobody owns the service: the handshake fails and a connect retry is pending
    ASSERT_TRUE(peer.start());
    for (const bool launched : {true, false}) {
        SCOPED_TRACE(launched);
        if (!launched)
            com.backgroundAppStateChangeTimeout(); // a connect retry pending again
        loop.performAfterDelay(static_cast<QObject*>(&com), "backgroundAppStateChangeTimeout", 20.0,
                               [this] { com.backgroundAppStateChangeTimeout(); });
        ASSERT_EQ(loop.pendingPerformCount(), 2);
        delegate.take();
        EXPECT_EQ(deliver(launched ? s("Nimbrel Running") : s("Nimbrel Stopped")),
                  QStringList{QStringLiteral("StateChange(%1,1)").arg(int(launched))} + kRefresh);
        EXPECT_EQ(loop.pendingPerformCount(), 0);
        EXPECT_EQ(com.backgroundAppRunning(), launched);
        EXPECT_EQ(com.isConnected(), launched);
    }
}

TEST_F(LinkTest, EveryOtherNotificationReachesTheDelegateUntilDeactivated)
{
    peer.setGoogleSyncInProgress(true);
    activate();
    // Posted with no request pending: handlers never check that one was made.
    const std::pair<const char*, QStringList> table[] = {
        {"Nimbrel Reset", {s("ResetFinished(1)")}},
        {"Nimbrel Calendars Changed", kBoth},
        {"Nimbrel Bonjour Update", {s("Subscribed")}},
        {"Nimbrel Bonjour Publishable Change", {s("Published")}},
        {"Nimbrel Bonjour Change", {s("Subscribed")}},
        {"Nimbrel Bonjour Name Published", {s("NamePublished")}},
        {"Nimbrel Bonjour Checked Update", {s("CheckedForUpdate")}},
        {"Nimbrel Google Update", kBoth + QStringList{s("GoogleSync(1)")}},
        {"Nimbrel Google Change", kBoth + QStringList{s("GoogleSync(1)")}}};
    for (const auto& [name, expected] : table)
        EXPECT_EQ(deliver(s(name)), expected) << name;
    com.deactivate();
    EXPECT_EQ(delegate.take(), kRefresh);
    for (const auto& row : table)
        EXPECT_EQ(deliver(s(row.first)), QStringList()) << row.first;
}

// Every request the link sends: the method, its argument as given, one-way or waited for; and without
// a connection none of them goes out.
TEST_F(LinkTest, EveryRequestLeavesAsItsOneMethodOnlyWhenConnected)
{
    writeFile(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
                  s("/Nimbrel/Nimbrel.nsql"),
              "x");
    const QVariantMap record = calendar("u1", "Home", 2);
    const std::tuple<std::function<void()>, const char*, QVariantList, bool> requests[] = {
        {[&] { com.setPublishOptions(record); }, "publishOptions", {record}, true},
        {[&] { com.setSubscribeOptions(record); }, "subscribeOptions", {record}, true},
        {[&] { com.setServerOptions(record); }, "bonjourIPServiceOptions", {record}, true},
        {[&] { com.disconnectServer(record); }, "disconnectBonjourIPService", {record}, true},
        {[&] { com.setGoogleOptions(record); }, "googleServiceOptions", {record}, true},
        {[&] { com.disconnectGoogle(record); }, "disconnectGoogleService", {record}, true},
        {[&] { com.publishToGoogle(record); }, "publishCalendarToGoogle", {record}, true},
        {[&] { com.publishViaBonjour(record, false); }, "publishCalendarViaBonjour", {record}, true},
        {[&] { com.subscribeTo(record, false); }, "subscribeTo", {record}, true},
        {[&] { com.setBonjourInfo(record); }, "setBonjourPublisherInfo", {record}, true},
        {[&] { com.log(s("100% %d %@ done")); }, "log", {s("100% %d %@ done")}, true},
        {[&] { com.checkForUpdate(); }, "checkForUpdate", {}, true},
        {[&] { com.setAutoCheckForUpdates(false); }, "autoCheckForUpdatesChanged", {}, true},
        {[&] { com.syncHistoryWillBeReset(); }, "syncHistoryWillBeReset", {}, true},
        {[&] { com.syncHistoryWasReset(); }, "syncHistoryWasReset", {}, true},
        {[&] { com.resetDatabase(); }, "resetDatabase", {}, true},
        {[&] { com.stopBackgroundApp(); }, "shutdown", {}, true},
        {[&] { com.techSupportInfo(); }, "techSupportInfo", {}, false},
    };
    for (const bool connected : {false, true}) {
        activate(connected); // the peer serves either way; only a connected link may reach it
        peer.clearCalls();
        for (const auto& [send, method, arguments, oneWay] : requests) {
            SCOPED_TRACE(method);
            send();
            if (!connected)
                continue;
            ASSERT_TRUE(peer.waitForCall(s(method)));
            const RecordedCall call = peer.calls(s(method)).constLast();
            EXPECT_TRUE(identical(call.arguments, plist::normalized(arguments)));
            EXPECT_EQ(call.replyExpected, !oneWay);
        }
        EXPECT_TRUE(peer.deliver(s("Nimbrel Test Nothing"))); // anything sent would be in by now
        EXPECT_EQ(peer.calls().isEmpty(), !connected);
    }
}

TEST_F(LinkTest, BonjourInfoRequestsWaitForConfirmationOrTimeOut)
{
    const QVariantMap infoA{{s("name"), s("Desk")}, {s("port"), 8080}};
    const QVariantMap infoB{{s("name"), s("Laptop")}, {s("port"), 8080}};
    const QVariantMap infoC{{s("name"), s("Laptop")}, {s("port"), 9090}};
    peer.setBonjourInfo(infoA);
    activate();
    EXPECT_EQ(com.bonjourInfo(), infoA);

    // Unchanged: answered at once, nothing sent, no timer.
    com.setBonjourInfo(infoA);
    EXPECT_EQ(delegate.take(), QStringList{s("NamePublished")});
    EXPECT_EQ(loop.pendingPerformCount(), 0);

    // Changed: only the confirmation refreshes the cache, else the time-out answers.
    com.setBonjourInfo(infoB);
    EXPECT_EQ(com.bonjourInfo(), infoA);
    EXPECT_EQ(loop.advance(9.9), 0);
    EXPECT_EQ(loop.advance(0.1), 1);
    EXPECT_EQ(delegate.take(), QStringList{s("NamePublished")});

    // Two requests, two timers: one confirmation ends both and refreshes the cache.
    com.setBonjourInfo(infoB);
    com.setBonjourInfo(infoC);
    EXPECT_EQ(loop.pendingPerformCount(), 2);
    peer.setBonjourInfo(infoC);
    EXPECT_EQ(deliver(s("Nimbrel Bonjour Name Published")), QStringList{s("NamePublished")});
    EXPECT_EQ(loop.advance(20.0), 0);
    EXPECT_EQ(com.bonjourInfo(), infoC);

    // A confirmation whose fetch fails leaves the cache present but empty; a disconnect drops it.
    peer.setErrorReply(s("bonjourPublisherInfo"), s("org.freedesktop.DBus.Error.Failed"));
    EXPECT_EQ(deliver(s("Nimbrel Bonjour Name Published")), QStringList{s("NamePublished")});
    EXPECT_EQ(com.bonjourInfo(), QVariantMap());
    com.deactivate();
    EXPECT_EQ(com.bonjourInfo(), std::nullopt);
}

TEST_F(LinkTest, ListsAreFetchedOnceThenMergedInPlaceAndEmptiedByDisconnect)
{
    const QString publishable = s("calendarsPublishableViaBonjour"),
                  sourcesMethod = s("sourceListOfBonjourCalendars");
    peer.setListAnswer(publishable, {calendar("b", "Alpha", 2), calendar("a", "Bravo", 1)});
    peer.setListAnswer(sourcesMethod,
                       {calendar("s2", "Zeta", 0, {calendar("c0", "Zero")}),
                        calendar("s1", "alpha", 0, {calendar("c1", "Home"), calendar("c2", "Work")})});
    activate();
    const auto published = com.calendarsPublishableViaBonjour();
    const auto sources = com.sourceListOfBonjourCalendars();
    EXPECT_EQ(titles(*published), QStringList({s("Bravo"), s("Alpha")})); // by order
    EXPECT_EQ(titles(*sources), QStringList({s("alpha"), s("Zeta")}));    // by title
    const CalendarRef rowA = published->at(0), desk = sources->at(0), home = desk->children()->at(0);

    // The source of a calendar is looked up in the cached list only, never fetched.
    EXPECT_EQ(com.sourceOfCalendarWithDict(calendar("c1", "renamed")), desk);
    peer.setListAnswer(publishable, {calendar("a", "A renamed", 3), calendar("c", "C", 1)});
    peer.setListAnswer(sourcesMethod,
                       {calendar("s1", "alpha", 0, {calendar("c1", "Home 2"), calendar("c3", "Trips")})});
    EXPECT_EQ(com.sourceOfCalendarWithDict(calendar("c3", "Trips")), nullptr);
    EXPECT_EQ(peer.callCount(publishable), 1);

    // A recalculation merges the fresh answer into the same list and row objects.
    com.calendarsChanged();
    EXPECT_EQ(delegate.take(), kBoth);
    EXPECT_EQ(com.calendarsPublishableViaBonjour(), published);
    EXPECT_EQ(titles(*published), QStringList({s("C"), s("A renamed")}));
    EXPECT_EQ(published->at(1), rowA);
    EXPECT_EQ(*sources, CalendarList{desk});
    EXPECT_EQ(titles(*desk->children()), QStringList({s("Home 2"), s("Trips")}));
    EXPECT_EQ(desk->children()->at(0), home);
    EXPECT_EQ(com.sourceOfCalendarWithDict(calendar("c3", "Trips")), desk);

    // A fetch that fails (an error, an answer of the wrong type) leaves the rows as they were; only a
    // successful empty answer empties the list.
    for (const bool error : {true, false}) {
        error ? peer.setErrorReply(publishable, s("org.freedesktop.DBus.Error.Failed"))
              : peer.setRawAnswer(publishable, QVariantList{calendar("x", "X")});
        com.calendarsChanged();
        EXPECT_EQ(titles(*published), QStringList({s("C"), s("A renamed")}));
    }
    peer.resetAnswers();
    com.calendarsChanged();
    EXPECT_TRUE(published->isEmpty() && sources->isEmpty());

    com.deactivate();
    for (const auto get :
         {&NimbrelCom::calendarsPublishableViaBonjour, &NimbrelCom::sourceListOfBonjourCalendars,
          &NimbrelCom::calendarsPublishableToGoogle, &NimbrelCom::sourceListOfGoogleCalendars})
        EXPECT_TRUE((com.*get)()->isEmpty());
    EXPECT_EQ(peer.callCount(publishable), 5);
}

// A pane is a QObject first and a delegate second: its delegate part lies at another address.
struct TwoBasedPane : QObject, MockDelegate
{
};

TEST_F(LinkTest, RowRequestsLeaveAtOnceAndNoticeOnTheNextPassOnlyWhenDue)
{
    TwoBasedPane paneObject;
    NimbrelCom com{&paneObject, Bundle(), &loop};
    com.setProcessLookup(
        [](const QString& identifier) { return identifier == kBackgroundAppIdentifier ? 1 : 0; });
    ASSERT_TRUE(peer.start());
    com.activate();
    MockDelegate& delegate = paneObject;
    delegate.take();
    // publishViaBonjour or subscribeTo, the row's flags, whether to inform, the notice expected.
    const std::tuple<bool, QVariantMap, bool, const char*> cases[] = {
        {true, {{s("publishedToBonjour"), true}}, true, "Publishing(0)"},
        {true, {{s("publishedToBonjour"), false}}, true, nullptr},
        {true, {{s("publishedToBonjour"), true}}, false, nullptr},
        {false, {{s("subscribedTo"), true}, {s("bonjour"), true}}, true, "Subscribing(3)"},
        {false, {{s("subscribedTo"), true}, {s("bonjour"), false}}, true, nullptr}, // a remote server's
        {false, {{s("subscribedTo"), false}, {s("bonjour"), true}}, true, nullptr},
        {false, {{s("subscribedTo"), true}, {s("bonjour"), true}}, false, nullptr}};
    const void* pane = &paneObject; // what the pane cancels with
    ASSERT_NE(pane, static_cast<const void*>(static_cast<NimbrelComDelegate*>(&paneObject)));
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& [publish, flags, inform, notice] = cases[i];
        SCOPED_TRACE(i);
        QVariantMap row = calendar(std::to_string(i).c_str(), "Home");
        row.insert(flags);
        const QString method = publish ? s("publishCalendarViaBonjour") : s("subscribeTo");
        const int sent = peer.callCount(method);
        publish ? com.publishViaBonjour(row, inform) : com.subscribeTo(row, inform);
        // The request leaves before the run loop turns; the notice waits for it, aimed at the pane.
        ASSERT_TRUE(peer.waitForCall(method, 5000, sent + 1));
        EXPECT_EQ(loop.pendingPerformCount(pane), notice ? 1 : 0);
        EXPECT_TRUE(delegate.log.isEmpty());
        EXPECT_EQ(loop.runPending(), notice ? 1 : 0);
        EXPECT_EQ(delegate.take(), notice ? QStringList{s(notice)} : QStringList());
    }
    // The pane's cancel-all on its own address reaches a pending notice.
    com.publishViaBonjour(std::get<1>(cases[0]), true);
    ASSERT_EQ(loop.pendingPerformCount(pane), 1);
    loop.cancelAllPerformRequests(pane);
    EXPECT_EQ(loop.runPending(), 0);
    com.deactivate();
}

} // namespace
} // namespace nimbrel::test
