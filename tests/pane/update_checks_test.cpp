// The two checks of each selection: a pane bundle replaced on disk (companions asked to quit, the
// relaunch job, the host asked to end) and the restart advice once per version on a shared computer;
// and the relaunch job itself, run for real under a throw-away parent.

#include "PaneFixture.h"
#include "pane/PaneServices.h"
#include "platform/PlistCodec.h"
#include "platform/SettingsStore.h"

#include <QMessageBox>
#include <QProcess>

namespace nimbrel::test {
namespace {

// A copy of the built pane bundle whose Info.plist the test can rewrite.
QString copyBundle(const QString& parent)
{
    const QString path = parent + s("/Nimbrel.prefPane");
    QDir().mkpath(path + s("/Resources"));
    QFile::copy(paneBundlePath() + s("/Info.plist"), path + s("/Info.plist"));
    return path;
}

void setVersionOnDisk(const QString& bundlePath, const QString& version)
{
    QVariantMap info = plist::readFile(bundlePath + s("/Info.plist"))->toMap();
    info.insert(s("CFBundleShortVersionString"), version);
    ASSERT_TRUE(plist::writeFile(bundlePath + s("/Info.plist"), info));
}

using Pane = ComQuorviaNimbrelPref;

TEST_F(PaneTest, AReplacedBundleQuitsTheCompanionsAndRelaunchesTheHost)
{
    const QString path = copyBundle(makeTempDir());
    const Bundle loaded(path);
    makePane(loaded);
    EXPECT_FALSE(pane->manuallyInstalled()); // same version on disk: nothing sent
    EXPECT_TRUE(recorded.quit.isEmpty());

    setVersionOnDisk(path, s("9.9.9"));
    peer.start();
    pane->didSelect();
    EXPECT_EQ(recorded.quit, (QStringList{s("com.quorvia.Nimbrel"), s("com.quorvia.Nimbrel.menu")}));
    EXPECT_EQ(recorded.relaunch, (QStringList{loaded.bundlePath(), s("/opt/test/bin/nimbrel-preferences")}));
    EXPECT_EQ(recorded.terminated, 1);
    EXPECT_TRUE(recorded.launched.isEmpty()); // didSelect stopped: nothing activated or started
    EXPECT_EQ(peer.callCount(s("version")), 0);
}

TEST_F(PaneTest, RestartAdviceOncePerVersionOnASharedInstallation)
{
    const QString key = s("com.quorvia.Nimbrel.vers");
    const QString version = bundle.objectForInfoDictionaryKey(s("CFBundleShortVersionString")).toString();
    const QString inHome = copyBundle(QDir::homePath() + s("/.local/lib/nimbrel"));
    const struct
    {
        const char* name;
        bool firstLaunch;
        bool bundleInHome;
        bool started;
        const char* users;
        bool alert;
    } cases[] = {
        {"two users", false, false, true, "ann bob\n", true},
        {"one user", false, false, true, "ann\n", false},
        {"users fails", false, false, false, "", false},
        {"first launch", true, false, true, "ann bob\n", false},
        {"installed in home", false, true, true, "ann bob\n", false},
    };
    for (const auto& c : cases) {
        SettingsStore(Pane::hostDefaultsPath()).remove(key);
        makePane(c.bundleInHome ? Bundle(inHome) : bundle);
        recorded.tools.clear();
        recorded.toolResult = {c.started, 0, QByteArray(c.users)};
        pane->checkUpdatedMultiuserSystem(c.firstLaunch);
        auto* alert = window->findChild<QMessageBox*>();
        EXPECT_EQ(alert != nullptr, c.alert) << c.name;
        EXPECT_EQ(SettingsStore(Pane::hostDefaultsPath()).value(key).toString(), version) << c.name;
        if (alert)
            delete alert;
    }
    // Stored already: not even "users" runs.
    recorded.tools.clear();
    pane->checkUpdatedMultiuserSystem(false);
    EXPECT_TRUE(recorded.tools.isEmpty());
}

TEST_F(PaneTest, TheRestartButtonRestartsAndAFailureIsLogged)
{
    for (int code : {kAlertAlternateReturn, kAlertDefaultReturn}) {
        pane->restartEnd(code);
        EXPECT_EQ(recorded.restarts, code == kAlertDefaultReturn ? 1 : 0);
    }
    recorded.restartError = s("org.freedesktop.DBus.Error.AccessDenied: not allowed");
    pane->restartEnd(kAlertDefaultReturn);
    EXPECT_EQ(recorded.systemLog,
              QStringList{s("checkUpdatedMultiuserSystem: AppleScript failed ") + recorded.restartError});
}

// The job must wait for the process that started it, not for the short-lived bash in between.
TEST(RelaunchJob, StartsTheHostOnlyAfterItsParentHasGone)
{
    const QString dir = makeTempDir();
    const QString marker = dir + s("/started");
    const QString program = dir + s("/host with space");
    {
        QFile script(program);
        ASSERT_TRUE(script.open(QIODevice::WriteOnly));
        script.write("#!/bin/sh\nprintf '%s' \"$NIMBREL_PANE_BUNDLE\" > \"$MARKER\"\n");
    }
    QFile::setPermissions(program, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    qputenv("MARKER", marker.toUtf8());

    // The throw-away parent: this test's own helper, which starts the job and waits for its stdin.
    QProcess parent;
    parent.start(QStringLiteral(NIMBREL_RELAUNCH_HELPER),
                 {s("/path/with \"quotes\" $HOME/Nimbrel.prefPane"), program});
    ASSERT_TRUE(parent.waitForReadyRead(10000));
    EXPECT_EQ(parent.readLine().trimmed(), QByteArray("job started"));
    test::waitUntil([] { return false; }, 800); // four polls of the job
    EXPECT_FALSE(QFile::exists(marker)) << "the job did not wait for its parent";
    parent.closeWriteChannel();
    ASSERT_TRUE(parent.waitForFinished(10000));
    ASSERT_TRUE(
        test::waitUntil([&] { return QFile::exists(marker) && QFileInfo(marker).size() > 0; }, 10000));
    QFile written(marker);
    written.open(QIODevice::ReadOnly);
    EXPECT_EQ(QString::fromUtf8(written.readAll()), s("/path/with \"quotes\" $HOME/Nimbrel.prefPane"));
}

} // namespace
} // namespace nimbrel::test
