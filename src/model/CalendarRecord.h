#pragma once

// A calendar dictionary as a row keeps it: the entries in one flat array, in key order. Reading a key,
// comparing two records and copying one touch one block of memory instead of a tree of nodes, which
// is what merging a list of 10 000 rows does for every row. Equality is the dictionary's: the same
// keys with equal values (QVariant ==).

#include <QList>
#include <QString>
#include <QVariant>
#include <QVariantMap>
#include <utility>

namespace nimbrel {

class CalendarRecord
{
public:
    CalendarRecord() = default;
    explicit CalendarRecord(const QVariantMap& dictionary);

    QVariantMap toMap() const;
    qsizetype size() const { return m_entries.size(); }

    // The stored value, null when absent.
    QVariant value(const QString& key) const;
    void insert(const QString& key, const QVariant& value);
    void remove(const QString& key);

    friend bool operator==(const CalendarRecord& a, const CalendarRecord& b);
    friend bool operator!=(const CalendarRecord& a, const CalendarRecord& b) { return !(a == b); }

private:
    // Index of `key`, or -1. Keys are few and mostly shared between records, so a scan that checks the
    // length (kept in the QString itself) and the data pointer first beats a search of the order.
    qsizetype indexOf(const QString& key) const;

    QList<std::pair<QString, QVariant>> m_entries; // ascending by key, each key once
};

} // namespace nimbrel
