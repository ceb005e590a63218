// The tray companion on a private bus against the fake background application, in virtual time: it
// never waits for the application (a hung one leaves the event loop free), follows its notifications,
// starts it detached and stops it one-way, keeps its login item; and the program around it.

#include "MenuBarApp.h"
#include "MenuBarMenu.h"
#include "SingleInstance.h"
#include "support/FakeAppPeer.h"
#include "platform/Bundle.h"
#include "platform/LoginItems.h"
#include "platform/VirtualRunLoop.h"
#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <gtest/gtest.h>

namespace nimbrel {
namespace {

using State = BackgroundAppState;
using test::s;

bool writeFile(const QString& path, const QByteArray& contents, bool executable = false)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(contents) != contents.size())
        return false;
    file.close();
    return !executable || file.setPermissions(file.permissions() | QFileDevice::ExeOwner);
}

// The tray with the build's pane bundle, virtual time, the fake application and a process table the
// test decides.
struct Tray : ::testing::Test
{
    VirtualRunLoop loop;
    ScopedRunLoop scope{loop};
    test::FakeAppPeer peer;
    bool processExists = false;
    QStringList launched;
    MenuBarApp app{test::paneBundlePath()};
    QList<State> states;

    void SetUp() override
    {
        app.watch().setProcessLookup([this](const QString&) -> qint64 { return processExists ? 4242 : 0; });
        app.watch().setApplicationLauncher([this](const QString& path) {
            launched.append(path);
            return true;
        });
        QObject::connect(&app.controller(), &MenuBarController::changed,
                         [this] { states.append(app.controller().state()); });
    }
    // The state after the answers on the bus have arrived.
    bool settlesOn(const QList<State>& expected)
    {
        return test::waitUntil([&] { return states == expected; });
    }
};

TEST_F(Tray, AHungApplicationNeverBlocksAndCountsAsNotResponding)
{
    ASSERT_TRUE(peer.start());
    peer.setNeverReply(s("version"));
    processExists = true;
    app.start();
    // start() has returned while the application is asked: nothing is known yet.
    EXPECT_EQ(app.controller().state(), State::Checking);
    ASSERT_TRUE(peer.waitForCall(s("version")));
    EXPECT_TRUE(states.isEmpty());

    loop.advance(BackgroundAppWatch::kProbeDelay);
    EXPECT_EQ(states, QList<State>{State::NotResponding});
    // Stop goes out one-way; the tray still does not wait.
    app.menu().startStopAction()->trigger();
    ASSERT_TRUE(peer.waitForCall(s("shutdown")));
    EXPECT_FALSE(peer.calls(s("shutdown")).first().replyExpected);

    // Probed again a second later; once it answers it counts as running again.
    peer.setNeverReply(s("version"), false);
    loop.advance(BackgroundAppWatch::kReprobeDelay);
    ASSERT_TRUE(settlesOn({State::NotResponding, State::Stopping, State::Running}));
    for (const test::RecordedCall& call : peer.calls())
        EXPECT_TRUE(call.method == s("version") || !call.replyExpected) << call.method.toStdString();
}

TEST_F(Tray, FollowsTheNotificationsAndStartsAndStopsWithTheLoginItem)
{
    app.start();
    EXPECT_EQ(states, QList<State>{State::Stopped});
    const QString appPath = app.watch().backgroundAppPath();
    ASSERT_FALSE(appPath.isEmpty());

    // Start: a detached launch, the login item added, and no answer within 20 s is "not responding".
    app.menu().startStopAction()->trigger();
    EXPECT_EQ(launched, QStringList{appPath});
    EXPECT_TRUE(startsAtLogin(appPath));
    loop.advance(BackgroundAppWatch::kStateChangeDelay);
    EXPECT_EQ(states, (QList<State>{State::Stopped, State::Starting, State::NotResponding}));

    // The application comes up and says so; its probe answers version 5.
    ASSERT_TRUE(peer.start());
    processExists = true;
    ASSERT_TRUE(peer.post(s("Nimbrel Running")));
    ASSERT_TRUE(settlesOn({State::Stopped, State::Starting, State::NotResponding, State::Running}));
    ASSERT_TRUE(peer.waitForCall(s("version")));

    // Stop: the one-way shutdown, the login item removed; "Nimbrel Stopped" ends it.
    app.menu().startStopAction()->trigger();
    ASSERT_TRUE(peer.waitForCall(s("shutdown")));
    EXPECT_FALSE(startsAtLogin(appPath));
    processExists = false;
    ASSERT_TRUE(peer.post(s("Nimbrel Stopped")));
    EXPECT_TRUE(test::waitUntil([&] { return states.last() == State::Stopped; }));
    EXPECT_EQ(states.mid(states.size() - 2), (QList<State>{State::Stopping, State::Stopped}));
    loop.advance(BackgroundAppWatch::kStateChangeDelay);
    EXPECT_EQ(states.last(), State::Stopped) << "the confirmation cancelled the time-out";
}

