#include "platform/PlistValue.h"

#include "platform/PlistCodec.h"

#include <QDateTime>
#include <QFloat16>
#include <QHash>
#include <QStringList>
#include <QVariantHash>
#include <QVariantList>
#include <QVariantMap>
#include <limits>
#include <vector>

namespace nimbrel::plist {

namespace {

constexpr quint64 kInt64Max = quint64(std::numeric_limits<qint64>::max());

// One step from the root to the value being normalised: a dictionary key or an array index.
struct PathStep
{
    const QString* key = nullptr;
    qsizetype index = 0;
};

// Keys that would make the path ambiguous are quoted: root["a.b"] rather than root.a.b.
bool needsQuoting(const QString& key)
{
    if (key.isEmpty())
        return true;
    for (QChar c : key) {
        if (c.isSpace() || c == u'.' || c == u'[' || c == u']' || c == u'"')
            return true;
    }
    return false;
}

class Normalizer
{
public:
    QVariant normalize(const QVariant& value, int depth);
    QString error;

private:
    QVariant fail(const QString& what);
    QVariant normalizeList(const QVariantList& list, int depth);
    template <typename Map> QVariant normalizeMap(const Map& map, int depth);
    QString path() const;

    std::vector<PathStep> path_;
};

QString Normalizer::path() const
{
    QString text = QStringLiteral("root");
    for (const PathStep& step : path_) {
        if (!step.key) {
            text += u'[' + QString::number(step.index) + u']';
        } else if (needsQuoting(*step.key)) {
            text += QStringLiteral("[\"") + *step.key + QStringLiteral("\"]");
        } else {
            text += u'.' + *step.key;
        }
    }
    return text;
}

QVariant Normalizer::fail(const QString& what)
{
    if (error.isEmpty())
        error = path() + QStringLiteral(": ") + what;
    return {};
}

QVariant Normalizer::normalizeList(const QVariantList& list, int depth)
{
    if (depth >= kMaxDepth)
        return fail(
            QStringLiteral("arrays and dictionaries are nested deeper than %1 levels").arg(kMaxDepth));
    QVariantList result;
    result.reserve(list.size());
    path_.push_back({});
    for (qsizetype i = 0; i < list.size(); ++i) {
        path_.back().index = i;
        QVariant element = normalize(list.at(i), depth + 1);
        if (!element.isValid()) {
            path_.pop_back();
            return {};
        }
        result.append(std::move(element));
    }
    path_.pop_back();
    return result;
}

template <typename Map> QVariant Normalizer::normalizeMap(const Map& map, int depth)
{
    if (depth >= kMaxDepth)
        return fail(
            QStringLiteral("arrays and dictionaries are nested deeper than %1 levels").arg(kMaxDepth));
    QVariantMap result;
    path_.push_back({});
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        path_.back().key = &it.key();
        QVariant element = normalize(it.value(), depth + 1);
        if (!element.isValid()) {
            path_.pop_back();
            return {};
        }
        result.insert(it.key(), std::move(element));
    }
    path_.pop_back();
    return result;
}

// `depth` is the number of arrays and dictionaries enclosing `value`.
QVariant Normalizer::normalize(const QVariant& value, int depth)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
    case QMetaType::LongLong:
    case QMetaType::Double:
    case QMetaType::QString:
    case QMetaType::QByteArray:
        return value;
    case QMetaType::Int:
        return qint64(value.value<int>());
    case QMetaType::UInt:
        return qint64(value.value<uint>());
    case QMetaType::Short:
        return qint64(value.value<short>());
    case QMetaType::UShort:
        return qint64(value.value<ushort>());
    case QMetaType::Char:
        return qint64(value.value<char>());
    case QMetaType::SChar:
        return qint64(value.value<signed char>());
    case QMetaType::UChar:
        return qint64(value.value<uchar>());
    case QMetaType::Long:
        return qint64(value.value<long>());
    case QMetaType::ULong:
    case QMetaType::ULongLong: {
        const quint64 number =
            value.typeId() == QMetaType::ULong ? quint64(value.value<ulong>()) : value.value<qulonglong>();
        if (number > kInt64Max)
            return fail(QStringLiteral("%1 does not fit in a signed 64-bit integer").arg(number));
        return qint64(number);
    }
    case QMetaType::Float:
        return double(value.value<float>());
    case QMetaType::QDateTime: {
        const QDateTime date = value.toDateTime();
        if (!date.isValid())
            return fail(QStringLiteral("an invalid date cannot be stored in a property list"));
        return date.toUTC();
    }
    case QMetaType::QStringList: {
        QVariantList list;
        const QStringList strings = value.toStringList();
        list.reserve(strings.size());
        for (const QString& s : strings)
            list.append(s);
        return normalizeList(list, depth);
    }
    case QMetaType::QVariantList:
        return normalizeList(value.toList(), depth);
    case QMetaType::QVariantMap:
        return normalizeMap(value.toMap(), depth);
    case QMetaType::QVariantHash:
        return normalizeMap(value.toHash(), depth);
    default:
        break;
    }
    if (value.metaType() == QMetaType::fromType<qfloat16>())
        return double(value.value<qfloat16>());
    if (!value.isValid())
        return fail(QStringLiteral("a null value cannot be stored in a property list"));
    return fail(QStringLiteral("%1 values cannot be stored in a property list")
                    .arg(QLatin1String(value.metaType().name())));
}

} // namespace

