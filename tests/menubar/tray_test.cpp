// The tray companion: the states it shows and the menu that follows them; the watch on the background
// application against the fake one (it never waits for the application, follows its notifications,
// starts it detached and stops it one-way, keeps its login item); and the program around them.

#include "MenuBarApp.h"
#include "MenuBarIcons.h"
#include "MenuBarMenu.h"
#include "SingleInstance.h"
#include "platform/LoginItems.h"
#include "platform/VirtualRunLoop.h"
#include "support/FakeAppPeer.h"
#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <gtest/gtest.h>

namespace nimbrel {
namespace {

using State = BackgroundAppState;
using test::s;

struct Shown
{
    State state;
    const char *status, *action;
    bool enabled;
};
const Shown kChecking{State::Checking, "Checking…", "Start Nimbrel", false};
const Shown kStopped{State::Stopped, "Nimbrel is stopped", "Start Nimbrel", true};
const Shown kRunning{State::Running, "Nimbrel is running", "Stop Nimbrel", true};
const Shown kStarting{State::Starting, "Nimbrel is starting…", "Start Nimbrel", false};
const Shown kStopping{State::Stopping, "Nimbrel is stopping…", "Stop Nimbrel", false};
const Shown kHung{State::NotResponding, "Nimbrel is not responding", "Stop Nimbrel", true};
const Shown kGone{State::NotResponding, "Nimbrel is not responding", "Start Nimbrel", true};

void expectShows(const MenuBarController& controller, const MenuBarMenu& menu, const Shown& expected)
{
    emit const_cast<MenuBarMenu&>(menu).aboutToShow();
    EXPECT_EQ(controller.state(), expected.state);
    EXPECT_EQ(menu.statusAction()->text(), s(expected.status));
    EXPECT_FALSE(menu.statusAction()->isEnabled());
    EXPECT_EQ(menu.startStopAction()->text(), s(expected.action));
    EXPECT_EQ(menu.startStopAction()->isEnabled(), expected.enabled);
    EXPECT_TRUE(controller.toolTip().startsWith(s("Nimbrel\n")) &&
                controller.toolTip().endsWith(s(expected.status)));
}

TEST(MenuBarController, StatesMapLikeThePanelAClickAsksForTheOppositeAndAnyAnswerEndsIt)
{
    QList<bool> requests;
    bool installed = false;
    int opened = 0;
    MenuBarCommands commands{[&](bool wanted) { requests << wanted; }, [&] { return installed; },
                             [&] { return ++opened > 0; }};
    const struct
    {
        bool running, responding;
        Shown shown, afterClick;
    } rows[] = {{true, true, kRunning, kStopping},
                {false, true, kStopped, kStarting},
                {true, false, kHung, kStopping}, // not responding whatever the running flag says
                {false, false, kGone, kStarting}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.running << row.responding);
        requests.clear();
        MenuBarController controller(commands);
        MenuBarMenu menu(&controller);
        int changes = 0;
        QObject::connect(&controller, &MenuBarController::changed, [&] { ++changes; });
        expectShows(controller, menu, kChecking);
        menu.startStopAction()->trigger();
        EXPECT_TRUE(requests.isEmpty()) << "nothing is known yet";
        controller.backgroundAppStateChange(row.running, row.responding);
        controller.backgroundAppStateChange(row.running, row.responding);
        EXPECT_EQ(changes, 1) << "a repeated state announces nothing";
        expectShows(controller, menu, row.shown);
        menu.startStopAction()->trigger();
        controller.toggleBackgroundApp(); // a request under way is not repeated
        EXPECT_EQ(requests, QList<bool>{!row.running});
        expectShows(controller, menu, row.afterClick);
        controller.backgroundAppStateChange(row.running, row.responding); // even the same answer ends it
        expectShows(controller, menu, row.shown);
    }
    // The control panel may be installed while the tray runs: the menu looks again when it opens.
    MenuBarController controller(commands);
    MenuBarMenu menu(&controller);
    EXPECT_EQ(menu.preferencesAction()->text(), s("Open Nimbrel Preferences…"));
    menu.preferencesAction()->trigger();
    installed = true;
    emit menu.aboutToShow();
    EXPECT_TRUE(menu.preferencesAction()->isEnabled());
    menu.preferencesAction()->trigger();
    EXPECT_EQ(opened, 1);
    int quits = 0;
    QObject::connect(&menu, &MenuBarMenu::quitRequested, [&] { ++quits; });
    menu.quitAction()->trigger();
    EXPECT_EQ(quits, 1);

