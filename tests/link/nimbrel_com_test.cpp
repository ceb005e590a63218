// NimbrelCom over the private bus against the fake background application: handshake, failure and
// retry, the notification table, the Bonjour publisher settings, the calendar lists, and the shared
// settings in the background application's domain.

#include "link/FakeAppPeer.h"
#include "link/MockDelegate.h"
#include "link/NimbrelCom.h"
#include "protocol/NotificationBus.h"
#include "platform/PlistCodec.h"
#include "platform/SettingsStore.h"
#include "platform/VirtualRunLoop.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <gtest/gtest.h>

namespace nimbrel {
namespace {

using test::MockDelegate;

using nimbrel::test::s;

const QStringList kRefresh = MockDelegate::kRefresh;
const QStringList kBoth{s("Published"), s("Subscribed")};
const QString kPublishable = s("calendarsPublishableViaBonjour");
const QString kBonjourSources = s("sourceListOfBonjourCalendars");

// A calendar row; with `calendars`, a source holding them.
QVariantMap calendar(const char* uid, const char* title, qint64 order = 0, const QVariantList& calendars = {})
{
    QVariantMap result{{s("uid"), s(uid)}, {s("title"), s(title)}, {s("order"), order}};
    if (!calendars.isEmpty()) {
        result.insert(s("source"), true);
        result.insert(s("calendars"), calendars);
    }
    return result;
}

QStringList titles(const CalendarList& list)
{
    QStringList out;
    for (const CalendarRef& row : list)
        out << row->title().toString();
    return out;
}

class NimbrelComTest : public ::testing::Test
{
protected:
    NimbrelComTest()
    {
        com.setProcessLookup([this](const QString& identifier) -> qint64 {
            asked << identifier;
            return identifier == kBackgroundAppIdentifier && backgroundRunning ? 4242 : 0;
        });
        com.setHandshakeTimeout(300);
        fence.addObserver(s("fence"), [this] { ++fences; });
    }

    // Starts the peer and activates the link against it: a good handshake reports nothing new.
    void activateConnected()
    {
        ASSERT_TRUE(peer.start());
        com.activate();
        ASSERT_TRUE(com.isConnected());
        ASSERT_EQ(delegate.take(), kRefresh);
    }

    // The peer posts `name`, then a fence on the link's connection; once the fence is in, the link
    // has handled `name`. Returns what the delegate heard meanwhile.
    QStringList deliver(const QString& name)
    {
        const int before = fences;
        EXPECT_TRUE(peer.post(name) && peer.post(s("fence")));
        EXPECT_TRUE(test::waitUntil([&] { return fences > before; }));
        return delegate.take();
    }

