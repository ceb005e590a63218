// The calendar tabs with 10 000 calendars, against the real background application on a private bus
// with a private HOME (both started here), the panel offscreen:
//   BM_PublishTabFirstPaint               10 000 local calendars the link has just fetched: the pane's
//                                         reload of the publishing table (and of the Google table of the
//                                         same calendars), laid out and painted. Budget 200 ms.
//   BM_PublishTabFirstPaintWithFetch      the same from the notice on: both published lists fetched
//                                         over the bus and merged first.
//   BM_OutlineReloadOneChanged            100 remote servers with 100 calendars each, one calendar
//                                         renamed: the link's merge of the fresh list and the pane's
//                                         reload, keeping the selection, the collapsed sources and the
//                                         scroll position, painted. Budget 50 ms.
//   BM_OutlineReloadOneChangedWithFetch   the same from the notice on, the fetch of the list included.
//
//     cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DNIMBREL_BUILD_BENCH=ON
//         -DNIMBREL_BUILD_TESTS=OFF && cmake --build build-bench -j2 --target tabs_bench Nimbrel pane_bundle
//     build-bench/bin/tabs_bench
// The servers and their calendars are written into Nimbrel's database (with sqlite3) as its own tests
// do: nothing is contacted on the network.

#include "model/CalendarMerge.h"
#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/ItemViews.h"
#include "panel_support.h"
#include "platform/PlistCodec.h"
#include "platform/VirtualRunLoop.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QElapsedTimer>
#include <QTabWidget>
#include <QTreeView>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <memory>

using namespace nimbrel;
using namespace nimbrel::bench;

namespace {

constexpr int kServers = 100;
constexpr int kCalendarsPerServer = 100;

QString hex(const QVariantMap& record)
{
    return QString::fromLatin1(plist::write(record).value_or(QByteArray()).toHex());
}

bool runSql(const QString& sql)
{
    // The statements go through standard input: 10 000 rows are more than one argument may hold.
    QProcess sqlite;
    sqlite.start(
        QStringLiteral("sqlite3"),
        {QStringLiteral("-cmd"), QStringLiteral(".timeout 10000"),
         QDir(qEnvironmentVariable("XDG_DATA_HOME")).filePath(QStringLiteral("Nimbrel/Nimbrel.nsql"))});
    sqlite.write(sql.toUtf8());
    sqlite.closeWriteChannel();
    const bool ran = sqlite.waitForFinished(60000) && sqlite.exitCode() == 0;
    if (!ran)
        std::fprintf(stderr, "sqlite3: %s\n", sqlite.readAllStandardError().constData());
    return ran;
}

QString subscriptionTitle(int server, int calendar, bool renamed = false)
{
    return QStringLiteral("Team %1-%2%3")
        .arg(server, 3, 10, QLatin1Char('0'))
        .arg(calendar, 3, 10, QLatin1Char('0'))
        .arg(renamed ? QStringLiteral(" (moved)") : QString());
}

// Remote servers with their calendars, as the background application stores them.
bool addServers()
{
    QString sql = QStringLiteral("BEGIN;");
    for (int s = 0; s < kServers; ++s) {
        sql +=
            QStringLiteral("INSERT INTO sources (uid, kind, settings) VALUES ('srv-%1', 'server', X'%2');")
                .arg(s)
                .arg(hex(
                    {{QStringLiteral("title"), QStringLiteral("Server %1").arg(s, 3, 10, QLatin1Char('0'))},
                     {QStringLiteral("remoteURL"), QStringLiteral("https://127.0.0.1:9/%1/").arg(s)}}));
        for (int c = 0; c < kCalendarsPerServer; ++c)
            sql += QStringLiteral("INSERT INTO subscriptions (uid, source_uid, subscribed, record) "
                                  "VALUES ('sub-%1-%2', 'srv-%1', %3, X'%4');")
                       .arg(s)
                       .arg(c)
                       .arg(c % 2)
                       .arg(hex({{QStringLiteral("title"), subscriptionTitle(s, c)}}));
    }
    return runSql(sql + QStringLiteral("COMMIT;"));
}

// The panel offscreen, connected to the background application, every list fetched.
struct Panel
{
    explicit Panel(qint64 pid)
    {
        pane = loadPane(window, loop);
        pane->com().setProcessLookup(
            [pid](const QString& identifier) { return identifier == kBackgroundAppIdentifier ? pid : 0; });
        pane->com().activate();
        QApplication::processEvents();
    }
    void showTab(const char* name)
    {
        auto* tabs = window.findChild<QTabWidget*>(QStringLiteral("tabView"));
        tabs->setCurrentWidget(tabs->findChild<QWidget*>(QLatin1String(name)));
        QApplication::processEvents();
    }
    template <class T> T* view(const char* name) { return window.findChild<T*>(QLatin1String(name)); }

