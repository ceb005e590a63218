// The control panel: an 8 MiB filtered log shown in the log tab (budget 200 ms), an idle poll of the
// log (50 µs), and nimbrel-preferences from exec to its first paint against the real background
// application serving 10 000 calendars (500 ms); also, for the record, until the pane is selected
// and shows the real status (no budget of its own).
//
//     cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DNIMBREL_BUILD_BENCH=ON
//     -DNIMBREL_BUILD_TESTS=OFF cmake --build build-bench -j2 --target panel_bench nimbrel-preferences
//     Nimbrel pane_bundle build-bench/bin/panel_bench
// The benchmark makes its own HOME and XDG folders and its own private session bus; it touches none of
// the user's files and works offscreen.

#include "logging/Log.h"
#include "pane/ComQuorviaNimbrelPref.h"
#include "panel_support.h"
#include "platform/SettingsStore.h"
#include "platform/VirtualRunLoop.h"

#include <QApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QPlainTextEdit>
#include <QProcess>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QThread>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <memory>

using namespace nimbrel;
using namespace nimbrel::bench;

namespace {

// A pane offscreen with its log tab showing, in virtual time, not connected to anything.
struct LogTabFixture
{
    LogTabFixture()
    {
        pane = loadPane(window, loop);
        auto* tabs = window.findChild<QTabWidget*>(QStringLiteral("tabView"));
        const QSignalBlocker quiet(tabs);
        tabs->setCurrentWidget(tabs->findChild<QWidget*>(QStringLiteral("log")));
        QDir().mkpath(QFileInfo(filteredLogFilePath(QStringLiteral("Nimbrel"))).absolutePath());
    }

    static void writeLog(qint64 bytes)
    {
        QFile file(filteredLogFilePath(QStringLiteral("Nimbrel")));
        file.open(QIODevice::WriteOnly);
        QByteArray block;
        for (int i = 0; block.size() < (1 << 20); ++i)
            block += "2026-11-25 08:15:42.123 - Published calendar \"Team " + QByteArray::number(i % 97) +
                     "\" to 3 subscribers; next sync in 300 s\n";
        for (qint64 written = 0; written < bytes; written += block.size())
            file.write(block.left(bytes - written));
    }

    VirtualRunLoop loop;
    QWidget window;
    std::unique_ptr<ComQuorviaNimbrelPref> pane;
};

void BM_LogTabShow8MiB(benchmark::State& state)
{
    LogTabFixture fixture;
    LogTabFixture::writeLog(8 << 20);
    for (auto _ : state) {
        fixture.pane->clearLogView();
        fixture.pane->updateLogView();
        // Laid out and painted, as the user sees it.
        QApplication::processEvents();
        fixture.pane->cancelLogTimer();
    }
    state.counters["bytes"] = static_cast<double>(fixture.pane->logSize());
}
BENCHMARK(BM_LogTabShow8MiB)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void BM_LogTabIdlePoll(benchmark::State& state)
{
    LogTabFixture fixture;
    LogTabFixture::writeLog(64 << 10);
    fixture.pane->updateLogView();
    QApplication::processEvents();
    for (auto _ : state) {
        fixture.pane->cancelLogTimer();
        fixture.pane->updateLogView(); // nothing new: open, seek, one empty read, close, re-arm
    }
}
BENCHMARK(BM_LogTabIdlePoll)->Unit(benchmark::kMicrosecond);

// ---- Start to first paint -----------------------------------------------------------------------

// Runs nimbrel-preferences against the background application and times the start until `line`:
// "first paint" (the window is on screen) or "selected" (the pane has talked to the background
// application, fetched its lists and shows the real status).
void runPanel(benchmark::State& state, const QByteArray& line)
{
    static BackgroundApp background;
    static const bool serving = background.start(10000);
    if (!serving) {
        state.SkipWithError("the background application did not start");
        return;
    }
    // Not a first launch, nothing to start: the panel opens straight onto its status.
    SettingsStore(SettingsStore::domainPath(QStringLiteral("com.quorvia.Nimbrel")))
        .setValue(QStringLiteral("welcomed"), true);
    for (auto _ : state) {
        QProcess panel;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("NIMBREL_REPORT_STARTUP"), QStringLiteral("1"));
        panel.setProcessEnvironment(environment);
        panel.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QElapsedTimer clock;
        clock.start();
        panel.start(binDir() + QStringLiteral("/nimbrel-preferences"), {});
        QByteArray output;
        while (!output.contains(line) && panel.waitForReadyRead(20000))
            output += panel.readAll();
        state.SetIterationTime(static_cast<double>(clock.nsecsElapsed()) / 1e9);
        panel.waitForFinished(20000);
        if (!output.contains(line)) {
            state.SkipWithError("the panel did not report");
            return;
        }
    }
}

void BM_PanelFirstPaint(benchmark::State& state)
{
    runPanel(state, "first paint");
}
BENCHMARK(BM_PanelFirstPaint)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);

void BM_PanelReady(benchmark::State& state)
{
    runPanel(state, "selected");
}
BENCHMARK(BM_PanelReady)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);

} // namespace

int main(int argc, char** argv)
{
    return runPanelBenchmarks(argc, argv);
}
