#include "protocol/WireCodec.h"

#include "logging/Log.h"
#include "platform/PlistValue.h"

#include <QByteArray>
#include <QDBusArgument>
#include <QDBusVariant>
#include <QDateTime>
#include <QStringList>
#include <QVariantHash>
#include <QVariantList>
#include <QVariantMap>

namespace nimbrel::wire {

namespace {

// The bus refuses a message whose containers (arrays, dictionary entries, structs, variants) nest
// deeper than 64, counted from the top of the body, and drops the sender's connection for it. A
// dictionary costs three levels per plist level (array, entry, variant), an array two, so values
// that would end up deeper are dropped before they are sent.
constexpr int kMaxWireDepth = 64;

const QString kDictionarySignature = QStringLiteral("a{sv}");
const QString kArraySignature = QStringLiteral("av");
const QString kDateSignature = QStringLiteral("((iii)(iiii)i)");
const QString kBytesSignature = QStringLiteral("ay");
const QString kStringsSignature = QStringLiteral("as");

// ---- Sending ---------------------------------------------------------------------------------------

// `depth`: the containers that will enclose `value` on the wire.
QVariant encode(const QVariant& value, int depth);

QVariant tooDeep(const QVariant& value)
{
    Log(13, "toWire: dropped a %s nested too deep for the bus", value.metaType().name());
    return {};
}

QVariant encodeList(const QVariant& value, const QVariantList& list, int depth)
{
    if (depth + 1 > kMaxWireDepth) // av
        return tooDeep(value);
    QVariantList result;
    result.reserve(list.size());
    for (const QVariant& element : list) {
        QVariant encoded = encode(element, depth + 2);
        if (encoded.isValid())
            result.append(std::move(encoded));
    }
    return result;
}

template <typename Map> QVariantMap encodeEntries(const Map& map, int depth)
{
    QVariantMap result;
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        QVariant encoded = encode(it.value(), depth + 3);
        if (encoded.isValid())
            result.insert(it.key(), std::move(encoded));
    }
    return result;
}

template <typename Map> QVariant encodeMap(const QVariant& value, const Map& map, int depth)
{
    if (depth + 1 > kMaxWireDepth) // a{sv}
        return tooDeep(value);
    return encodeEntries(map, depth);
}

QVariant encode(const QVariant& value, int depth)
{
    if (!value.isValid() || value.typeId() == QMetaType::Nullptr)
        return {};
    switch (value.typeId()) {
    case QMetaType::QVariantList:
    case QMetaType::QStringList:
        return encodeList(value, value.toList(), depth);
    case QMetaType::QVariantMap:
        return encodeMap(value, value.toMap(), depth);
    case QMetaType::QVariantHash:
        return encodeMap(value, value.toHash(), depth);
    default:
        break;
    }
    if (value.metaType() == QMetaType::fromType<QDBusVariant>())
        return encode(qvariant_cast<QDBusVariant>(value).variant(), depth);

    QString error;
    QVariant normal = plist::normalized(value, &error);
    if (!normal.isValid()) {
        Log(13, "toWire: dropped a value of type %s: %@", value.metaType().name(), error);
        return {};
    }
    const int cost = normal.typeId() == QMetaType::QDateTime    ? 2
                     : normal.typeId() == QMetaType::QByteArray ? 1
                                                                : 0;
    if (depth + cost > kMaxWireDepth)
        return tooDeep(value);
    return normal;
}

// ---- Receiving -------------------------------------------------------------------------------------

QVariant decode(const QVariant& value, int depth);
QVariant decodeElement(QDBusVariant& element, int depth);

// Reading a shared QDBusArgument first copies its position (so that the caller's copy can be read
// again); the nested ones are held only here, so they are read in place, without that copy.
QVariant decodeArgument(const QDBusArgument argument, int depth)
{
    if (depth > kMaxWireDepth) {
        Log(13, "fromWire: dropped a value nested deeper than %d levels", kMaxWireDepth);
        return {};
    }
    const QString signature = argument.currentSignature();

    if (signature == kDictionarySignature) {
        QVariantMap map;
        argument.beginMap();
        while (!argument.atEnd()) {
            QString key;
            QDBusVariant element;
            argument.beginMapEntry();
            argument >> key >> element;
            argument.endMapEntry();
            QVariant decoded = decodeElement(element, depth + 1);
            if (decoded.isValid())
                map.insert(key, std::move(decoded));
        }
        argument.endMap();
        return map;
    }
    if (signature == kArraySignature) {
        QVariantList list;
        argument.beginArray();
        while (!argument.atEnd()) {
            QDBusVariant element;
            argument >> element;
            QVariant decoded = decodeElement(element, depth + 1);
            if (decoded.isValid())
                list.append(std::move(decoded));
        }
        argument.endArray();
        return list;
    }
    if (signature == kDateSignature) {
        QDateTime date;
        argument >> date;
        if (!date.isValid()) {
            Log(13, "fromWire: dropped an invalid date");
            return {};
        }
        return date.toUTC();
    }
    if (signature == kBytesSignature) {
        QByteArray bytes;
        argument >> bytes;
        return bytes;
    }
    if (signature == kStringsSignature) {
        QStringList strings;
        argument >> strings;
        return QVariantList(strings.cbegin(), strings.cend());
    }
    Log(13, "fromWire: dropped a value of D-Bus type %@", signature);
    return {};
}

// The value of a variant read from a dictionary or array; `element` is emptied.
QVariant decodeElement(QDBusVariant& element, int depth)
{
    QVariant inner = element.variant();
    element.setVariant(QVariant());
    if (inner.metaType() != QMetaType::fromType<QDBusArgument>())
        return decode(inner, depth);
    QDBusArgument argument = qvariant_cast<QDBusArgument>(inner);
    inner = QVariant(); // `argument` is now the only reference
    return decodeArgument(std::move(argument), depth);
}

QVariant decode(const QVariant& value, int depth)
{
    if (depth > kMaxWireDepth) {
        Log(13, "fromWire: dropped a value nested deeper than %d levels", kMaxWireDepth);
        return {};
    }
    const QMetaType type = value.metaType();
    if (type == QMetaType::fromType<QDBusVariant>())
        return decode(qvariant_cast<QDBusVariant>(value).variant(), depth);
    if (type == QMetaType::fromType<QDBusArgument>())
        return decodeArgument(qvariant_cast<QDBusArgument>(value), depth);

    switch (value.typeId()) {
    case QMetaType::UnknownType:
        return {};
    case QMetaType::Bool:
    case QMetaType::UChar:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
    case QMetaType::QString:
    case QMetaType::QByteArray:
        return value;
    case QMetaType::QDateTime: {
        const QDateTime date = value.toDateTime();
        return date.isValid() ? QVariant(date.toUTC()) : QVariant();
    }
    case QMetaType::QStringList: {
        const QStringList strings = value.toStringList();
        return QVariantList(strings.cbegin(), strings.cend());
    }
    case QMetaType::QVariantList: {
        // Already demarshalled by an adaptor: its elements may still be wrapped.
        QVariantList list;
        for (const QVariant& element : value.toList()) {
            QVariant decoded = decode(element, depth + 1);
            if (decoded.isValid())
                list.append(std::move(decoded));
        }
        return list;
    }
    case QMetaType::QVariantMap: {
        QVariantMap map;
        const QVariantMap source = value.toMap();
        for (auto it = source.cbegin(); it != source.cend(); ++it) {
            QVariant decoded = decode(it.value(), depth + 1);
            if (decoded.isValid())
                map.insert(it.key(), std::move(decoded));
        }
        return map;
    }
    default:
        // Object paths, signatures, file descriptors: no property list holds them.
        Log(13, "fromWire: dropped a value of type %s", type.name());
        return {};
    }
}

} // namespace

QVariant toWire(const QVariant& value)
{
    return encode(value, 0);
}

QVariantMap toWire(const QVariantMap& dictionary)
{
    return encodeEntries(dictionary, 0);
}

QVariant fromWire(const QVariant& value)
{
    return decode(value, 0);
}

} // namespace nimbrel::wire
