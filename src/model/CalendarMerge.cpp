#include "model/CalendarMerge.h"

#include "platform/PlistValue.h"

#include <QHashFunctions>
#include <algorithm>
#include <vector>

namespace nimbrel {

namespace {

const QString& uidKey()
{
    static const QString key = plist::sharedKey("uid");
    return key;
}

const QString& titleKey()
{
    static const QString key = plist::sharedKey("title");
    return key;
}

const QString& childrenKey()
{
    static const QString key = QStringLiteral("children");
    return key;
}

// How an identity value of a record can be indexed: missing (no valid value, as isEqualToCalendar reads
// it), a plain string (hashable, equal exactly when the strings are), or anything else, which is left to
// isEqualToCalendar itself.
enum class KeyKind
{
    Absent,
    String,
    Other
};

KeyKind identityValue(const CalendarRecord& record, const QString& key, QString* value)
{
    const QVariant found = record.value(key);
    if (!found.isValid())
        return KeyKind::Absent;
    if (found.typeId() != QMetaType::QString)
        return KeyKind::Other;
    *value = found.toString();
    return KeyKind::String;
}

// Rows filed by a string key, each key's rows chained in the order they were filed: an open-addressing
// table of (key, first row, last row) with the links kept by the caller. Flat, because the merge looks
// up every kept row once and the rows' records are spread over memory already.
class KeyChains
{
public:
    struct Chain
    {
        int head = -1; // first row not known to be removed, or -1
        int tail = -1; // last row filed; -1 for a free slot
    };

    bool isEmpty() const { return m_used == 0; }

    void reserve(size_t keys)
    {
        while (keys * 2 > m_slots.size())
            grow();
    }

    // Files row `number` under `key`; `next` links it behind the rows filed before.
    void file(const QString& key, int number, std::vector<int>& next)
    {
        if ((m_used + 1) * 2 > m_slots.size())
            grow();
        const size_t hash = qHash(key, QHashSeed::globalSeed());
        Slot& slot = m_slots[locate(key, hash)];
        if (slot.chain.tail < 0) {
            slot.key = key;
            slot.hash = hash;
            slot.chain.head = number;
            ++m_used;
        } else if (slot.chain.head < 0) {
            slot.chain.head = number;
        } else {
            next[size_t(slot.chain.tail)] = number;
        }
        slot.chain.tail = number;
    }

    Chain* find(const QString& key)
    {
        if (m_slots.empty())
            return nullptr;
        Slot& slot = m_slots[locate(key, qHash(key, QHashSeed::globalSeed()))];
        return slot.chain.tail < 0 ? nullptr : &slot.chain;
    }

private:
    struct Slot
    {
        QString key;
        size_t hash = 0;
        Chain chain;
    };

    // The slot holding `key`, or the free slot where it belongs.
    size_t locate(const QString& key, size_t hash) const
    {
        const size_t mask = m_slots.size() - 1;
        for (size_t i = hash & mask;; i = (i + 1) & mask) {
            const Slot& slot = m_slots[i];
            if (slot.chain.tail < 0 || (slot.hash == hash && slot.key == key))
                return i;
        }
    }

    void grow()
    {
        std::vector<Slot> old(std::max<size_t>(16, m_slots.size() * 2));
        old.swap(m_slots);
        const size_t mask = m_slots.size() - 1;
        for (Slot& slot : old) {
            if (slot.chain.tail < 0)
                continue;
            size_t i = slot.hash & mask;
            while (m_slots[i].chain.tail >= 0)
                i = (i + 1) & mask;
            m_slots[i] = std::move(slot);
        }
    }

    std::vector<Slot> m_slots; // size a power of two, at most half used
    size_t m_used = 0;
};

// The fresh rows not yet used, searchable the way matchingCalendar searches a list, without walking it.
// Rows are numbered in depth-first pre-order; a number stays searchable while the top-level row above it
// is still in the list. Each row is filed under the only key it can match by: its "uid" when it has one
// (the list row decides, so a row with a "uid" never matches by title), else its title. Rows filed
// under one key are chained in ascending order. Rows whose identity values are not plain strings are
// kept apart and tested with isEqualToCalendar.
class FreshIndex
{
public:
    explicit FreshIndex(const CalendarList& topLevel)
    {
        const qsizetype rows = topLevel.size(); // at least
        m_rows.reserve(size_t(rows));
        m_topOf.reserve(size_t(rows));
        m_next.reserve(size_t(rows));
        m_byUid.reserve(size_t(rows));
        m_topPositions.reserve(topLevel.size());
        m_removed.assign(topLevel.size(), false);
        for (qsizetype t = 0; t < topLevel.size(); ++t)
            add(topLevel.at(t).get(), int(t));
    }