    VirtualRunLoop loop;
    MockDelegate delegate;
    test::FakeAppPeer peer;
    NotificationBus fence;
    int fences = 0;
    bool backgroundRunning = true;
    QStringList asked;
    NimbrelCom com{&delegate, Bundle(), &loop};
};

TEST_F(NimbrelComTest, ConnectWhileNotRunningOnlyEmptiesTheLists)
{
    backgroundRunning = false;
    ASSERT_TRUE(peer.start());
    com.activate();
    EXPECT_EQ(delegate.take(), kRefresh);
    EXPECT_EQ(asked, QStringList({kBackgroundAppIdentifier, kMenuBarAppIdentifier}));
    EXPECT_FALSE(com.backgroundAppRunning());
    EXPECT_TRUE(com.backgroundAppResponsive());
    EXPECT_EQ(com.proxy(), nullptr);
    EXPECT_EQ(com.bonjourInfo(), std::nullopt);
    EXPECT_EQ(loop.pendingPerformCount(), 0);

    com.googleServiceUpdate(); // no one to ask: not in progress
    EXPECT_EQ(delegate.take(), kBoth + QStringList{s("GoogleSync(0)")});
    EXPECT_TRUE(peer.calls().isEmpty());
}

TEST_F(NimbrelComTest, WrongVersionIsReportedButTheProxyStaysAndForwards)
{
    activateConnected();
    EXPECT_EQ(peer.callCount(s("version")), 1);
    peer.setVersion(4);
    com.connect();
    EXPECT_EQ(delegate.take(), QStringList{s("VersionError")} + kRefresh);
    ASSERT_TRUE(com.isConnected());
    EXPECT_TRUE(com.backgroundAppResponsive());
    EXPECT_EQ(loop.pendingPerformCount(), 0); // no retry

    const QVariantMap record = calendar("u1", "Home");
    const std::pair<void (NimbrelCom::*)(const QVariantMap&), const char*> forwarders[] = {
        {&NimbrelCom::setPublishOptions, "publishOptions"},
        {&NimbrelCom::setSubscribeOptions, "subscribeOptions"},
        {&NimbrelCom::setServerOptions, "bonjourIPServiceOptions"},
        {&NimbrelCom::disconnectServer, "disconnectBonjourIPService"},
        {&NimbrelCom::setGoogleOptions, "googleServiceOptions"},
        {&NimbrelCom::disconnectGoogle, "disconnectGoogleService"},
        {&NimbrelCom::publishToGoogle, "publishCalendarToGoogle"}};
    for (const auto& [forward, method] : forwarders) {
        (com.*forward)(record);
        ASSERT_TRUE(peer.waitForCall(s(method))) << method;
        EXPECT_EQ(peer.calls(s(method)).first().arguments, QVariantList{record}) << method;
    }
    com.setAutoCheckForUpdates(false);
    EXPECT_TRUE(peer.waitForCall(s("autoCheckForUpdatesChanged")));
}

TEST_F(NimbrelComTest, FailedHandshakeMarksNotRespondingAndRetriesAfterOneSecond)
{
    for (const char* mode : {"NotRegistered", "NeverReplies", "ErrorReply"}) {
        SCOPED_TRACE(mode);
        if (mode == std::string("NeverReplies"))
            peer.setNeverReply(s("version"));
        if (mode == std::string("ErrorReply"))
            peer.setErrorReply(s("version"), s("org.freedesktop.DBus.Error.Failed"));
        if (mode == std::string("NotRegistered")) {
            com.activate(); // the peer has not started yet
        } else {
            com.connect(); // as the retry and "Nimbrel Running" do
        }
        // The failure handler's disconnect refreshes once, the end of connect once more.
        EXPECT_EQ(delegate.take(), QStringList{s("StateChange(1,0)")} + kRefresh + kRefresh);
        EXPECT_FALSE(com.isConnected());
        EXPECT_FALSE(com.backgroundAppResponsive());

        // The retry meets a healthy peer and reports the recovery.
        peer.resetAnswers();
        ASSERT_TRUE(peer.start());
        const int attempts = peer.callCount(s("version"));
        EXPECT_EQ(loop.advance(0.99), 0);
        EXPECT_EQ(loop.advance(0.01), 1);
        EXPECT_EQ(peer.callCount(s("version")), attempts + 1);
        EXPECT_EQ(delegate.take(), QStringList{s("StateChange(1,1)")} + kRefresh);
        EXPECT_TRUE(com.isConnected());
        EXPECT_TRUE(com.backgroundAppResponsive());
    }
}

TEST_F(NimbrelComTest, RunningAndStoppedCancelTheTimersAndTellTheNewState)
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
        EXPECT_TRUE(com.backgroundAppResponsive());
        EXPECT_EQ(com.isConnected(), launched);
    }
    EXPECT_EQ(loop.advance(30.0), 0);
}

