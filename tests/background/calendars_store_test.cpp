// The calendar store as a CalDAV server uses it: listing, strong ETags, atomic writes with
// preconditions, sync tokens and the change log; and as the folders change by hand, through the
// watcher, in virtual time.

#include "BackgroundTestSupport.h"
#include "calendars/CalendarStore.h"
#include "platform/VirtualRunLoop.h"

#include <QCryptographicHash>

using namespace nimbrel::background;
using namespace nimbrel::background::test;
using nimbrel::test::waitUntil;

namespace {

QByteArray event(const char* uid)
{
    return "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:" + QByteArray(uid) +
           "\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";
}

QString tagOf(const QByteArray& data)
{
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex().left(32));
}

class CalendarStoreTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        makeCalendar(root, "cal", "Mine", {{s("a.ics"), event("a")}, {s("b.ics"), event("b")}}, "#112233");
        makeCalendar(root, "other", "Other");
        ASSERT_TRUE(db.open(dir + s("/Nimbrel.nsql")));
        open();
    }

    void open(int watchLimit = 0)
    {
        store = std::make_unique<CalendarStore>(db, root);
        if (watchLimit > 0)
            store->watcher().setWatchLimit(watchLimit);
        QObject::connect(store.get(), &CalendarStore::changed,
                         [this](const QList<CalendarChange>& c) { batches << c; });
        ASSERT_TRUE(store->open());
        store->finishInitialScan();
        batches.clear();
    }

    // Lets the watcher's events arrive, then runs the batch they start in virtual time.
    void settle()
    {
        waitUntil([&] { return store->isBusy(); }, 2000);
        while (store->isBusy())
            loop.advance(CalendarStore::kBatchDelay);
    }

    QString token(const char* uid = "cal") const { return store->calendar(s(uid)).value().syncToken; }

    nimbrel::VirtualRunLoop loop;
    nimbrel::ScopedRunLoop scope{loop};
    QString dir = makeTempDir();
    QString root = dir + s("/Calendars");
    StateDatabase db;
    std::unique_ptr<CalendarStore> store;
    QList<QList<CalendarChange>> batches;
};

TEST_F(CalendarStoreTest, ListsCalendarsAndItemsWithContentTags)
{
    const std::optional<StoreCalendar> mine = store->calendar(s("cal"));
    ASSERT_TRUE(mine);
    EXPECT_EQ(mine->displayName, s("Mine"));
    EXPECT_EQ(mine->color, s("#112233"));
    EXPECT_EQ(store->calendar(s("other"))->color, QString());
    EXPECT_EQ(store->calendars().size(), 2);
    EXPECT_EQ(store->item(s("cal"), s("a.ics"))->etag, tagOf(event("a")));
    EXPECT_EQ(store->items(s("cal")).size(), 2);
    const auto content = store->readItem(s("cal"), s("b.ics"));
    ASSERT_TRUE(content);
    EXPECT_EQ(content->data, event("b"));
    EXPECT_EQ(content->etag, tagOf(event("b")));
    EXPECT_FALSE(store->readItem(s("cal"), s("../other/x.ics")));

    // The index outlives the process: same tokens, nothing reported as changed.
    const QString before = token();
    store.reset();
    open();
    EXPECT_EQ(token(), before);
    EXPECT_EQ(store->changesSince(s("cal"), before).status, SyncChanges::Ok);
    settle();
    EXPECT_TRUE(batches.isEmpty());
}

