// The list merge: the cases worth reading one by one, then many random trees merged both by the indexed
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

QVariantMap source(const char* title, const QVariantList& calendars, const char* uid = nullptr)
{
    QVariantMap dict = calendar(title, uid);
    dict.insert(str("source"), true);
    dict.insert(str("calendars"), calendars);
    return dict;
}

CalendarList build(const QVariantList& dicts)
{
    CalendarList list;
    for (const QVariant& dict : dicts)
        list.append(NimbrelCalendar::create(dict.toMap(), nullptr));
    return list;
}

// Titles, a source's children in brackets; with `original` given, a "+" after each top-level row that
// is not one of those objects.
std::string outline(const CalendarList& list, const CalendarList* original = nullptr)
{
    QStringList result;
    for (const CalendarRef& row : list) {
        result << row->title().toString() + (original && !original->contains(row) ? str("+") : QString());
        if (row->children())
            result.last() += QString::fromStdString("(" + outline(*row->children()) + ")");
    }
    return result.join(QLatin1Char(' ')).toStdString();
}

TEST(CalendarMatching, DepthFirstInListOrderAndDecidedByTheListRow)
{
    const CalendarList list = build({source("S", {calendar("S"), calendar("Nested", "u1")}),
                                     calendar("Top", "u1"), calendar("Plain"), calendar("Titled", "u2")});
    const auto match = [&list](const QVariantMap& dict) {
        return matchingCalendar(NimbrelCalendar(dict, nullptr), list);
    };
    EXPECT_EQ(match(calendar("S")), list[0]); // a row before its children
    EXPECT_EQ(match(calendar("any", "u1")), list[0]->children()->at(0));
    EXPECT_EQ(match(calendar("Plain", "u9")), list[2]); // row without uid: by title
    EXPECT_EQ(match(calendar("Titled")), nullptr);      // row with uid never by title
    EXPECT_EQ(match(calendar("plain")), nullptr);       // titles compare exactly
}

// A notice as the cases below spell it: a record change once, as "<row> record"; set mutations in full.
QString noticeText(const QString& row, const ChangeNotice& n)
{
    if (n.mutation == SetMutation::None)
        return n.key == str("title") && n.phase == ChangePhase::Will ? row + str(" record") : QString();
    QString text = row + (n.phase == ChangePhase::Will ? str(" will") : str(" did")) +
                   (n.mutation == SetMutation::Union ? str(" union") : str(" minus"));
    for (Observable* o : n.objects)
        text += QLatin1Char(' ') + static_cast<NimbrelCalendar*>(o)->title().toString();
    return text;
}

// One source row merged against a fresh copy of itself with other children: the tree after, with the
// children that are new objects marked, and the notices in order.
TEST(CalendarMerge, CasesWorthReading)
{
    const auto check = [](const QVariantList& before, const QVariantList& after, const char* tree,
                          const char* expected) {
        SCOPED_TRACE(tree);
        CalendarList kept = build({source("Src", before, "src")});
        const CalendarList original = *kept[0]->children();
        QStringList notices;
        std::vector<Observation> observations;
        for (const CalendarRef& row : original + kept) {
            observations.push_back(
                row->observe(QString(), [&notices, name = row->title().toString()](const ChangeNotice& n) {
                    if (const QString text = noticeText(name, n); !text.isEmpty())
                        notices << text;
                }));
        }
        setCalendarList(kept, build({source("Src", after, "src")}), nullptr);
        EXPECT_EQ(outline(*kept[0]->children(), &original), tree);
        EXPECT_EQ(notices.join(str("; ")).toStdString(), expected);
    };
    // A calendar with uid keeps its object through a new title.
    check({calendar("Alpha", "a"), calendar("Beta", "b")}, {calendar("Aleph", "a"), calendar("Beta", "b")},
          "Aleph Beta", "Alpha record");
    // Without uid a new title is a removal and an insert; inserts come first.
    check({calendar("Old"), calendar("Same")}, {calendar("Same"), calendar("New")}, "New+ Same",
          "Src will union New; Src did union New; Src will union Old; Src did minus Old");
    // One union for all added calendars, sorted in by title; a will-union / did-minus pair per removed one.
    check({calendar("a", "a"), calendar("b", "b"), calendar("c", "c")},
          {calendar("d", "d"), calendar("B", "b"), calendar("Aa", "aa")}, "Aa+ B d+",
          "b record; Src will union Aa d; Src did union Aa d; Src will union a; Src did minus a; "
          "Src will union c; Src did minus c");
    // A new source comes whole, in one insert.
    check({source("Known", {}, "k")},
          {source("Known", {}, "k"), source("New", {calendar("y"), calendar("x")})}, "Known() New+(x y)",
          "Src will union New; Src did union New");
}