    // Number of the first row that matches `probe`, or -1.
    int find(const NimbrelCalendar& probe)
    {
        QString uid, title;
        const KeyKind uidKind = identityValue(probe.record(), uidKey(), &uid);
        // The probe's title only counts against rows filed by title (irregular rows are tested below).
        const bool titlesMatter = !m_byTitle.isEmpty();
        const KeyKind titleKind =
            titlesMatter ? identityValue(probe.record(), titleKey(), &title) : KeyKind::Absent;
        if (uidKind == KeyKind::Other || titleKind == KeyKind::Other)
            return scan(probe);

        int best = -1;
        if (uidKind == KeyKind::String)
            best = firstAlive(m_byUid, uid);
        if (titleKind == KeyKind::String) {
            const int byTitle = firstAlive(m_byTitle, title);
            if (byTitle >= 0 && (best < 0 || byTitle < best))
                best = byTitle;
        }
        for (const int row : m_irregular) {
            if (best >= 0 && row > best)
                break;
            if (alive(row) && m_rows[row]->isEqualToCalendar(probe))
                return row;
        }
        return best;
    }

    NimbrelCalendar* row(int number) const { return m_rows[number]; }
    // The top-level index of a row when it is itself top-level, else -1.
    int topLevelIndexOf(int number) const
    {
        return m_topPositions[m_topOf[number]] == number ? m_topOf[number] : -1;
    }
    void removeTopLevel(int index) { m_removed[index] = true; }
    bool isRemoved(int index) const { return m_removed[index]; }

private:
    void add(NimbrelCalendar* calendar, int top)
    {
        const int number = int(m_rows.size());
        m_rows.push_back(calendar);
        m_topOf.push_back(top);
        m_next.push_back(-1);
        if (m_topPositions.size() <= size_t(top))
            m_topPositions.push_back(number);

        QString uid, title;
        switch (identityValue(calendar->record(), uidKey(), &uid)) {
        case KeyKind::String:
            m_byUid.file(uid, number, m_next);
            break;
        case KeyKind::Absent:
            switch (identityValue(calendar->record(), titleKey(), &title)) {
            case KeyKind::String:
                m_byTitle.file(title, number, m_next);
                break;
            case KeyKind::Absent:
                break; // no "uid" and no title: equals nothing
            case KeyKind::Other:
                m_irregular.push_back(number);
                break;
            }
            break;
        case KeyKind::Other:
            m_irregular.push_back(number);
            break;
        }

        if (const CalendarList* children = calendar->children()) {
            for (const CalendarRef& child : *children)
                add(child.get(), top);
        }
    }

    bool alive(int number) const { return !m_removed[m_topOf[number]]; }

    int firstAlive(KeyChains& chains, const QString& key)
    {
        KeyChains::Chain* chain = chains.find(key);
        if (!chain)
            return -1;
        // Removals are final, so rows skipped here never need to be looked at again.
        while (chain->head >= 0 && !alive(chain->head))
            chain->head = m_next[size_t(chain->head)];
        return chain->head;
    }

    int scan(const NimbrelCalendar& probe) const
    {
        for (int number = 0; number < int(m_rows.size()); ++number) {
            if (alive(number) && m_rows[number]->isEqualToCalendar(probe))
                return number;
        }
        return -1;
    }

