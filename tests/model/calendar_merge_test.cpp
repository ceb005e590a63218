// The list merge: the documented cases one by one, then many random trees merged both by the indexed
// merge and by a plain reading of the algorithm written here, which must agree in every detail.

#include "model/CalendarMerge.h"

#include <QDebug>
#include <QHash>
#include <QRegularExpression>
#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <vector>

using namespace nimbrel;

namespace {

QString str(const char* text)
{
    return QString::fromUtf8(text);
}

QVariantMap calendar(const char* title, const char* uid = nullptr)
{
    QVariantMap dict{{str("title"), str(title)}};
    if (uid)
        dict.insert(str("uid"), str(uid));
    return dict;
}

QVariantMap source(const char* title, const QList<QVariantMap>& calendars, const char* uid = nullptr)
{
    QVariantMap dict = calendar(title, uid);
    dict.insert(str("source"), true);
    QVariantList list;
    for (const QVariantMap& c : calendars)
        list.append(c);
    dict.insert(str("calendars"), list);
    return dict;
}

CalendarList build(const QList<QVariantMap>& dicts)
{
    CalendarList list;
    for (const QVariantMap& dict : dicts)
        list.append(NimbrelCalendar::create(dict, nullptr));
    return list;
}

// Every notice an object receives, in order, as text naming objects by title.
struct Recorder
{
    std::vector<Observation> observations;
    QStringList notices;
    QStringList mutations; // the set-mutation notices only: rows inserted and removed

    void watch(const CalendarRef& row)
    {
        // Named by the title it had when watched, which a merge may change.
        observations.push_back(
            row->observe(QString(), [this, name = row->title().toString()](const ChangeNotice& n) {
                QString text = name + QLatin1Char(' ') + n.key +
                               (n.phase == ChangePhase::Will ? str(" will") : str(" did"));
                if (n.mutation != SetMutation::None) {
                    text += n.mutation == SetMutation::Union ? str(" union") : str(" minus");
                    for (Observable* o : n.objects)
                        text += QLatin1Char(' ') + static_cast<NimbrelCalendar*>(o)->title().toString();
                    mutations.append(text);
                }
                notices.append(text);
            }));
    }
    // The set-mutation notices only: insertions and removals of rows.
    std::string childrenNotices() const { return mutations.join(str("; ")).toStdString(); }
};

std::string titles(const CalendarList& list)
{
    QStringList result;
    for (const CalendarRef& row : list)
        result.append(row->title().toString());
    return result.join(QLatin1Char(' ')).toStdString();
}

TEST(CalendarMatching, DepthFirstInListOrderAndDecidedByTheListRow)
{
    const CalendarList list = build({source("S", {calendar("Nested", "u1")}), calendar("Top", "u1"),
                                     calendar("Plain"), calendar("Titled", "u2")});
    const auto probe = [](const QVariantMap& dict) { return NimbrelCalendar(dict, nullptr); };

    EXPECT_EQ(matchingCalendar(probe(calendar("any", "u1")), list), list[0]->children()->at(0));
    EXPECT_EQ(matchingCalendar(probe(calendar("Plain", "u9")), list), list[2]); // row without uid: by title
    EXPECT_EQ(matchingCalendar(probe(calendar("Titled")), list), nullptr);      // row with uid never by title
    EXPECT_EQ(matchingCalendar(probe(calendar("plain")), list), nullptr);       // titles compare exactly
    EXPECT_EQ(matchingCalendar(probe(calendar("S")), CalendarList()), nullptr);
}

// One source row with children, merged against a fresh copy of itself with other children.
struct SourceMerge
{
    CalendarList kept, fresh;
    CalendarList keptChildren;
    Recorder recorder;

