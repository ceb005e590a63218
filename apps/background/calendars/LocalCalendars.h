#pragma once

// Local calendars as vdir folders: <root>/<uid>/ holds one .ics file per item, plus a "displayname"
// file (the title) and a "color" file ("#RRGGBB"). The folder name is the calendar's uid, so it stays
// the same across restarts and renames.

#include <QFileSystemWatcher>
#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

namespace nimbrel::background {

struct LocalCalendar
{
    struct Item
    {
        qint64 size = 0;
        qint64 modified = 0; // ms since the epoch
        bool operator==(const Item&) const = default;
    };

    QString uid;               // folder name
    QString path;              // absolute folder path
    QString title;             // displayname, else the folder name
    QString color;             // "#RRGGBB" or "#RRGGBBAA", empty when there is none or it is malformed
    QMap<QString, Item> items; // .ics file name -> what it looked like

    QStringList itemPaths() const;
};

// One observed difference between two scans.
struct CalendarChange
{
    QString uid;
    QString kind;   // calendarAdded, calendarRemoved, calendarRenamed, calendarColorChanged,
                    // itemAdded, itemChanged, itemRemoved
    QString detail; // the item's file name for item changes
    bool operator==(const CalendarChange&) const = default;
};

// Reads every calendar folder below `root` (a missing root reads as none), sorted by uid.
QList<LocalCalendar> scanCalendars(const QString& root);

// Makes "Home" and "Work" (folders named by new UUIDs) when `root` holds no calendar folder at all.
// Returns whether it made them; false with *error when it had to and could not.
bool createDefaultCalendars(const QString& root, QString* error);

// What changed from `before` to `after`, calendar by calendar.
QList<CalendarChange> diffCalendars(const QList<LocalCalendar>& before, const QList<LocalCalendar>& after);

// Watches the root folder, every calendar folder and the files in them, and reports a change once
// things have been quiet for the debounce interval (editors and sync tools write in bursts).
class CalendarWatcher : public QObject
{
    Q_OBJECT
public:
    static constexpr int kDebounceMs = 500;
    // A cap on watched item files, so a huge calendar cannot exhaust the inotify watches; folders are
    // always watched, so added and removed items are still seen.
    static constexpr int kMaxWatchedItems = 4096;

    explicit CalendarWatcher(QObject* parent = nullptr);

    // (Re)starts watching `root` and the given calendars.
    void watch(const QString& root, const QList<LocalCalendar>& calendars);
    void stop();
    bool isWatching() const { return m_watcher != nullptr; }

signals:
    void changed();

private:
    QFileSystemWatcher* m_watcher = nullptr;
    QTimer m_debounce;
};

} // namespace nimbrel::background
