#pragma once

// The parts NimbrelState is made of, shared by its two source files (answers and lifecycle in
// NimbrelState.cpp, changes from the panel in NimbrelStateChanges.cpp).

#include "NimbrelState.h"
#include "calendars/LocalCalendars.h"
#include "logging/Log.h"
#include "state/CalendarSettings.h"
#include "state/SourceRecords.h"
#include "state/StateDatabase.h"

#include <functional>

namespace nimbrel::background {

inline const QString kCalendarsChanged = QStringLiteral("Nimbrel Calendars Changed");
inline const QString kPublishableChange = QStringLiteral("Nimbrel Bonjour Publishable Change");
inline const QString kBonjourChange = QStringLiteral("Nimbrel Bonjour Change");
inline const QString kGoogleChange = QStringLiteral("Nimbrel Google Change");
inline const QString kNamePublished = QStringLiteral("Nimbrel Bonjour Name Published");
inline const QString kReset = QStringLiteral("Nimbrel Reset");

struct NimbrelState::Private
{
    QString databasePath;
    QString calendarsRoot;
    QString backupRoot;
    Poster post;
    StateDatabase db;
    CalendarSettings settings{db};
    SourceRecords sources{db};
    CalendarWatcher* watcher = nullptr;
    QList<LocalCalendar> calendars; // the folders as last scanned
    QString lastError;

    void notify(const QString& name)
    {
        if (post)
            post(name);
    }

    // One change: `apply` checks the input and writes inside a transaction, returning what was wrong
    // (empty when all went well). Bad input and failed writes are logged; the notification is posted
    // in every case, after the commit, so that the panel stops waiting and re-reads the state.
    void change(const char* operation, const QString& notification, const std::function<QString()>& apply);

    // Brings the calendar rows in line with the folders and records the history. `observed` are the
    // changes a watcher saw; without them (at open) the added and removed rows are the history.
    bool storeScan(const QList<LocalCalendar>& now, const QList<CalendarChange>* observed);
    void rescan();

    QVariantMap sourceDictionary(const SourceRecord& source) const;
};

} // namespace nimbrel::background