    SourceMerge(const QList<QVariantMap>& before, const QList<QVariantMap>& after)
    {
        kept = build({source("Src", before, "src")});
        fresh = build({source("Src", after, "src")});
        keptChildren = *kept[0]->children();
        recorder.watch(kept[0]);
        for (const CalendarRef& row : keptChildren)
            recorder.watch(row);
        setCalendarList(kept, fresh, nullptr);
    }
    NimbrelCalendar& src() const { return *kept[0]; }
};

TEST(CalendarMerge, RetitledCalendarWithUidKeepsItsObjectAndAnnouncesItsRecord)
{
    SourceMerge m({calendar("Alpha", "a"), calendar("Beta", "b")},
                  {calendar("Aleph", "a"), calendar("Beta", "b")});
    ASSERT_EQ(m.kept.size(), 1);
    EXPECT_EQ(*m.src().children(), m.keptChildren);
    EXPECT_EQ(m.keptChildren[0]->title().toString(), str("Aleph"));
    EXPECT_EQ(m.recorder.childrenNotices(), "");
    // Beta's record is unchanged: no notice; Aleph's: eight keys, will then did.
    EXPECT_TRUE(m.recorder.notices.filter(str("Beta")).isEmpty());
    const QStringList alpha = m.recorder.notices.filter(str("Alpha "));
    ASSERT_EQ(alpha.size(), 16);
    EXPECT_EQ(alpha.first(), str("Alpha title will"));
    EXPECT_EQ(alpha.last(), str("Alpha childCount did"));
}

TEST(CalendarMerge, InsertionsAndRemovalsAreAnnouncedOnTheOwningSource)
{
    // A calendar without uid whose title changed is a removal plus an insertion; insertions come first.
    SourceMerge retitled({calendar("Old"), calendar("Same")}, {calendar("Same"), calendar("New")});
    EXPECT_EQ(titles(*retitled.src().children()), "New Same");
    EXPECT_EQ(retitled.src().children()->at(1), retitled.keptChildren[1]);
    EXPECT_EQ(retitled.recorder.childrenNotices(), "Src children will union New; Src children did union New; "
                                                   "Src children will union Old; Src children did minus Old");

    // One union notice carries every inserted row, sorted in among the kept ones by title.
    SourceMerge added({calendar("b", "b")}, {calendar("c", "c"), calendar("a", "a"), calendar("B", "b")});
    EXPECT_EQ(titles(*added.src().children()), "a B c");
    EXPECT_EQ(added.recorder.childrenNotices(), "Src children will union a c; Src children did union a c");

    // One will-union / did-minus pair per vanished calendar, in list order.
    SourceMerge removed({calendar("a", "a"), calendar("b", "b"), calendar("c", "c")}, {calendar("b", "b")});
    EXPECT_EQ(*removed.src().children(), CalendarList{removed.keptChildren[1]});
    EXPECT_EQ(removed.recorder.childrenNotices(), "Src children will union a; Src children did minus a; "
                                                  "Src children will union c; Src children did minus c");
}

TEST(CalendarMerge, NewSourceArrivesWhole)
{
    CalendarList kept = build({source("Group", {source("Known", {}, "k")}, "g")});
    const CalendarList fresh = build({source(
        "Group", {source("Known", {}, "k"), source("Newcomer", {calendar("x"), calendar("y")}, "n")}, "g")});
    const CalendarRef newcomer = fresh[0]->children()->at(1);
    Recorder recorder;
    recorder.watch(kept[0]);
    setCalendarList(kept, fresh, nullptr);

    EXPECT_EQ(kept[0]->children()->at(1), newcomer);
    EXPECT_EQ(titles(*newcomer->children()), "x y");
    EXPECT_TRUE(newcomer->marked());
    EXPECT_EQ(recorder.childrenNotices(),
              "Group children will union Newcomer; Group children did union Newcomer");
}

TEST(CalendarMerge, TopLevelListIsMergedSilentlyAndMarksTell)
{
    CalendarList kept = build({calendar("Zed", "z"), calendar("Gone", "g"), calendar("Moved", "m")});
    const CalendarList keptBefore = kept;
    // "Moved" now sits inside a fresh source: it takes that record, and the source still comes in.
    const CalendarList fresh = build({calendar("Zed", "z"), source("Box", {calendar("Moved2", "m")}, "box")});
    setCalendarList(kept, fresh, nullptr);

    // The row that moved keeps its object; the inserted source is sorted in by title.
    EXPECT_EQ(titles(kept), "Box Moved2 Zed");
    EXPECT_EQ(kept, CalendarList({fresh[1], keptBefore[2], keptBefore[0]}));
    EXPECT_TRUE(std::all_of(kept.begin(), kept.end(), [](const CalendarRef& r) { return r->marked(); }));
    EXPECT_FALSE(keptBefore[1]->marked());
}

// ---- Random trees against a plain reading of the algorithm ----

CalendarRef literalMatch(const NimbrelCalendar& calendar, const CalendarList& list)
{
    for (const CalendarRef& row : list) {
        if (row->isEqualToCalendar(calendar))
            return row;
        if (row->children()) {
            if (CalendarRef found = literalMatch(calendar, *row->children()))
                return found;
        }
    }
    return nullptr;
}

void literalMerge(CalendarList& kept, const CalendarList& fresh, NimbrelCalendar* owner)
{
    const QString children = str("children");
    CalendarList rest = fresh;
    for (const CalendarRef& k : kept)
        k->clearMark();
    for (qsizetype i = 0; i < kept.size(); ++i) {
        const CalendarRef k = kept[i];
        const CalendarRef f = literalMatch(*k, rest);
        if (!f)
            continue;
        if (!f->isLeaf() && k->children())
            literalMerge(*k->children(), *f->children(), k.get());
        k->setDict(f->dict());
        k->setMark();
        rest.removeAll(f);
    }
    for (const CalendarRef& r : rest)
        r->setMark();
    if (!rest.isEmpty()) {
        QList<Observable*> objects;
        for (const CalendarRef& r : rest)
            objects.append(r.get());
        if (owner)
            owner->willChangeValueForKey(children, SetMutation::Union, objects);
        kept.append(rest);
        std::stable_sort(kept.begin(), kept.end(),
                         [](const CalendarRef& a, const CalendarRef& b) { return a->compareTitle(*b) < 0; });
        if (owner)
            owner->didChangeValueForKey(children, SetMutation::Union, objects);
    }
    rest.clear();
    for (const CalendarRef& k : kept) {
        if (!k->marked())
            rest.append(k);
    }
    for (const CalendarRef& o : rest) {
        if (owner)
            owner->willChangeValueForKey(children, SetMutation::Union, {o.get()});
        kept.removeOne(o);
        if (owner)
            owner->didChangeValueForKey(children, SetMutation::Minus, {o.get()});
    }
}

class TreeMaker
{
public:
    explicit TreeMaker(quint32 seed) : m_random(seed) {}

