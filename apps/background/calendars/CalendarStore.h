#pragma once

// The local calendars, served without scanning. Each calendar is a vdir folder <root>/<uid>/ (one
// iCalendar file per item, "displayname", "color"); the store keeps an index of them in Nimbrel.nsql
// (CalendarIndex.h) that a watcher keeps current, so every question below is answered from memory or
// from one indexed query. Everything runs on the main thread; nothing here blocks on the network.
//
// For a CalDAV server:
//   calendars(), calendar(uid)        uid (the folder name), display name, colour, sync token
//   items(uid), item(uid, href)       href (the file name, "<name>.ics") and its strong ETag
//   readItem(uid, href)               the bytes and the ETag of exactly those bytes
//   changesSince(uid, token)          sync-collection: the items changed or deleted after `token`
//   putItem / removeItem              atomic write / delete of one item with If-Match / If-None-Match,
//                                     recorded in the change log at once (a client that writes and
//                                     then syncs sees its own change)
//   changed(changes)                  after each batch of changes, whoever made them
//
// ETags are 32 lower-case hex digits (the first 128 bits of the content's SHA-256), without quotes;
// the same bytes always have the same ETag. Sync tokens are opaque text of [0-9a-f-] (an epoch and a
// number); a calendar's token grows with every change of its items, title or colour, and is never
// given twice, not even across a deleted and re-created calendar or a replaced database.
//
// Changes made by hand (an editor, a sync tool, khal) reach the index through the watcher in batches
// (kBatchDelay after the first event of a burst); until then the index may lag the folder by that much.

#include "CalendarIndex.h"
#include "CalendarWatcher.h"

#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <functional>
#include <optional>

namespace nimbrel::background {

class StateDatabase;

struct StoreCalendar
{
    QString uid;
    QString displayName; // the first line of "displayname", else the uid
    QString color;       // "#RRGGBB" or "#RRGGBBAA"; empty when there is none
    QString syncToken;
};

struct StoreItem
{
    QString href;
    QString etag;
};

// One observed change, as the sync history records it.
struct CalendarChange
{
    QString uid;
    QString kind;   // calendarAdded, calendarRemoved, calendarRenamed, calendarColorChanged,
                    // itemAdded, itemChanged, itemRemoved
    QString detail; // the item's href for item changes
    bool operator==(const CalendarChange&) const = default;
};

struct SyncChanges
{
    enum Status
    {
        Ok,
        UnknownToken, // not a token of this database, or a number it never gave (403 valid-sync-token)
        StaleToken,   // older than what the change log still holds (403 valid-sync-token; full resync)
        NoCalendar,
    };
    Status status = Ok;
    QString syncToken;        // the calendar's current token (Ok only)
    QList<StoreItem> changed; // present now, changed after the token (all items for an empty token)
    QStringList deleted;      // hrefs deleted after the token (none for an empty token)
};

struct StoreWrite
{
    enum Status
    {
        Ok,
        NoCalendar,
        BadHref,            // not a plain "<name>.ics" file name
        NotFound,           // removeItem of an item that is not there
        PreconditionFailed, // If-Match / If-None-Match did not hold (412)
        Failed,             // the disk refused; `error` says why (nothing was changed)
    };
    Status status = Ok;
    bool created = false; // putItem made a new item
    QString etag;         // of the item written
    QString syncToken;    // the calendar's token after the change
    QString error;
};

class CalendarStore : public QObject
{
    Q_OBJECT
public:
    static constexpr double kBatchDelay = 0.2;      // seconds from the first event to its batch
    static constexpr double kSliceSeconds = 0.008;  // work per pass of the event loop
    static constexpr double kPeriodicRescan = 60.0; // unwatched calendars (over the inotify limit)

    CalendarStore(StateDatabase& db, const QString& root, QObject* parent = nullptr);
    ~CalendarStore() override;

    // Loads the index (the database must be open) and starts watching; the folders are then compared
    // with the index in the background (`changed` tells what differed). False when the index cannot be
    // read. close() stops everything (call it before the database closes).
    bool open();
    void close();
    bool isOpen() const { return m_index.isLoaded(); }
    QString root() const { return m_root; }

    QList<StoreCalendar> calendars() const;
    std::optional<StoreCalendar> calendar(const QString& uid) const;
    QString calendarPath(const QString& uid) const;

    QList<StoreItem> items(const QString& uid) const;
    std::optional<StoreItem> item(const QString& uid, const QString& href) const;
    struct Content
    {
        QByteArray data;
        QString etag;
    };
    std::optional<Content> readItem(const QString& uid, const QString& href) const;

    // An empty token asks for everything (an initial sync).
    SyncChanges changesSince(const QString& uid, const QString& token) const;

    // `ifMatch` / `ifNoneMatch`: empty (no condition), "*" or an ETag (unquoted).
    StoreWrite putItem(const QString& uid, const QString& href, const QByteArray& data,
                       const QString& ifMatch = {}, const QString& ifNoneMatch = {});
    StoreWrite removeItem(const QString& uid, const QString& href, const QString& ifMatch = {});

    // ---- For the application and tests ----------------------------------------------------------
    // Looks at every folder again, as at open (after a database reset or a long pause).
    void rescanAll();
    bool isBusy() const; // a batch is waiting or running
    // When the index was empty at open (a first start, a replaced database), completes the first look
    // at the folders now, so that a list is never answered half made. Does nothing afterwards.
    void finishInitialScan();
    CalendarWatcher& watcher() { return m_watcher; }
    void setSliceSeconds(double seconds) { m_sliceSeconds = seconds; }
    CalendarIndex& index() { return m_index; }

signals:
    void changed(const QList<nimbrel::background::CalendarChange>& changes);

private:
    void note(const WatchEvent& event);
    void schedule(double delay);
    void runSlice();
    bool hasWork() const;
    bool scanCalendar(const QString& uid);
    bool refreshItem(const QString& uid, const QString& href);
    bool refreshMeta(const QString& uid);
    void addChange(const QString& uid, const char* kind, const QString& detail = {});
    StoreCalendar describe(const QString& uid, const IndexedCalendar& calendar) const;
    bool precondition(const std::optional<QString>& current, const QString& ifMatch,
                      const QString& ifNoneMatch) const;
    bool checkTarget(const QString& uid, const QString& href, StoreWrite* result) const;
    bool record(StoreWrite* result, const std::function<bool()>& change);

    StateDatabase& m_db;
    QString m_root;
    CalendarIndex m_index;
    CalendarWatcher m_watcher;
    // What the watcher named and is still to be looked at.
    bool m_everything = false;
    QSet<QString> m_folders;               // look at the whole folder
    QHash<QString, QSet<QString>> m_items; // re-read these items
    QSet<QString> m_meta;                  // re-read displayname and color
    QStringList m_folderQueue;             // taken from the sets above while a batch runs
    QStringList m_metaQueue;
    QList<std::pair<QString, QSet<QString>>> m_itemQueue;
    QSet<QString> m_unwatched;     // calendars the periodic rescan looks at
    QList<CalendarChange> m_batch; // changes made since the last `changed`
    bool m_scheduled = false;
    bool m_running = false;
    bool m_initialScan = false; // the first batch after opening an empty index is under way
    double m_sliceSeconds = kSliceSeconds;
};

} // namespace nimbrel::background
