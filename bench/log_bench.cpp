// Lines per second of Log() against spdlog's file sink writing the same lines with the same date
// format. Everything is written to files in a temporary folder; standard error is reopened on the
// main log the way a host does.
#include "logging/Log.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <string>
#include <unistd.h>

namespace {

const std::string kCalendar = "Work calendar";
std::string gTempDir;

// The host's set-up: a prepared main log on standard error and the filtered log in update mode.
void startHostLogs(bool filteredUpdateMode)
{
    using namespace nimbrel;
    const QString name = QStringLiteral("Bench");
    const QString path = prepLogFilePath(name, 3);
    if (path.isNull() || ReopenStandardError(path) != 0) {
        std::fprintf(stdout, "cannot open the log in %s\n", gTempDir.c_str());
        std::exit(1);
    }
    OpenFilteredLogFile(name, filteredUpdateMode, true);
}

void finishHostLogs(benchmark::State& state)
{
    nimbrel::LogFlush(); // flushes, and rotates / clears what the run filled
    nimbrel::CloseFilteredLogFile();
    state.SetItemsProcessed(state.iterations());
}

void BM_Log_Level10_MainAndFiltered(benchmark::State& state)
{
    startHostLogs(true);
    long i = 0;
    for (auto _ : state)
        nimbrel::Log(10, "Synchronized %@ with %d events in %ld ms", kCalendar, static_cast<int>(i++ & 1023),
                     42L);
    finishHostLogs(state);
}
BENCHMARK(BM_Log_Level10_MainAndFiltered);

// The filtered log outside update mode: every line is flushed (a system call each).
void BM_Log_Level10_FilteredFlushedEachLine(benchmark::State& state)
{
    startHostLogs(false);
    long i = 0;
    for (auto _ : state)
        nimbrel::Log(10, "Synchronized %@ with %d events in %ld ms", kCalendar, static_cast<int>(i++ & 1023),
                     42L);
    finishHostLogs(state);
}
BENCHMARK(BM_Log_Level10_FilteredFlushedEachLine);

void BM_Log_Level2_MainOnly(benchmark::State& state)
{
    startHostLogs(true);
    long i = 0;
    for (auto _ : state)
        nimbrel::Log(2, "Synchronized %@ with %d events in %ld ms", kCalendar, static_cast<int>(i++ & 1023),
                     42L);
    finishHostLogs(state);
}
BENCHMARK(BM_Log_Level2_MainOnly);

template <class Sink> void spdlogLines(benchmark::State& state)
{
    auto sink = std::make_shared<Sink>(gTempDir + "/spdlog.log", true);
    spdlog::logger logger("bench", sink);
    logger.set_pattern("%Y-%m-%d %H:%M:%S.%e - %v");
    logger.set_level(spdlog::level::info);
    long i = 0;
    for (auto _ : state)
        logger.info("Synchronized {} with {} events in {} ms", kCalendar, static_cast<int>(i++ & 1023), 42L);
    logger.flush();
    state.SetItemsProcessed(state.iterations());
}

void BM_Spdlog_BasicFileSink_st(benchmark::State& state)
{
    spdlogLines<spdlog::sinks::basic_file_sink_st>(state);
}
BENCHMARK(BM_Spdlog_BasicFileSink_st);

void BM_Spdlog_BasicFileSink_mt(benchmark::State& state)
{
    spdlogLines<spdlog::sinks::basic_file_sink_mt>(state);
}
BENCHMARK(BM_Spdlog_BasicFileSink_mt);

} // namespace

int main(int argc, char** argv)
{
    const char* tmp = std::getenv("TMPDIR");
    std::string folder = std::string(tmp && *tmp ? tmp : "/tmp") + "/nimbrel-log-bench.XXXXXX";
    if (!mkdtemp(folder.data()))
        return 1;
    gTempDir = folder;
    qputenv("XDG_STATE_HOME", QByteArray::fromStdString(gTempDir));

    const int savedStandardError = dup(2);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    std::fflush(stderr);
    dup2(savedStandardError, 2);
    QDir(QString::fromStdString(gTempDir)).removeRecursively();
    return 0;
}
