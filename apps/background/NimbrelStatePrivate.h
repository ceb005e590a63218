#pragma once

// The parts NimbrelState is made of, shared by its two source files (answers and lifecycle in
// NimbrelState.cpp, changes from the panel in NimbrelStateChanges.cpp).

#include "NimbrelState.h"
#include "PublishedCalendars.h"
#include "calendars/CalendarBackup.h"
#include "calendars/CalendarStore.h"
#include "logging/Log.h"
#include "protocol/Notifications.h"
#include "state/CalendarSettings.h"
#include "state/SourceRecords.h"
#include "state/StateDatabase.h"

#include <functional>

namespace nimbrel::background {

inline const QString kCalendarsChanged = notification::calendarsChanged;
inline const QString kPublishableChange = notification::bonjourPublishableChange;
inline const QString kBonjourChange = notification::bonjourChange;
inline const QString kGoogleChange = notification::googleChange;
inline const QString kNamePublished = notification::bonjourNamePublished;
inline const QString kReset = notification::reset;

struct NimbrelState::Private
{
    QString databasePath;
    QString calendarsRoot;
    QString backupRoot;
    Poster post;
    StateDatabase db;
    CalendarSettings settings{db};
    SourceRecords sources{db};
    CalendarStore* store = nullptr;
    QString lastError;
    // Publishing: the published calendars as the CalDAV server sees them, the publisher's hook for a
    // changed name or port, and the name Avahi really published.
    PublishedCalendars* published = nullptr;
    std::function<void()> publisherInfoChanged;
    QString publishedName;

    void notify(const QString& name)
    {
        if (post && !name.isEmpty())
            post(name);
    }

    // One change: `apply` checks the input and writes inside a transaction, returning what was wrong
    // (empty when all went well). Bad input and failed writes are logged; the notification is posted
    // in every case, after the commit, so that the panel stops waiting and re-reads the state.
    // Returns whether the change was made.
    bool change(const char* operation, const QString& notification, const std::function<QString()>& apply);

    // Records a batch of the calendar store's changes (history, settings rows for new calendars), a
    // chunk per pass of the event loop (a first start brings thousands), then posts one "Nimbrel
    // Calendars Changed".
    void calendarsChanged(const QList<CalendarChange>& changes);
    void recordSome(qsizetype chunk = kRecordChunk);
    // The calendars complete before an answer or a change: the first look at the folders done and
    // recorded.
    void settleCalendars();
    static constexpr qsizetype kRecordChunk = 500;
    inline static const QByteArray kRecordSelector = QByteArrayLiteral("recordSome");
    QList<CalendarChange> toRecord;
    // Settings rows for the calendars that have none (placed after the others, by title).
    bool addSettingsRows(const QStringList& uids);

    QList<BackupSource> backupSources() const;
    QVariantMap sourceDictionary(const SourceRecord& source) const;
};

} // namespace nimbrel::background