TEST_F(CalendarStoreTest, WritesAreAtomicConditionalAndLoggedAtOnce)
{
    const QByteArray a = tagOf(event("a")).toLatin1();
    const struct
    {
        const char* name;
        const char* uid;
        const char* href;
        QByteArray data;
        const char* ifMatch;
        const char* ifNoneMatch;
        StoreWrite::Status status;
        bool created;
    } cases[] = {
        {"create", "cal", "new.ics", event("n"), "", "*", StoreWrite::Ok, true},
        {"create over an existing item", "cal", "a.ics", event("x"), "", "*", StoreWrite::PreconditionFailed,
         false},
        {"update with a stale tag", "cal", "a.ics", event("x"), "0123", "", StoreWrite::PreconditionFailed,
         false},
        {"update with the current tag", "cal", "a.ics", event("a2"), a.constData(), "", StoreWrite::Ok,
         false},
        {"update of a missing item", "cal", "none.ics", event("x"), "*", "", StoreWrite::PreconditionFailed,
         false},
        {"unconditional replace", "cal", "b.ics", event("b2"), "", "", StoreWrite::Ok, false},
        {"leaves the folder", "cal", "../other/x.ics", event("x"), "", "", StoreWrite::BadHref, false},
        {"hidden file", "cal", ".x.ics", event("x"), "", "", StoreWrite::BadHref, false},
        {"not an item", "cal", "displayname", "x", "", "", StoreWrite::BadHref, false},
        {"unknown calendar", "nope", "x.ics", event("x"), "", "", StoreWrite::NoCalendar, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const QString before = token();
        const QString path = root + s("/%1/%2").arg(s(c.uid), s(c.href));
        const QByteArray onDisk = readFile(path);
        const StoreWrite result = store->putItem(s(c.uid), s(c.href), c.data, s(c.ifMatch), s(c.ifNoneMatch));
        EXPECT_EQ(result.status, c.status);
        if (c.status != StoreWrite::Ok) {
            EXPECT_EQ(readFile(path), onDisk);
            EXPECT_EQ(token(), before);
            continue;
        }
        EXPECT_EQ(result.created, c.created);
        EXPECT_EQ(readFile(path), c.data);
        EXPECT_EQ(result.etag, tagOf(c.data));
        EXPECT_EQ(result.syncToken, token());
        // A client that writes and then syncs sees its own change, and only that.
        const SyncChanges since = store->changesSince(s("cal"), before);
        ASSERT_EQ(since.changed.size(), 1);
        EXPECT_EQ(since.changed[0].href, s(c.href));
        EXPECT_EQ(since.changed[0].etag, result.etag);
    }
    EXPECT_EQ(QDir(root + s("/cal")).entryList(QDir::Files | QDir::Hidden).size(), 5)
        << "a temporary file is left";

    const QString before = token();
    EXPECT_EQ(store->removeItem(s("cal"), s("new.ics"), s("0123")).status, StoreWrite::PreconditionFailed);
    EXPECT_EQ(store->removeItem(s("cal"), s("new.ics"), tagOf(event("n"))).status, StoreWrite::Ok);
    EXPECT_EQ(store->removeItem(s("cal"), s("new.ics")).status, StoreWrite::NotFound);
    EXPECT_FALSE(QFile::exists(root + s("/cal/new.ics")));
    EXPECT_EQ(store->changesSince(s("cal"), before).deleted, QStringList{s("new.ics")});

    // The store's own writes come back from the watcher as nothing new: one batch, as written.
    settle();
    ASSERT_EQ(batches.size(), 1);
    EXPECT_EQ(batches[0].size(), 4);
    EXPECT_EQ(batches[0].last(), (CalendarChange{s("cal"), s("itemRemoved"), s("new.ics")}));
}

TEST_F(CalendarStoreTest, TokensTellUnknownFromStale)
{
    const QString first = token();
    const SyncChanges initial = store->changesSince(s("cal"), {});
    EXPECT_EQ(initial.changed.size(), 2);
    EXPECT_EQ(initial.syncToken, first);
    const QString epoch = first.section(QLatin1Char('-'), 0, 0);
    const QString otherEpoch = (epoch == s("00000000") ? s("11111111") : s("00000000"));
    for (const QString& unknown :
         {s("garbage"), otherEpoch + s("-1"), epoch + s("-999999"), epoch + s("-1-2")})
        EXPECT_EQ(store->changesSince(s("cal"), unknown).status, SyncChanges::UnknownToken)
            << qPrintable(unknown);
    EXPECT_EQ(store->changesSince(s("nope"), first).status, SyncChanges::NoCalendar);

    // Beyond the tombstones kept, older tokens are stale; newer ones still answer.
    store->index().setTombstoneLimit(1);
    for (const char* href : {"n1.ics", "n2.ics"})
        store->putItem(s("cal"), s(href), event(href));
    const QString beforeDeletes = token();
    store->removeItem(s("cal"), s("n1.ics"));
    const QString between = token();
    store->removeItem(s("cal"), s("n2.ics"));
    EXPECT_EQ(store->changesSince(s("cal"), first).status, SyncChanges::StaleToken);
    EXPECT_EQ(store->changesSince(s("cal"), beforeDeletes).status, SyncChanges::StaleToken);
    const SyncChanges recent = store->changesSince(s("cal"), between);
    EXPECT_EQ(recent.status, SyncChanges::Ok);
    EXPECT_EQ(recent.deleted, QStringList{s("n2.ics")});
}

TEST_F(CalendarStoreTest, HandEditsReachTheLogInOneBatch)
{
    const QString before = token();
    writeFile(root + s("/cal/c.ics"), event("c"));        // added
    writeFile(root + s("/cal/a.ics"), event("a-edited")); // edited in place
    QFile::remove(root + s("/cal/b.ics"));                // removed
    writeFile(root + s("/cal/notes.txt"), "not an item");
    writeFile(root + s("/cal/displayname"), "Renamed\n");
    makeCalendar(root, "fresh", "Fresh");
    QDir(root + s("/other")).removeRecursively();
    settle();

    ASSERT_EQ(batches.size(), 1);
    QStringList kinds;
    for (const CalendarChange& change : batches[0])
        kinds << change.uid + QLatin1Char(':') + change.kind + QLatin1Char(':') + change.detail;
    kinds.sort();
    EXPECT_EQ(kinds, (QStringList{s("cal:calendarRenamed:"), s("cal:itemAdded:c.ics"),
                                  s("cal:itemChanged:a.ics"), s("cal:itemRemoved:b.ics"),
                                  s("fresh:calendarAdded:"), s("other:calendarRemoved:")}));
    const SyncChanges since = store->changesSince(s("cal"), before);
    EXPECT_EQ(since.deleted, QStringList{s("b.ics")});
    EXPECT_EQ(since.changed.size(), 2);
    EXPECT_EQ(store->item(s("cal"), s("a.ics"))->etag, tagOf(event("a-edited")));
    EXPECT_EQ(store->calendar(s("cal"))->displayName, s("Renamed"));
    EXPECT_FALSE(store->calendar(s("other")));

    // What changed while nobody watched is found at the next open.
    store.reset();
    writeFile(root + s("/cal/a.ics"), event("a-offline"));
    open();
    settle();
    ASSERT_EQ(batches.size(), 1);
    EXPECT_EQ(batches[0], (QList<CalendarChange>{{s("cal"), s("itemChanged"), s("a.ics")}}));
}

// A restore or a sync tool may move the whole folder away and back, or delete and make it again.
TEST_F(CalendarStoreTest, TheRootIsWatchedAgainWhenItComesBack)
{
    const auto kinds = [this] {
        QStringList list;
        for (const CalendarChange& change : batches.value(0))
            list << change.uid + QLatin1Char(':') + change.kind + QLatin1Char(':') + change.detail;
        list.sort();
        batches.clear();
        return list;
    };
    ASSERT_TRUE(QDir().rename(root, dir + s("/aside")));
    settle();
    EXPECT_EQ(kinds(), (QStringList{s("cal:calendarRemoved:"), s("other:calendarRemoved:")}));
    ASSERT_TRUE(QDir().rename(dir + s("/aside"), root));
    settle();
    EXPECT_EQ(kinds(), (QStringList{s("cal:calendarAdded:"), s("other:calendarAdded:")}));
    writeFile(root + s("/cal/z.ics"), event("z"));
    settle();
    EXPECT_EQ(kinds(), QStringList{s("cal:itemAdded:z.ics")});

    ASSERT_TRUE(QDir(root).removeRecursively());
    settle();
    EXPECT_EQ(kinds().size(), 2);
    makeCalendar(root, "new", "New");
    settle();
    EXPECT_EQ(kinds(), QStringList{s("new:calendarAdded:")});
    writeFile(root + s("/new/displayname"), "Newer\n");
    settle();
    EXPECT_EQ(kinds(), QStringList{s("new:calendarRenamed:")});
}

TEST_F(CalendarStoreTest, BeyondTheWatchLimitCalendarsAreCheckedPeriodically)
{
    store.reset();
    StderrCapture log(10);
    open(3); // the root, its parent and one calendar
    loop.runPending();
    EXPECT_EQ(store->watcher().watchCount(), 3);
    EXPECT_TRUE(log.text().contains(s("limit of 3 inotify watches is reached"))) << qPrintable(log.text());
    const QString watched = store->watcher().isWatched(s("cal")) ? s("cal") : s("other");
    const QString unwatched = watched == s("cal") ? s("other") : s("cal");

    writeFile(root + s("/cal/displayname"), "Cal 2\n");
    writeFile(root + s("/other/displayname"), "Other 2\n");
    settle();
    ASSERT_EQ(batches.size(), 1);
    EXPECT_EQ(batches[0], (QList<CalendarChange>{{watched, s("calendarRenamed"), {}}}));
    loop.advance(CalendarStore::kPeriodicRescan);
    ASSERT_EQ(batches.size(), 2);
    EXPECT_EQ(batches[1], (QList<CalendarChange>{{unwatched, s("calendarRenamed"), {}}}));
}

} // namespace
