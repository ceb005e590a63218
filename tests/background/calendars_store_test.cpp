// The calendar store as a CalDAV server uses it: listing, strong ETags, atomic writes with
// preconditions, sync tokens and the change log; and as the folders change by hand, through the
// watcher, in virtual time.

#include "BackgroundTestSupport.h"
#include "calendars/CalendarStore.h"
#include "platform/VirtualRunLoop.h"

#include <QCoreApplication>
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
    // Lets the watcher's events arrive, runs the batch they start in virtual time, and returns its
    // changes as "uid:kind:detail", sorted (several batches: their count first).
    QStringList settle()
    {
        waitUntil([&] { return store->isBusy() || !batches.isEmpty(); }, 2000);
        QCoreApplication::processEvents(); // the watcher's events of what was just done
        while (store->isBusy())
            loop.advance(CalendarStore::kBatchDelay);
        QStringList changes;
        for (const CalendarChange& c : batches.value(0))
            changes << c.uid + QLatin1Char(':') + c.kind + QLatin1Char(':') + c.detail;
        changes.sort();
        if (batches.size() > 1)
            changes.prepend(QString::number(batches.size()));
        batches.clear();
        return changes;
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

TEST_F(CalendarStoreTest, ListsCalendarsItemsWithContentTagsAndTokens)
{
    const std::optional<StoreCalendar> mine = store->calendar(s("cal"));
    ASSERT_TRUE(mine);
    EXPECT_EQ(mine->displayName, s("Mine"));
    EXPECT_EQ(mine->color, s("#112233"));
    EXPECT_EQ(store->item(s("cal"), s("a.ics"))->etag, tagOf(event("a")));
    const auto content = store->readItem(s("cal"), s("b.ics"));
    EXPECT_TRUE(content && content->data == event("b") && content->etag == tagOf(event("b")));
    EXPECT_FALSE(store->readItem(s("cal"), s("../other/x.ics")));
    // The index outlives the process: the same tokens, nothing reported as changed.
    const QString first = token();
    open();
    EXPECT_EQ(token(), first);
    EXPECT_EQ(settle(), QStringList());
    // Tokens: unknown ones (another database, never given, malformed) are told from stale ones.
    const SyncChanges initial = store->changesSince(s("cal"), {});
    EXPECT_TRUE(initial.changed.size() == 2 && initial.syncToken == first);
    const QString epoch = first.section(QLatin1Char('-'), 0, 0);
    const QString otherEpoch = epoch == s("00000000") ? s("11111111") : s("00000000");
    for (const QString& unknown :
         {s("garbage"), otherEpoch + s("-1"), epoch + s("-999999"), epoch + s("-1-2")})
        EXPECT_EQ(store->changesSince(s("cal"), unknown).status, SyncChanges::UnknownToken)
            << qPrintable(unknown);
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
    EXPECT_EQ(store->changesSince(s("cal"), between).deleted, QStringList{s("n2.ics")});
}

TEST_F(CalendarStoreTest, WritesAreAtomicConditionalAndLoggedAtOnce)
{
    const QByteArray a = tagOf(event("a")).toLatin1();
    // Calendar, href, content, If-Match, If-None-Match; the outcome.
    const std::tuple<const char*, const char*, QByteArray, const char*, const char*, StoreWrite::Status>
        cases[] = {
            {"cal", "new.ics", event("n"), "", "*", StoreWrite::Ok},
            {"cal", "a.ics", event("x"), "", "*", StoreWrite::PreconditionFailed},
            {"cal", "a.ics", event("x"), "0123", "", StoreWrite::PreconditionFailed},
            {"cal", "a.ics", event("a2"), a.constData(), "", StoreWrite::Ok},
            {"cal", "b.ics", event("b2"), "", "", StoreWrite::Ok},
            {"cal", "x/../../escape.ics", event("x"), "", "", StoreWrite::BadHref},
            {"nope", "x.ics", event("x"), "", "", StoreWrite::NoCalendar},
        };
    for (const auto& [uid, href, data, ifMatch, ifNoneMatch, status] : cases) {
        SCOPED_TRACE(href);
        const QString before = token();
        const QString path = root + s("/%1/%2").arg(s(uid), s(href));
        const QByteArray onDisk = readFile(path);
        const StoreWrite result = store->putItem(s(uid), s(href), data, s(ifMatch), s(ifNoneMatch));
        EXPECT_EQ(result.status, status);
        if (status != StoreWrite::Ok) {
            EXPECT_EQ(readFile(path), onDisk);
            EXPECT_EQ(token(), before);
            continue;
        }
        EXPECT_EQ(result.created, onDisk.isEmpty());
        EXPECT_EQ(readFile(path), data);
        EXPECT_EQ(result.etag, tagOf(data));
        EXPECT_EQ(result.syncToken, token());
        // A client that writes and then syncs sees its own change, and only that.
        const SyncChanges since = store->changesSince(s("cal"), before);
        ASSERT_EQ(since.changed.size(), 1);
        EXPECT_EQ(since.changed[0].href, s(href));
        EXPECT_EQ(since.changed[0].etag, result.etag);
    }
    EXPECT_EQ(QDir(root + s("/cal")).entryList(QDir::Files | QDir::Hidden).size(), 5)
        << "a temporary file is left";
    const QString before = token();
    EXPECT_EQ(store->removeItem(s("cal"), s("new.ics"), s("0123")).status, StoreWrite::PreconditionFailed);
    EXPECT_EQ(store->removeItem(s("cal"), s("new.ics"), tagOf(event("n"))).status, StoreWrite::Ok);
    EXPECT_EQ(store->removeItem(s("cal"), s("new.ics")).status, StoreWrite::NotFound);
    EXPECT_EQ(store->changesSince(s("cal"), before).deleted, QStringList{s("new.ics")});
    // The store's own writes come back from the watcher as nothing new: one batch, as written.
    EXPECT_EQ(settle(), (QStringList{s("cal:itemAdded:new.ics"), s("cal:itemChanged:a.ics"),
                                     s("cal:itemChanged:b.ics"), s("cal:itemRemoved:new.ics")}));
}

TEST_F(CalendarStoreTest, HandEditsReachTheLogInOneBatch)
{
    store->setSliceSeconds(0); // one calendar a slice: the batch still ends in one notice
    const QString before = token();
    writeFile(root + s("/cal/c.ics"), event("c"));        // added
    writeFile(root + s("/cal/a.ics"), event("a-edited")); // edited in place
    QFile::remove(root + s("/cal/b.ics"));
    writeFile(root + s("/cal/displayname"), "Renamed\n");
    makeCalendar(root, "fresh", "Fresh");
    QDir(root + s("/other")).removeRecursively();
    EXPECT_EQ(settle(), (QStringList{s("cal:calendarRenamed:"), s("cal:itemAdded:c.ics"),
                                     s("cal:itemChanged:a.ics"), s("cal:itemRemoved:b.ics"),
                                     s("fresh:calendarAdded:"), s("other:calendarRemoved:")}));
    const SyncChanges since = store->changesSince(s("cal"), before);
    EXPECT_EQ(since.deleted, QStringList{s("b.ics")});
    EXPECT_EQ(since.changed.size(), 2);
    EXPECT_EQ(store->item(s("cal"), s("a.ics"))->etag, tagOf(event("a-edited")));
    EXPECT_EQ(store->calendar(s("cal"))->displayName, s("Renamed"));
    // What changed while nobody watched is found at the next open.
    store.reset();
    writeFile(root + s("/cal/a.ics"), event("a-offline"));
    open();
    EXPECT_EQ(settle(), QStringList{s("cal:itemChanged:a.ics")});
}

// A restore or a sync tool may move the whole folder away and back, or delete and make it again.
TEST_F(CalendarStoreTest, TheRootIsWatchedAgainWhenItComesBack)
{
    ASSERT_TRUE(QDir().rename(root, dir + s("/aside")));
    EXPECT_EQ(settle(), (QStringList{s("cal:calendarRemoved:"), s("other:calendarRemoved:")}));
    ASSERT_TRUE(QDir().rename(dir + s("/aside"), root));
    EXPECT_EQ(settle(), (QStringList{s("cal:calendarAdded:"), s("other:calendarAdded:")}));
    writeFile(root + s("/cal/z.ics"), event("z"));
    EXPECT_EQ(settle(), QStringList{s("cal:itemAdded:z.ics")});
    ASSERT_TRUE(QDir(root).removeRecursively());
    EXPECT_EQ(settle().size(), 2);
    makeCalendar(root, "new", "New");
    EXPECT_EQ(settle(), QStringList{s("new:calendarAdded:")});
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
    EXPECT_EQ(settle(), QStringList{watched + s(":calendarRenamed:")});
    loop.advance(CalendarStore::kPeriodicRescan);
    EXPECT_EQ(settle(), QStringList{unwatched + s(":calendarRenamed:")});
}

} // namespace
