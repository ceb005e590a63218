#pragma once

// Property-list values over D-Bus: dictionaries as a{sv}, arrays as av, dates as ((iii)(iiii)i).
// One codec for both directions.

#include <QVariant>

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

} // namespace nimbrel::wire
