// The pane's spine: the status line and its notices, Start/Stop, the link's state callbacks, a first
// launch, the welcome sheet, help and web links, the update check, and a pane destroyed while a
// notice aimed at it is pending.

#include "PaneFixture.h"
#include "cells/ClickableTextField.h"
#include "platform/SettingsStore.h"

#include <QCheckBox>
#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>

namespace nimbrel::test {
namespace {

using Pane = ComQuorviaNimbrelPref;

TEST_F(PaneTest, StatusLineFollowsTheCodeAndAnnouncesOnlyChanges)
{
    const struct
    {
        long code;
        const char* message;
    } cases[] = {{1, "Nimbrel is stopped"}, {2, "Nimbrel is starting..."},    {3, "Nimbrel is stopping..."},
                 {4, "Nimbrel is running"}, {5, "Nimbrel is not responding"}, {9, "Checking..."},
                 {0, "Checking..."},        {6, "Nimbrel version error"}};
    QStringList notices;
    const Observation watch = pane->observe(QString(), [&notices](const ChangeNotice& n) {
        notices << (n.phase == ChangePhase::Will ? s("will ") : s("did ")) + n.key;
    });
    auto* label = find<QLabel>("statusLabel");
    for (const auto& c : cases) {
        pane->setStatus(c.code);
        EXPECT_EQ(pane->statusMessage(), s(c.message)) << c.code;
        EXPECT_EQ(label->text(), s(c.message)) << c.code;
        EXPECT_EQ(pane->isRunning(), c.code == 4);
    }
    EXPECT_EQ(notices.mid(0, 6),
              (QStringList{s("will startButtonName"), s("will statusMessage"), s("will isRunning"),
                           s("did startButtonName"), s("did statusMessage"), s("did isRunning")}));
    notices.clear();
    pane->setStatus(6);
    EXPECT_TRUE(notices.isEmpty()); // unchanged: no notice at all

    // A version error stays, but the update checkbox follows the code that was asked for.
    auto* checkbox = find<QCheckBox>("autoUpdateCheckbox");
    pane->nimbrelBackgroundAppStateChange(true, true);
    EXPECT_EQ(pane->statusMessage(), s("Nimbrel version error"));
    EXPECT_TRUE(checkbox->isEnabled());
    pane->nimbrelBackgroundAppStateChange(false, true);
    EXPECT_FALSE(checkbox->isEnabled());
    EXPECT_EQ(pane->backgroundAppStatus(), Pane::StatusVersionError);
}

TEST_F(PaneTest, StartStopWaitsForTheStateChange)
{
    auto* button = find<QPushButton>("startButton");
    auto* indicator = find<QProgressBar>("startIndicator");
    button->click();
    EXPECT_EQ(recorded.launched, QStringList{s("Nimbrel.app")});
    EXPECT_EQ(pane->backgroundAppStatus(), Pane::StatusStarting);
    EXPECT_FALSE(button->isEnabled());
    EXPECT_TRUE(isAnimating(indicator));

    const struct
    {
        bool running, responding;
        long status;
    } answers[] = {{true, true, 4}, {false, true, 1}, {true, false, 5}, {false, false, 5}};
    for (const auto& a : answers) {
        button->setEnabled(false);
        pane->nimbrelBackgroundAppStateChange(a.running, a.responding);
        EXPECT_EQ(pane->backgroundAppStatus(), a.status) << a.running << a.responding;
        EXPECT_TRUE(button->isEnabled());
        EXPECT_FALSE(isAnimating(indicator));
    }
    // The button's name asks the link, not the stored status.
    running.insert(kBackgroundAppIdentifier, 77);
    pane->com().activate();
    EXPECT_EQ(button->text(), s("Start Nimbrel")); // nothing announced yet
    pane->setStatus(2);
    EXPECT_EQ(button->text(), s("Stop Nimbrel"));
}

TEST_F(PaneTest, FirstLaunchStartsBothCompanionsAndGreets)
{
    qputenv("EMAIL", "ann@example.org");
    pane->didSelect();
    EXPECT_EQ(recorded.launched, (QStringList{s("Nimbrel.app"), s("NimbrelMenu.app")}));
    EXPECT_EQ(pane->backgroundAppStatus(), Pane::StatusStarting);
    auto* sheet = window->findChild<QDialog*>(s("WelcomeSheet"));
    ASSERT_TRUE(sheet && sheet->isVisible());
    EXPECT_EQ(sheet->findChild<QLineEdit*>(s("emailField"))->text(), s("ann@example.org"));
    pane->didUnselect();

    // The next time nothing starts unless it should start at login.
    recorded.launched.clear();
    makePane(bundle);
    pane->didSelect();
    EXPECT_EQ(recorded.launched,
              (QStringList{s("Nimbrel.app"), s("NimbrelMenu.app")})); // login items exist now
    pane->didUnselect();
    pane->com().setStartsAtLogin(false, pane->com().backgroundAppPath());
    pane->com().setStartsAtLogin(false, pane->com().menuBarAppPath());
    recorded.launched.clear();
    makePane(bundle);
    pane->didSelect();
    EXPECT_TRUE(recorded.launched.isEmpty());
    EXPECT_FALSE(window->findChild<QDialog*>(s("WelcomeSheet"))->isVisible());
    EXPECT_EQ(pane->backgroundAppStatus(), Pane::StatusStopped);
}

TEST_F(PaneTest, WelcomeSheetSignsUpOnlyWithAnAddress)
{
    const struct
    {
        const char* button;
        const char* email;
        bool fetched;
    } cases[] = {{"signUpButton", "ann@example.org", true},
                 {"signUpButton", "", false},
                 {"notNowButton", "ann@example.org", false}};
    for (const auto& c : cases) {
        recorded.fetched.clear();
        qputenv("EMAIL", c.email);
        pane->showWelcomeSheet();
        auto* sheet = window->findChild<QDialog*>(s("WelcomeSheet"));
        sheet->findChild<QPushButton*>(QLatin1String(c.button))->click();
        EXPECT_FALSE(sheet->isVisible());
        const QString expected = bundle.objectForInfoDictionaryKey(s("SignupURL")).toString() + s(c.email);
        EXPECT_EQ(recorded.fetched, c.fetched ? QStringList{expected} : QStringList()) << c.button << c.email;
    }
    // The field edits the sheet's dictionary.
    pane->showWelcomeSheet();
    auto* field = window->findChild<QLineEdit*>(s("emailField"));
    field->setText(QString());
    field->insert(s("bo@example.org"));
    EXPECT_EQ(pane->welcome().value(s("email")), s("bo@example.org"));
}

TEST_F(PaneTest, HelpOpensTheGuideAtTheTagsAnchor)
{
    const QString guide = QUrl::fromLocalFile(bundle.resourcePath() + s("/UserGuide/index.html")).toString();
    const char* anchors[] = {"", "#firewall", "#remote-sub", "#google", "#reset", "#log", ""};
    for (int tag = 0; tag <= 6; ++tag) {
        QObject sender;
        sender.setProperty("tag", tag);
        pane->helpButton(&sender);
        EXPECT_EQ(recorded.urls.value(tag), guide + s(anchors[tag])) << tag;
    }
    EXPECT_TRUE(QFileInfo::exists(bundle.resourcePath() + s("/UserGuide/index.html")));
    find<QPushButton>("logHelpButton")->click();
    EXPECT_EQ(recorded.urls.last(), guide + s("#log"));
    ClickableTextField link(s("www.example.org"));
    pane->webURL(&link);
    EXPECT_EQ(recorded.urls.last(), s("http://www.example.org"));
}

TEST_F(PaneTest, TrayAndUpdateCheckboxesWriteThroughTheLink)
{
    auto* tray = find<QCheckBox>("menuBarCheckbox");
    auto* updates = find<QCheckBox>("autoUpdateCheckbox");
    EXPECT_FALSE(tray->isChecked());
    EXPECT_TRUE(updates->isChecked()); // no interval stored: checking is on
    tray->click();
    EXPECT_EQ(recorded.launched, QStringList{s("NimbrelMenu.app")});
    EXPECT_TRUE(tray->isChecked());
    updates->click();
    EXPECT_EQ(pane->com().sharedSettings().numberValue(s("checkForUpdateInterval")), 1000000000.0);
    EXPECT_FALSE(updates->isChecked());
}

TEST_F(PaneTest, UpdateCheckWaitsForTheAnswer)
{
    auto* button = find<QPushButton>("checkButton");
    QStringList dates;
    const Observation watch = pane->observe(s("lastCheckedDate"), [&dates](const ChangeNotice& n) {
        dates << (n.phase == ChangePhase::Did ? s("did") : s("will"));
    });
    runBackgroundApp();
    pane->com().activate();
    button->click();
    EXPECT_FALSE(button->isEnabled());
    EXPECT_TRUE(isAnimating(find<QProgressBar>("checkIndicator")));
    ASSERT_TRUE(peer.waitForCall(s("checkForUpdate")));
    loop.advance(20.0); // no answer: the time-out ends the wait
    EXPECT_TRUE(button->isEnabled());
    EXPECT_FALSE(isAnimating(find<QProgressBar>("checkIndicator")));
    EXPECT_EQ(dates, (QStringList{s("will"), s("did")}));
    EXPECT_EQ(find<QLabel>("checkDateField")->text(), s("Never")); // not the link's reference date
}

TEST_F(PaneTest, DestroyedPaneNeverHearsAPendingNotice)
{
    // A calendar ticked for publishing schedules its options notice on the next pass of the loop.
    pane->com().publishViaBonjour({{s("uid"), s("A")}, {s("publishedToBonjour"), true}}, true);
    pane->com().subscribeTo({{s("uid"), s("B")}, {s("subscribedTo"), true}, {s("bonjour"), true}}, true);
    EXPECT_EQ(loop.pendingPerformCount(), 2);
    pane.reset(); // under AddressSanitizer a notice reaching the freed pane aborts the test
    EXPECT_EQ(loop.pendingPerformCount(), 0);
    EXPECT_EQ(loop.runPending(), 0);
}

} // namespace
} // namespace nimbrel::test