Type typeOf(const QVariant& value)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
        return Type::Boolean;
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::UChar:
    case QMetaType::Long:
    case QMetaType::LongLong:
        return Type::Integer;
    case QMetaType::ULong:
    case QMetaType::ULongLong:
        return value.toULongLong() <= kInt64Max ? Type::Integer : Type::Invalid;
    case QMetaType::Float:
    case QMetaType::Double:
        return Type::Real;
    case QMetaType::QString:
        return Type::String;
    case QMetaType::QDateTime:
        return value.toDateTime().isValid() ? Type::Date : Type::Invalid;
    case QMetaType::QByteArray:
        return Type::Data;
    case QMetaType::QStringList:
    case QMetaType::QVariantList:
        return Type::Array;
    case QMetaType::QVariantMap:
    case QMetaType::QVariantHash:
        return Type::Dictionary;
    default:
        return value.metaType() == QMetaType::fromType<qfloat16>() ? Type::Real : Type::Invalid;
    }
}

QString typeName(Type type)
{
    switch (type) {
    case Type::Invalid:
        break;
    case Type::Boolean:
        // Written as <true/> or <false/>; there is no single element name.
        return QStringLiteral("boolean");
    case Type::Integer:
        return QStringLiteral("integer");
    case Type::Real:
        return QStringLiteral("real");
    case Type::String:
        return QStringLiteral("string");
    case Type::Date:
        return QStringLiteral("date");
    case Type::Data:
        return QStringLiteral("data");
    case Type::Array:
        return QStringLiteral("array");
    case Type::Dictionary:
        return QStringLiteral("dict");
    }
    return {};
}

bool isNumber(Type type)
{
    return type == Type::Integer || type == Type::Real;
}

QVariant normalized(const QVariant& value, QString* error)
{
    Normalizer normalizer;
    QVariant result = normalizer.normalize(value, 0);
    if (error)
        *error = normalizer.error;
    return result;
}

QString sharedKey(QByteArrayView utf8)
{
    // Bounded: keys are few; anything beyond is made afresh each time.
    thread_local QHash<QByteArray, QString> keys;
    if (const auto it = keys.constFind(QByteArray::fromRawData(utf8.data(), utf8.size())); it != keys.cend())
        return *it;
    QString made = QString::fromUtf8(utf8);
    if (keys.size() < 256)
        keys.insert(utf8.toByteArray(), made);
    return made;
}

} // namespace nimbrel::plist
