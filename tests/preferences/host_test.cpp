// The host program: the window's events mapped onto the pane's lifecycle, one instance per session,
// and the command line.

#include "PreferencesHost.h"
#include "SingleInstance.h"
#include "platform/SettingsStore.h"
#include "platform/Strings.h"
#include "support/TestEnvironment.h"

#include <QProcess>
#include <QWidget>
#include <gtest/gtest.h>

namespace nimbrel::test {
namespace {

TEST(PreferencesHost, WindowEventsSelectAndUnselectThePane)
{
    // Not a first launch, nothing to start at login: the test starts no program.
    SettingsStore(SettingsStore::domainPath(s("com.quorvia.Nimbrel"))).setValue(s("welcomed"), true);
    const Bundle bundle(paneBundlePath());
    PaneEnvironment environment;
    environment.services.openUrl = [](const QString&) { return true; };
    PreferencesHost host(bundle, environment);
    host.start();
    // Nothing runs, whatever other tests (or the developer) have started for this user.
    host.pane()->com().setProcessLookup([](const QString&) { return 0; });
    QWidget* window = host.window();
    EXPECT_FALSE(host.isSelected()); // selected once the view has been displayed
    ASSERT_TRUE(waitUntil([&host] { return host.isSelected(); })); // first show
    EXPECT_EQ(host.pane()->backgroundAppStatus(), ComQuorviaNimbrelPref::StatusStopped);

    const struct
    {
        const char* event;
        std::function<void()> act;
        bool selected;
    } steps[] = {{"hide", [&] { window->hide(); }, false},
                 {"show again", [&] { window->show(); }, true},
                 {"minimise", [&] { window->setWindowState(Qt::WindowMinimized); }, false},
                 {"restore", [&] { window->setWindowState(Qt::WindowNoState); }, true},
                 {"activate", [&] { host.activate(); }, true}};
    for (const auto& step : steps) {
        step.act();
        waitUntil([&] { return host.isSelected() == step.selected; }, 1000);
        EXPECT_EQ(host.isSelected(), step.selected) << step.event;
    }

    window->close();
    EXPECT_TRUE(host.hasEnded());
    EXPECT_FALSE(host.isSelected());
    EXPECT_EQ(host.pane(), nullptr); // destroyed, after its didUnselect
    host.activate();                 // a late Activate does nothing
}

TEST(PreferencesHost, ASecondStartRaisesTheFirstAndLeaves)
{
    int activations = 0;
    PreferencesService first(QDBusConnection::sessionBus(), [&activations] { ++activations; });
    ASSERT_EQ(first.claim(), PreferencesService::Claim::Owner);

    QProcess second;
    second.start(QStringLiteral(NIMBREL_PREFERENCES_PROGRAM), {});
    ASSERT_TRUE(waitUntil([&] { return second.state() == QProcess::NotRunning; }, 20000));
    EXPECT_EQ(second.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(second.exitCode(), 0);
    EXPECT_EQ(activations, 1);
}

TEST(PreferencesHost, CommandLine)
{
    const struct
    {
        QStringList arguments;
        int exitCode;
        const char* output;
    } cases[] = {{{s("--version")}, 0, "nimbrel-preferences " NIMBREL_PROJECT_VERSION "\n"},
                 {{s("--help")}, 0, "Usage: nimbrel-preferences"},
                 {{s("--frobnicate")}, 2, ""}};
    for (const auto& c : cases) {
        QProcess program;
        program.start(QStringLiteral(NIMBREL_PREFERENCES_PROGRAM), c.arguments);
        ASSERT_TRUE(program.waitForFinished(20000));
        EXPECT_EQ(program.exitCode(), c.exitCode) << c.arguments.join(u' ').toStdString();
        EXPECT_TRUE(program.readAllStandardOutput().startsWith(c.output))
            << c.arguments.join(u' ').toStdString();
    }
}

} // namespace
} // namespace nimbrel::test
