// Local calendars as vdir folders: the defaults, stable uids, what a rescan sees, and the watcher
// that tells the panel (after the history row is written).

#include "LocalCalendars.h"
#include "StateTestSupport.h"

using namespace nimbrel::background;
using namespace nimbrel::background::test;
using nimbrel::test::waitUntil;

namespace {

const QString kCalendarsChanged = QStringLiteral("Nimbrel Calendars Changed");

class StateCalendarsTest : public StateFixture
{
protected:
    QStringList titles(const NimbrelState& state) const
    {
        QStringList list;
        for (const QVariant& row : state.calendarsPublishableViaBonjour())
            list << row.toMap().value(QStringLiteral("title")).toString();
        return list;
    }
    QStringList uids(const NimbrelState& state) const
    {
        QStringList list;
        for (const QVariant& row : state.calendarsPublishableViaBonjour())
            list << row.toMap().value(QStringLiteral("uid")).toString();
        return list;
    }
};

TEST_F(StateCalendarsTest, DefaultsOnlyWhenThereIsNoCalendarAtAll)
{
    const struct
    {
        const char* name;
        std::function<void(const QString&)> prepare;
        QStringList expected;
    } cases[] = {
        {"no folder", [](const QString&) {}, {QStringLiteral("Home"), QStringLiteral("Work")}},
        {"empty folder",
         [](const QString& r) { QDir().mkpath(r); },
         {QStringLiteral("Home"), QStringLiteral("Work")}},
        {"only a stray file",
         [](const QString& r) { writeFile(r + QStringLiteral("/notes.txt"), "x"); },
         {QStringLiteral("Home"), QStringLiteral("Work")}},
        {"one calendar",
         [](const QString& r) { makeCalendar(r, QStringLiteral("mine"), QStringLiteral("Mine")); },
         {QStringLiteral("Mine")}},
        {"a calendar without displayname",
         [](const QString& r) { QDir().mkpath(r + QStringLiteral("/bare")); },
         {QStringLiteral("bare")}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const QString dir = makeTempDir();
        const QString folder = dir + QStringLiteral("/Calendars");
        c.prepare(folder);
        NimbrelState state(dir + QStringLiteral("/db.nsql"), folder, dir + QStringLiteral("/Backup"), {});
        ASSERT_TRUE(state.open());
        EXPECT_EQ(titles(state), c.expected);
    }
}

TEST_F(StateCalendarsTest, UidsAndOrderSurviveRestartsWithoutNewDefaults)
{
    QStringList first;
    {
        auto state = openState();
        first = uids(*state);
        ASSERT_EQ(titles(*state), (QStringList{QStringLiteral("Home"), QStringLiteral("Work")}));
        EXPECT_EQ(first[0].size(), 36); // a UUID
        EXPECT_NE(first[0], first[1]);
    }
    auto again = openState();
    EXPECT_EQ(uids(*again), first);
    EXPECT_EQ(QDir(calendarsRoot).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(), 2);
    EXPECT_EQ(
        peekOne(dbPath, QStringLiteral("SELECT COUNT(*) FROM sync_history WHERE kind = 'calendarAdded'"))
            .toInt(),
        2); // only the first start made them
}

TEST_F(StateCalendarsTest, ReopenNoticesFoldersAddedAndRemovedMeanwhile)
{
    makeCalendar(calendarsRoot, QStringLiteral("a"), QStringLiteral("A"));
    makeCalendar(calendarsRoot, QStringLiteral("b"), QStringLiteral("B"));
    openState().reset();
    QDir(calendarsRoot + QStringLiteral("/a")).removeRecursively();
    makeCalendar(calendarsRoot, QStringLiteral("c"), QStringLiteral("C"));
    auto state = openState();
    EXPECT_EQ(uids(*state), (QStringList{QStringLiteral("b"), QStringLiteral("c")}));
    EXPECT_EQ(
        peek(dbPath, QStringLiteral("SELECT calendar_uid || ':' || kind FROM sync_history ORDER BY id")),
        (QVariantList{QStringLiteral("a:calendarAdded"), QStringLiteral("b:calendarAdded"),
                      QStringLiteral("c:calendarAdded"), QStringLiteral("a:calendarRemoved")}));
}

TEST_F(StateCalendarsTest, WatcherPostsAfterAnItemIsAddedAndRecorded)
{
    makeCalendar(calendarsRoot, QStringLiteral("cal"), QStringLiteral("Cal"));
    auto state = openState();
    QVariant recorded;
    onPost = [&](const QString&) {
        recorded = peekOne(dbPath, QStringLiteral("SELECT kind || ':' || detail FROM sync_history "
                                                  "WHERE calendar_uid = 'cal' ORDER BY id DESC LIMIT 1"));
    };
    writeFile(calendarsRoot + QStringLiteral("/cal/event1.ics"), "BEGIN:VCALENDAR\r\nEND:VCALENDAR\r\n");
    ASSERT_TRUE(waitUntil([&] { return !posts.isEmpty(); }));
    EXPECT_EQ(posts, QStringList{kCalendarsChanged});
    EXPECT_EQ(recorded.toString(), QStringLiteral("itemAdded:event1.ics"));

    // A rename in place and a new calendar folder are seen the same way.
    posts.clear();
    writeFile(calendarsRoot + QStringLiteral("/cal/displayname"), "Renamed\n");
    makeCalendar(calendarsRoot, QStringLiteral("zz-new"), QStringLiteral("New"));
    ASSERT_TRUE(waitUntil([&] {
        return titles(*state) == QStringList{QStringLiteral("Renamed"), QStringLiteral("New")};
    }));
    EXPECT_FALSE(posts.isEmpty());
    EXPECT_TRUE(waitUntil([&] {
        return !peek(dbPath, QStringLiteral("SELECT 1 FROM sync_history WHERE calendar_uid = "
                                            "'zz-new' AND kind = 'calendarAdded'"))
                    .isEmpty();
    }));
}

TEST_F(StateCalendarsTest, WatchingResumesAfterASyncHistoryReset)
{
    makeCalendar(calendarsRoot, QStringLiteral("cal"), QStringLiteral("Cal"));
    auto state = openState();
    state->pauseForSyncHistoryReset();
    ASSERT_TRUE(state->resumeAfterSyncHistoryReset());
    ASSERT_EQ(posts, QStringList{kCalendarsChanged});
    posts.clear();
    writeFile(calendarsRoot + QStringLiteral("/cal/event1.ics"), "BEGIN:VCALENDAR\r\nEND:VCALENDAR\r\n");
    ASSERT_TRUE(waitUntil([&] { return !posts.isEmpty(); }));
    EXPECT_EQ(posts, QStringList{kCalendarsChanged});
}

LocalCalendar calendar(const char* uid, const char* title, QMap<QString, LocalCalendar::Item> items = {},
                       const char* color = "")
{
    return {QLatin1String(uid), {}, QLatin1String(title), QLatin1String(color), items};
}

TEST(CalendarDiffTest, ReportsEachKindOfChange)
{
    using Items = QMap<QString, LocalCalendar::Item>;
    const Items one{{QStringLiteral("e.ics"), {10, 1000}}};
    const struct
    {
        const char* name;
        QList<LocalCalendar> before, after;
        QList<CalendarChange> expected;
    } cases[] = {
        {"nothing", {calendar("a", "A", one)}, {calendar("a", "A", one)}, {}},
        {"added and removed calendars",
         {calendar("a", "A")},
         {calendar("b", "B")},
         {{QStringLiteral("b"), QStringLiteral("calendarAdded"), {}},
          {QStringLiteral("a"), QStringLiteral("calendarRemoved"), {}}}},
        {"renamed and recoloured",
         {calendar("a", "A", {}, "#000000")},
         {calendar("a", "B", {}, "#FFFFFF")},
         {{QStringLiteral("a"), QStringLiteral("calendarRenamed"), {}},
          {QStringLiteral("a"), QStringLiteral("calendarColorChanged"), {}}}},
        {"item edited (same size, new time)",
         {calendar("a", "A", one)},
         {calendar("a", "A", Items{{QStringLiteral("e.ics"), {10, 2000}}})},
         {{QStringLiteral("a"), QStringLiteral("itemChanged"), QStringLiteral("e.ics")}}},
        {"item replaced by another",
         {calendar("a", "A", one)},
         {calendar("a", "A", Items{{QStringLiteral("f.ics"), {10, 1000}}})},
         {{QStringLiteral("a"), QStringLiteral("itemAdded"), QStringLiteral("f.ics")},
          {QStringLiteral("a"), QStringLiteral("itemRemoved"), QStringLiteral("e.ics")}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(diffCalendars(c.before, c.after), c.expected);
    }
}

TEST(CalendarScanTest, ReadsTitleColourAndOnlyIcsItems)
{
    const QString root = makeTempDir();
    makeCalendar(
        root, QStringLiteral("x"), QStringLiteral("  Title  \nsecond line"),
        {{QStringLiteral("a.ics"), "A"}, {QStringLiteral("b.ICS"), "B"}, {QStringLiteral("notes.txt"), "N"}},
        QStringLiteral("#12345G"));
    const QList<LocalCalendar> calendars = scanCalendars(root);
    ASSERT_EQ(calendars.size(), 1);
    EXPECT_EQ(calendars[0].title, QStringLiteral("Title"));
    EXPECT_TRUE(calendars[0].color.isEmpty()); // not a colour
    EXPECT_EQ(calendars[0].items.keys(), (QStringList{QStringLiteral("a.ics"), QStringLiteral("b.ICS")}));
    EXPECT_TRUE(scanCalendars(root + QStringLiteral("/missing")).isEmpty());
}

} // namespace