TEST_F(NimbrelComTest, EveryOtherNotificationReachesTheDelegateUntilDeactivated)
{
    peer.setGoogleSyncInProgress(true);
    activateConnected();
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

TEST_F(NimbrelComTest, BonjourInfoRequestsWaitForConfirmationOrTimeOut)
{
    const QVariantMap infoA{{s("name"), s("Desk")}, {s("port"), 8080}};
    const QVariantMap infoB{{s("name"), s("Laptop")}, {s("port"), 8080}};
    const QVariantMap infoC{{s("name"), s("Laptop")}, {s("port"), 9090}};
    peer.setBonjourInfo(infoA);
    activateConnected();
    EXPECT_EQ(com.bonjourInfo(), infoA);

    // Unchanged: answered at once, nothing sent, no timer.
    com.setBonjourInfo(infoA);
    EXPECT_EQ(delegate.take(), QStringList{s("NamePublished")});
    EXPECT_EQ(loop.pendingPerformCount(), 0);

    // Changed: sent (the first to leave); only the confirmation refreshes the cache, else the
    // time-out answers.
    com.setBonjourInfo(infoB);
    ASSERT_TRUE(peer.waitForCall(s("setBonjourPublisherInfo")));
    EXPECT_EQ(peer.calls(s("setBonjourPublisherInfo")).first().arguments, QVariantList{infoB});
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

    // A confirmation whose fetch fails leaves the cache present but empty.
    peer.setErrorReply(s("bonjourPublisherInfo"), s("org.freedesktop.DBus.Error.Failed"));
    EXPECT_EQ(deliver(s("Nimbrel Bonjour Name Published")), QStringList{s("NamePublished")});
    EXPECT_EQ(com.bonjourInfo(), QVariantMap());

    com.deactivate();
    EXPECT_EQ(delegate.take(), kRefresh);
    EXPECT_EQ(com.bonjourInfo(), std::nullopt);
}

TEST_F(NimbrelComTest, ListsAreFetchedOnceThenMergedInPlaceAndEmptiedByDisconnect)
{
    peer.setListAnswer(kPublishable, {calendar("b", "Alpha", 2), calendar("a", "Bravo", 1)});
    peer.setListAnswer(kBonjourSources,
                       {calendar("s2", "Zeta", 0, {calendar("c0", "Zero")}),
                        calendar("s1", "alpha", 0, {calendar("c1", "Home"), calendar("c2", "Work")})});
    activateConnected();
    const auto published = com.calendarsPublishableViaBonjour();
    const auto sources = com.sourceListOfBonjourCalendars();
    EXPECT_EQ(titles(*published), QStringList({s("Bravo"), s("Alpha")})); // by order
    EXPECT_EQ(titles(*sources), QStringList({s("alpha"), s("Zeta")}));    // by title
    const CalendarRef rowA = published->at(0), desk = sources->at(0), home = desk->children()->at(0);

    // The source of a calendar is looked up in the cached list only, never fetched.
    EXPECT_EQ(com.sourceOfCalendarWithDict(calendar("c1", "renamed")), desk);
    peer.setListAnswer(kPublishable, {calendar("a", "A renamed", 3), calendar("c", "C", 1)});
    peer.setListAnswer(kBonjourSources,
                       {calendar("s1", "alpha", 0, {calendar("c1", "Home 2"), calendar("c3", "Trips")})});
    EXPECT_EQ(com.sourceOfCalendarWithDict(calendar("c3", "Trips")), nullptr);
    for (const char* method : {"calendarsPublishableViaBonjour", "sourceListOfBonjourCalendars",
                               "calendarsPublishableToGoogle", "sourceListOfGoogleCalendars"})
        EXPECT_EQ(peer.callCount(s(method)), 1) << method;

    // A recalculation merges the fresh answer into the same list and row objects.
    com.calendarsChanged();
    EXPECT_EQ(delegate.take(), kBoth);
    EXPECT_EQ(com.calendarsPublishableViaBonjour(), published);
    EXPECT_EQ(titles(*published), QStringList({s("C"), s("A renamed")}));
    EXPECT_EQ(published->at(1), rowA);
    EXPECT_EQ(com.sourceListOfBonjourCalendars(), sources);
    EXPECT_EQ(*sources, CalendarList{desk});
    EXPECT_EQ(titles(*desk->children()), QStringList({s("Home 2"), s("Trips")}));
    EXPECT_EQ(desk->children()->at(0), home);
    EXPECT_EQ(com.sourceOfCalendarWithDict(calendar("c3", "Trips")), desk);
    EXPECT_EQ(peer.callCount(s("sourceListOfGoogleCalendars")), 2);

    // A fetch that fails (error reply, or an answer of the wrong type) leaves the rows as they were;
    // only a successful empty answer empties the list.
    peer.setErrorReply(kPublishable, s("org.freedesktop.DBus.Error.Failed"));
    com.calendarsChanged();
    EXPECT_EQ(titles(*published), QStringList({s("C"), s("A renamed")}));
    peer.resetAnswers();
    peer.setListAnswer(kBonjourSources, {});
    com.calendarsChanged();
    EXPECT_EQ(titles(*published), QStringList()); // the default answer is empty
    EXPECT_TRUE(sources->isEmpty());
    EXPECT_EQ(delegate.take(), kBoth + kBoth);

    com.deactivate();
    EXPECT_EQ(delegate.take(), kRefresh);
    for (const auto get :
         {&NimbrelCom::calendarsPublishableViaBonjour, &NimbrelCom::sourceListOfBonjourCalendars,
          &NimbrelCom::calendarsPublishableToGoogle, &NimbrelCom::sourceListOfGoogleCalendars})
        EXPECT_TRUE((com.*get)()->isEmpty());
    EXPECT_EQ(peer.callCount(kPublishable), 4);
}

// A pane is a QObject first and a delegate second: its delegate part lies at another address.
struct TwoBasedPane : QObject, MockDelegate
{
};

TEST_F(NimbrelComTest, RowRequestsLeaveAtOnceAndNoticeOnTheNextPassOnlyWhenDue)
{
    TwoBasedPane paneObject;
    NimbrelCom com{&paneObject, Bundle(), &loop};
    com.setProcessLookup([](const QString& identifier) { return identifier == kBackgroundAppIdentifier ? 1 : 0; });
    ASSERT_TRUE(peer.start());
    com.activate();
    ASSERT_EQ(paneObject.take(), kRefresh);
    MockDelegate& delegate = paneObject;
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
        EXPECT_EQ(peer.calls(method).last().arguments, QVariantList{row});
        EXPECT_EQ(loop.pendingPerformCount(pane), notice ? 1 : 0);
        EXPECT_TRUE(delegate.log.isEmpty());
        EXPECT_EQ(loop.runPending(), notice ? 1 : 0);
        EXPECT_EQ(delegate.take(), notice ? QStringList{s(notice)} : QStringList());
    }

    // The pane's cancel-all on its own address reaches a pending notice.
    QVariantMap published = calendar("x", "Home");
    published.insert(s("publishedToBonjour"), true);
    com.publishViaBonjour(published, true);
    ASSERT_EQ(loop.pendingPerformCount(pane), 1);
    loop.cancelAllPerformRequests(pane);
    EXPECT_EQ(loop.runPending(), 0);
    com.deactivate();
}