    // Every state has an icon of its own, drawn when the theme has none.
    QList<QImage> images;
    QStringList names;
    for (const State state : {State::Running, State::Stopped, State::NotResponding, State::Starting}) {
        EXPECT_FALSE(menuBarIcon(state).isNull());
        const QImage image = drawnMenuBarIcon(state).pixmap(22, 22).toImage();
        EXPECT_FALSE(image.isNull() || images.contains(image) ||
                     names.contains(MenuBarController::iconName(state)));
        images << image;
        names << MenuBarController::iconName(state);
    }
}

// The tray with the build's pane bundle, virtual time, the fake application and a process table.
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
        app.watch().setApplicationLauncher(
            [this](const QString& path) { return !(launched << path).isEmpty(); });
        QObject::connect(&app.controller(), &MenuBarController::changed,
                         [this] { states.append(app.controller().state()); });
    }
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
    EXPECT_EQ(app.controller().state(), State::Checking); // returned while the application is asked
    ASSERT_TRUE(peer.waitForCall(s("version")));
    EXPECT_TRUE(states.isEmpty());
    loop.advance(BackgroundAppWatch::kProbeDelay);
    EXPECT_EQ(states, QList<State>{State::NotResponding});
    app.menu().startStopAction()->trigger(); // Stop goes out one-way
    ASSERT_TRUE(peer.waitForCall(s("shutdown")));
    EXPECT_FALSE(peer.calls(s("shutdown")).first().replyExpected);
    // Probed again a second later; once it answers it counts as running again.
    peer.setNeverReply(s("version"), false);
    loop.advance(BackgroundAppWatch::kReprobeDelay);
    ASSERT_TRUE(settlesOn({State::NotResponding, State::Stopping, State::Running}));
}

TEST_F(Tray, FollowsTheNotificationsAndStartsAndStopsWithTheLoginItem)
{
    app.start();
    EXPECT_EQ(states, QList<State>{State::Stopped});
    const QString appPath = app.watch().backgroundAppPath();
    // Start: a detached launch, the login item added; no answer within 20 s is "not responding".
    app.menu().startStopAction()->trigger();
    EXPECT_EQ(launched, QStringList{appPath});
    EXPECT_TRUE(startsAtLogin(appPath));
    loop.advance(BackgroundAppWatch::kStateChangeDelay);
    EXPECT_EQ(states, (QList<State>{State::Stopped, State::Starting, State::NotResponding}));
    // The application comes up and says so.
    ASSERT_TRUE(peer.start());
    processExists = true;
    ASSERT_TRUE(peer.deliver(s("Nimbrel Running")));
    EXPECT_EQ(states.last(), State::Running);
    // Stop: the one-way shutdown, the login item removed; "Nimbrel Stopped" ends the wait.
    app.menu().startStopAction()->trigger();
    ASSERT_TRUE(peer.waitForCall(s("shutdown")));
    EXPECT_FALSE(startsAtLogin(appPath));
    processExists = false;
    ASSERT_TRUE(peer.deliver(s("Nimbrel Stopped")));
    EXPECT_EQ(states.mid(states.size() - 2), (QList<State>{State::Stopping, State::Stopped}));
    loop.advance(BackgroundAppWatch::kStateChangeDelay);
    EXPECT_EQ(states.last(), State::Stopped) << "the confirmation cancelled the time-out";
    for (const test::RecordedCall& call : peer.calls())
        EXPECT_TRUE(call.method == s("version") || !call.replyExpected) << call.method.toStdString();
}

