// Time of one list merge (setCalendarList) for lists of 1 000 to 100 000 rows of which 1 % changed:
// records edited, rows removed, rows added. Mostly calendars at the top level, plus sources with a
// few calendars each. Both lists are built afresh before every merge, outside the measured time, which
// is the merging thread's CPU time. For scale, the time every row's setDict alone takes.
#include "model/CalendarMerge.h"
#include "protocol/WireCodec.h"

#include <QDateTime>
#include <QHash>
#include <QVariantList>
#include <benchmark/benchmark.h>
#include <ctime>
#include <random>

namespace {

using namespace nimbrel;

QVariantMap calendarRecord(int id, std::mt19937& random)
{
    return {
        {QStringLiteral("uid"),
         QStringLiteral("5C1E%1-0A7B-4F3D-9E21-%2").arg(id, 4, 16, QLatin1Char('0')).arg(id)},
        {QStringLiteral("title"), QStringLiteral("Calendar %1").arg(random() % 1000000)},
        {QStringLiteral("order"), int(random() % 100)},
        {QStringLiteral("publishedToBonjour"), random() % 4 == 0},
        {QStringLiteral("publishedToGoogle"), false},
        {QStringLiteral("subscribedTo"), random() % 3 == 0},
        {QStringLiteral("subscribable"), true},
        {QStringLiteral("bonjour"), true},
        {QStringLiteral("readOnly"), false},
        {QStringLiteral("readableByAnyone"), true},
        {QStringLiteral("writableByAnyone"), false},
        {QStringLiteral("syncTime"), QDateTime::fromSecsSinceEpoch(1700000000 + id, Qt::UTC)},
    };
}

// The kept and the fresh answer of the background application: every 50th top-level row is a source
// with 10 calendars; `rows` counts every row.
struct Answers
{
    QVariantList kept, fresh;
};

Answers makeAnswers(int rows, std::mt19937& random)
{
    Answers answers;
    int nextId = 0;
    for (int made = 0; made < rows;) {
        QVariantMap row = calendarRecord(nextId++, random);
        ++made;
        if (made % 50 == 0) {
            row.insert(QStringLiteral("source"), true);
            QVariantList calendars;
            for (int i = 0; i < 10; ++i, ++made)
                calendars.append(calendarRecord(nextId++, random));
            row.insert(QStringLiteral("calendars"), calendars);
        }
        answers.kept.append(row);
    }

    // 1 % of the rows change: a third edited, a third removed, a third added (top level or in a source).
    answers.fresh = answers.kept;
    const int changes = std::max(3, rows / 100);
    for (int i = 0; i < changes; ++i) {
        const int at = int(random() % answers.fresh.size());
        QVariantMap row = answers.fresh[at].toMap();
        switch (i % 3) {
        case 0:
            row.insert(QStringLiteral("subscribedTo"), !row.value(QStringLiteral("subscribedTo")).toBool());
            answers.fresh[at] = row;
            break;
        case 1:
            answers.fresh.removeAt(at);
            break;
        default:
            if (row.contains(QStringLiteral("calendars"))) {
                QVariantList calendars = row.value(QStringLiteral("calendars")).toList();
                calendars.append(calendarRecord(nextId++, random));
                row.insert(QStringLiteral("calendars"), calendars);
                answers.fresh[at] = row;
            } else {
                answers.fresh.insert(at, calendarRecord(nextId++, random));
            }
            break;
        }
    }
    // Both lists as the link has them: decoded from the background application's answers.
    answers.kept = *nimbrel::wire::decodeList(nimbrel::wire::encodeList(answers.kept));
    answers.fresh = *nimbrel::wire::decodeList(nimbrel::wire::encodeList(answers.fresh));
    return answers;
}

// CPU time of this thread: what the merge costs, without the time other programs on a busy machine
// take from it.
double threadSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

CalendarList build(const QVariantList& answer)
{
    CalendarList list;
    list.reserve(answer.size());
    for (const QVariant& row : answer)
        list.append(NimbrelCalendar::create(row.toMap(), nullptr));
    return list;
}

// Arguments: row count; 0 = kept list in title order (a source list), 1 = in "order" order (a
// published list, which the merge must sort whole when it inserts).
void BM_SetCalendarList(benchmark::State& state)
{
    const int rows = int(state.range(0));
    std::mt19937 random(20240611);
    const Answers answers = makeAnswers(rows, random);
    double measured = 0;
    for (auto _ : state) {
        CalendarList kept = build(answers.kept);
        if (state.range(1) == 0)
            NimbrelCalendar::sortByTitle(kept);
        else
            NimbrelCalendar::sortByCompare(kept);
        const CalendarList fresh = build(answers.fresh);

        const double start = threadSeconds();
        setCalendarList(kept, fresh, nullptr);
        const double seconds = threadSeconds() - start;
        state.SetIterationTime(seconds);
        measured += seconds;
        benchmark::DoNotOptimize(kept.data());
    }
    state.counters["ns_per_row"] = measured * 1e9 / (double(state.iterations()) * rows);
}
BENCHMARK(BM_SetCalendarList)
    ->ArgsProduct({{1000, 10000, 100000}, {0, 1}})
    ->ArgNames({"rows", "byOrder"})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// The floor under any merge: every kept row (children included) takes its fresh record with setRecord,
// the rows paired beforehand outside the measured time.
void collect(const CalendarList& list, QHash<QString, NimbrelCalendar*>& byUid, QList<NimbrelCalendar*>& all)
{
    for (const CalendarRef& row : list) {
        byUid.insert(row->uid().toString(), row.get());
        all.append(row.get());
        if (row->children())
            collect(*row->children(), byUid, all);
    }
}

void BM_SetDictOfEveryRow(benchmark::State& state)
{
    const int rows = int(state.range(0));
    std::mt19937 random(20240611);
    const Answers answers = makeAnswers(rows, random);
    double measured = 0;
    for (auto _ : state) {
        CalendarList kept = build(answers.kept);
        NimbrelCalendar::sortByTitle(kept);
        const CalendarList fresh = build(answers.fresh);
        QHash<QString, NimbrelCalendar*> freshByUid, keptByUid;
        QList<NimbrelCalendar*> keptRows, freshRows;
        collect(fresh, freshByUid, freshRows);
        collect(kept, keptByUid, keptRows);
        QList<std::pair<NimbrelCalendar*, NimbrelCalendar*>> pairs;
        for (NimbrelCalendar* row : keptRows) {
            if (NimbrelCalendar* match = freshByUid.value(row->uid().toString()))
                pairs.append(std::make_pair(row, match));
        }

        const double start = threadSeconds();
        for (const auto& [row, match] : pairs)
            row->setRecord(match->record());
        const double seconds = threadSeconds() - start;
        state.SetIterationTime(seconds);
        measured += seconds;
    }
    state.counters["ns_per_row"] = measured * 1e9 / (double(state.iterations()) * rows);
}
BENCHMARK(BM_SetDictOfEveryRow)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
