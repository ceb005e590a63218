// The real background application, started and stopped through the link on a private bus, with the
// test's own HOME: start and handshake, state that survives a restart, shutdown, a frozen process, the
// database reset, the login item, the stand-alone update check and the single instance.

#include "support/MockDelegate.h"
#include "link/NimbrelCom.h"
#include "platform/Bundle.h"
#include "platform/LoginItemsAE.h"
#include "platform/VirtualRunLoop.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <csignal>
#include <gtest/gtest.h>

namespace nimbrel {
namespace {

using nimbrel::test::s;

// The background application of this test: a process running the build tree's executable with this
// test's HOME. Other tests (and a Nimbrel the developer runs) are left alone.
qint64 ourBackgroundApp(const QString& executable)
{
    const QByteArray home = "HOME=" + QDir::homePath().toUtf8();
    const QStringList pids = QDir(s("/proc")).entryList({s("[0-9]*")}, QDir::Dirs);
    for (const QString& pid : pids) {
        if (QFileInfo(s("/proc/%1/exe").arg(pid)).symLinkTarget() != executable)
            continue;
        QFile environ(s("/proc/%1/environ").arg(pid));
        if (environ.open(QIODevice::ReadOnly) && environ.readAll().split('\0').contains(home))
            return pid.toLongLong();
    }
    return 0;
}

bool processGone(qint64 pid)
{
    // A detached child is reaped by init; a zombie of ours would still be "there".
    QFile status(s("/proc/%1/status").arg(pid));
    return !status.open(QIODevice::ReadOnly) || status.readAll().contains("State:\tZ");
}

class BackgroundAppTest : public ::testing::Test
{
protected:
    BackgroundAppTest()
    {
        // The application checks for updates on start; it reads a local feed, never the network.
        feed = test::makeTempDir() + s("/appcast.xml");
        QFile file(feed);
        file.open(QIODevice::WriteOnly);
        file.write(
            "<?xml version=\"1.0\"?><rss version=\"2.0\"><channel><title>Nimbrel</title></channel></rss>");
        file.close();
        qputenv("NIMBREL_UPDATE_FEED", QUrl::fromLocalFile(feed).toString().toUtf8());

        executable = Bundle(com.backgroundAppPath()).executablePath();
        com.setProcessLookup([this](const QString& identifier) -> qint64 {
            return identifier == kBackgroundAppIdentifier ? ourBackgroundApp(executable) : 0;
        });
        com.setHandshakeTimeout(1000);
        com.activate();
        delegate.take();
    }

    ~BackgroundAppTest() override
    {
        if (const qint64 pid = ourBackgroundApp(executable)) {
            ::kill(static_cast<pid_t>(pid), SIGCONT);
            ::kill(static_cast<pid_t>(pid), SIGKILL);
        }
    }

    // Waits for the delegate to hear `entry`; returns everything heard up to and including it.
    bool heard(const QString& entry, int timeoutMs = 20000)
    {
        const bool ok = test::waitUntil([&] { return delegate.log.contains(entry); }, timeoutMs);
        delegate.take();
        return ok;
    }

    bool start()
    {
        com.setBackgroundAppRunning(true);
        return heard(s("StateChange(1,1)"));
    }

    bool stop()
    {
        const qint64 pid = ourBackgroundApp(executable);
        com.setBackgroundAppRunning(false);
        return heard(s("StateChange(0,1)")) && test::waitUntil([&] { return processGone(pid); });
    }

