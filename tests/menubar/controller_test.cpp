// The tray's logic offscreen: the link's (running, responding) pairs and the clicks in between as
// states, texts and actions; the menu kept in step; a look of its own for every state's icon.

#include "MenuBarController.h"
#include "MenuBarIcons.h"
#include "MenuBarMenu.h"
#include "support/TestEnvironment.h"

#include <QImage>
#include <gtest/gtest.h>

namespace nimbrel {
namespace {

using State = BackgroundAppState;

using nimbrel::test::s;

// A controller whose commands record what they were asked; `answer`, when set, plays the link and
// replies from inside setBackgroundAppRunning, as the link does when the state is already as wanted.
struct Harness
{
    QList<bool> requests;
    bool preferencesInstalled = false;
    int preferencesOpened = 0;
    std::function<void(MenuBarController&, bool)> answer;
    MenuBarController controller{commands()};
    int changes = 0;

    Harness()
    {
        QObject::connect(&controller, &MenuBarController::changed, [this] { ++changes; });
    }

    MenuBarCommands commands()
    {
        MenuBarCommands result;
        result.setBackgroundAppRunning = [this](bool wanted) {
            requests.append(wanted);
            if (answer)
                answer(controller, wanted);
        };
        result.preferencesAvailable = [this] { return preferencesInstalled; };
        result.openPreferences = [this] {
            ++preferencesOpened;
            return true;
        };
        return result;
    }
};

struct Expected
{
    State state;
    const char* status;
    const char* action;
    bool enabled;
};

// What the controller shows, and the menu when there is one.
void expectShows(const MenuBarController& controller, const Expected& expected,
                 const MenuBarMenu* menu = nullptr)
{
    if (menu) {
        EXPECT_EQ(menu->statusAction()->text(), s(expected.status));
        EXPECT_FALSE(menu->statusAction()->isEnabled());
        EXPECT_EQ(menu->startStopAction()->text(), s(expected.action));
        EXPECT_EQ(menu->startStopAction()->isEnabled(), expected.enabled);
    }
    EXPECT_EQ(controller.state(), expected.state);
    EXPECT_EQ(controller.statusText(), s(expected.status));
    EXPECT_EQ(controller.startStopText(), s(expected.action));
    EXPECT_EQ(controller.startStopEnabled(), expected.enabled);
    EXPECT_TRUE(controller.toolTip().contains(controller.statusText())) << controller.toolTip().toStdString();
}

const Expected kChecking{State::Checking, "Checking…", "Start Nimbrel", false};
const Expected kStopped{State::Stopped, "Nimbrel is stopped", "Start Nimbrel", true};
const Expected kRunning{State::Running, "Nimbrel is running", "Stop Nimbrel", true};
const Expected kStarting{State::Starting, "Nimbrel is starting…", "Start Nimbrel", false};
const Expected kStopping{State::Stopping, "Nimbrel is stopping…", "Stop Nimbrel", false};
const Expected kHung{State::NotResponding, "Nimbrel is not responding", "Stop Nimbrel", true};
const Expected kGone{State::NotResponding, "Nimbrel is not responding", "Start Nimbrel", true};

TEST(MenuBarController, ReportedStatesMapLikeThePanelAndAClickAsksForTheOpposite)
{
    const struct
    {
        bool running, responding;
        Expected shown, afterClick;
    } rows[] = {
        {true, true, kRunning, kStopping},
        {false, true, kStopped, kStarting},
        {true, false, kHung, kStopping}, // not responding whatever the running flag says
        {false, false, kGone, kStarting},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "running " << row.running << " responding " << row.responding);
        Harness h;
        expectShows(h.controller, kChecking);
        h.controller.toggleBackgroundApp();
        EXPECT_TRUE(h.requests.isEmpty()) << "nothing is known yet";

        h.controller.backgroundAppStateChange(row.running, row.responding);
        expectShows(h.controller, row.shown);
        h.controller.backgroundAppStateChange(row.running, row.responding);
        EXPECT_EQ(h.changes, 1) << "a repeated state announces nothing";

        h.controller.toggleBackgroundApp();
        EXPECT_EQ(h.requests, QList<bool>{!row.running});
        expectShows(h.controller, row.afterClick);
        h.controller.toggleBackgroundApp();
        EXPECT_EQ(h.requests.size(), 1) << "a request under way is not repeated";
    }
}

TEST(MenuBarController, AnyAnswerEndsTheTransientState)
{
    Harness h;
    h.controller.backgroundAppStateChange(false, true);
    h.controller.toggleBackgroundApp();
    h.controller.backgroundAppStateChange(true, true);
    expectShows(h.controller, kRunning);
    // A stop that the time-out ends: not responding, and the user may try again.
    h.controller.toggleBackgroundApp();
    h.controller.backgroundAppStateChange(false, false);
    expectShows(h.controller, kGone);
    // An answer equal to the state before the click still ends "starting".
    h.controller.toggleBackgroundApp();
    h.controller.backgroundAppStateChange(false, false);
    expectShows(h.controller, kGone);
    EXPECT_EQ(h.requests, (QList<bool>{true, false, true}));

    // The link answers from inside the request when the application already is as wanted.
    h.answer = [](MenuBarController& controller, bool wanted) {
        controller.backgroundAppStateChange(wanted, true);
    };
    h.changes = 0;
    h.controller.toggleBackgroundApp();
    expectShows(h.controller, kRunning);
    EXPECT_EQ(h.changes, 2); // starting, then running
}

TEST(MenuBarMenu, FollowsTheControllerAndTriggersItsCommands)
{
    Harness h;
    MenuBarMenu menu(&h.controller);
    QList<QAction*> commands;
    for (QAction* action : menu.actions()) {
        if (!action->isSeparator())
            commands.append(action);
    }
    ASSERT_EQ(commands, (QList<QAction*>{menu.statusAction(), menu.startStopAction(),
                                         menu.preferencesAction(), menu.quitAction()}));
    EXPECT_EQ(menu.preferencesAction()->text(), s("Open Nimbrel Preferences…"));
    EXPECT_EQ(menu.quitAction()->text(), s("Quit"));

    expectShows(h.controller, kChecking, &menu);
    h.controller.backgroundAppStateChange(true, true);
    expectShows(h.controller, kRunning, &menu);
    menu.startStopAction()->trigger();
    EXPECT_EQ(h.requests, QList<bool>{false});
    expectShows(h.controller, kStopping, &menu);
    h.controller.backgroundAppStateChange(true, false);
    expectShows(h.controller, kHung, &menu);

    // The control panel may be installed while the tray runs: the menu looks again when it opens.
    EXPECT_FALSE(menu.preferencesAction()->isEnabled());
    menu.preferencesAction()->trigger();
    EXPECT_EQ(h.preferencesOpened, 0);
    h.preferencesInstalled = true;
    emit menu.aboutToShow();
    EXPECT_TRUE(menu.preferencesAction()->isEnabled());
    menu.preferencesAction()->trigger();
    EXPECT_EQ(h.preferencesOpened, 1);

    int quits = 0;
    QObject::connect(&menu, &MenuBarMenu::quitRequested, [&] { ++quits; });
    menu.quitAction()->trigger();
    EXPECT_EQ(quits, 1);
    EXPECT_EQ(h.requests, QList<bool>{false}) << "Quit leaves the background application alone";
}

TEST(MenuBarIcons, EveryStateHasAnIconAndTheStatesLookDifferent)
{
    QList<QImage> images;
    QStringList names; // for desktops whose theme has them
    for (const State state : {State::Running, State::Stopped, State::NotResponding, State::Starting}) {
        EXPECT_FALSE(menuBarIcon(state).isNull());
        const QImage image = drawnMenuBarIcon(state).pixmap(22, 22).toImage();
        EXPECT_FALSE(image.isNull() || images.contains(image))
            << "state " << int(state) << " looks like another";
        EXPECT_FALSE(names.contains(MenuBarController::iconName(state)));
        images.append(image);
        names.append(MenuBarController::iconName(state));
    }
}

} // namespace
} // namespace nimbrel
