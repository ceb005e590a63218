// The calendar store's side that follows the folders: what the watcher names is looked at in batches,
// a batch in slices of a few milliseconds (one transaction each) so that the bus is served between
// them, and one `changed` at the end of the batch.

#include "CalendarStore.h"
#include "logging/Log.h"
#include "platform/RunLoop.h"
#include "state/StateDatabase.h"

#include <QElapsedTimer>

namespace nimbrel::background {

namespace {

const QByteArray kSlice = QByteArrayLiteral("runSlice");
const QByteArray kPeriodic = QByteArrayLiteral("periodicRescan");
constexpr double kRetryAfterFailure = 5.0;

} // namespace

void CalendarStore::note(const WatchEvent& event)
{
    switch (event.kind) {
    case WatchEvent::Everything:
        m_everything = true;
        break;
    case WatchEvent::Calendar:
        m_folders.insert(event.uid);
        break;
    case WatchEvent::Item:
        m_items[event.uid].insert(event.name);
        break;
    case WatchEvent::Meta:
        m_meta.insert(event.uid);
        break;
    }
    if (!m_scheduled && !m_running)
        schedule(kBatchDelay);
}

void CalendarStore::schedule(double delay)
{
    if (!m_index.isLoaded())
        return;
    RunLoop::current().cancelPreviousPerformRequests(this, kSlice);
    RunLoop::current().performAfterDelay(this, kSlice, delay, [this] { runSlice(); });
    m_scheduled = true;
}

void CalendarStore::runSlice()
{
    m_scheduled = false;
    m_running = true;
    QElapsedTimer clock;
    clock.start();
    if (m_everything) {
        m_everything = false;
        if (!m_watcher.isRootWatched())
            m_watcher.rearm(); // a root that came back while nothing watched it
        for (const QString& uid : calendarFolderNames(m_root))
            m_folders.insert(uid);
        for (auto it = m_index.calendars().keyBegin(); it != m_index.calendars().keyEnd(); ++it)
            m_folders.insert(*it);
    }

    const qsizetype batchBefore = m_batch.size();
    // At least one thing per slice, then as many as fit in its time. What was named is taken from the
    // sets into lists first: taking the first of a large hash one at a time would scan it each time.
    bool ok = m_db.begin();
    while (ok) {
        if (m_folderQueue.isEmpty() && !m_folders.isEmpty())
            m_folderQueue = std::exchange(m_folders, {}).values();
        if (m_metaQueue.isEmpty() && !m_meta.isEmpty())
            m_metaQueue = std::exchange(m_meta, {}).values();
        if (m_itemQueue.isEmpty() && !m_items.isEmpty()) {
            for (auto it = m_items.cbegin(); it != m_items.cend(); ++it)
                m_itemQueue.append({it.key(), it.value()});
            m_items.clear();
        }
        if (!m_folderQueue.isEmpty()) {
            ok = scanCalendar(m_folderQueue.takeLast());
        } else if (!m_metaQueue.isEmpty()) {
            ok = refreshMeta(m_metaQueue.takeLast());
        } else if (!m_itemQueue.isEmpty()) {
            const auto [uid, hrefs] = m_itemQueue.takeLast();
            for (const QString& href : hrefs)
                ok = ok && refreshItem(uid, href);
        } else {
            break;
        }
        if (double(clock.nsecsElapsed()) / 1e9 >= m_sliceSeconds)
            break;
    }
    ok = ok && m_index.saveCounter() && m_db.commit();
    if (!ok) {
        Log(13, "CalendarStore: cannot record the calendar changes: %@; trying again", m_db.lastError());
        m_db.rollback();
        m_batch.resize(batchBefore);
        m_index.load();
        m_everything = true;
        m_running = m_initialScan = false;
        schedule(kRetryAfterFailure);
        return;
    }
    if (hasWork()) {
        schedule(0);
        return;
    }
    m_running = false;
    m_initialScan = false;
    if (!m_unwatched.isEmpty() || !m_watcher.isRootWatched()) {
        RunLoop::current().cancelPreviousPerformRequests(this, kPeriodic);
        RunLoop::current().performAfterDelay(this, kPeriodic, kPeriodicRescan, [this] {
            if (!m_watcher.isRootWatched())
                m_everything = true;
            for (const QString& uid : std::as_const(m_unwatched))
                m_folders.insert(uid);
            if (!m_scheduled && !m_running)
                schedule(0);
        });
    }
    if (!m_batch.isEmpty()) {
        const QList<CalendarChange> changes = std::exchange(m_batch, {});
        emit changed(changes);
    }
}

void CalendarStore::finishInitialScan()
{
    if (!m_initialScan)
        return;
    // Someone waits for it: one transaction, no slices.
    const double sliceSeconds = std::exchange(m_sliceSeconds, 1e9);
    while (m_initialScan && m_index.isLoaded()) {
        RunLoop::current().cancelPreviousPerformRequests(this, kSlice);
        runSlice();
    }
    m_sliceSeconds = sliceSeconds;
}

bool CalendarStore::hasWork() const
{
    return m_everything || !m_folders.isEmpty() || !m_meta.isEmpty() || !m_items.isEmpty() ||
           !m_folderQueue.isEmpty() || !m_metaQueue.isEmpty() || !m_itemQueue.isEmpty();
}

bool CalendarStore::scanCalendar(const QString& uid)
{
    m_items.remove(uid);
    m_meta.remove(uid);
    // Watched before it is read: whatever changes after the reading is reported.
    const bool watched = m_watcher.watchCalendar(uid);
    const FolderListing listing = readFolder(calendarPath(uid));
    const IndexedCalendar* indexed = m_index.calendar(uid);
    if (!listing.exists) {
        m_watcher.unwatchCalendar(uid);
        m_unwatched.remove(uid);
        if (!indexed)
            return true;
        addChange(uid, "calendarRemoved");
        return m_index.removeCalendar(uid);
    }
    if (watched)
        m_unwatched.remove(uid);
    else
        m_unwatched.insert(uid);

    const QString folder = calendarPath(uid) + QLatin1Char('/');
    if (!indexed) {
        QHash<QString, IndexedItem> items;
        for (auto it = listing.items.cbegin(); it != listing.items.cend(); ++it) {
            ItemStamp stamp;
            if (const std::optional<QByteArray> data = readItemFile(folder + it.key(), &stamp))
                items.insert(it.key(), {contentTag(*data), stamp});
        }
        addChange(uid, "calendarAdded");
        return m_index.addCalendar(uid, listing.title, listing.color, items);
    }

    const IndexedCalendar before = *indexed; // a copy: the index changes below
    if (before.title != listing.title || before.color != listing.color) {
        if (before.title != listing.title)
            addChange(uid, "calendarRenamed");
        if (before.color != listing.color)
            addChange(uid, "calendarColorChanged");
        if (!m_index.setTitleAndColor(uid, listing.title, listing.color))
            return false;
    }
    for (auto it = listing.items.cbegin(); it != listing.items.cend(); ++it) {
        const auto known = before.items.constFind(it.key());
        if (known != before.items.cend() && known->stamp == it.value())
            continue;
        if (!refreshItem(uid, it.key()))
            return false;
    }
    for (auto it = before.items.keyBegin(); it != before.items.keyEnd(); ++it) {
        if (!listing.items.contains(*it) && !refreshItem(uid, *it))
            return false;
    }
    return true;
}

bool CalendarStore::refreshItem(const QString& uid, const QString& href)
{
    const IndexedCalendar* calendar = m_index.calendar(uid);
    if (!calendar) {
        m_folders.insert(uid); // a calendar not indexed yet: its whole folder is read
        return true;
    }
    const auto known = calendar->items.constFind(href);
    const bool wasKnown = known != calendar->items.cend();
    const IndexedItem previous = wasKnown ? *known : IndexedItem{};
    ItemStamp stamp;
    const std::optional<QByteArray> data = readItemFile(calendarPath(uid) + QLatin1Char('/') + href, &stamp);
    if (!data) {
        if (!wasKnown)
            return true;
        addChange(uid, "itemRemoved", href);
        return m_index.removeItem(uid, href);
    }
    const QString etag = contentTag(*data);
    if (wasKnown && etag == previous.etag)
        return previous.stamp == stamp || m_index.restampItem(uid, href, stamp);
    addChange(uid, wasKnown ? "itemChanged" : "itemAdded", href);
    return m_index.putItem(uid, href, {etag, stamp});
}

bool CalendarStore::refreshMeta(const QString& uid)
{
    const IndexedCalendar* calendar = m_index.calendar(uid);
    if (!calendar) {
        m_folders.insert(uid);
        return true;
    }
    const FolderListing meta = readFolderMeta(calendarPath(uid));
    if (!meta.exists) {
        m_folders.insert(uid);
        return true;
    }
    if (meta.title == calendar->title && meta.color == calendar->color)
        return true;
    if (meta.title != calendar->title)
        addChange(uid, "calendarRenamed");
    if (meta.color != calendar->color)
        addChange(uid, "calendarColorChanged");
    return m_index.setTitleAndColor(uid, meta.title, meta.color);
}

} // namespace nimbrel::background