// The pane and the control panel are found from the executable, in an installed tree and in the build
// tree; the menu offers the panel once it is there.
TEST(MenuBarApp, FindsThePaneAndOpensTheControlPanelBesideIt)
{
    EXPECT_EQ(preferencesProgramPath(test::paneBundlePath()),
              QCoreApplication::applicationDirPath() + s("/nimbrel-preferences"));
    const QString prefix = test::makeTempDir(), pane = prefix + s("/lib/nimbrel/Nimbrel.prefPane");
    const QString menu = test::writeFile(pane + s("/Resources/NimbrelMenu.app/NimbrelMenu"), "", true);
    EXPECT_EQ(paneBundlePathForExecutable(menu), Bundle::defaultPaneBundlePath()); // no Info.plist: no pane
    test::writeFile(pane + s("/Info.plist"), "<plist/>");
    EXPECT_EQ(paneBundlePathForExecutable(menu), pane);
    for (const char* outside : {"/lib/nimbrel/Nimbrel.prefPane/Resources/NimbrelMenu", "/bin/NimbrelMenu"})
        EXPECT_EQ(paneBundlePathForExecutable(prefix + QLatin1String(outside)),
                  Bundle::defaultPaneBundlePath());

    MenuBarApp tray(pane);
    EXPECT_EQ(tray.preferencesProgram(), prefix + s("/bin/nimbrel-preferences"));
    emit tray.menu().aboutToShow();
    EXPECT_FALSE(tray.menu().preferencesAction()->isEnabled());
    const QString marker = prefix + s("/opened");
    test::writeFile(tray.preferencesProgram(), "#!/bin/sh\necho started > '" + marker.toUtf8() + "'\n", true);
    emit tray.menu().aboutToShow();
    tray.menu().preferencesAction()->trigger();
    EXPECT_TRUE(test::waitUntil([&] { return QFileInfo::exists(marker); }));
}

// Options are read before the GUI starts: help and version need no display, and without one the program
// says why instead of aborting.
TEST(MenuBarApp, HelpAndVersionNeedNoDisplay)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
        environment.remove(QLatin1String(name));
    const std::tuple<const char*, int, const char*> cases[] = {{"--help", 0, "Usage:"},
                                                               {"--version", 0, "NimbrelMenu 1."},
                                                               {"--bogus", 1, "Unknown option"},
                                                               {nullptr, 1, "no display"}};
    for (const auto& [argument, status, output] : cases) {
        QProcess menu;
        menu.setProcessEnvironment(environment);
        menu.start(test::paneBundlePath() + s("/Resources/NimbrelMenu.app/NimbrelMenu"),
                   argument ? QStringList{QLatin1String(argument)} : QStringList());
        ASSERT_TRUE(menu.waitForFinished(20000)) << output;
        EXPECT_EQ(menu.exitStatus(), QProcess::NormalExit) << output;
        EXPECT_EQ(menu.exitCode(), status) << output;
        EXPECT_TRUE((menu.readAllStandardOutput() + menu.readAllStandardError()).contains(output)) << output;
    }
}

TEST(SingleInstance, TheSecondClaimIsRefusedUntilTheFirstOwnerLeaves)
{
    QDBusConnection second = QDBusConnection::connectToBus(QDBusConnection::SessionBus, s("second"));
    QString error;
    {
        QDBusConnection first = QDBusConnection::connectToBus(QDBusConnection::SessionBus, s("first"));
        EXPECT_TRUE(claimBusName(first, kMenuBarServiceName, &error)) << error.toStdString();
        EXPECT_FALSE(claimBusName(second, kMenuBarServiceName, &error));
        EXPECT_TRUE(error.contains(s("already"))) << error.toStdString();
    }
    QDBusConnection::disconnectFromBus(s("first")); // the process that came first ends
    EXPECT_TRUE(test::waitUntil([&] { return claimBusName(second, kMenuBarServiceName, &error); }));
    second = QDBusConnection(QString());
    QDBusConnection::disconnectFromBus(s("second"));
    EXPECT_FALSE(claimBusName(QDBusConnection(s("never-connected")), kMenuBarServiceName, &error));
}

} // namespace
} // namespace nimbrel
