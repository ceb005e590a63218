// The subscription tab: the outline's cells and which rows may be chosen, the subscribe checkbox, the
// server button and sheet, disconnecting, the access summary of the options sheet, and the reload that
// keeps expansion, selection and scroll position.

#include "PaneFixture.h"
#include "cells/SourceTableColumn.h"
#include "pane/CalendarItemModel.h"
#include "pane/ItemViews.h"

#include <QComboBox>
#include <QLabel>
#include <QPushButton>
#include <QScrollBar>
#include <QTabWidget>
#include <QTest>
#include <QTreeView>

namespace nimbrel::test {
namespace {

QVariantMap leaf(const QString& title, QVariantMap extra = {})
{
    if (!title.isEmpty())
        extra.insert(s("uid"), title.toLower()), extra.insert(s("title"), title);
    return extra;
}

QVariantMap source(const QString& title, const QVariantList& calendars, QVariantMap extra = {})
{
    extra.insert(s("source"), true);
    extra.insert(s("calendars"), calendars);
    return leaf(title, extra);
}

// An untitled computer, a computer offering one untitled calendar, and a remote server with two.
QVariantList sources()
{
    const QVariantMap offered{{s("uid"), s("x")}, {s("subscribable"), true}, {s("bonjour"), true}};
    return {source(QString(), {}, {{s("uid"), s("nameless")}}), source(s("Ann’s computer"), {offered}),
            source(s("Office"),
                   {leaf(s("Rooms"), {{s("subscribable"), false}}),
                    leaf(s("Team"), {{s("subscribable"), true},
                                     {s("subscribedTo"), true},
                                     {s("subscribePassword"), s("old")}})},
                   {{s("remoteURL"), s("https://dav.example.org/")},
                    {s("offline"), true},
                    {s("hasSubscriptions"), true}})};
}

class SubscribeTest : public PaneTest
{
protected:
    void connect(const QVariantList& list = sources())
    {
        connectWithLists({{s("sourceListOfBonjourCalendars"), list}});
    }
    QTreeView* outline() { return find<QTreeView>("subscribeOutlineView"); }
    CalendarItemModel* model() { return static_cast<CalendarItemModel*>(outline()->model()); }
    QModelIndex at(const QList<int>& path) { return model()->indexForPath(path); }
};

TEST_F(SubscribeTest, CellsAndSelectionFollowTheRows)
{
    connect();
    const struct
    {
        QList<int> path;
        const char* text;
        bool checked, enabled, selectable;
    } rows[] = {{{0}, "(NULL)", false, true, false},   {{1}, "ANN’S COMPUTER", false, true, false},
                {{1, 0}, "(null)", false, true, true}, {{2}, "OFFICE", false, true, true},
                {{2, 0}, "Rooms", false, false, true}, {{2, 1}, "Team", true, true, true}};
    auto* column = static_cast<SourceTableColumn*>(outline()->itemDelegateForColumn(0));
    for (const auto& row : rows) {
        QStyleOptionViewItem option;
        option.state = QStyle::State_Enabled;
        pane->outlineViewWillDisplayCell(column->dataCellForRow(at(row.path)), option, at(row.path));
        EXPECT_EQ(option.text, QString::fromUtf8(row.text));
        EXPECT_EQ(option.checkState == Qt::Checked, row.checked) << row.text;
        EXPECT_EQ(bool(option.state & QStyle::State_Enabled), row.enabled) << row.text;
        EXPECT_EQ(bool(model()->flags(at(row.path)) & Qt::ItemIsSelectable), row.selectable) << row.text;
    }
    // Space ticks the current calendar and selects it; a calendar that cannot be subscribed stays.
    outline()->setFocus();
    for (const QList<int>& path : {QList<int>{2, 0}, QList<int>{1, 0}}) {
        outline()->selectionModel()->setCurrentIndex(at(path), QItemSelectionModel::NoUpdate);
        QTest::keyClick(outline(), Qt::Key_Space);
    }
    EXPECT_EQ(sent("subscribeTo"), 1);
    EXPECT_EQ(lastSent("subscribeTo").value(s("uid")), s("x"));
    EXPECT_EQ(pane->selectionIndexPath(), (QList<int>{1, 0}));
    EXPECT_EQ(at({1, 0}).data(Qt::CheckStateRole), Qt::Checked);
    loop.runPending(); // computers' calendars readable by nobody ask for no password
    EXPECT_FALSE(find<QDialog>("SubscribeOptionsSheet")->isVisible());
}

TEST_F(SubscribeTest, TheServerButtonAddsOrEditsAndTheSheetNeedsAnAddress)
{
    connect();
    const struct
    {
        QList<int> selection;
        const char* name;
    } cases[] = {
        {{}, "Add Remote Server..."}, {{2}, "Edit Remote Server..."}, {{2, 1}, "Add Remote Server..."}};
    for (const auto& c : cases) {
        pane->setSelectionIndexPath(c.selection);
        EXPECT_EQ(find<QPushButton>("addServerButton")->text(), s(c.name));
        EXPECT_EQ(find<QPushButton>("subscribeOptionsButton")->isEnabled(), c.selection.size() == 2);
    }
    pane->setSelectionIndexPath({});
    click("addServerButton");
    EXPECT_EQ(pane->serverSettings(), (QVariantMap{{s("syncInterval"), 1}}));
    EXPECT_EQ(find<QComboBox>("serverIntervalChoice")->currentData(), 1);
    EXPECT_FALSE(find<QPushButton>("serverDisconnectButton")->isVisible());
    type("serverURLField", s("ftp://dav.example.org/"));
    EXPECT_FALSE(find<QPushButton>("serverSettingsOKButton")->isEnabled());
    EXPECT_TRUE(find<QLabel>("serverURLError")->isVisible());
    type("serverURLField", s("https://dav.example.org/"));
    click("serverSettingsOKButton");
    EXPECT_EQ(lastSent("bonjourIPServiceOptions"),
              (QVariantMap{{s("syncInterval"), 1}, {s("remoteURL"), s("https://dav.example.org/")}}));
}

TEST_F(SubscribeTest, ADisconnectAsksFirstOnlyForAServerWithSubscriptions)
{
    connect();
    const struct
    {
        bool subscriptions, bonjourURL;
        int alertAnswer; // -1: no alert
        bool disconnects;
    } cases[] = {{true, false, kAlertDefaultReturn, true},
                 {true, false, kAlertAlternateReturn, false},
                 {true, true, -1, true},
                 {false, false, -1, true}};
    for (const auto& c : cases) {
        pane->setSelectionIndexPath({2});
        QVariantMap server = pane->subscribeCalendars()->at(2)->dict();
        server.insert(s("hasSubscriptions"), c.subscriptions);
        if (c.bonjourURL)
            server.insert(s("bonjourURL"), s("https://ann.local:4990/"));
        const int before = sent("disconnectBonjourIPService");
        pane->editServerSettings(server);
        click("serverDisconnectButton");
        EXPECT_FALSE(find<QDialog>("ServerSettingsSheet")->isVisible());
        EXPECT_EQ(openAlert() != nullptr, c.alertAnswer >= 0);
        if (c.alertAnswer >= 0) {
            EXPECT_EQ(openAlert()->informativeText(),
                      s("You subscribe to calendars on “Office”. If you disconnect, these subscriptions are "
                        "removed from this computer."));
            answerAlert(c.alertAnswer);
        }
        EXPECT_EQ(sent("disconnectBonjourIPService") - before, c.disconnects ? 1 : 0);
        EXPECT_EQ(pane->selectionIndexPath().isEmpty(), c.disconnects);
    }
}

TEST_F(SubscribeTest, TheAccessSummaryAndItsOfflineSideEffect)
{
    connect();
    const QVariantMap team = pane->subscribeCalendars()->at(2)->children()->at(1)->dict();
    const QVariantMap offered = pane->subscribeCalendars()->at(1)->children()->at(0)->dict();
    const auto with = [](QVariantMap calendar, const QVariantMap& changes) {
        for (auto it = changes.cbegin(); it != changes.cend(); ++it)
            calendar.insert(it.key(), it.value());
        return calendar;
    };
    const QVariantMap restricted{{s("readOnly"), true}, {s("readProtected"), true}};
    const struct
    {
        QVariantMap calendar;
        const char* summary;
    } summaries[] = {
        {with(team, {{s("subscribePassword"), s("new")}, {s("readOnly"), true}, {s("readProtected"), true}}),
         "The source computer is offline.  Read & write access will be assumed for now."},
        {with(team, restricted), "Enter a read password or a read & write password to access this calendar."},
        {with(team, {{s("readOnly"), true}, {s("readableByAnyone"), true}}),
         "This calendar allows read access without a password.  If you want to modify it, enter a read & "
         "write "
         "password."},
        {with(team, {{s("readOnly"), true}}),
         "You have read access to this calendar.  If you want to modify it, enter a read & write password."},
        {with(team, {{s("writableByAnyone"), true}}),
         "This calendar allows read & write access without a password."},
        {with(offered, {{s("subscribePassword"), s("new")}}),
         "You have read & write access to this calendar."}};
    for (const auto& c : summaries) {
        pane->subscribeToCalendar(c.calendar);
        EXPECT_EQ(find<QLabel>("subscribeAccessSummary")->text(), s(c.summary));
        click("subscribeOptionsCancelButton");
    }
    // Offline with a new password the copy drops its restrictions, and OK stores it on the row.
    pane->subscribeToCalendar(summaries[0].calendar);
    EXPECT_FALSE(pane->subscribeOptions().value(s("readOnly")).toBool());
    EXPECT_FALSE(pane->subscribeOptions().value(s("readProtected")).toBool());
    click("filterToDosCheckbox");
    click("subscribeOptionsOKButton");
    EXPECT_TRUE(lastSent("subscribeOptions").value(s("filterToDos")).toBool());
    EXPECT_EQ(pane->subscribeCalendars()->at(2)->children()->at(1)->dict().value(s("subscribePassword")),
              s("new"));
}

TEST_F(SubscribeTest, OnlyACalendarReadableButNotWritableByAnyoneAsksForAPassword)
{
    connect();
    const struct
    {
        bool readable, writable, opens;
    } cases[] = {{true, false, true}, {false, false, false}, {true, true, false}};
    for (const auto& c : cases) {
        pane->nimbrelSubscribingToCalendar(
            leaf(s("x"), {{s("readableByAnyone"), c.readable}, {s("writableByAnyone"), c.writable}}));
        EXPECT_EQ(find<QDialog>("SubscribeOptionsSheet")->isVisible(), c.opens) << c.readable << c.writable;
        click("subscribeOptionsCancelButton");
    }
    // A source is found before its calendars; a row the list no longer holds has no path.
    const std::shared_ptr<CalendarList> list = pane->subscribeCalendars();
    EXPECT_EQ(pane->indexPathToObject(*list->at(2)), (QList<int>{2}));
    EXPECT_EQ(pane->indexPathToObject(*list->at(2)->children()->at(1)), (QList<int>{2, 1}));
    const NimbrelCalendar lookalike(list->at(2)->children()->at(1)->dict(), nullptr); // same uid, other row
    EXPECT_EQ(pane->indexPathToObject(lookalike), std::nullopt);
    const QModelIndex team = at({2, 1});
    pane->setSelectionIndexPath({2, 0});
    pane->com().setCalendarList(*list, {}, nullptr); // merged, not yet shown
    EXPECT_EQ(pane->indexPathToObject(*model()->calendarAt(team)), std::nullopt);
    pane->subscribeCheckbox(team);
    EXPECT_TRUE(pane->selectionIndexPath().isEmpty());
}

TEST_F(SubscribeTest, AReloadKeepsWhatWasCollapsedSelectedAndScrolledTo)
{
    QVariantList many;
    for (int i = 0; i < 30; ++i)
        many << leaf(s("Calendar %1").arg(i, 2, 10, QChar(u'0')));
    QVariantList list{source(s("A"), many), source(s("B"), many, {{s("remoteURL"), s("https://b/")}})};
    connect(list);
    window->resize(668, 560);
    window->show();
    auto* tabs = find<QTabWidget>("tabView");
    tabs->setCurrentWidget(tabs->findChild<QWidget*>(s("subscribe")));
    outline()->collapse(at({0}));
    pane->setSelectionIndexPath({1});
    outline()->verticalScrollBar()->setValue(outline()->verticalScrollBar()->maximum());
    const int lastRow = lastVisibleRow(outline());
    ASSERT_GT(lastRow, 20);

    // A new server between the two sources.
    list.insert(1, source(s("AB"), many.mid(0, 2), {{s("remoteURL"), s("https://ab/")}}));
    peer.setListAnswer(s("sourceListOfBonjourCalendars"), list);
    pane->com().calcChangesForSubscribedCalendars();
    EXPECT_FALSE(outline()->isExpanded(at({0})));
    EXPECT_TRUE(outline()->isExpanded(at({1}))); // new rows come expanded
    EXPECT_TRUE(outline()->isExpanded(at({2})));
    EXPECT_EQ(pane->selectionIndexPath(), (QList<int>{1})); // by position, as it was
    // The row that was last in view is in view again (the next one may peek in below it).
    EXPECT_GE(lastVisibleRow(outline()), lastRow);
    EXPECT_LE(lastVisibleRow(outline()), lastRow + 1);
}

} // namespace
} // namespace nimbrel::test
