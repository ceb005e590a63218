// The Google tab: without an account, the settings sheet and its private copy of the date range,
// disconnecting, the two tables' cells, and the progress notices.

#include "PaneFixture.h"
#include "pane/CalendarItemModel.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTableView>

namespace nimbrel::test {
namespace {

QVariantMap account(bool subscriptions = false, bool publishing = false)
{
    return {{s("source"), true},
            {s("uid"), s("g")},
            {s("title"), s("Ann at Google")},
            {s("remoteLogin"), s("ann@example.com")},
            {s("syncOptions"), QVariantMap{{s("dateLimit"), true}, {s("dateLimitRange"), 1}}},
            {s("hasSubscriptions"), subscriptions},
            {s("hasPublishing"), publishing},
            {s("calendars"), QVariantList{QVariantMap{{s("uid"), s("h")}, {s("subscribable"), false}}}}};
}

class GoogleTest : public PaneTest
{
protected:
    void connect(const QVariantList& accounts)
    {
        connectWithLists({{s("sourceListOfGoogleCalendars"), accounts},
                          {s("calendarsPublishableToGoogle"),
                           {QVariantMap{{s("uid"), s("w")},
                                        {s("title"), s("Work")},
                                        {s("subscribable"), true},
                                        {s("publishedToGoogle"), true}}}}});
    }
    QDialog* sheet() { return find<QDialog>("GoogleSettingsSheet"); }
    // What a table's cell shows for its first row: title, ticked, enabled.
    std::tuple<QString, bool, bool> cell(const ColumnOutlet& column)
    {
        QStyleOptionViewItem option;
        option.state = QStyle::State_Enabled;
        pane->tableViewWillDisplayCell(column, option, 0);
        return {option.text, option.checkState == Qt::Checked, bool(option.state & QStyle::State_Enabled)};
    }
};

TEST_F(GoogleTest, WithoutAnAccountTheSheetOffersTheDefaults)
{
    connect({});
    EXPECT_FALSE(pane->googleAccount().isValid());
    EXPECT_FALSE(pane->googleLastSync().isValid());
    EXPECT_EQ(find<QTableView>("subscribeGoogleTableView")->model()->rowCount(), 0);
    EXPECT_FALSE(find<QPushButton>("googleSyncNowButton")->isEnabled());
    pane->googleSyncNowButton(nullptr);
    click("googleSettingsButton");
    EXPECT_EQ(pane->googleSettings(),
              (QVariantMap{{s("syncInterval"), 2},
                           {s("remoteSSL"), true},
                           {s("syncOptions"), QVariantMap{{s("dateLimit"), true}, {s("dateLimitRange"), 0}}},
                           {s("newGoogleService"), true}}));
    EXPECT_EQ(find<QComboBox>("googleIntervalChoice")->currentData(), 2);
    EXPECT_FALSE(find<QPushButton>("googleDisconnectButton")->isVisible());
    EXPECT_FALSE(find<QPushButton>("googleSettingsOKButton")->isEnabled());
    type("googleLoginField", s("ann@example.com"));
    click("googleSettingsOKButton");
    EXPECT_EQ(lastSent("googleServiceOptions").value(s("remoteLogin")), s("ann@example.com"));
    EXPECT_EQ(sent("googleServiceOptions"), 1); // sync now did nothing
}

TEST_F(GoogleTest, TheSheetEditsItsOwnDateRangeAndSyncNowSendsTheRecord)
{
    connect({account()});
    EXPECT_EQ(pane->googleAccount(), s("ann@example.com"));
    EXPECT_EQ(find<QLabel>("googleAccountField")->text(), s("ann@example.com"));
    // Both tables: "(null)" for a missing title, ticked by their key, enabled by "subscribable".
    EXPECT_EQ(cell({find<QTableView>("subscribeGoogleTableView"), 0}),
              std::make_tuple(s("(null)"), false, false));
    EXPECT_EQ(cell({find<QTableView>("publishGoogleTableView"), 0}), std::make_tuple(s("Work"), true, true));

    const QVariantMap record = pane->com().sourceListOfGoogleCalendars()->first()->dict();
    click("googleSettingsButton");
    click("dateLimitCheckbox");
    EXPECT_FALSE(find<QComboBox>("dateLimitRangeChoice")->isEnabled());
    click("googleSettingsCancelButton");
    EXPECT_EQ(pane->com().sourceListOfGoogleCalendars()->first()->dict(), record);
    EXPECT_EQ(sent("googleServiceOptions"), 0);

    click("googleSettingsButton");
    EXPECT_TRUE(find<QCheckBox>("dateLimitCheckbox")->isChecked()); // the row's value again
    click("dateLimitCheckbox");
    click("googleSettingsOKButton");
    EXPECT_EQ(lastSent("googleServiceOptions").value(s("syncOptions")),
              (QVariantMap{{s("dateLimit"), false}, {s("dateLimitRange"), 1}}));
    click("googleSyncNowButton");
    EXPECT_EQ(lastSent("googleServiceOptions"), record);
}

TEST_F(GoogleTest, DisconnectingAsksFirstWhenCalendarsAreSynced)
{
    const struct
    {
        bool subscriptions, publishing;
        int alertAnswer; // -1: no alert
        bool disconnects;
    } cases[] = {{false, false, -1, true},
                 {true, false, kAlertDefaultReturn, true},
                 {false, true, kAlertAlternateReturn, false}};
    connect({});
    for (const auto& c : cases) {
        peer.setListAnswer(s("sourceListOfGoogleCalendars"), {account(c.subscriptions, c.publishing)});
        pane->com().calcChangesForSubscribedCalendars();
        const int before = sent("disconnectGoogleService");
        find<QPushButton>("googleSettingsButton")->setEnabled(true);
        click("googleSettingsButton");
        click("googleDisconnectButton");
        EXPECT_FALSE(sheet()->isVisible());
        EXPECT_EQ(openAlert() != nullptr, c.alertAnswer >= 0);
        if (c.alertAnswer >= 0) {
            EXPECT_EQ(
                openAlert()->informativeText(),
                s("Some of your calendars are published to “Ann at Google” or subscribed from it. If you "
                  "disconnect, they are no longer kept in step with Google."));
            answerAlert(c.alertAnswer);
        }
        EXPECT_EQ(sent("disconnectGoogleService") - before, c.disconnects ? 1 : 0);
        // The settings button waits for the next progress notice after a disconnection.
        EXPECT_EQ(find<QPushButton>("googleSettingsButton")->isEnabled(), !c.disconnects);
    }
}

TEST_F(GoogleTest, EqualProgressNoticesNeitherRestartNorStopButEachIdleOneEnablesSettings)
{
    auto* indicator = find<QProgressBar>("googleSyncIndicator");
    auto* button = find<QPushButton>("googleSettingsButton");
    // Whether a notice started or stopped the indicator shows on its "animating" mark, cleared before.
    const struct
    {
        bool inProgress, touched;
    } notices[] = {{true, true}, {true, false}, {false, true}, {false, false}};
    for (const auto& n : notices) {
        button->setEnabled(false);
        const bool was = isAnimating(indicator);
        indicator->setProperty("animating", QVariant());
        pane->nimbrelGoogleSyncProgress(n.inProgress);
        EXPECT_EQ(indicator->property("animating").isValid(), n.touched) << n.inProgress;
        if (!n.touched)
            indicator->setProperty("animating", was);
        EXPECT_EQ(isAnimating(indicator), n.inProgress);
        EXPECT_EQ(button->isEnabled(), !n.inProgress);
    }
}

} // namespace
} // namespace nimbrel::test
