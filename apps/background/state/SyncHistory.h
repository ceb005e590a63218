#pragma once

// The sync history: one row per observed change of a local calendar (its folder appeared, vanished,
// was renamed or recoloured; an item was added, changed or removed). `nimbrel-resetsync full` clears it.

#include <QList>
#include <QString>

namespace nimbrel::background {

class StateDatabase;

struct HistoryEntry
{
    QString calendarUid;
    QString kind;   // calendarAdded, calendarRemoved, calendarRenamed, calendarColorChanged,
                    // itemAdded, itemChanged, itemRemoved
    QString detail; // the item's file name for item changes
};

// Appends the entries (inside the caller's transaction, if any). False on a failed write.
bool recordHistory(StateDatabase& db, const QList<HistoryEntry>& entries, qint64 timeMs);

// Empties the sync history of the database at `path` (what the reset tool does). A missing file has
// nothing to clear (and is not made). False, with a message in *error, when the database cannot be
// opened or written.
bool clearSyncHistory(const QString& path, QString* error);

} // namespace nimbrel::background
