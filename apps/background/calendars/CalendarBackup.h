#pragma once

// Backups of local calendars: each calendar becomes one iCalendar file that any calendar application
// can import. The VEVENT, VTODO and VJOURNAL components of all the calendar's .ics files are merged
// into one VCALENDAR, with each VTIMEZONE (by TZID) written once.

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>

namespace nimbrel::background {

// One calendar to back up: its title and its item files.
struct BackupSource
{
    QString title;
    QStringList files;
};

struct MergedCalendar
{
    QByteArray text;        // the VCALENDAR, CRLF line ends, the title in X-WR-CALNAME
    QStringList unreadable; // files that could not be read (the backup is then incomplete)
    QStringList malformed;  // "<file>: <what>" for components left out because they never ended
};

MergedCalendar mergeCalendarFiles(const QString& title, const QStringList& icsFiles);

// "<title> <yyyy-MM-dd HH.mm.ss>.ics" with the title made safe as one file name: no path separators
// or control characters, no leading dot, at most 200 bytes.
QString backupFileName(const QString& title, const QDateTime& when);

// Writes one backup file per calendar into `folder` (created when missing). On any failure the files
// written so far are removed and false is returned with *error. *written gets the paths.
bool backupCalendars(const QList<BackupSource>& calendars, const QString& folder, const QDateTime& when,
                     QStringList* written, QString* error);

} // namespace nimbrel::background
