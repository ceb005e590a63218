// NimbrelCom starting and stopping the companions and keeping their login items, the requests that
// wait for a confirmation (update check, database reset), the support requests, and the shared settings.

#include "link/LinkFixture.h"
#include "platform/LoginItemsAE.h"
#include "platform/SettingsStore.h"

#include <QStandardPaths>

namespace nimbrel::test {
namespace {

TEST_F(LinkTest, StartingAnswersOnRunningOrEndsNotRespondingAndKeepsRetrying)
{
    activate(false);
    com.setBackgroundAppRunning(true);
    EXPECT_EQ(launched, QStringList{s("Nimbrel.app")});
    EXPECT_TRUE(loginItem());
    EXPECT_TRUE(delegate.take().isEmpty()); // the state stays until confirmed
    backgroundRunning = true;
    EXPECT_EQ(deliver(s("Nimbrel Running")).first(), s("StateChange(1,1)"));
    loop.advance(60);
    EXPECT_TRUE(delegate.take().isEmpty()); // the time-out is gone

    // Asked for what already holds: answered at once, nothing launched, no timer, login item untouched.
    ASSERT_EQ(LIAERemove(0), noErr);
    com.setBackgroundAppRunning(true);
    EXPECT_EQ(delegate.take(), QStringList{s("StateChange(1,1)")});
    EXPECT_EQ(launched.size(), 1);
    EXPECT_EQ(loop.pendingPerformCount(), 0);
    EXPECT_FALSE(loginItem());

    // A launch that never answers: not responding after 20 s, then an attempt each second while the
    // process exists; the first that answers 5 recovers.
    activate(false);
    com.setBackgroundAppRunning(true);
    backgroundRunning = true;
    peer.stop();
    loop.advance(19.9);
    EXPECT_TRUE(delegate.take().isEmpty());
    loop.advance(0.1);
    EXPECT_EQ(delegate.take().first(), s("StateChange(1,0)"));
    loop.advance(1.0);
    EXPECT_EQ(delegate.take().first(), s("StateChange(1,0)"));
    ASSERT_TRUE(peer.start());
    loop.advance(1.0);
    EXPECT_EQ(delegate.take().first(), s("StateChange(1,1)"));
    EXPECT_EQ(loop.pendingPerformCount(), 0);
}

TEST_F(LinkTest, StoppingSendsShutdownRemovesTheLoginItemAndSilenceEndsNotResponding)
{
    com.setStartsAtLogin(true, com.backgroundAppPath());
    activate();
    com.setBackgroundAppRunning(false);
    EXPECT_TRUE(peer.waitForCall(s("shutdown")));
    EXPECT_FALSE(loginItem());
    backgroundRunning = false;
    EXPECT_EQ(deliver(s("Nimbrel Stopped")).first(), s("StateChange(0,1)"));
    EXPECT_FALSE(com.isConnected());

    // An application that quits without saying so ends "not responding", not "stopped".
    activate();
    com.setBackgroundAppRunning(false);
    backgroundRunning = false;
    loop.advance(20);
    EXPECT_EQ(delegate.take().first(), s("StateChange(0,0)"));

    // stopBackgroundApp only asks: no timer, no login item change.
    com.setStartsAtLogin(true, com.backgroundAppPath());
    activate();
    const int pending = loop.pendingPerformCount();
    com.stopBackgroundApp();
    EXPECT_TRUE(peer.waitForCall(s("shutdown"), 5000, 2));
    EXPECT_EQ(loop.pendingPerformCount(), pending);
    EXPECT_TRUE(loginItem());
}

TEST_F(LinkTest, MenuBarAppStartsAndQuitsWithoutWaiting)
{
    activate(false);
    com.setMenuBarAppRunning(true);
    EXPECT_EQ(launched, QStringList{s("NimbrelMenu.app")});
    EXPECT_TRUE(com.menuBarAppRunning() && com.launchMenuBarAppAtStartup());
    EXPECT_FALSE(com.launchBackgroundAppAtStartup());
    menuRunning = true;
    com.setMenuBarAppRunning(true); // already so: nothing
    EXPECT_EQ(launched.size(), 1);
    com.setMenuBarAppRunning(false);
    EXPECT_EQ(terminated, QList<qint64>{4343});
    EXPECT_FALSE(com.menuBarAppRunning()); // recorded at once, whatever the process does
    EXPECT_FALSE(com.launchMenuBarAppAtStartup());
    EXPECT_TRUE(delegate.take().isEmpty());
}

TEST_F(LinkTest, LoginItemsMatchByPlainURLWithoutResolvingLinks)
{
    const QString link = makeTempDir() + s("/linked.prefPane");
    ASSERT_TRUE(QFile::link(com.bundle().bundlePath(), link));
    NimbrelCom viaLink(&delegate, Bundle(link), &loop);
    viaLink.setStartsAtLogin(true, viaLink.backgroundAppPath());
    EXPECT_TRUE(viaLink.launchBackgroundAppAtStartup());
    EXPECT_FALSE(com.launchBackgroundAppAtStartup()); // the same bundle, reached by another path
    // Adding through the real path rewrites the entry (one per bundle identifier), which now names it.
    com.setStartsAtLogin(true, com.backgroundAppPath());
    EXPECT_TRUE(com.launchBackgroundAppAtStartup());
    EXPECT_FALSE(viaLink.launchBackgroundAppAtStartup());
}

TEST_F(LinkTest, UpdateCheckIsConfirmedOrTimesOutAndWithoutTheApplicationWaitsForTheChild)
{
    activate();
    com.checkForUpdate();
    com.checkForUpdate();
    EXPECT_TRUE(peer.waitForCall(s("checkForUpdate"), 5000, 2));
    EXPECT_EQ(deliver(s("Nimbrel Bonjour Checked Update")), QStringList{s("CheckedForUpdate")}); // ends both
    loop.advance(30);
    EXPECT_TRUE(delegate.take().isEmpty());
    com.checkForUpdate();
    loop.advance(20);
    EXPECT_EQ(delegate.take(), QStringList{s("CheckedForUpdate")});

    activate(false);
    com.checkForUpdate();
    EXPECT_TRUE(QFile::exists(QDir::homePath() + s("/checked"))); // the child ended before it returned
    EXPECT_EQ(delegate.take(), QStringList{s("CheckedForUpdate")});
    EXPECT_EQ(peer.callCount(s("checkForUpdate")), 3); // none from the stand-alone check
}

TEST_F(LinkTest, DatabaseResetAnswersAtOnceWithoutADatabaseElseWaitsNinetySeconds)
{
    activate();
    com.setStartsAtLogin(true, com.backgroundAppPath());
    com.resetDatabase();
    EXPECT_EQ(delegate.take(), QStringList{s("ResetFinished(1)")});
    EXPECT_FALSE(loginItem());
    EXPECT_EQ(loop.pendingPerformCount(), 0);

    writeFile(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
                  s("/Nimbrel/Nimbrel.nsql"),
              "x");
    ASSERT_TRUE(com.backgroundAppDatabaseExists());
    com.resetDatabase();
    EXPECT_TRUE(peer.waitForCall(s("resetDatabase")));
    EXPECT_EQ(deliver(s("Nimbrel Reset")), QStringList{s("ResetFinished(1)")});
    loop.advance(100);
    EXPECT_TRUE(delegate.take().isEmpty());
    com.resetDatabase();
    loop.advance(89.9);
    EXPECT_TRUE(delegate.take().isEmpty());
    loop.advance(0.1);
    EXPECT_EQ(delegate.take(), QStringList{s("ResetFinished(0)")});
    EXPECT_EQ(deliver(s("Nimbrel Reset")), QStringList{s("ResetFinished(1)")}); // nobody waits: still told
}

// The support request waits for the application's answer, and the reset date is in the settings before
// the application hears that the history was reset.
TEST_F(LinkTest, SupportInfoWaitsForTheAnswerAndTheResetDateIsWrittenFirst)
{
    activate();
    peer.setReplyDelay(s("techSupportInfo"), 300);
    com.techSupportInfo();
    EXPECT_TRUE(peer.calls(s("techSupportInfo")).value(0).answered);

    SettingsStore settings(SettingsStore::domainPath(kBackgroundAppIdentifier));
    std::optional<bool> dateWasThere;
    AppProtocolProxy::setOutgoingObserver([&](const QString& method) {
        if (method == s("syncHistoryWasReset"))
            dateWasThere = SettingsStore(settings.path()).dateValue(s("lastResetDate")).has_value();
    });
    com.syncHistoryWasReset();
    AppProtocolProxy::setOutgoingObserver({});
    EXPECT_EQ(dateWasThere, std::optional<bool>(true));
}

TEST_F(LinkTest, FirstLaunchAnswersOnceAndMarksTheDomain)
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
        ASSERT_TRUE(domain.setValue(s("welcomed"), welcomed) && domain.setValue(s("welcome"), welcome));
        bool answer = true;
        EXPECT_EQ(com.firstLaunch(&answer), first);
        EXPECT_EQ(answer, outWelcome);
        const SettingsStore disk(domain.path()); // as the background application sees it
        EXPECT_EQ(disk.boolValue(s("welcomed")), std::optional<bool>(true));
        EXPECT_EQ(disk.value(s("welcome")), first ? QVariant() : welcome); // read once, whatever its type
        EXPECT_FALSE(com.firstLaunch(&answer) || answer);
    }
}

