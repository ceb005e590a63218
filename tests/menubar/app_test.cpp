// The tray companion's shell on the private bus: where it finds the pane and the control panel, the
// link driving the controller, one instance per session, and quitting on termination signals.

#include "MenuBarApp.h"
#include "MenuBarMenu.h"
#include "QuitOnSignal.h"
#include "SingleInstance.h"
#include "link/NimbrelCom.h"
#include "platform/Bundle.h"
#include "platform/VirtualRunLoop.h"
#include "protocol/NotificationBus.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QTimer>
#include <csignal>
#include <gtest/gtest.h>

namespace nimbrel {
namespace {

using State = BackgroundAppState;

bool writeFile(const QString& path, const QByteArray& contents, bool executable = false)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(contents) != contents.size())
        return false;
    file.close();
    return !executable || file.setPermissions(file.permissions() | QFileDevice::ExeOwner);
}

// A tray companion on the private bus with the build's pane bundle, virtual time and a process table
// the test decides.
struct AppHarness
{
    VirtualRunLoop loop;
    ScopedRunLoop scope{loop};
    bool backgroundRunning = false;
    QStringList launched;
    MenuBarApp app;
    QList<State> states;

    explicit AppHarness(const QString& pane = test::paneBundlePath()) : app(pane)
    {
        app.link().setProcessLookup([this](const QString& identifier) -> qint64 {
            return identifier == app.link().backgroundAppIdentifier() && backgroundRunning ? 4242 : 0;
        });
        app.link().setApplicationLauncher([this](const QString& path) {
            launched.append(path);
            return true;
        });
        app.link().setHandshakeTimeout(500);
        QObject::connect(&app.controller(), &MenuBarController::changed,
                         [this] { states.append(app.controller().state()); });
    }
};

TEST(MenuBarApp, TheLinkDrivesTheStateAndStartStop)
{
    AppHarness h;
    h.app.start();
    EXPECT_EQ(h.states, QList<State>{State::Stopped});

    // With nobody serving the protocol, the link's handshake after "Nimbrel Running" fails at once.
    h.backgroundRunning = true;
    ASSERT_TRUE(NotificationBus::post(QStringLiteral("Nimbrel Running")));
    ASSERT_TRUE(test::waitUntil([&] { return h.states.size() >= 3; }));
    EXPECT_EQ(h.states, (QList<State>{State::Stopped, State::Running, State::NotResponding}));
    EXPECT_TRUE(h.app.controller().backgroundAppRunning());

    h.backgroundRunning = false;
    ASSERT_TRUE(NotificationBus::post(QStringLiteral("Nimbrel Stopped")));
    ASSERT_TRUE(test::waitUntil([&] { return h.app.controller().state() == State::Stopped; }));

    // Start from the menu reaches the link, which launches the app bundle and waits for an answer.
    h.states.clear();
    h.app.menu().startStopAction()->trigger();
    EXPECT_EQ(h.launched, QStringList{h.app.link().backgroundAppPath()});
    EXPECT_FALSE(h.launched.first().isEmpty());
    EXPECT_EQ(h.states, QList<State>{State::Starting});
    h.loop.advance(kBackgroundAppStateChangeDelay);
    EXPECT_EQ(h.states, (QList<State>{State::Starting, State::NotResponding}));
}

// The pane and the control panel are found from the executable; the menu offers the panel once it is there.
TEST(MenuBarApp, FindsThePaneAndOpensTheControlPanelBesideIt)
{
    const QString prefix = test::makeTempDir();
    const QString pane = prefix + QStringLiteral("/lib/nimbrel/Nimbrel.prefPane");
    const QString menu = pane + QStringLiteral("/Resources/NimbrelMenu.app/NimbrelMenu");
    ASSERT_TRUE(writeFile(menu, "", true));
    // Not a pane until it has its Info.plist; an executable outside an app bundle falls back.
    EXPECT_EQ(paneBundlePathForExecutable(menu), Bundle::defaultPaneBundlePath());
    ASSERT_TRUE(writeFile(pane + QStringLiteral("/Info.plist"), "<plist/>"));
    EXPECT_EQ(paneBundlePathForExecutable(menu), pane);
    for (const char* outside : {"/lib/nimbrel/Nimbrel.prefPane/Resources/NimbrelMenu", "/bin/NimbrelMenu"})
        EXPECT_EQ(paneBundlePathForExecutable(prefix + QLatin1String(outside)),
                  Bundle::defaultPaneBundlePath());
    EXPECT_EQ(preferencesProgramPath(pane), prefix + QStringLiteral("/bin/nimbrel-preferences"));

    AppHarness h(pane);
    QAction* open = h.app.menu().preferencesAction();
    emit h.app.menu().aboutToShow();
    EXPECT_FALSE(open->isEnabled());
    const QString marker = prefix + QStringLiteral("/opened");
    ASSERT_TRUE(
        writeFile(h.app.preferencesProgram(), "#!/bin/sh\necho started > '" + marker.toUtf8() + "'\n", true));
    emit h.app.menu().aboutToShow();
    ASSERT_TRUE(open->isEnabled());
    open->trigger();
    EXPECT_TRUE(test::waitUntil([&] { return QFileInfo::exists(marker); }));
}