// ---- Random trees against a plain reading of the algorithm, with a linear search for each match ----

void literalMerge(CalendarList& kept, const CalendarList& fresh, NimbrelCalendar* owner)
{
    Observable nobody; // told about a top-level list
    Observable& told = owner ? *owner : nobody;
    const QString children = str("children");
    CalendarList rest = fresh;
    for (const CalendarRef& k : kept)
        k->clearMark();
    for (const CalendarRef& k : CalendarList(kept)) {
        if (const CalendarRef f = matchingCalendar(*k, rest)) {
            if (!f->isLeaf() && k->children())
                literalMerge(*k->children(), *f->children(), k.get());
            k->setDict(f->dict());
            k->setMark();
            rest.removeAll(f);
        }
    }
    QList<Observable*> added;
    for (const CalendarRef& r : rest) {
        r->setMark();
        added << r.get();
    }
    if (!rest.isEmpty()) {
        told.willChangeValueForKey(children, SetMutation::Union, added);
        kept.append(rest);
        std::stable_sort(kept.begin(), kept.end(),
                         [](const CalendarRef& a, const CalendarRef& b) { return a->compareTitle(*b) < 0; });
        told.didChangeValueForKey(children, SetMutation::Union, added);
    }
    for (const CalendarRef& k : CalendarList(kept)) {
        if (!k->marked()) {
            told.willChangeValueForKey(children, SetMutation::Union, {k.get()});
            kept.removeOne(k);
            told.didChangeValueForKey(children, SetMutation::Minus, {k.get()});
        }
    }
}

// Lists of records and fresh versions of them (rows kept, changed, dropped, added, moved into a
// source, reordered), from small pools so that uids and titles repeat, also in other case, as numbers,
// as keys without a value, or missing.
struct TreeMaker
{
    std::mt19937 random;
    int rows = 0, maxRows = 60;

    int pick(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); }

    void identify(QVariantMap& dict)
    {
        static const QVariantList titles = {
            str("Work"),  str("work"), str("WORK"),  str("Home"),  str("home"), str("Ärger"),
            str("ärger"), str(""),     str("alpha"), str("Alpha"), 1,           str("1")};
        static const QVariantList uids = {str("0"), str("1"), qlonglong(1), QVariant()};
        const int t = pick(0, 40), u = pick(0, 40);
        dict.insert(str("title"),
                    t < titles.size() ? titles[t] : QVariant(QStringLiteral("Cal %1").arg(pick(0, 30))));
        dict.insert(str("uid"), u < uids.size() ? uids[u] : QVariant(QStringLiteral("u%1").arg(pick(0, 60))));
        if (t > 38)
            dict.remove(str("title"));
        if (u > 27)
            dict.remove(str("uid"));
    }

    QVariantList list(int depth, int budget)
    {
        QVariantList result;
        for (int count = pick(0, budget); count > 0 && rows < maxRows; --count)
            result << row(depth);
        return result;
    }

    QVariantMap row(int depth)
    {
        ++rows;
        QVariantMap dict{{str("publishedToBonjour"), pick(0, 1) == 1}};
        identify(dict);
        if (depth < 3 && pick(0, 3) == 0) {
            dict.insert(str("source"), true);
            dict.insert(str("calendars"), list(depth + 1, 5));
        }
        return dict;
    }

    QVariantList mutate(const QVariantList& before, int depth)
    {
        QVariantList after;
        for (const QVariant& item : before) {
            QVariantMap dict = item.toMap();
            const int roll = pick(0, 99);
            if (roll < 12)
                continue;
            if (roll < 17)
                identify(dict);
            else if (roll < 22)
                dict.insert(str("title"), dict.value(str("title")).toString() + str("'"));
            else if (roll < 26)
                dict.insert(str("publishedToBonjour"), !dict.value(str("publishedToBonjour")).toBool());
            else if (roll < 30)
                dict.insert(str("source"), !dict.value(str("source")).toBool());
            if (dict.value(str("source")).toBool() || dict.contains(str("calendars")))
                dict.insert(str("calendars"), mutate(dict.value(str("calendars")).toList(), depth + 1));
            after << dict;
        }
        for (int n = pick(0, 3) - 1; n > 0; --n)
            after.insert(pick(0, int(after.size())), row(depth));
        if (after.size() > 1 && pick(0, 9) == 0) {
            const int from = pick(0, int(after.size()) - 1), to = pick(0, int(after.size()) - 1);
            QVariantMap target = after[to].toMap();
            if (from != to && target.contains(str("calendars"))) {
                target.insert(str("calendars"), target.value(str("calendars")).toList() << after[from]);
                after[to] = target;
                after.removeAt(from);
            }
        }
        if (pick(0, 3) == 0)
            std::shuffle(after.begin(), after.end(), random);
        return after;
    }
};

