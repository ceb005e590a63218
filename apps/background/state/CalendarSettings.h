#pragma once

// What the user chose for each local calendar: its place in the list, whether it is published via
// Bonjour and to Google, its passwords and whether it is read-only. One row per calendar uid in the
// `calendars` table; the calendar itself (title, colour, items) is the calendar store's.
//
// When a calendar's folder vanishes its row is kept for kVanishedKeepMs (a restore or a sync tool that
// rewrites the folders brings it back with the same uid, and then it gets its settings again).

#include <QHash>
#include <QString>
#include <QStringList>
#include <optional>

namespace nimbrel::background {

class StateDatabase;

struct CalendarSettingsRow
{
    qint64 order = 0;
    bool publishedToBonjour = false;
    bool publishedToGoogle = false;
    QString readPassword;
    QString writePassword;
    bool readOnly = false;
};

class CalendarSettings
{
public:
    explicit CalendarSettings(StateDatabase& db) : m_db(db) {}

    static constexpr qint64 kVanishedKeepMs = 24 * 3600 * 1000;

    // The rows of present calendars by uid.
    QHash<QString, CalendarSettingsRow> rows() const;
    // One present calendar's row (one indexed query).
    std::optional<CalendarSettingsRow> row(const QString& uid) const;
    bool contains(const QString& uid) const;

    // Rows for calendars seen for the first time, placed after the others in the given order; a
    // vanished calendar that is back keeps its row. False on a failed write (inside the caller's
    // transaction, if any).
    bool add(const QStringList& uids);
    // The calendars' folders are gone: their rows are kept, marked with the time.
    bool markVanished(const QStringList& uids, qint64 nowMs);
    // Drops the rows of calendars that vanished more than kVanishedKeepMs before `nowMs`.
    bool purgeVanished(qint64 nowMs);

    bool setPublishedToBonjour(const QString& uid, bool published);
    bool setPublishedToGoogle(const QString& uid, bool published);
    bool setPublishOptions(const QString& uid, const QString& readPassword, const QString& writePassword,
                           bool readOnly);
    bool unpublishAllFromGoogle();
    bool anyPublishedToGoogle() const;

private:
    StateDatabase& m_db;
};

} // namespace nimbrel::background