    QList<QVariantMap> list(int depth, int budget)
    {
        QList<QVariantMap> result;
        const int count = pick(0, std::max(1, budget));
        for (int i = 0; i < count && m_rows < m_maxRows; ++i)
            result.append(row(depth));
        return result;
    }

    // The fresh counterpart: rows kept, changed, dropped, added, moved into a source, reordered.
    QList<QVariantMap> mutate(const QList<QVariantMap>& before, int depth)
    {
        QList<QVariantMap> after;
        for (QVariantMap dict : before) {
            const int roll = pick(0, 99);
            if (roll < 12)
                continue;
            if (roll < 30)
                change(dict);
            if (dict.contains(str("calendars"))) {
                QList<QVariantMap> children;
                for (const QVariant& c : dict.value(str("calendars")).toList())
                    children.append(c.toMap());
                dict.insert(str("calendars"), toList(mutate(children, depth + 1)));
            }
            after.append(dict);
        }
        for (int n = pick(0, 3) - 1; n > 0; --n)
            after.insert(pick(0, int(after.size())), row(depth));
        if (after.size() > 1 && pick(0, 9) == 0) {
            const int from = pick(0, int(after.size()) - 1), to = pick(0, int(after.size()) - 1);
            if (from != to && after[to].contains(str("calendars"))) {
                QVariantList calendars = after[to].value(str("calendars")).toList();
                calendars.append(after[from]);
                after[to].insert(str("calendars"), calendars);
                after.removeAt(from);
            }
        }
        if (pick(0, 3) == 0)
            std::shuffle(after.begin(), after.end(), m_random);
        return after;
    }

