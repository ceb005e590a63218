// NimbrelCom starting and stopping the companions, their login items, and the requests that wait for a
// confirmation (update check, database reset), against the fake background application in virtual time.

#include "link/FakeAppPeer.h"
#include "link/MockDelegate.h"
#include "link/NimbrelCom.h"
#include "protocol/NotificationBus.h"
#include "platform/LoginItemsAE.h"
#include "platform/PlistCodec.h"
#include "platform/SettingsStore.h"
#include "platform/VirtualRunLoop.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <gtest/gtest.h>

namespace nimbrel {
namespace {

using nimbrel::test::s;

void writeFile(const QString& path, const QByteArray& bytes, bool executable = false)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
    file.close();
    if (executable)
        file.setPermissions(file.permissions() | QFile::ExeOwner);
}

void writeAppBundle(const QString& path, const QString& identifier, const QString& executable,
                    const QByteArray& script)
{
    const QVariantMap info{{s("CFBundleIdentifier"), identifier}, {s("CFBundleExecutable"), executable}};
    QDir().mkpath(path);
    ASSERT_TRUE(plist::writeFile(path + s("/Info.plist"), info));
    writeFile(path + u'/' + executable, script, true);
}

// A pane bundle with both companions; the background application's executable is a script that, run
// with -sparkle, takes a moment and then leaves a mark, so a test can tell that the link waited.
QString makePaneBundle()
{
    const QString pane = test::makeTempDir() + s("/Nimbrel.prefPane");
    QDir().mkpath(pane);
    EXPECT_TRUE(plist::writeFile(pane + s("/Info.plist"), QVariantMap{{s("CFBundleIdentifier"), s("pane")}}));
    writeAppBundle(pane + s("/Resources/Nimbrel.app"), kBackgroundAppIdentifier, s("Nimbrel"),
                   "#!/bin/sh\n[ \"$1\" = -sparkle ] && sleep 0.3 && touch \"$HOME/checked\"\n");
    writeAppBundle(pane + s("/Resources/NimbrelMenu.app"), kMenuBarAppIdentifier, s("NimbrelMenu"),
                   "#!/bin/sh\n");
    return pane;
}

class CompanionControlTest : public ::testing::Test
{
protected:
    CompanionControlTest()
    {
        com.setProcessLookup([this](const QString& identifier) -> qint64 {
            if (identifier == kBackgroundAppIdentifier)
                return backgroundRunning ? 4242 : 0;
            return menuRunning ? 4343 : 0;
        });
        com.setApplicationLauncher([this](const QString& path) {
            launched << QFileInfo(path).fileName();
            return true;
        });
        com.setApplicationTerminator([this](qint64 pid) { terminated << pid; });
        com.setHandshakeTimeout(300);
        fence.addObserver(s("fence"), [this] { ++fences; });
    }

    void activate(bool running)
    {
        backgroundRunning = running;
        ASSERT_TRUE(peer.start());
        com.activate();
        delegate.take();
    }

    QStringList deliver(const QString& name)
    {
        const int before = fences;
        EXPECT_TRUE(peer.post(name) && peer.post(s("fence")));
        EXPECT_TRUE(test::waitUntil([&] { return fences > before; }));
        return delegate.take();
    }

    bool loginItem(const QString& app)
    {
        return com.startsAtLogin(com.bundle().pathForResource(app, s("app")));
    }

