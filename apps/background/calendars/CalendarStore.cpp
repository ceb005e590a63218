#include "CalendarStore.h"

#include "logging/Log.h"
#include "platform/RunLoop.h"
#include "state/StateDatabase.h"

#include <QFile>
#include <algorithm>
#include <cerrno>
#include <unistd.h>

namespace nimbrel::background {

CalendarStore::CalendarStore(StateDatabase& db, const QString& root, QObject* parent)
    : QObject(parent), m_db(db), m_root(root), m_index(db),
      m_watcher([this](const WatchEvent& e) { note(e); }, this)
{
}

CalendarStore::~CalendarStore()
{
    close();
}

bool CalendarStore::open()
{
    close();
    if (!m_index.load()) {
        Log(13, "CalendarStore: cannot read the calendar index: %@", m_db.lastError());
        m_index.clear();
        return false;
    }
    m_watcher.start(m_root);
    m_initialScan = m_index.calendars().isEmpty();
    rescanAll();
    return true;
}

void CalendarStore::close()
{
    RunLoop::current().cancelAllPerformRequests(this);
    m_watcher.stop();
    m_index.clear();
    m_everything = false;
    m_folders.clear();
    m_items.clear();
    m_meta.clear();
    m_folderQueue.clear();
    m_metaQueue.clear();
    m_itemQueue.clear();
    m_unwatched.clear();
    m_batch.clear();
    m_scheduled = m_running = m_initialScan = false;
}

void CalendarStore::rescanAll()
{
    m_everything = true;
    schedule(0);
}

bool CalendarStore::isBusy() const
{
    return m_scheduled || m_running;
}

QString CalendarStore::calendarPath(const QString& uid) const
{
    return m_root + QLatin1Char('/') + uid;
}

StoreCalendar CalendarStore::describe(const QString& uid, const IndexedCalendar& calendar) const
{
    return {uid, calendar.title.isEmpty() ? uid : calendar.title, calendar.color,
            m_index.tokenText(calendar.token)};
}

QList<StoreCalendar> CalendarStore::calendars() const
{
    QList<StoreCalendar> list;
    list.reserve(m_index.calendars().size());
    for (auto it = m_index.calendars().cbegin(); it != m_index.calendars().cend(); ++it)
        list.append(describe(it.key(), *it));
    return list;
}

std::optional<StoreCalendar> CalendarStore::calendar(const QString& uid) const
{
    const IndexedCalendar* calendar = m_index.calendar(uid);
    return calendar ? std::optional<StoreCalendar>(describe(uid, *calendar)) : std::nullopt;
}

QList<StoreItem> CalendarStore::items(const QString& uid) const
{
    QList<StoreItem> list;
    if (const IndexedCalendar* calendar = m_index.calendar(uid)) {
        list.reserve(calendar->items.size());
        for (auto it = calendar->items.cbegin(); it != calendar->items.cend(); ++it)
            list.append({it.key(), it->etag});
    }
    return list;
}

std::optional<StoreItem> CalendarStore::item(const QString& uid, const QString& href) const
{
    const IndexedCalendar* calendar = m_index.calendar(uid);
    if (!calendar || !calendar->items.contains(href))
        return std::nullopt;
    return StoreItem{href, calendar->items.value(href).etag};
}

std::optional<CalendarStore::Content> CalendarStore::readItem(const QString& uid, const QString& href) const
{
    if (!m_index.calendar(uid) || !isItemName(href))
        return std::nullopt;
    std::optional<QByteArray> data = readItemFile(calendarPath(uid) + QLatin1Char('/') + href);
    if (!data)
        return std::nullopt;
    const QString etag = contentTag(*data);
    return Content{std::move(*data), etag};
}

SyncChanges CalendarStore::changesSince(const QString& uid, const QString& token) const
{
    SyncChanges result;
    const IndexedCalendar* calendar = m_index.calendar(uid);
    if (!calendar) {
        result.status = SyncChanges::NoCalendar;
        return result;
    }
    result.syncToken = m_index.tokenText(calendar->token);
    if (token.isEmpty()) {
        result.changed = items(uid);
        return result;
    }
    const std::optional<qint64> number = m_index.tokenNumber(token);
    if (!number) {
        result.status = SyncChanges::UnknownToken;
        return result;
    }
    if (*number < calendar->firstToken) {
        result.status = SyncChanges::StaleToken;
        return result;
    }
    const std::optional<QList<LoggedChange>> logged = m_index.changesAfter(uid, *number);
    if (!logged) {
        // The log cannot be read: the client must start over rather than miss a change.
        result.status = SyncChanges::StaleToken;
        return result;
    }
    for (const LoggedChange& change : *logged) {
        if (change.deleted)
            result.deleted << change.href;
        else if (const auto it = calendar->items.constFind(change.href); it != calendar->items.cend())
            result.changed.append({change.href, it->etag});
    }
    return result;
}

// If-Match / If-None-Match against what is on disk now (the index may lag a hand edit).
bool CalendarStore::precondition(const std::optional<QString>& current, const QString& ifMatch,
                                 const QString& ifNoneMatch) const
{
    if (!ifMatch.isEmpty() && (!current || (ifMatch != QLatin1String("*") && ifMatch != *current)))
        return false;
    if (!ifNoneMatch.isEmpty() && current && (ifNoneMatch == QLatin1String("*") || ifNoneMatch == *current))
        return false;
    return true;
}

bool CalendarStore::checkTarget(const QString& uid, const QString& href, StoreWrite* result) const
{
    if (!m_index.calendar(uid))
        result->status = StoreWrite::NoCalendar;
    else if (!isItemName(href))
        result->status = StoreWrite::BadHref;
    return result->status == StoreWrite::Ok;
}

// Records a write that is on disk already in one transaction of its own.
bool CalendarStore::record(StoreWrite* result, const std::function<bool()>& change)
{
    if (m_db.begin() && change() && m_index.saveCounter() && m_db.commit())
        return true;
    result->status = StoreWrite::Failed;
    result->error =
        QStringLiteral("the file was written but its change could not be recorded: %1").arg(m_db.lastError());
    m_db.rollback();
    m_index.load(); // memory back in step with the database; the watcher's batch records the file
    return false;
}

StoreWrite CalendarStore::putItem(const QString& uid, const QString& href, const QByteArray& data,
                                  const QString& ifMatch, const QString& ifNoneMatch)
{
    StoreWrite result;
    if (!checkTarget(uid, href, &result))
        return result;
    const QString folder = calendarPath(uid);
    const std::optional<QByteArray> existing = readItemFile(folder + QLatin1Char('/') + href);
    const std::optional<QString> currentTag =
        existing ? std::optional<QString>(contentTag(*existing)) : std::nullopt;
    if (!precondition(currentTag, ifMatch, ifNoneMatch)) {
        result.status = StoreWrite::PreconditionFailed;
        return result;
    }
    IndexedItem written{contentTag(data), {}};
    // A creation asked for by If-None-Match must not replace a file that appeared meanwhile.
    switch (writeItemFile(folder, href, data, !existing && !ifNoneMatch.isEmpty(), &written.stamp,
                          &result.error)) {
    case FileWrite::Written:
        break;
    case FileWrite::Exists:
        result.status = StoreWrite::PreconditionFailed;
        return result;
    case FileWrite::Failed:
        result.status = StoreWrite::Failed;
        return result;
    }
    const bool known = m_index.calendar(uid)->items.contains(href);
    if (!record(&result, [&] { return m_index.putItem(uid, href, written); }))
        return result;
    result.created = !existing;
    result.etag = written.etag;
    result.syncToken = m_index.tokenText(m_index.calendar(uid)->token);
    addChange(uid, known ? "itemChanged" : "itemAdded", href);
    return result;
}

StoreWrite CalendarStore::removeItem(const QString& uid, const QString& href, const QString& ifMatch)
{
    StoreWrite result;
    if (!checkTarget(uid, href, &result))
        return result;
    const QString path = calendarPath(uid) + QLatin1Char('/') + href;
    const std::optional<QByteArray> existing = readItemFile(path);
    if (!existing) {
        result.status = StoreWrite::NotFound;
        return result;
    }
    if (!precondition(contentTag(*existing), ifMatch, {})) {
        result.status = StoreWrite::PreconditionFailed;
        return result;
    }
    if (::unlink(QFile::encodeName(path).constData()) != 0) {
        result.status = StoreWrite::Failed;
        result.error =
            QStringLiteral("cannot delete %1: %2").arg(path, QString::fromLocal8Bit(strerror(errno)));
        return result;
    }
    const bool known = m_index.calendar(uid)->items.contains(href);
    if (known) {
        if (!record(&result, [&] { return m_index.removeItem(uid, href); }))
            return result;
        addChange(uid, "itemRemoved", href);
    }
    result.syncToken = m_index.tokenText(m_index.calendar(uid)->token);
    return result;
}

void CalendarStore::addChange(const QString& uid, const char* kind, const QString& detail)
{
    m_batch.append({uid, QLatin1String(kind), detail});
    if (!m_scheduled && !m_running)
        schedule(kBatchDelay);
}

} // namespace nimbrel::background
