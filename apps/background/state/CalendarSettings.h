#pragma once

// What the user chose for each local calendar: its place in the list, whether it is published via
// Bonjour and to Google, its passwords and whether it is read-only. One row per calendar uid in the
// `calendars` table; the calendar itself (title, colour, items) is the calendar store's.

#include <QHash>
#include <QString>
#include <QStringList>

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

    // Every row by uid.
    QHash<QString, CalendarSettingsRow> rows() const;
    bool contains(const QString& uid) const;

    // Rows for calendars seen for the first time, placed after the others in the given order. Uids
    // that have a row already are left as they are. False on a failed write (inside the caller's
    // transaction, if any).
    bool add(const QStringList& uids);
    bool remove(const QStringList& uids);

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
