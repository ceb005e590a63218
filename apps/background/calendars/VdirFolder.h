#pragma once

// One local calendar on disk: a vdir folder <root>/<uid>/ with one iCalendar file per item
// (<name>.ics), the title in "displayname" and the colour ("#RRGGBB" or "#RRGGBBAA") in "color".
// Plain POSIX calls: a start with 10 000 folders reads each of them.

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>
#include <optional>

namespace nimbrel::background {

// What a file looked like; a change of any field means the content may have changed.
struct ItemStamp
{
    qint64 size = 0;
    qint64 mtimeNs = 0;
    qint64 ctimeNs = 0;
    qint64 inode = 0;
    bool operator==(const ItemStamp&) const = default;
};

struct FolderListing
{
    bool exists = false;
    QString title; // displayname's first line, trimmed; empty when there is none
    QString color; // empty when there is none or it is malformed
    QHash<QString, ItemStamp> items;
};

inline constexpr qint64 kMaxItemBytes = 64 * 1024 * 1024;

// Item file names: "<name>.ics" (any case), no path separator, not hidden, no control character,
// at most 255 bytes.
bool isItemName(const QString& name);

// The folder's items with their stamps, title and colour.
FolderListing readFolder(const QString& folder);
// Only the title and colour (no items).
FolderListing readFolderMeta(const QString& folder);
// The subfolders of `root` that are calendars (not hidden), unsorted; empty when `root` is missing.
QStringList calendarFolderNames(const QString& root);
bool hasCalendarFolder(const QString& root);

// The strong entity tag of an item's bytes: the first 128 bits of its SHA-256, in lower-case hex.
QString contentTag(const QByteArray& content);

// Reads an item and the stamp of what was read; nullopt when it is missing, not a plain file, larger
// than kMaxItemBytes or unreadable.
std::optional<QByteArray> readItemFile(const QString& path, ItemStamp* stamp = nullptr);

enum class FileWrite
{
    Written,
    Exists, // mustNotExist and a file of that name appeared
    Failed
};
// Writes the item atomically: a hidden temporary file in the same folder, flushed to disk, then
// renamed over the name (without replacing when mustNotExist). *stamp is the new file's.
FileWrite writeItemFile(const QString& folder, const QString& name, const QByteArray& content,
                        bool mustNotExist, ItemStamp* stamp, QString* error);

// Makes "Home" and "Work" (folders named by new UUIDs) when `root` holds no calendar folder at all.
// Returns whether it made them; false with *error when it had to and could not.
bool createDefaultCalendars(const QString& root, QString* error);

} // namespace nimbrel::background
