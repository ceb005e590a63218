// Local calendars as vdir folders: the defaults, stable uids, what a rescan sees, and the watcher
// that tells the panel (after the history row is written).

#include "calendars/LocalCalendars.h"
#include "StateTestSupport.h"

using namespace nimbrel::background;
using namespace nimbrel::background::test;
using nimbrel::test::waitUntil;

namespace {

const QString kCalendarsChanged = s("Nimbrel Calendars Changed");
const QByteArray kEmptyIcs = "BEGIN:VCALENDAR\r\nEND:VCALENDAR\r\n";

QStringList titles(const NimbrelState& state)
{
    return column(state.calendarsPublishableViaBonjour(), "title");
}

using StateCalendarsTest = StateFixture;

TEST_F(StateCalendarsTest, DefaultsOnlyWhenThereIsNoCalendarAtAll)
{
    const QStringList defaults{s("Home"), s("Work")};
    const struct
    {
        const char* name;
        std::function<void(const QString&)> prepare;
        QStringList expected;
    } cases[] = {
        {"no folder", [](const QString&) {}, defaults},
        {"empty folder", [](const QString& r) { QDir().mkpath(r); }, defaults},
        {"only a stray file", [](const QString& r) { writeFile(r + s("/notes.txt"), "x"); }, defaults},
        {"one calendar", [](const QString& r) { makeCalendar(r, "mine", "Mine"); }, {s("Mine")}},
        {"a calendar without displayname",
         [](const QString& r) { QDir().mkpath(r + s("/bare")); },
         {s("bare")}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const QString dir = makeTempDir();
        c.prepare(dir + s("/Calendars"));
        NimbrelState state(dir + s("/db.nsql"), dir + s("/Calendars"), dir + s("/Backup"), {});
        ASSERT_TRUE(state.open());
        EXPECT_EQ(titles(state), c.expected);
    }
}

TEST_F(StateCalendarsTest, UidsSurviveRestartsAndReopenSeesFoldersChangedMeanwhile)
{
    QStringList first;
    {
        auto state = openState();
        first = column(state->calendarsPublishableViaBonjour(), "uid");
        ASSERT_EQ(titles(*state), (QStringList{s("Home"), s("Work")}));
        EXPECT_EQ(first[0].size(), 36); // a UUID
        EXPECT_NE(first[0], first[1]);
    }
    EXPECT_EQ(column(openState()->calendarsPublishableViaBonjour(), "uid"), first);
    EXPECT_EQ(QDir(calendarsRoot).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(), 2); // no new defaults

    QDir(calendarsRoot + QLatin1Char('/') + first[0]).removeRecursively();
    makeCalendar(calendarsRoot, "c", "C");
    EXPECT_EQ(column(openState()->calendarsPublishableViaBonjour(), "uid"), (QStringList{first[1], s("c")}));
    EXPECT_EQ(sql(dbPath, "SELECT calendar_uid || ':' || kind FROM sync_history ORDER BY id"),
              (QVariantList{first[0] + s(":calendarAdded"), first[1] + s(":calendarAdded"),
                            s("c:calendarAdded"), first[0] + s(":calendarRemoved")}));
}

TEST_F(StateCalendarsTest, WatcherPostsAfterTheChangeIsRecordedAlsoAfterAReset)
{
    makeCalendar(calendarsRoot, "cal", "Cal");
    auto state = openState();
    state->pauseForSyncHistoryReset();
    ASSERT_TRUE(state->resumeAfterSyncHistoryReset());
    ASSERT_EQ(posts, QStringList{kCalendarsChanged});
    posts.clear();
    QVariant recorded;
    onPost = [&](const QString&) {
        recorded = sql1(dbPath, "SELECT kind || ':' || detail FROM sync_history "
                                "WHERE calendar_uid = 'cal' ORDER BY id DESC LIMIT 1");
    };
    writeFile(calendarsRoot + s("/cal/event1.ics"), kEmptyIcs);
    ASSERT_TRUE(waitUntil([&] { return !posts.isEmpty(); }));
    EXPECT_EQ(posts, QStringList{kCalendarsChanged});
    EXPECT_EQ(recorded.toString(), s("itemAdded:event1.ics"));

    // A rename in place and a new calendar folder are seen the same way.
    posts.clear();
    writeFile(calendarsRoot + s("/cal/displayname"), "Renamed\n");
    makeCalendar(calendarsRoot, "zz-new", "New");
    ASSERT_TRUE(waitUntil([&] { return titles(*state) == QStringList{s("Renamed"), s("New")}; }));
    EXPECT_FALSE(posts.isEmpty());
    EXPECT_TRUE(waitUntil([&] {
        return !sql(dbPath,
                    "SELECT 1 FROM sync_history WHERE calendar_uid = 'zz-new' AND kind = 'calendarAdded'")
                    .isEmpty();
    }));
}

LocalCalendar calendar(const char* uid, const char* title, QMap<QString, LocalCalendar::Item> items = {},
                       const char* color = "")
{
    return {s(uid), {}, s(title), s(color), items};
}

TEST(CalendarDiffTest, ReportsEachKindOfChange)
{
    using Items = QMap<QString, LocalCalendar::Item>;
    const Items one{{s("e.ics"), {10, 1000}}};
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
         {{s("b"), s("calendarAdded"), {}}, {s("a"), s("calendarRemoved"), {}}}},
        {"renamed and recoloured",
         {calendar("a", "A", {}, "#000000")},
         {calendar("a", "B", {}, "#FFFFFF")},
         {{s("a"), s("calendarRenamed"), {}}, {s("a"), s("calendarColorChanged"), {}}}},
        {"item edited (same size, new time)",
         {calendar("a", "A", one)},
         {calendar("a", "A", Items{{s("e.ics"), {10, 2000}}})},
         {{s("a"), s("itemChanged"), s("e.ics")}}},
        {"item replaced by another",
         {calendar("a", "A", one)},
         {calendar("a", "A", Items{{s("f.ics"), {10, 1000}}})},
         {{s("a"), s("itemAdded"), s("f.ics")}, {s("a"), s("itemRemoved"), s("e.ics")}}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(diffCalendars(c.before, c.after), c.expected) << c.name;
}

TEST(CalendarScanTest, ReadsTitleColourAndOnlyIcsItems)
{
    const QString root = makeTempDir();
    makeCalendar(root, "x", "  Title  \nsecond line",
                 {{s("a.ics"), "A"}, {s("b.ICS"), "B"}, {s("notes.txt"), "N"}}, "#12345G");
    const QList<LocalCalendar> calendars = scanCalendars(root);
    ASSERT_EQ(calendars.size(), 1);
    EXPECT_EQ(calendars[0].title, s("Title"));
    EXPECT_TRUE(calendars[0].color.isEmpty()); // not a colour
    EXPECT_EQ(calendars[0].items.keys(), (QStringList{s("a.ics"), s("b.ICS")}));
    EXPECT_TRUE(scanCalendars(root + s("/missing")).isEmpty());
}

} // namespace