// ---- Shared settings ---------------------------------------------------------------------------

const QString kWelcome = s("welcome");
const QString kInterval = s("checkForUpdateInterval");

TEST_F(NimbrelComTest, FirstLaunchAnswersOnceAndMarksTheDomain)
{
    SettingsStore& domain = com.sharedSettings();
    // Stored "welcomed" and "welcome" (null: absent), then the answer and the welcome flag it yields.
    const std::tuple<QVariant, QVariant, bool, bool> cases[] = {
        {{}, {}, true, false},       {true, true, false, false},   {false, {}, true, false},
        {s("yes"), {}, true, false}, {qint64(1), {}, true, false}, {{}, true, true, true},
        {{}, false, true, false},    {{}, qint64(1), true, false}};
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& [welcomed, welcome, first, outWelcome] = cases[i];
        SCOPED_TRACE(i);
        ASSERT_TRUE(domain.setValue(s("welcomed"), welcomed) && domain.setValue(kWelcome, welcome));
        bool answer = true;
        EXPECT_EQ(com.firstLaunch(&answer), first);
        EXPECT_EQ(answer, outWelcome);
        const SettingsStore disk(domain.path()); // as the background application sees it
        EXPECT_EQ(disk.boolValue(s("welcomed")), std::optional<bool>(true));
        EXPECT_EQ(disk.value(kWelcome), first ? QVariant() : welcome); // read once, whatever its type
        answer = true;
        EXPECT_FALSE(com.firstLaunch(&answer));
        EXPECT_FALSE(answer);
    }
}

TEST_F(NimbrelComTest, UpdateCheckIntervalAndLastCheckTime)
{
    // A background application of its own identifier whose built-in defaults turn checking off.
    const QString pane = QDir(test::makeTempDir()).filePath(s("Test.prefPane"));
    const QString app = pane + s("/Resources/Nimbrel.app");
    ASSERT_TRUE(QDir().mkpath(app + s("/Resources")));
    ASSERT_TRUE(plist::writeFile(pane + s("/Info.plist"), QVariantMap()));
    ASSERT_TRUE(
        plist::writeFile(app + s("/Info.plist"), QVariantMap{{s("CFBundleIdentifier"), s("org.example.a")}}));
    ASSERT_TRUE(plist::writeFile(app + s("/Resources/UserDefaults.plist"), QVariantMap{{kInterval, 1e9}}));
    NimbrelCom off(&delegate, Bundle(pane), &loop);
    EXPECT_EQ(off.sharedSettings().path(), SettingsStore::domainPath(s("org.example.a")));

    // Per link, the stored interval (null: absent) and whether automatic checking is then on.
    const std::pair<NimbrelCom*, std::vector<std::pair<QVariant, bool>>> cases[] = {
        {&com, {{{}, true}, {86400.0, true}, {1e9, false}, {999999999.0, true}, {qint64(1000000000), false}}},
        {&off, {{{}, false}, {86400.0, true}, {s("5"), false}}}};
    for (const auto& [link, rows] : cases) {
        for (const auto& [stored, on] : rows) {
            ASSERT_TRUE(link->sharedSettings().setValue(kInterval, stored));
            EXPECT_EQ(link->autoCheckForUpdates(), on) << (link == &off) << qPrintable(stored.toString());
        }
    }
    for (const bool on : {true, false, true}) {
        off.setAutoCheckForUpdates(on);
        const SettingsStore disk(off.sharedSettings().path());
        EXPECT_EQ(disk.numberValue(kInterval), std::optional<double>(on ? 86400.0 : 1e9));
        EXPECT_EQ(off.autoCheckForUpdates(), on);
    }

    const QDateTime checked = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);
    const QDateTime reference = QDateTime::fromSecsSinceEpoch(978307200, Qt::UTC); // 2001-01-01
    const std::pair<QVariant, QDateTime> times[] = {{checked, checked},
                                                    {QVariant(), reference},
                                                    {s("2023-11-14T22:13:20Z"), reference},
                                                    {qint64(1700000000), reference}};
    for (const auto& [stored, expected] : times) {
        ASSERT_TRUE(com.sharedSettings().setValue(s("SULastCheckTime"), stored));
        EXPECT_EQ(com.lastUpdateCheckTime(), expected) << qPrintable(stored.toString());
    }
}

} // namespace
} // namespace nimbrel
