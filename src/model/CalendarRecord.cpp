#include "model/CalendarRecord.h"

#include <algorithm>

namespace nimbrel {

namespace {

bool sameKey(const QString& a, const QString& b)
{
    return a.size() == b.size() && (a.constData() == b.constData() || a == b);
}

// QVariant == with the common cases first; everything else (numbers of two types included) as QVariant
// compares them.
bool sameValue(const QVariant& a, const QVariant& b)
{
    if (a.typeId() == b.typeId()) {
        switch (a.typeId()) {
        case QMetaType::QString:
            return *static_cast<const QString*>(a.constData()) == *static_cast<const QString*>(b.constData());
        case QMetaType::Bool:
            return *static_cast<const bool*>(a.constData()) == *static_cast<const bool*>(b.constData());
        case QMetaType::LongLong:
            return *static_cast<const qlonglong*>(a.constData()) ==
                   *static_cast<const qlonglong*>(b.constData());
        default:
            break;
        }
    }
    return a == b;
}

} // namespace

CalendarRecord::CalendarRecord(const QVariantMap& dictionary)
{
    m_entries.reserve(dictionary.size());
    for (auto it = dictionary.cbegin(); it != dictionary.cend(); ++it)
        m_entries.emplace_back(it.key(), it.value());
}

QVariantMap CalendarRecord::toMap() const
{
    QVariantMap map;
    for (const auto& [key, value] : m_entries)
        map.insert(map.cend(), key, value);
    return map;
}

qsizetype CalendarRecord::indexOf(const QString& key) const
{
    for (qsizetype i = 0; i < m_entries.size(); ++i) {
        if (sameKey(m_entries.at(i).first, key))
            return i;
    }
    return -1;
}

QVariant CalendarRecord::value(const QString& key) const
{
    const qsizetype i = indexOf(key);
    return i < 0 ? QVariant() : m_entries.at(i).second;
}

void CalendarRecord::insert(const QString& key, const QVariant& value)
{
    if (const qsizetype i = indexOf(key); i >= 0) {
        m_entries[i].second = value;
        return;
    }
    const auto at = std::lower_bound(
        m_entries.cbegin(), m_entries.cend(), key,
        [](const std::pair<QString, QVariant>& entry, const QString& k) { return entry.first < k; });
    m_entries.insert(at, std::make_pair(key, value));
}

void CalendarRecord::remove(const QString& key)
{
    if (const qsizetype i = indexOf(key); i >= 0)
        m_entries.removeAt(i);
}

bool operator==(const CalendarRecord& a, const CalendarRecord& b)
{
    if (a.m_entries.size() != b.m_entries.size())
        return false;
    if (a.m_entries.constData() == b.m_entries.constData())
        return true;
    for (qsizetype i = 0; i < a.m_entries.size(); ++i) {
        const auto& [keyA, valueA] = a.m_entries.at(i);
        const auto& [keyB, valueB] = b.m_entries.at(i);
        if (!sameKey(keyA, keyB) || !sameValue(valueA, valueB))
            return false;
    }
    return true;
}

} // namespace nimbrel