    VirtualRunLoop loop;
    test::MockDelegate delegate;
    NimbrelCom com{&delegate, Bundle(test::paneBundlePath()), &loop};
    QString executable;
    QString feed;
};

TEST_F(BackgroundAppTest, StartsServesAndStopsWithItsLoginItem)
{
    const QString entry = loginItemsFolder() + s("/com.quorvia.Nimbrel.desktop");
    ASSERT_TRUE(start());
    EXPECT_TRUE(com.isConnected());
    EXPECT_EQ(com.proxy()->version(), 5);
    EXPECT_TRUE(QFile::exists(entry));
    EXPECT_TRUE(com.launchBackgroundAppAtStartup());

    ASSERT_TRUE(stop());
    EXPECT_FALSE(com.isConnected());
    EXPECT_FALSE(QFile::exists(entry));
    loop.advance(30); // the confirmation cancelled the time-out
    EXPECT_TRUE(delegate.take().isEmpty());

    com.setStartsAtLogin(true, com.menuBarAppPath());
    EXPECT_TRUE(QFile::exists(loginItemsFolder() + s("/com.quorvia.Nimbrel.menu.desktop")));
    com.setStartsAtLogin(false, com.menuBarAppPath());
    EXPECT_FALSE(QFile::exists(loginItemsFolder() + s("/com.quorvia.Nimbrel.menu.desktop")));
}

TEST_F(BackgroundAppTest, APublishedCalendarStaysPublishedAcrossARestart)
{
    ASSERT_TRUE(start());
    const std::shared_ptr<CalendarList> calendars = com.calendarsPublishableViaBonjour();
    ASSERT_GE(calendars->size(), 2); // a new user gets "Home" and "Work"
    const CalendarRef first = calendars->first();
    const QString uid = first->uid().toString();
    first->setPublishedToBonjour(true);
    ASSERT_TRUE(heard(s("Published")));

    ASSERT_TRUE(stop());
    ASSERT_TRUE(start());
    const CalendarRef again = com.calendarWithDict({{s("uid"), uid}}, *com.calendarsPublishableViaBonjour());
    ASSERT_NE(again, nullptr);
    EXPECT_TRUE(again->publishedToBonjour().toBool());
}

TEST_F(BackgroundAppTest, AFrozenApplicationIsNotRespondingUntilItThaws)
{
    ASSERT_TRUE(start());
    const qint64 pid = ourBackgroundApp(executable);
    ASSERT_EQ(::kill(static_cast<pid_t>(pid), SIGSTOP), 0);
    com.setBackgroundAppRunning(false); // the shutdown request is never handled
    loop.advance(20);
    EXPECT_EQ(delegate.take().value(0), s("StateChange(1,0)"));
    loop.advance(1); // a retry: the handshake times out again
    EXPECT_EQ(delegate.take().value(0), s("StateChange(1,0)"));

    // Thawed, it handles the queued shutdown and says so.
    ASSERT_EQ(::kill(static_cast<pid_t>(pid), SIGCONT), 0);
    EXPECT_TRUE(heard(s("StateChange(0,1)")));
    EXPECT_TRUE(test::waitUntil([&] { return processGone(pid); }));
}

TEST_F(BackgroundAppTest, ResetLeavesABackupAndAFreshDatabase)
{
    ASSERT_TRUE(start());
    ASSERT_TRUE(com.backgroundAppDatabaseExists());
    com.resetDatabase();
    ASSERT_TRUE(heard(s("ResetFinished(1)")));
    const QString backup =
        QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + s("/Nimbrel/Backup");
    EXPECT_GE(QDir(backup).entryList({s("*.ics")}, QDir::Files).size(), 2);
    EXPECT_FALSE(com.launchBackgroundAppAtStartup());
    EXPECT_GE(com.calendarsPublishableViaBonjour()->size(), 2); // the calendars themselves stay
}

TEST_F(BackgroundAppTest, StandAloneUpdateCheckWritesTheCheckTime)
{
    const QDateTime before = QDateTime::currentDateTimeUtc().addSecs(-1);
    com.checkForUpdate(); // not running: runs the executable and waits for it
    EXPECT_EQ(delegate.take(), QStringList{s("CheckedForUpdate")});
    EXPECT_GE(com.lastUpdateCheckTime(), before);
    EXPECT_EQ(ourBackgroundApp(executable), 0);
}

TEST_F(BackgroundAppTest, ASecondInstanceExitsAtOnce)
{
    ASSERT_TRUE(start());
    QProcess second;
    second.start(executable, {});
    ASSERT_TRUE(second.waitForFinished(10000));
    EXPECT_NE(second.exitCode(), 0);
    EXPECT_TRUE(second.readAllStandardError().contains("already running"));
}

} // namespace
} // namespace nimbrel