    std::vector<NimbrelCalendar*> m_rows; // by pre-order number
    std::vector<int> m_topOf;             // top-level index above each row
    std::vector<int> m_next;              // next row filed under the same key, or -1
    std::vector<int> m_topPositions;      // number of each top-level row
    std::vector<bool> m_removed;          // per top-level index
    KeyChains m_byUid;
    KeyChains m_byTitle;          // rows without "uid" only
    std::vector<int> m_irregular; // ascending
};

// Title order as compareTitle has it (the case-insensitive comparison of the titles as strings), on
// titles read once per row instead of twice per comparison.
bool titleBefore(const QString& a, const QString& b)
{
    return compareCaseless(a, b) < 0;
}

// Appends `added` to `list` and sorts the whole by title, keeping the order of equal titles (rows
// already there before added ones). `titles` holds the title of every row of `list`. A list that was
// in title order only needs the added rows merged in.
void appendAndSortByTitle(CalendarList& list, QStringList& titles, const CalendarList& added)
{
    if (titles.size() != list.size()) { // an observer changed the list while it was merged
        titles.clear();
        for (const CalendarRef& row : list)
            titles.append(row->title().toString());
    }
    const qsizetype oldSize = list.size();
    const bool wasSorted = std::is_sorted(titles.cbegin(), titles.cend(), titleBefore);
    list.append(added);
    for (const CalendarRef& row : added)
        titles.append(row->title().toString());

    std::vector<qsizetype> order(size_t(list.size()));
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = qsizetype(i);
    const auto before = [&titles](qsizetype a, qsizetype b) {
        return titleBefore(titles.at(a), titles.at(b));
    };
    if (wasSorted) {
        std::stable_sort(order.begin() + oldSize, order.end(), before);
        std::inplace_merge(order.begin(), order.begin() + oldSize, order.end(), before);
    } else {
        std::stable_sort(order.begin(), order.end(), before);
    }

    CalendarList sorted;
    sorted.reserve(list.size());
    for (const qsizetype i : order)
        sorted.append(std::move(list[i]));
    list = std::move(sorted);
}

QList<Observable*> observables(const CalendarList& list)
{
    QList<Observable*> result;
    result.reserve(list.size());
    for (const CalendarRef& calendar : list)
        result.append(calendar.get());
    return result;
}

} // namespace

CalendarRef matchingCalendar(const NimbrelCalendar& calendar, const CalendarList& list)
{
    for (const CalendarRef& row : list) {
        if (row->isEqualToCalendar(calendar))
            return row;
        if (const CalendarList* children = row->children()) {
            if (CalendarRef found = matchingCalendar(calendar, *children))
                return found;
        }
    }
    return nullptr;
}

void setCalendarList(CalendarList& kept, const CalendarList& fresh, NimbrelCalendar* source)
{
    // The fresh rows not yet used: the top level of `fresh` (held here) with removal flags, searched
    // through the index.
    const CalendarList remaining = fresh;
    FreshIndex index(remaining);

    for (const CalendarRef& row : kept)
        row->clearMark();

    // The title of every kept row once its record is final, for the sort below.
    QStringList titles;
    titles.reserve(kept.size() + fresh.size());
    for (qsizetype i = 0; i < kept.size(); ++i) {
        const CalendarRef row = kept.at(i);
        const int number = index.find(*row);
        if (number >= 0) {
            NimbrelCalendar* match = index.row(number);
            if (!match->isLeaf() && !row->isLeaf())
                setCalendarList(*row->children(), *match->children(), row.get());
            row->setRecord(match->record());
            row->setMark();
            // A match inside a fresh source leaves that source in place, to be matched or inserted.
            const int top = index.topLevelIndexOf(number);
            if (top >= 0)
                index.removeTopLevel(top);
        }
        titles.append(row->title().toString());
    }

    CalendarList inserted;
    for (qsizetype t = 0; t < remaining.size(); ++t) {
        if (!index.isRemoved(int(t)))
            inserted.append(remaining.at(t));
    }
    for (const CalendarRef& row : inserted)
        row->setMark();

    if (!inserted.isEmpty()) {
        const QList<Observable*> objects = source ? observables(inserted) : QList<Observable*>();
        if (source)
            source->willChangeValueForKey(childrenKey(), SetMutation::Union, objects);
        appendAndSortByTitle(kept, titles, inserted);
        if (source)
            source->didChangeValueForKey(childrenKey(), SetMutation::Union, objects);
    }

    if (!source) {
        // Nobody is told about a top-level list, so the vanished rows can go in one pass.
        kept.removeIf([](const CalendarRef& row) { return !row->marked(); });
        return;
    }

    CalendarList vanished;
    std::vector<qsizetype> positions;
    for (qsizetype i = 0; i < kept.size(); ++i) {
        if (!kept.at(i)->marked()) {
            vanished.append(kept.at(i));
            positions.push_back(i);
        }
    }
    for (qsizetype n = 0; n < vanished.size(); ++n) {
        const CalendarRef row = vanished.at(n);
        const QList<Observable*> objects{row.get()};
        source->willChangeValueForKey(childrenKey(), SetMutation::Union, objects);
        // Where the row should be after the earlier removals; an observer may have changed the list.
        qsizetype at = positions[size_t(n)] - n;
        if (at < 0 || at >= kept.size() || kept.at(at) != row)
            at = kept.indexOf(row);
        if (at >= 0)
            kept.removeAt(at);
        source->didChangeValueForKey(childrenKey(), SetMutation::Minus, objects);
    }
}

} // namespace nimbrel
