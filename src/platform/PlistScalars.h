#pragma once

// Text forms of the scalar values of the XML property-list format (internal to the codec).

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QStringView>
#include <optional>

namespace nimbrel::plist::detail {

// A piece of the input for an error message, cut short so that a huge value cannot flood it.
QString quoted(QStringView text);

// XML white space.
bool isBlank(QChar c);

enum class NumberStatus
{
    Ok,
    NotANumber,
    Overflow
};

// Decimal or 0x hexadecimal, with an optional sign; the full qint64 range including its minimum.
NumberStatus parseInteger(QStringView text, qint64* out);

// A decimal real, or an infinity / NaN spelled as the format spells them; nullopt when it is none of
// these or does not fit a double.
std::optional<double> parseReal(QStringView text);
// The shortest text that reads back to exactly `value`.
QString formatReal(double value);

// Whether a UTC date has a year the format can carry (1 to 9999).
bool dateInRange(const QDateTime& utc);
// ISO 8601 with "Z", a numeric offset or no zone (UTC); `outOfRange` tells a good form with a bad year.
std::optional<QDateTime> parseDate(QStringView text, bool* outOfRange);
// ISO 8601 UTC, with milliseconds only when there are any.
QString formatDate(const QDateTime& utc);

// Base64 with white space anywhere; nullopt when it is not valid base64.
std::optional<QByteArray> parseData(QStringView text);

// The first UTF-16 unit of `text` that XML 1.0 cannot carry, or -1.
qsizetype firstForbiddenCharacter(const QString& text);

} // namespace nimbrel::plist::detail
