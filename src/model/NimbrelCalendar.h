#pragma once

// One row of the publishing table, the subscription outline or the Google tables: a calendar (a leaf)
// or a source of calendars (a computer found over Bonjour, a remote server, the Google account) that
// owns its calendars as children. Wraps the calendar dictionary the background application sends and
// announces every change of it, key by key, to bound views.

#include "model/CalendarRecord.h"
#include "platform/Observable.h"

#include <QDateTime>
#include <QList>
#include <QString>
#include <QVariant>
#include <QVariantMap>
#include <functional>
#include <memory>
#include <optional>

namespace nimbrel {

class CalendarLink;
class NimbrelCalendar;

using CalendarRef = std::shared_ptr<NimbrelCalendar>;
using CalendarList = QList<CalendarRef>;

class NimbrelCalendar : public Observable
{
public:
    // initWithDictionary:andCom: — a "source" dictionary gets its "calendars" as children (recursively),
    // sorted by title; "calendars" never stays in the record of a source.
    NimbrelCalendar(const QVariantMap& dictionary, CalendarLink* com);
    static CalendarRef create(const QVariantMap& dictionary, CalendarLink* com);

    // The record as a dictionary (made on each call), and as the row keeps it.
    QVariantMap dict() const { return m_dict.toMap(); }
    const CalendarRecord& record() const { return m_dict; }
    // Replaces the record: forgets the subscription password on unsubscribing, falls back to the
    // publisher's grants when the password goes, and announces the eight keys (will, then did) unless
    // the record is unchanged.
    void setDict(const QVariantMap& dictionary) { setRecord(CalendarRecord(dictionary)); }
    void setRecord(CalendarRecord incoming);

    // Plain readers: the stored value, null when absent.
    QVariant uid() const;
    QVariant title() const;
    QVariant publishedToBonjour() const;
    QVariant publishedToGoogle() const;
    QVariant subscribedTo() const;
    QVariant subscribable() const;
    qint64 sortOrder() const; // "order", 0 when absent
    bool isOffline() const;

    // Tree. children() is null for a leaf, possibly empty for a source.
    CalendarList* children() { return m_calendarsFromSource.get(); }
    const CalendarList* children() const { return m_calendarsFromSource.get(); }
    int childCount() const;
    bool isLeaf() const { return !m_calendarsFromSource; }
    bool isRemoteServer() const;
    bool isExpanded() const { return m_expanded; }
    void setExpanded(bool expanded) { m_expanded = expanded; }
    void clearMark() { m_marked = false; }
    void setMark() { m_marked = true; }
    bool marked() const { return m_marked; }

    // Ordering and identity. Both comparisons return <0, 0, >0.
    int compare(const NimbrelCalendar& other) const;      // "order", then title without case
    int compareTitle(const NimbrelCalendar& other) const; // title without case
    // By "uid" when the receiver has one (an absent "uid" on the other side never equals), else by title.
    // Deliberately not symmetric. An absent title equals nothing.
    bool isEqualToCalendar(const NimbrelCalendar& other) const;

    // Checkbox setters (the table bindings call them).
    void setPublishedToBonjour(const QVariant& value);
    void setSubscribedTo(const QVariant& value);
    void setPublishedToGoogle(const QVariant& value);
    // Turn publishing / subscribing on after an options sheet was confirmed.
    void autoPublishToBonjour();
    void autoSubscribeTo();
    // Store a record edited in an options sheet and hand the sheet's record on unchanged.
    void setPublishOptions(const QVariantMap& dictionary);
    void setSubscribeOptions(const QVariantMap& dictionary);

    // Summary texts (all through the string table).
    QString publishOptions() const;
    QString subscribeOptions() const;
    static QString lastSyncStringForDate(const QDateTime& date, bool online);
    QString lastSyncAsString() const; // null when there is nothing to say

    // The sync time when usable: present and more than a day after the Unix epoch.
    std::optional<QDateTime> usableSyncTime() const;

    // Whether the Alternate (Option) modifier is down in the event being handled; replaceable in tests.
    // An empty function restores the default (the platform's keyboard state, see KeyboardState.h).
    static void setAlternateKeySource(std::function<bool()> source);
    // The present moment the sync texts count days from; replaceable in tests. An empty function restores
    // the clock.
    static void setCurrentTimeSource(std::function<QDateTime()> source);

    // Sorting helpers for lists.
    static void sortByCompare(CalendarList& list);
    static void sortByTitle(CalendarList& list);

private:
    bool alternateKeyDown() const;

    CalendarRecord m_dict;
    CalendarLink* m_com;
    std::unique_ptr<CalendarList> m_calendarsFromSource;
    bool m_expanded = true;
    bool m_marked = false;
};

// QString::compare(a, b, Qt::CaseInsensitive), with the common all-ASCII case done without folding
// tables: the titles of every list are sorted this way.
int compareCaseless(QStringView a, QStringView b);

// True when the dictionary value reads as true (booleans, numbers; absent = false).
bool boolValue(const QVariant& value);
inline bool boolValue(const QVariantMap& dictionary, const QString& key)
{
    return boolValue(dictionary.value(key));
}
inline bool boolValue(const CalendarRecord& record, const QString& key)
{
    return boolValue(record.value(key));
}

} // namespace nimbrel
