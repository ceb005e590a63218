#pragma once

// Property-list values over D-Bus: dictionaries as a{sv}, arrays as av, dates as ((iii)(iiii)i).
// One codec for both directions.

#include <QByteArray>
#include <QVariant>
#include <QVariantList>
#include <optional>

namespace nimbrel::wire {

// Before sending: drops null entries of dictionaries and arrays (a null QVariant aborts the sender
// inside libdbus), normalises every value to a property-list type and converts dates to UTC. Values
// that cannot be carried are dropped with a log line.
QVariant toWire(const QVariant& value);
QVariantMap toWire(const QVariantMap& dictionary);

// After receiving: unwraps QDBusVariant and QDBusArgument recursively by signature (a{sv} → map,
// av → list, ((iii)(iiii)i) → UTC date, ay → bytes, basic types as they are). A value of a shape no
// property list has is dropped with a log line (a null QVariant), never a crash.
QVariant fromWire(const QVariant& value);

// Calendar lists, the large answers, travel as one byte array (D-Bus "ay") holding the list in CBOR
// (RFC 8949): with a{sv} in av every key and value is a container of its own that the sender, the bus
// and the receiver each walk, which made 10 000 calendars cost a third of a second. Maps have text
// keys; dates are tag 1 (seconds since the epoch, UTC); nesting is capped as on the bus.
// encodeList writes property-list values only (as toWire normalises them; what no property list
// holds is dropped with a log line). decodeList reads untrusted bytes: anything but a list of
// property-list values (null, undefined, other tags, non-text keys, integers beyond qint64, trailing
// bytes, nesting too deep) refuses the whole answer with the reason in *error.
QByteArray encodeList(const QVariantList& list);
std::optional<QVariantList> decodeList(const QByteArray& bytes, QString* error = nullptr);

} // namespace nimbrel::wire