    void startTree(int maxRows)
    {
        m_rows = 0;
        m_maxRows = maxRows;
    }

private:
    int pick(int low, int high) { return std::uniform_int_distribution<int>(low, high)(m_random); }

    QVariantList toList(const QList<QVariantMap>& dicts)
    {
        QVariantList list;
        for (const QVariantMap& d : dicts)
            list.append(d);
        return list;
    }

    // Small pools, so that uids and titles (in case variants) repeat; now and then a value that is not
    // a string, or none at all.
    void setIdentity(QVariantMap& dict)
    {
        static const char* const kTitles[] = {"Work",  "work",  "WORK", "Home", "home",  "Trips",
                                              "Ärger", "ärger", "Zeta", "",     "alpha", "Alpha"};
        const int t = pick(0, 40);
        if (t < 12)
            dict.insert(str("title"), str(kTitles[t]));
        else if (t < 37)
            dict.insert(str("title"), QStringLiteral("Cal %1").arg(pick(0, 30)));
        else if (t < 39) // numbers and digit strings compare equal as values
            dict.insert(str("title"), t == 37 ? QVariant(pick(0, 2)) : QVariant(QString::number(pick(0, 2))));
        else
            dict.remove(str("title"));

        const int u = pick(0, 40);
        if (u < 24)
            dict.insert(str("uid"), QStringLiteral("u%1").arg(pick(0, 60)));
        else if (u < 26)
            dict.insert(str("uid"), QString::number(pick(0, 3)));
        else if (u == 26)
            dict.insert(str("uid"), QVariant(qlonglong(pick(0, 3))));
        else if (u == 27)
            dict.insert(str("uid"), QVariant());
        else
            dict.remove(str("uid"));
    }

    void change(QVariantMap& dict)
    {
        switch (pick(0, 3)) {
        case 0:
            setIdentity(dict);
            break;
        case 1:
            dict.insert(str("publishedToBonjour"), !dict.value(str("publishedToBonjour")).toBool());
            break;
        case 2:
            dict.insert(str("title"), dict.value(str("title")).toString() + str("'"));
            break;
        default:
            dict.insert(str("source"), !dict.value(str("source")).toBool());
            if (!dict.contains(str("calendars")))
                dict.insert(str("calendars"), QVariantList());
            break;
        }
    }

    QVariantMap row(int depth)
    {
        ++m_rows;
        QVariantMap dict;
        setIdentity(dict);
        dict.insert(str("publishedToBonjour"), pick(0, 1) == 1);
        if (depth < 3 && pick(0, 3) == 0) {
            dict.insert(str("source"), true);
            dict.insert(str("calendars"), toList(list(depth + 1, 5)));
        }
        return dict;
    }

    std::mt19937 m_random;
    int m_rows = 0;
    int m_maxRows = 60;
};

// One object graph: the kept and the fresh list, every object numbered in creation order and observed.
struct Graph
{
    CalendarRef owner = NimbrelCalendar::create(source("Owner", {}), nullptr);
    CalendarList kept, fresh;
    QHash<const Observable*, int> number;
    std::vector<Observation> observations;
    QStringList notices;

    Graph(const QList<QVariantMap>& before, const QList<QVariantMap>& after, int keptOrder)
    {
        kept = build(before);
        if (keptOrder == 1)
            NimbrelCalendar::sortByCompare(kept);
        else if (keptOrder == 2)
            NimbrelCalendar::sortByTitle(kept);
        fresh = build(after);
        attach(owner);
        for (const CalendarRef& row : kept)
            attach(row);
        for (const CalendarRef& row : fresh)
            attach(row);
    }