    VirtualRunLoop loop;
    QWidget window;
    std::unique_ptr<ComQuorviaNimbrelPref> pane;
};

// One background application and one panel for every benchmark; main() ends them before the
// application object goes.
std::unique_ptr<BackgroundApp> gBackground;
std::unique_ptr<Panel> gPanel;

Panel* panel(benchmark::State& state)
{
    static const bool serving = [] {
        gBackground = std::make_unique<BackgroundApp>();
        return gBackground->start(10000) && addServers();
    }();
    if (!serving) {
        state.SkipWithError("the background application did not start, or its database could not be filled");
        return nullptr;
    }
    if (!gPanel)
        gPanel = std::make_unique<Panel>(gBackground->app.processId());
    return gPanel.get();
}

// Empties the two published lists the link keeps (the pane shows nothing) and gives back their rows.
std::pair<CalendarList, CalendarList> emptyPublishedLists(Panel& p)
{
    auto rows = std::make_pair(std::exchange(*p.pane->publishCalendars(), {}),
                               std::exchange(*p.pane->publishToGoogle(), {}));
    p.pane->nimbrelPublishedCalendarsChanged();
    QApplication::processEvents();
    return rows;
}

// From the pane's notice (the lists fetched already), or from the link's recalculation (fetch and merge
// included), to the publishing tab painted with its rows.
void publishTabFirstPaint(benchmark::State& state, bool withFetch)
{
    Panel* p = panel(state);
    if (!p)
        return;
    p->showTab("publish");
    for (auto _ : state) {
        state.PauseTiming();
        auto [rows, googleRows] = emptyPublishedLists(*p);
        if (!withFetch) {
            *p->pane->publishCalendars() = rows;
            *p->pane->publishToGoogle() = googleRows;
        }
        state.ResumeTiming();
        if (withFetch)
            p->pane->com().calcChangesForPublishedCalendars();
        else
            p->pane->nimbrelPublishedCalendarsChanged();
        QApplication::processEvents();
    }
    state.counters["rows"] = p->view<QAbstractItemView>("publishTableView")->model()->rowCount();
}

void BM_PublishTabFirstPaint(benchmark::State& state)
{
    publishTabFirstPaint(state, false);
}
BENCHMARK(BM_PublishTabFirstPaint)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void BM_PublishTabFirstPaintWithFetch(benchmark::State& state)
{
    publishTabFirstPaint(state, true);
}
BENCHMARK(BM_PublishTabFirstPaintWithFetch)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// ---- The outline ----------------------------------------------------------------------------------

// The outline as a user left it: every third server collapsed, a calendar in the middle selected and
// scrolled to.
void arrangeOutline(Panel& p)
{
    auto* outline = p.view<QTreeView>("subscribeOutlineView");
    for (int s = 0; s < kServers; ++s) {
        const QModelIndex server = outline->model()->index(s, 0);
        if (s % 3 == 0)
            outline->collapse(server);
        else
            outline->expand(server);
    }
    p.pane->setSelectionIndexPath({50, 10});
    outline->scrollTo(outline->model()->index(10, 0, outline->model()->index(50, 0)),
                      QAbstractItemView::PositionAtCenter);
    QApplication::processEvents();
}

bool outlineKept(Panel& p)
{
    auto* outline = p.view<QTreeView>("subscribeOutlineView");
    if (p.pane->selectionIndexPath() != QList<int>{50, 10} || outline->model()->rowCount() != kServers)
        return false;
    for (int s = 0; s < kServers; ++s) {
        if (outline->isExpanded(outline->model()->index(s, 0)) == (s % 3 == 0))
            return false;
    }
    return true;
}

// Renames calendar 42 of server 37 (and back on the next call).
void renameOneCalendar()
{
    static bool renamed = false;
    renamed = !renamed;
    runSql(QStringLiteral("UPDATE subscriptions SET record = X'%1' WHERE uid = 'sub-37-42';")
               .arg(hex({{QStringLiteral("title"), subscriptionTitle(37, 42, renamed)}})));
}

void outlineReload(benchmark::State& state, bool withFetch)
{
    Panel* p = panel(state);
    if (!p)
        return;
    p->pane->com().calcChangesForSubscribedCalendars();
    p->showTab("subscribe");
    arrangeOutline(*p);
    if (!outlineKept(*p)) {
        state.SkipWithError("the outline was not arranged");
        return;
    }
    double mergeSeconds = 0;
    for (auto _ : state) {
        state.PauseTiming();
        renameOneCalendar();
        CalendarList fresh;
        if (!withFetch) {
            for (const QVariant& source :
                 p->pane->com().proxy()->sourceListOfBonjourCalendars().value_or(QVariantList()))
                fresh.append(NimbrelCalendar::create(source.toMap(), &p->pane->com()));
            NimbrelCalendar::sortByTitle(fresh);
        }
        state.ResumeTiming();
        if (withFetch) {
            p->pane->com().calcChangesForSubscribedCalendars();
        } else {
            // What the link does with a fetched list (timed on its own too), then tells the pane.
            QElapsedTimer merge;
            merge.start();
            setCalendarList(*p->pane->subscribeCalendars(), fresh, nullptr);
            NimbrelCalendar::sortByTitle(*p->pane->subscribeCalendars());
            mergeSeconds += double(merge.nsecsElapsed()) / 1e9;
            p->pane->nimbrelSubscribedCalendarsChanged();
        }
        QApplication::processEvents();
        state.PauseTiming();
        const bool kept = outlineKept(*p);
        state.ResumeTiming();
        if (!kept) {
            state.SkipWithError("selection or expansion lost");
            return;
        }
    }
    state.counters["calendars"] = kServers * kCalendarsPerServer;
    if (!withFetch)
        state.counters["merge_ms"] =
            benchmark::Counter(mergeSeconds * 1e3, benchmark::Counter::kAvgIterations);
}

void BM_OutlineReloadOneChanged(benchmark::State& state)
{
    outlineReload(state, false);
}
BENCHMARK(BM_OutlineReloadOneChanged)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void BM_OutlineReloadOneChangedWithFetch(benchmark::State& state)
{
    outlineReload(state, true);
}
BENCHMARK(BM_OutlineReloadOneChangedWithFetch)->Unit(benchmark::kMillisecond)->MinTime(2.0);

} // namespace

int main(int argc, char** argv)
{
    return runPanelBenchmarks(argc, argv, [] {
        gPanel.reset();
        gBackground.reset();
    });
}