TEST_F(LinkTest, UpdateCheckIntervalAndLastCheckTime)
{
    // A background application whose built-in defaults turn checking off.
    const QString pane = makeTempDir() + s("/Test.prefPane");
    writePlist(pane + s("/Info.plist"), QVariantMap());
    const QString app = makeAppBundle(pane + s("/Resources/Nimbrel.app"), s("org.example.a"));
    const QString interval = s("checkForUpdateInterval");
    writePlist(app + s("/Resources/UserDefaults.plist"), QVariantMap{{interval, 1e9}});
    NimbrelCom off(&delegate, Bundle(pane), &loop);
    EXPECT_EQ(off.sharedSettings().path(), SettingsStore::domainPath(s("org.example.a")));

    // Per link, the stored interval (null: absent) and whether automatic checking is then on.
    const std::pair<NimbrelCom*, std::vector<std::pair<QVariant, bool>>> cases[] = {
        {&com, {{{}, true}, {86400.0, true}, {1e9, false}, {999999999.0, true}, {qint64(1000000000), false}}},
        {&off, {{{}, false}, {86400.0, true}, {s("5"), false}}}};
    for (const auto& [link, rows] : cases) {
        for (const auto& [stored, on] : rows) {
            ASSERT_TRUE(link->sharedSettings().setValue(interval, stored));
            EXPECT_EQ(link->autoCheckForUpdates(), on) << (link == &off) << qPrintable(stored.toString());
        }
    }
    for (const bool on : {true, false, true}) {
        off.setAutoCheckForUpdates(on);
        EXPECT_EQ(SettingsStore(off.sharedSettings().path()).numberValue(interval),
                  std::optional<double>(on ? 86400.0 : 1e9));
        EXPECT_EQ(off.autoCheckForUpdates(), on);
    }
    const QDateTime checked = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);
    const QDateTime reference = QDateTime::fromSecsSinceEpoch(978307200, Qt::UTC); // 2001-01-01
    for (const auto& [stored, expected] : {std::pair<QVariant, QDateTime>{checked, checked},
                                           {QVariant(), reference},
                                           {s("2023-11-14T22:13:20Z"), reference},
                                           {qint64(1700000000), reference}}) {
        ASSERT_TRUE(com.sharedSettings().setValue(s("SULastCheckTime"), stored));
        EXPECT_EQ(com.lastUpdateCheckTime(), expected) << qPrintable(stored.toString());
    }
}

} // namespace
} // namespace nimbrel::test