    void attach(const CalendarRef& row)
    {
        if (number.contains(row.get()))
            return;
        number.insert(row.get(), int(number.size()));
        observations.push_back(row->observe(QString(), [this, id = number.size() - 1](const ChangeNotice& n) {
            QString text =
                QStringLiteral("%1 %2 %3 %4").arg(id).arg(n.key).arg(int(n.phase)).arg(int(n.mutation));
            for (Observable* o : n.objects)
                text += QLatin1Char(' ') + QString::number(number.value(o, -1));
            // What an outline asking at that moment would see of the list being merged.
            const auto* row = static_cast<NimbrelCalendar*>(n.object);
            text += QStringLiteral(" / %1 rows").arg(row == owner.get() ? kept.size() : row->childCount());
            notices.append(text);
        }));
        if (row->children()) {
            for (const CalendarRef& child : *row->children())
                attach(child);
        }
    }

    static QString record(const QVariantMap& dict)
    {
        QString text;
        QDebug(&text) << dict; // names the type of every value
        return text;
    }

    // The whole state of a list, recursively: object numbers, records, flags.
    std::string describe(const CalendarList& list, int depth = 0) const
    {
        std::string lines;
        for (const CalendarRef& row : list) {
            lines += QStringLiteral("%1#%2 marked=%3 leaf=%4 %5\n")
                         .arg(QString(depth, QLatin1Char(' ')))
                         .arg(number.value(row.get(), -1))
                         .arg(row->marked())
                         .arg(row->isLeaf())
                         .arg(record(row->dict()))
                         .toStdString();
            if (row->children())
                lines += describe(*row->children(), depth + 1);
        }
        return lines;
    }
};

TEST(CalendarMerge, AgreesWithThePlainAlgorithmOnRandomTrees)
{
    const quint32 seed = qEnvironmentVariableIsSet("NIMBREL_MERGE_SEED")
                             ? quint32(qEnvironmentVariableIntValue("NIMBREL_MERGE_SEED"))
                             : std::random_device()();
    SCOPED_TRACE(testing::Message() << "seed " << seed << " (rerun with NIMBREL_MERGE_SEED)");
    TreeMaker maker(seed);
    std::mt19937 random(seed ^ 0x5eedu);
    const QRegularExpression setMutation(str("^\\d+ children \\d [12]"));
    int withNotices = 0;
    for (int tree = 0; tree < 1000; ++tree) {
        maker.startTree(std::uniform_int_distribution<int>(5, 60)(random));
        const QList<QVariantMap> before = maker.list(0, 25);
        const QList<QVariantMap> after = maker.mutate(before, 0);
        const int keptOrder = tree / 2 % 3;
        Graph plain(before, after, keptOrder), indexed(before, after, keptOrder);

        // Half of the lists are merged as the children of a row, which announces every change.
        const bool owned = tree % 2 == 1;
        literalMerge(plain.kept, plain.fresh, owned ? plain.owner.get() : nullptr);
        setCalendarList(indexed.kept, indexed.fresh, owned ? indexed.owner.get() : nullptr);

        ASSERT_EQ(indexed.describe(indexed.kept), plain.describe(plain.kept)) << "tree " << tree;
        ASSERT_EQ(indexed.describe(indexed.fresh), plain.describe(plain.fresh)) << "tree " << tree;
        ASSERT_EQ(indexed.notices.join(QLatin1Char('\n')).toStdString(),
                  plain.notices.join(QLatin1Char('\n')).toStdString())
            << "tree " << tree;
        withNotices += plain.notices.filter(setMutation).isEmpty() ? 0 : 1;
    }
    // The generator must produce trees that exercise the announced insertions and removals.
    EXPECT_GT(withNotices, 100);
}

} // namespace
