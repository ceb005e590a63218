#pragma once

// Property-list values are QVariants holding exactly one of: bool, qint64, double, QString,
// QDateTime (UTC), QByteArray, QVariantList, QVariantMap. These helpers classify and normalise
// values so that every file and every wire format sees the same eight types.

#include <QByteArrayView>
#include <QString>
#include <QVariant>

namespace nimbrel::plist {

enum class Type
{
    Invalid, // not a property-list value (null QVariant, or a type the format cannot carry)
    Boolean,
    Integer,
    Real,
    String,
    Date,
    Data,
    Array,
    Dictionary,
};

// The property-list type of a value; Invalid for anything that is not one of the eight types.
// Only the top level is classified: an array holding an invalid element is still an Array.
Type typeOf(const QVariant& value);

// The element name of a type in the XML format ("dict", "integer", ...); empty for Invalid.
QString typeName(Type type);

// True when the type is Integer or Real: both are "numbers" to readers that check types.
bool isNumber(Type type);

// Brings a value and everything inside it to the canonical types: every integral type becomes qint64
// (an unsigned value above the qint64 range is refused), float becomes double, QDateTime becomes UTC,
// QStringList becomes a list of strings, QVariantHash becomes QVariantMap; a value that cannot be
// represented yields a null QVariant and, when `error` is given, a message naming the first bad path.
QVariant normalized(const QVariant& value, QString* error = nullptr);

// The one QString (per thread) for a dictionary key given as UTF-8. Keys repeat in every record of a
// list; records whose keys share their data compare and look them up by pointer.
QString sharedKey(QByteArrayView utf8);

} // namespace nimbrel::plist