    VirtualRunLoop loop;
    test::MockDelegate delegate;
    test::FakeAppPeer peer;
    NotificationBus fence;
    int fences = 0;
    bool backgroundRunning = false;
    bool menuRunning = false;
    QStringList launched;
    QList<qint64> terminated;
    NimbrelCom com{&delegate, Bundle(makePaneBundle()), &loop};
};

TEST_F(CompanionControlTest, StartingAnswersOnRunningOrAfterTwentySeconds)
{
    activate(false);
    com.setBackgroundAppRunning(true);
    EXPECT_EQ(launched, QStringList{s("Nimbrel.app")});
    EXPECT_TRUE(loginItem(s("Nimbrel")));
    EXPECT_TRUE(delegate.take().isEmpty()); // the state stays until confirmed

    // The application comes up and says so: the time-out is gone.
    backgroundRunning = true;
    EXPECT_EQ(deliver(s("Nimbrel Running")).first(), s("StateChange(1,1)"));
    EXPECT_TRUE(com.isConnected());
    loop.advance(60);
    EXPECT_TRUE(delegate.take().isEmpty());

    // Asked for what already holds: answered at once, nothing launched, no timer, login item untouched.
    ASSERT_EQ(LIAERemove(0), noErr);
    com.setBackgroundAppRunning(true);
    EXPECT_EQ(delegate.take(), QStringList{s("StateChange(1,1)")});
    EXPECT_EQ(launched.size(), 1);
    EXPECT_EQ(loop.pendingPerformCount(), 0);
    EXPECT_FALSE(loginItem(s("Nimbrel")));
}

TEST_F(CompanionControlTest, ALaunchThatNeverAnswersEndsNotRespondingAndKeepsRetrying)
{
    activate(false);
    com.setBackgroundAppRunning(true);
    backgroundRunning = true; // the process exists but never serves
    peer.stop();
    loop.advance(19.9);
    EXPECT_TRUE(delegate.take().isEmpty());
    loop.advance(0.1);
    EXPECT_EQ(delegate.take().first(), s("StateChange(1,0)"));
    EXPECT_FALSE(com.backgroundAppResponsive());

    // Each second another attempt while the process exists; the first that answers 5 recovers.
    loop.advance(1.0);
    EXPECT_EQ(delegate.take().first(), s("StateChange(1,0)"));
    ASSERT_TRUE(peer.start());
    loop.advance(1.0);
    EXPECT_EQ(delegate.take().first(), s("StateChange(1,1)"));
    EXPECT_EQ(loop.pendingPerformCount(), 0);
}

TEST_F(CompanionControlTest, StoppingSendsShutdownAndRemovesTheLoginItem)
{
    com.setStartsAtLogin(true, com.backgroundAppPath());
    activate(true);
    com.setBackgroundAppRunning(false);
    EXPECT_TRUE(peer.waitForCall(s("shutdown")));
    EXPECT_FALSE(loginItem(s("Nimbrel")));
    backgroundRunning = false;
    EXPECT_EQ(deliver(s("Nimbrel Stopped")).first(), s("StateChange(0,1)"));
    EXPECT_FALSE(com.isConnected());
    loop.advance(60);
    EXPECT_TRUE(delegate.take().isEmpty());

    // An application that quits without saying so ends "not responding", not "stopped".
    activate(true);
    com.setBackgroundAppRunning(false);
    backgroundRunning = false;
    loop.advance(20);
    EXPECT_EQ(delegate.take().first(), s("StateChange(0,0)"));

    // stopBackgroundApp only asks: no timer, no login item change.
    com.setStartsAtLogin(true, com.backgroundAppPath());
    activate(true);
    peer.clearCalls();
    const int pending = loop.pendingPerformCount();
    com.stopBackgroundApp();
    EXPECT_TRUE(peer.waitForCall(s("shutdown")));
    EXPECT_EQ(loop.pendingPerformCount(), pending);
    EXPECT_TRUE(loginItem(s("Nimbrel")));
}

TEST_F(CompanionControlTest, MenuBarAppStartsAndQuitsWithoutWaiting)
{
    activate(false);
    com.setMenuBarAppRunning(true);
    EXPECT_EQ(launched, QStringList{s("NimbrelMenu.app")});
    EXPECT_TRUE(com.menuBarAppRunning());
    EXPECT_TRUE(com.launchMenuBarAppAtStartup());
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

TEST_F(CompanionControlTest, LoginItemsMatchByPlainURLWithoutResolvingLinks)
{
    const QString link = test::makeTempDir() + s("/linked.prefPane");
    ASSERT_TRUE(QFile::link(com.bundle().bundlePath(), link));
    NimbrelCom viaLink(&delegate, Bundle(link), &loop);
    viaLink.setStartsAtLogin(true, viaLink.backgroundAppPath());
    EXPECT_TRUE(viaLink.launchBackgroundAppAtStartup());
    EXPECT_FALSE(com.launchBackgroundAppAtStartup()); // the same bundle, reached by another path

    // Adding through the real path rewrites the entry (one per bundle identifier), which now names it.
    com.setStartsAtLogin(true, com.backgroundAppPath());
    std::unique_ptr<QVariantList> items;
    ASSERT_EQ(LIAECopyLoginItems(&items), noErr);
    EXPECT_EQ(items->size(), 1);
    EXPECT_TRUE(com.launchBackgroundAppAtStartup());
    EXPECT_FALSE(viaLink.launchBackgroundAppAtStartup());
}

TEST_F(CompanionControlTest, UpdateCheckIsConfirmedOrTimesOut)
{
    activate(true);
    com.checkForUpdate();
    com.checkForUpdate();
    EXPECT_TRUE(peer.waitForCall(s("checkForUpdate"), 5000, 2));
    // One confirmation ends both waits.
    EXPECT_EQ(deliver(s("Nimbrel Bonjour Checked Update")), QStringList{s("CheckedForUpdate")});
    loop.advance(30);
    EXPECT_TRUE(delegate.take().isEmpty());

    com.checkForUpdate();
    loop.advance(20);
    EXPECT_EQ(delegate.take(), QStringList{s("CheckedForUpdate")});
}

TEST_F(CompanionControlTest, UpdateCheckWithoutTheApplicationWaitsForTheChild)
{
    activate(false);
    const QString mark = QDir::homePath() + s("/checked");
    com.checkForUpdate();
    EXPECT_TRUE(QFile::exists(mark)); // the child ran to its end before checkForUpdate returned
    EXPECT_EQ(delegate.take(), QStringList{s("CheckedForUpdate")});
    EXPECT_EQ(peer.callCount(s("checkForUpdate")), 0);
}

TEST_F(CompanionControlTest, DatabaseResetAnswersAtOnceWithoutADatabaseElseWaitsNinetySeconds)
{
    activate(true);
    com.setStartsAtLogin(true, com.backgroundAppPath());
    com.resetDatabase();
    EXPECT_EQ(delegate.take(), QStringList{s("ResetFinished(1)")});
    EXPECT_FALSE(loginItem(s("Nimbrel")));
    EXPECT_EQ(loop.pendingPerformCount(), 0);

    const QString database =
        QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + s("/Nimbrel/Nimbrel.nsql");
    writeFile(database, "x");
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

    // A confirmation nobody waits for still reaches the pane.
    EXPECT_EQ(deliver(s("Nimbrel Reset")), QStringList{s("ResetFinished(1)")});
}

TEST_F(CompanionControlTest, SupportRequestsReachTheApplication)
{
    activate(true);
    com.syncHistoryWillBeReset();
    EXPECT_TRUE(peer.waitForCall(s("syncHistoryWillBeReset")));
    com.syncHistoryWasReset();
    EXPECT_TRUE(peer.waitForCall(s("syncHistoryWasReset")));
    SettingsStore settings(SettingsStore::domainPath(kBackgroundAppIdentifier));
    EXPECT_TRUE(settings.dateValue(s("lastResetDate")).has_value());

    com.log(s("100% %d %@ done"));
    ASSERT_TRUE(peer.waitForCall(s("log")));
    EXPECT_EQ(peer.calls(s("log")).first().arguments, QVariantList{s("100% %d %@ done")});

    // techSupportInfo waits for the reply: the slow answer is in before it returns.
    peer.setReplyDelay(s("techSupportInfo"), 200);
    com.techSupportInfo();
    EXPECT_EQ(peer.callCount(s("techSupportInfo")), 1);
}

} // namespace
} // namespace nimbrel
