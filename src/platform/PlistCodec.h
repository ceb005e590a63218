#pragma once

// The XML property-list format: one reader and one writer that serve every file of the program
// (Info.plist, UserDefaults.plist, the preference domains).

#include <QByteArray>
#include <QString>
#include <QVariant>
#include <optional>

namespace nimbrel::plist {

// Files larger than this are refused unread.
inline constexpr qint64 kMaxFileSize = 64 * 1024 * 1024;
// Arrays and dictionaries nested deeper than this are refused.
inline constexpr int kMaxDepth = 512;

struct ParseError
{
    QString message; // what is wrong, in a sentence a user can act on
    qint64 line = 0; // 1-based line of the input where it was found; 0 when not tied to a line
    qint64 column = 0;

    // "line 12: <key> "x" has no value" (or just the message when line is 0)
    QString toString() const;
};

// Parses an XML property list. Accepts a <plist> root holding exactly one value, or a bare value
// as root. Returns nullopt and fills `error` on any malformed input; never throws or aborts.
std::optional<QVariant> read(const QByteArray& xml, ParseError* error = nullptr);

// Reads a file; refuses one larger than kMaxFileSize, and reports open/read failures in `error`.
std::optional<QVariant> readFile(const QString& path, ParseError* error = nullptr);

// Serialises a value (normalised first, see PlistValue.h) as a pretty-printed XML property list:
// XML declaration, DOCTYPE, <plist version="1.0">, one tab per nesting level, dictionary keys in
// sorted order. Returns nullopt with `error` set when the value holds something the format cannot
// carry (a null value, an unsupported type, a string with a character XML 1.0 forbids).
std::optional<QByteArray> write(const QVariant& value, QString* error = nullptr);

// Writes a file atomically (QSaveFile: a reader sees the old or the new file, never half of one).
bool writeFile(const QString& path, const QVariant& value, QString* error = nullptr);

} // namespace nimbrel::plist