// The pane and the control panel are found from the executable, in an installed tree and in the build
// tree; the menu offers the panel once it is there.
TEST_F(Tray, FindsThePaneAndOpensTheControlPanelBesideIt)
{
    EXPECT_EQ(preferencesProgramPath(test::paneBundlePath()),
              QCoreApplication::applicationDirPath() + s("/nimbrel-preferences"));
    const QString prefix = test::makeTempDir();
    const QString pane = prefix + s("/lib/nimbrel/Nimbrel.prefPane");
    const QString menu = pane + s("/Resources/NimbrelMenu.app/NimbrelMenu");
    ASSERT_TRUE(writeFile(menu, "", true));
    // Not a pane until it has its Info.plist; an executable outside an app bundle falls back.
    EXPECT_EQ(paneBundlePathForExecutable(menu), Bundle::defaultPaneBundlePath());
    ASSERT_TRUE(writeFile(pane + s("/Info.plist"), "<plist/>"));
    EXPECT_EQ(paneBundlePathForExecutable(menu), pane);
    for (const char* outside : {"/lib/nimbrel/Nimbrel.prefPane/Resources/NimbrelMenu", "/bin/NimbrelMenu"})
        EXPECT_EQ(paneBundlePathForExecutable(prefix + QLatin1String(outside)),
                  Bundle::defaultPaneBundlePath());

    MenuBarApp tray(pane);
    EXPECT_EQ(tray.preferencesProgram(), prefix + s("/bin/nimbrel-preferences"));
    QAction* open = tray.menu().preferencesAction();
    emit tray.menu().aboutToShow();
    EXPECT_FALSE(open->isEnabled());
    const QString marker = prefix + s("/opened");
    ASSERT_TRUE(
        writeFile(tray.preferencesProgram(), "#!/bin/sh\necho started > '" + marker.toUtf8() + "'\n", true));
    emit tray.menu().aboutToShow();
    ASSERT_TRUE(open->isEnabled());
    open->trigger();
    EXPECT_TRUE(test::waitUntil([&] { return QFileInfo::exists(marker); }));
}

// Options are read before the GUI starts: help and version need no display, and without one the program
// says why it cannot run instead of aborting.
TEST(NimbrelMenu, HelpAndVersionNeedNoDisplay)
{
    const QString program = test::paneBundlePath() + s("/Resources/NimbrelMenu.app/NimbrelMenu");
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
        environment.remove(QLatin1String(name));
    const struct
    {
        const char* argument;
        int status;
        const char* output;
    } cases[] = {{"--help", 0, "Usage:"},
                 {"--version", 0, "NimbrelMenu 1."},
                 {"--bogus", 1, "Unknown option"},
                 {nullptr, 1, "no display"}};
    for (const auto& c : cases) {
        QProcess menu;
        menu.setProcessEnvironment(environment);
        menu.start(program, c.argument ? QStringList{QLatin1String(c.argument)} : QStringList());
        ASSERT_TRUE(menu.waitForFinished(20000)) << c.output;
        EXPECT_EQ(menu.exitStatus(), QProcess::NormalExit) << c.output;
        EXPECT_EQ(menu.exitCode(), c.status) << c.output;
        EXPECT_TRUE((menu.readAllStandardOutput() + menu.readAllStandardError()).contains(c.output))
            << c.output;
    }
}

TEST(SingleInstance, TheSecondClaimIsRefusedUntilTheFirstOwnerLeaves)
{
    const QString name = kMenuBarServiceName;
    QDBusConnection second = QDBusConnection::connectToBus(QDBusConnection::SessionBus, s("second"));
    ASSERT_TRUE(second.isConnected());
    QString error;
    {
        // The process that came first; the connection closes when its last handle goes.
        QDBusConnection first = QDBusConnection::connectToBus(QDBusConnection::SessionBus, s("first"));
        ASSERT_TRUE(first.isConnected());
        EXPECT_TRUE(claimBusName(first, name, &error)) << error.toStdString();
        EXPECT_FALSE(claimBusName(second, name, &error));
        EXPECT_TRUE(error.contains(s("already"))) << error.toStdString();
    }
    QDBusConnection::disconnectFromBus(s("first"));
    error.clear();
    EXPECT_TRUE(test::waitUntil([&] { return claimBusName(second, name, &error); })) << error.toStdString();
    second = QDBusConnection(QString());
    QDBusConnection::disconnectFromBus(s("second"));

    error.clear();
    EXPECT_FALSE(claimBusName(QDBusConnection(s("never-connected")), name, &error));
    EXPECT_FALSE(error.isEmpty());
}

} // namespace
} // namespace nimbrel
