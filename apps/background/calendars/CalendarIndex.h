#pragma once

// What the calendar store knows of the folders, kept in Nimbrel.nsql and mirrored in memory so that
// nothing needs a scan to be answered:
//   local_calendars(uid, title, color, token, first_token)   one row per calendar folder
//   local_items(calendar_uid, href, etag, size, mtime_ns, ctime_ns, inode)
//   change_log(calendar_uid, href, token, deleted)           the latest change of each item
//   change_counter(epoch, counter)                           one row
// Tokens come from one counter for the whole database, so they grow in every calendar and are never
// given twice; the epoch (random, made with the counter) tells tokens of another database apart.
// A calendar's token is its latest change (items, title or colour); first_token is the oldest token
// its change log still answers for (its creation, or the last tombstone pruned).

#include "VdirFolder.h"

#include <QHash>
#include <QList>
#include <QSqlQuery>
#include <QString>
#include <memory>
#include <optional>

namespace nimbrel::background {

class StateDatabase;

struct IndexedItem
{
    QString etag;
    ItemStamp stamp;
};

struct IndexedCalendar
{
    QString title; // the displayname as written; empty when there is none
    QString color;
    qint64 token = 0;
    qint64 firstToken = 0;
    QHash<QString, IndexedItem> items;
};

struct LoggedChange
{
    QString href;
    bool deleted = false;
};

class CalendarIndex
{
public:
    explicit CalendarIndex(StateDatabase& db);
    ~CalendarIndex();

    // Reads the tables into memory (making the counter on first use). False on a failed read.
    bool load();
    void clear();
    bool isLoaded() const { return m_loaded; }

    const QHash<QString, IndexedCalendar>& calendars() const { return m_calendars; }
    const IndexedCalendar* calendar(const QString& uid) const;

    QString tokenText(qint64 token) const;
    // The number inside a token of this database; nullopt for anything else (malformed, another
    // epoch, a number never given).
    std::optional<qint64> tokenNumber(const QString& text) const;

    // Changes, written inside the caller's transaction and applied to memory at once (after a failed
    // commit the caller reloads). Each returns false on a failed write.
    bool addCalendar(const QString& uid, const QString& title, const QString& color,
                     const QHash<QString, IndexedItem>& items);
    bool removeCalendar(const QString& uid);
    bool setTitleAndColor(const QString& uid, const QString& title, const QString& color);
    // A new or changed item: logged with a new token.
    bool putItem(const QString& uid, const QString& href, const IndexedItem& item);
    // The same content with a new stamp (touched, copied back): not a change.
    bool restampItem(const QString& uid, const QString& href, const ItemStamp& stamp);
    bool removeItem(const QString& uid, const QString& href);
    // Writes the counter; part of every transaction that took tokens.
    bool saveCounter();

    // Item changes of a calendar after `token`, oldest first.
    std::optional<QList<LoggedChange>> changesAfter(const QString& uid, qint64 token) const;

    // Tombstones kept per calendar before the oldest are dropped (and older tokens become stale).
    void setTombstoneLimit(int limit) { m_tombstoneLimit = limit; }

private:
    struct Statements;
    qint64 nextToken();
    bool touchCalendar(const QString& uid, qint64 token);
    bool pruneTombstones(const QString& uid);

    StateDatabase& m_db;
    std::unique_ptr<Statements> m_sql;
    QHash<QString, IndexedCalendar> m_calendars;
    QString m_epoch;
    qint64 m_counter = 0;
    bool m_loaded = false;
    int m_tombstoneLimit = 1000;
};

} // namespace nimbrel::background
