#pragma once

// Where the background application keeps its data: $XDG_DATA_HOME/Nimbrel (default
// ~/.local/share/Nimbrel) with the database, the calendar folders and the backups.

#include <QString>

namespace nimbrel::background {

QString supportFolder();
QString databasePath();    // supportFolder()/Nimbrel.nsql
QString backupFolder();    // supportFolder()/Backup
QString calendarsFolder(); // supportFolder()/Calendars

} // namespace nimbrel::background