// One object graph: the kept and the fresh list, every object numbered in creation order and observed.
struct Graph
{
    CalendarRef owner = NimbrelCalendar::create(source("Owner", {}), nullptr);
    CalendarList kept, fresh;
    QHash<const Observable*, int> number;
    std::vector<Observation> observations;
    QStringList notices;

    // Children lists start in title order, the top level as given (title changes in a merge unsort both).
    Graph(const QVariantList& before, const QVariantList& after) : kept(build(before)), fresh(build(after))
    {
        for (const CalendarRef& row : CalendarList{owner} + kept + fresh)
            attach(row);
    }

    void attach(const CalendarRef& row)
    {
        const int id = int(number.size());
        number.insert(row.get(), id);
        observations.push_back(row->observe(QString(), [this, id](const ChangeNotice& n) {
            QString text =
                QStringLiteral("%1 %2 %3 %4").arg(id).arg(n.key).arg(int(n.phase)).arg(int(n.mutation));
            for (Observable* o : n.objects)
                text += QLatin1Char(' ') + QString::number(number.value(o, -1));
            // What an outline asking at that moment would see of the list being merged.
            const auto* row = static_cast<NimbrelCalendar*>(n.object);
            notices << text + QStringLiteral(" / %1 rows")
                                  .arg(row == owner.get() ? kept.size() : row->childCount());
        }));
        for (const CalendarRef& child : row->children() ? *row->children() : CalendarList())
            attach(child);
    }

    // Both lists, recursively (object numbers, flags, records with the type of every value), and the
    // notices.
    std::string state() const
    {
        return (describe(kept) + str("--\n") + describe(fresh) + notices.join(QLatin1Char('\n')))
            .toStdString();
    }
    QString describe(const CalendarList& list, int depth = 0) const
    {
        QString lines;
        for (const CalendarRef& row : list) {
            lines += QString(depth, QLatin1Char(' '));
            QDebug(&lines).nospace() << '#' << number.value(row.get(), -1) << " marked=" << row->marked()
                                     << " leaf=" << row->isLeaf() << ' ' << row->dict() << '\n';
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
    TreeMaker maker{std::mt19937(seed)};
    const QRegularExpression setMutation(str("^\\d+ children \\d [12]"));
    int withSetMutations = 0;
    for (int tree = 0; tree < 1000; ++tree) {
        SCOPED_TRACE(testing::Message() << "tree " << tree);
        maker.rows = 0;
        maker.maxRows = maker.pick(5, 60);
        const QVariantList before = maker.list(0, 25);
        const QVariantList after = maker.mutate(before, 0);
        Graph plain(before, after), indexed(before, after);

        // Half of the lists are merged as the children of a row, which announces every change.
        const bool owned = tree % 2 == 1;
        literalMerge(plain.kept, plain.fresh, owned ? plain.owner.get() : nullptr);
        setCalendarList(indexed.kept, indexed.fresh, owned ? indexed.owner.get() : nullptr);

        ASSERT_EQ(indexed.state(), plain.state());
        withSetMutations += plain.notices.filter(setMutation).isEmpty() ? 0 : 1;
    }
    // The generator must produce trees that exercise the announced insertions and removals.
    EXPECT_GT(withSetMutations, 100);
}

} // namespace
