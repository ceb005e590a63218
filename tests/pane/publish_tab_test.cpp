// The publishing tab: the access summaries of the options sheet, ticking a calendar and confirming
// its options, the network settings sheet and its port formatter, the network name, and the reload
// that keeps the selection by position.

#include "PaneFixture.h"
#include "pane/CalendarItemModel.h"

#include <QCheckBox>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QTableView>
#include <QTest>

namespace nimbrel::test {
namespace {

QVariantMap calendar(const char* title, QVariantMap extra = {})
{
    extra.insert(s("uid"), s(title).toLower());
    extra.insert(s("title"), s(title));
    if (!extra.contains(s("subscribable")))
        extra.insert(s("subscribable"), true);
    return extra;
}

class PublishTest : public PaneTest
{
protected:
    void connect(const QVariantList& calendars)
    {
        connectWithLists({{s("calendarsPublishableViaBonjour"), calendars}});
    }
    QTableView* table() { return find<QTableView>("publishTableView"); }
    QDialog* sheet(const char* name) { return find<QDialog>(name); }
};

TEST_F(PublishTest, SummariesFollowThePasswordsButNotReadOnlyAlone)
{
    const char* everyoneReads = "Everyone has read access to this calendar.";
    const char* passwordReads = "This password allows read access to this calendar.";
    const char* noOneWrites = "No one has read & write access to this calendar.";
    const struct
    {
        const char *read, *write;
        bool readOnly;
        const char *readSummary, *writeSummary;
    } cases[] = {
        {"", "", false, everyoneReads, "Everyone has read & write access to this calendar."},
        {"r", "", false, passwordReads, noOneWrites}, // a read password alone closes writing
        {"", "w", false, everyoneReads, "This password allows read & write access to this calendar."},
        {"r", "w", true, passwordReads, noOneWrites}};
    for (const auto& c : cases) {
        pane->publishingCalendar(calendar(
            "Family",
            {{s("readPassword"), s(c.read)}, {s("writePassword"), s(c.write)}, {s("readOnly"), c.readOnly}}));
        EXPECT_TRUE(sheet("PublishOptionsSheet")->isVisible());
        EXPECT_EQ(find<QLabel>("readAccessSummary")->text(), s(c.readSummary)) << c.read << c.write;
        EXPECT_EQ(find<QLabel>("writeAccessSummary")->text(), s(c.writeSummary)) << c.read << c.write;
        click("publishOptionsCancelButton");
    }
    // Typing re-reads both summaries; ticking "read only" alone does not.
    pane->publishingCalendar(calendar("Family"));
    type("readPasswordField", s("r"));
    EXPECT_EQ(find<QLabel>("writeAccessSummary")->text(), s(noOneWrites));
    type("readPasswordField", QString());
    click("readOnlyCheckbox");
    EXPECT_TRUE(pane->publishOptions().value(s("readOnly")).toBool());
    EXPECT_EQ(find<QLabel>("writeAccessSummary")->text(),
              s("Everyone has read & write access to this calendar."));
}

TEST_F(PublishTest, TickingPublishesAndTheConfirmedOptionsGoToTheRow)
{
    connect({calendar("Family"), calendar("Work", {{s("subscribable"), false}})});
    table()->setFocus();
    table()->setCurrentIndex(table()->model()->index(0, 1)); // the checkbox becomes the current cell
    QTest::keyClick(table(), Qt::Key_Space);
    EXPECT_TRUE(lastSent("publishCalendarViaBonjour").value(s("publishedToBonjour")).toBool());
    EXPECT_FALSE(sheet("PublishOptionsSheet")->isVisible()); // after the click has been handled
    loop.runPending();
    ASSERT_TRUE(sheet("PublishOptionsSheet")->isVisible());
    EXPECT_EQ(find<QLabel>("publishOptionsTitle")->text(), s("Family"));
    type("writePasswordField", s("secret"));
    click("publishOptionsOKButton");
    EXPECT_FALSE(sheet("PublishOptionsSheet")->isVisible());
    EXPECT_EQ(lastSent("publishOptions").value(s("writePassword")), s("secret"));
    EXPECT_EQ(sent("publishCalendarViaBonjour"), 1); // already published: nothing more
    EXPECT_EQ(table()->model()->index(0, 1).data().toString(), s("everyone can read; write password"));

    // Cancelled options send nothing; a calendar that may not be published neither ticks nor opens.
    pane->publishingCalendar(calendar("Family"));
    click("publishOptionsCancelButton");
    table()->setCurrentIndex(table()->model()->index(1, 0));
    QTest::keyClick(table(), Qt::Key_Space);
    QTest::keyClick(table(), Qt::Key_Return);
    pane->publishOptionsButton(nullptr);
    loop.runPending();
    EXPECT_FALSE(sheet("PublishOptionsSheet")->isVisible());
    EXPECT_EQ(sent("publishOptions"), 1);
    EXPECT_EQ(sent("publishCalendarViaBonjour"), 1);
}

TEST_F(PublishTest, AFixedPortMustPassTheFormatterBeforeAnythingIsSent)
{
    peer.setBonjourInfo({{s("bonjourName"), s("ann")}});
    connect({});
    click("networkSettingsButton");
    auto* port = find<QLineEdit>("portField");
    EXPECT_TRUE(find<QRadioButton>("automaticPortButton")->isChecked());
    EXPECT_TRUE(port->text().isEmpty());
    EXPECT_FALSE(port->isEnabled());
    click("fixedPortButton");
    EXPECT_EQ(port->text(), s("4990"));
    EXPECT_TRUE(port->isEnabled());

    for (const char* refused : {"80", "1023", "65536", ""}) {
        type("portField", s(refused));
        click("networkSettingsOKButton");
        EXPECT_TRUE(sheet("NetworkSettingsSheet")->isVisible()) << refused;
        auto* error = sheet("NetworkSettingsSheet")->findChild<QMessageBox*>(s("portError"));
        ASSERT_NE(error, nullptr) << refused;
        EXPECT_TRUE(error->isVisible()) << refused;
        delete error;
    }
    EXPECT_EQ(sent("setBonjourPublisherInfo"), 0);
    click("networkSettingsCancelButton");
    for (const char* accepted : {"1024", "65535"}) {
        click("networkSettingsButton");
        click("fixedPortButton");
        type("portField", s(accepted));
        click("networkSettingsOKButton");
        EXPECT_FALSE(sheet("NetworkSettingsSheet")->isVisible());
        EXPECT_EQ(lastSent("setBonjourPublisherInfo"),
                  (QVariantMap{{s("bonjourName"), s("ann")}, {s("portNumber"), s(accepted).toLongLong()}}));
    }
    // The background application has confirmed nothing: the sheet opens on the automatic port again.
    click("networkSettingsButton");
    click("networkSettingsOKButton");
    EXPECT_EQ(lastSent("setBonjourPublisherInfo").value(s("portNumber")), 0);
    EXPECT_FALSE(find<QPushButton>("setButton")->isEnabled());
    EXPECT_TRUE(isAnimating(find<QProgressBar>("setIndicator")));
}

TEST_F(PublishTest, ReturnInTheNameFieldSetsTheNameAsTheButtonDoes)
{
    peer.setBonjourInfo({{s("bonjourName"), s("ann")}, {s("portNumber"), 5000}});
    peer.setPostOnCall(s("setBonjourPublisherInfo"), s("Nimbrel Bonjour Name Published"));
    connect({});
    pane->updateNetworkSettings(QVariantMap{{s("bonjourName"), s("ann")}}); // the pane's copy: no port
    for (const bool byReturn : {true, false}) {
        const QString name = byReturn ? s("Ann’s laptop") : s("studio");
        type("bonjourNameField", name);
        if (byReturn)
            QTest::keyClick(find<QLineEdit>("bonjourNameField"), Qt::Key_Return);
        else
            click("setButton");
        EXPECT_FALSE(find<QPushButton>("setButton")->isEnabled());
        EXPECT_EQ(lastSent("setBonjourPublisherInfo"),
                  (QVariantMap{{s("bonjourName"), name}, {s("portNumber"), 5000}}));
        // Back once the background application says the name is out.
        EXPECT_TRUE(waitUntil([this] { return find<QPushButton>("setButton")->isEnabled(); }));
        EXPECT_FALSE(isAnimating(find<QProgressBar>("setIndicator")));
    }
    // No name, or one longer than the network allows: said at once, nothing sent.
    for (const QString& name : {s(" "), QString(32, QChar(0xE9))}) {
        type("bonjourNameField", name);
        click("setButton");
        ASSERT_NE(openAlert(), nullptr);
        answerAlert(kAlertDefaultReturn);
    }
    EXPECT_EQ(sent("setBonjourPublisherInfo"), 2);
}

TEST_F(PublishTest, AReloadKeepsTheRowsAndTheSelectionByPosition)
{
    connect({calendar("Alpha", {{s("order"), 1}}), calendar("Beta", {{s("order"), 2}})});
    auto* model = static_cast<CalendarItemModel*>(table()->model());
    const NimbrelCalendar* beta = model->calendarAt(model->index(1, 0));
    table()->selectRow(1);
    peer.setListAnswer(s("calendarsPublishableViaBonjour"),
                       {calendar("Alpha", {{s("order"), 1}}), calendar("Beta", {{s("order"), 2}}),
                        calendar("Aardvark", {{s("order"), 0}})});
    pane->com().calcChangesForPublishedCalendars();
    EXPECT_EQ(model->calendarAt(model->index(2, 0)), beta); // the same row object, moved down
    EXPECT_EQ(table()->selectionModel()->selectedRows().value(0).row(), 1);
    EXPECT_EQ(model->calendarAt(model->index(1, 0))->title(), s("Alpha"));
}

} // namespace
} // namespace nimbrel::test