// Options are read before the GUI starts: help and version need no display, and without one the program
// says why it cannot run instead of aborting.
TEST(NimbrelMenu, HelpAndVersionNeedNoDisplay)
{
    const QString program = test::paneBundlePath() + QStringLiteral("/Resources/NimbrelMenu.app/NimbrelMenu");
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
        environment.remove(QLatin1String(name));
    const struct
    {
        const char* argument;
        int status;
        const char* output;
    } cases[] = {
        {"--help", 0, "Usage:"}, {"--version", 0, "NimbrelMenu 1."}, {"--bogus", 1, "Unknown option"}};
    for (const auto& c : cases) {
        QProcess menu;
        menu.setProcessEnvironment(environment);
        menu.start(program, {QLatin1String(c.argument)});
        ASSERT_TRUE(menu.waitForFinished(20000)) << c.argument;
        EXPECT_EQ(menu.exitStatus(), QProcess::NormalExit) << c.argument;
        EXPECT_EQ(menu.exitCode(), c.status) << c.argument;
        EXPECT_TRUE((menu.readAllStandardOutput() + menu.readAllStandardError()).contains(c.output))
            << c.argument;
    }
    QProcess menu;
    menu.setProcessEnvironment(environment);
    menu.start(program, {});
    ASSERT_TRUE(menu.waitForFinished(20000));
    EXPECT_EQ(menu.exitCode(), 1);
    EXPECT_TRUE(menu.readAllStandardError().contains("no display"));
}

TEST(SingleInstance, TheSecondClaimIsRefusedUntilTheFirstOwnerLeaves)
{
    const QString name = kMenuBarServiceName;
    QDBusConnection second =
        QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("second"));
    ASSERT_TRUE(second.isConnected());
    QString error;
    {
        // The process that came first; the connection closes when its last handle goes.
        QDBusConnection first =
            QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("first"));
        ASSERT_TRUE(first.isConnected());
        EXPECT_TRUE(claimBusName(first, name, &error)) << error.toStdString();
        EXPECT_FALSE(claimBusName(second, name, &error));
        EXPECT_TRUE(error.contains(QStringLiteral("already"))) << error.toStdString();
    }
    QDBusConnection::disconnectFromBus(QStringLiteral("first"));
    error.clear();
    EXPECT_TRUE(test::waitUntil([&] { return claimBusName(second, name, &error); })) << error.toStdString();
    second = QDBusConnection(QString());
    QDBusConnection::disconnectFromBus(QStringLiteral("second"));

    error.clear();
    EXPECT_FALSE(claimBusName(QDBusConnection(QStringLiteral("never-connected")), name, &error));
    EXPECT_FALSE(error.isEmpty());
}

TEST(QuitOnSignal, TerminationSignalsReachTheEventLoop)
{
    struct sigaction before = {};
    ASSERT_EQ(sigaction(SIGTERM, nullptr, &before), 0);
    {
        QuitOnSignal handler({SIGTERM, SIGINT});
        ASSERT_TRUE(handler.isValid());
        QuitOnSignal another({SIGTERM});
        EXPECT_FALSE(another.isValid());

        for (const int signal : {SIGTERM, SIGINT}) {
            QEventLoop loop;
            QObject::connect(&handler, &QuitOnSignal::signalReceived, &loop,
                             [&](int received) { loop.exit(received); });
            QTimer::singleShot(0, [signal] { raise(signal); });
            QTimer::singleShot(5000, &loop, [&] { loop.exit(-1); }); // guard only; the signal ends it first
            EXPECT_EQ(loop.exec(), signal);
        }
    }
    struct sigaction after = {};
    ASSERT_EQ(sigaction(SIGTERM, nullptr, &after), 0);
    EXPECT_EQ(after.sa_handler, before.sa_handler) << "the previous handler is restored";
}

} // namespace
} // namespace nimbrel
