// The real background application in a process of its own with the test's HOME: started and stopped
// through the link (with its login item), and the stand-alone update check.

#include "background/BackgroundTestSupport.h"
#include "link/AppProtocolProxy.h"
#include "support/MockDelegate.h"
#include "link/NimbrelCom.h"
#include "platform/Bundle.h"
#include "platform/LoginItemsAE.h"
#include "platform/VirtualRunLoop.h"

#include <QStandardPaths>
#include <csignal>

namespace nimbrel {
namespace {

using namespace background::test;
const QString kDataFolder =
    QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + s("/Nimbrel");
// The application of this test's HOME: the holder of its data folder's lock, while it is alive.
qint64 ourBackgroundApp()
{
    const qint64 pid = readFile(kDataFolder + s("/Nimbrel.lock")).split('\n').value(0).toLongLong();
    const QByteArray status = readFile(s("/proc/%1/status").arg(pid));
    return pid > 0 && !status.isEmpty() && !status.contains("State:\tZ") ? pid : 0;
}

class BackgroundAppTest : public ::testing::Test
{
protected:
    BackgroundAppTest()
    {
        // Update checks read a local feed, never the network.
        const QString feed = makeTempDir() + s("/appcast.xml");
        writeFile(feed, "<rss version=\"2.0\"><channel/></rss>");
        qputenv("NIMBREL_UPDATE_FEED", feed.toUtf8());
        com.setProcessLookup(
            [](const QString& id) { return id == kBackgroundAppIdentifier ? ourBackgroundApp() : 0; });
        com.setHandshakeTimeout(1000);
        com.activate();
        delegate.take();
    }
    ~BackgroundAppTest() override
    {
        if (const qint64 pid = ourBackgroundApp())
            ::kill(static_cast<pid_t>(pid), SIGKILL);
    }
    bool heard(const QString& entry)
    {
        const bool ok = nimbrel::test::waitUntil([&] { return delegate.log.contains(entry); }, 20000);
        delegate.take();
        return ok;
    }
    VirtualRunLoop loop;
    nimbrel::test::MockDelegate delegate;
    NimbrelCom com{&delegate, Bundle(nimbrel::test::paneBundlePath()), &loop};
    QString executable = Bundle(com.backgroundAppPath()).executablePath();
};

TEST_F(BackgroundAppTest, StartsServesAndStopsThroughTheLinkAndChecksAlone)
{
    const QString entry = loginItemsFolder() + s("/com.quorvia.Nimbrel.desktop");
    com.setBackgroundAppRunning(true);
    ASSERT_TRUE(heard(s("StateChange(1,1)")));
    EXPECT_EQ(com.proxy()->version(), 5);
    EXPECT_TRUE(QFile::exists(entry));
    const qint64 pid = ourBackgroundApp();
    com.setBackgroundAppRunning(false);
    ASSERT_TRUE(heard(s("StateChange(0,1)")));
    EXPECT_TRUE(nimbrel::test::waitUntil([&] { return !QFile::exists(s("/proc/%1").arg(pid)); }));
    EXPECT_FALSE(QFile::exists(entry));
    loop.advance(30); // the confirmation cancelled the time-out
    EXPECT_TRUE(delegate.take().isEmpty());
    const QDateTime before = QDateTime::currentDateTimeUtc().addSecs(-1);
    com.checkForUpdate(); // not running: runs the executable with -sparkle and waits for it
    EXPECT_EQ(delegate.take(), QStringList{s("CheckedForUpdate")});
    EXPECT_GE(com.lastUpdateCheckTime(), before);
}

} // namespace
} // namespace nimbrel
