// The background application with 10 000 local calendars (one .ics each), the real executable on a
// private bus with a private HOME:
//   BM_BackgroundStart10000/fresh:0/list:0  start with the database of an earlier run to the first
//                                    answer of `version` (budget 500 ms); fresh:1 starts without a
//                                    database; list:1 waits for the whole calendar list instead.
//   BM_EditToNotice10000             one calendar's displayname rewritten to "Nimbrel Calendars
//                                    Changed" on the bus; max_call_wait_ms is the longest a `version`
//                                    call, sent every 2 ms from another connection, waited meanwhile
//                                    (budget 50 ms); max_call_wait_after_start_ms the same while the
//                                    application compared its folders with its index after starting.
//     cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DNIMBREL_BUILD_BENCH=ON
//         -DNIMBREL_BUILD_TESTS=OFF && cmake --build build-bench -j2 --target background_bench Nimbrel
//     build-bench/bin/background_bench
// Nothing reaches the network: the update feed is a local file and automatic checks are off.
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <QUuid>
#include <atomic>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <memory>
#include <thread>

namespace {

constexpr int kCalendars = 10000;
const QString kService = QStringLiteral("com.quorvia.Nimbrel.Proxy");

QString s(const char* text)
{
    return QString::fromUtf8(text);
}

bool writeFile(const QString& path, const QByteArray& data)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(data) == data.size();
}

QDBusMessage appCall(const char* method)
{
    QDBusMessage call = QDBusMessage::createMethodCall(kService, s("/com/quorvia/Nimbrel/Proxy"),
                                                       s("com.quorvia.Nimbrel.AppProtocol"), s(method));
    call.setAutoStartService(false);
    return call;
}

// Counts "Nimbrel Calendars Changed" as it arrives.
class NoticeCounter : public QObject
{
    Q_OBJECT
public:
    std::atomic<int> count = 0;
public slots:
    void posted(const QString& name)
    {
        if (name == QLatin1String("Nimbrel Calendars Changed"))
            ++count;
    }
};

// A private bus, a private HOME holding 10 000 calendars, and the background application in it.
class World
{
public:
    bool make()
    {
        if (!m_root.isValid())
            return fail("no temporary folder");
        for (const char* sub : {"home", "data/Nimbrel/Calendars", "config", "state", "cache", "runtime"})
            QDir().mkpath(m_root.filePath(s(sub)));
        const QString feed = m_root.filePath(s("appcast.xml"));
        writeFile(feed, "<?xml version=\"1.0\"?><rss version=\"2.0\"><channel/></rss>");
        writeFile(m_root.filePath(s("config/com.quorvia.Nimbrel.plist")),
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                  "<key>checkForUpdateInterval</key><real>1000000000</real></dict></plist>\n");
        const QString calendars = m_root.filePath(s("data/Nimbrel/Calendars"));
        for (int i = 0; i < kCalendars; ++i) {
            const QString uid = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
            const QString folder = calendars + QLatin1Char('/') + uid;
            QDir().mkdir(folder);
            m_folders << folder;
            const QByteArray event =
                "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//bench//EN\r\nBEGIN:VEVENT\r\n"
                "UID:" +
                uid.toUtf8() + "\r\nDTSTART:20240101T100000Z\r\nSUMMARY:Event " + QByteArray::number(i) +
                "\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";
            if (!writeFile(folder + s("/displayname"), "Calendar " + QByteArray::number(i) + '\n') ||
                !writeFile(folder + s("/color"), "#3366CC\n") ||
                !writeFile(folder + QLatin1Char('/') + uid + s(".ics"), event))
                return fail("cannot write the calendars");
        }
        m_environment = QProcessEnvironment::systemEnvironment();
        const std::pair<const char*, const char*> variables[] = {{"HOME", "home"},
                                                                 {"XDG_DATA_HOME", "data"},
                                                                 {"XDG_CONFIG_HOME", "config"},
                                                                 {"XDG_STATE_HOME", "state"},
                                                                 {"XDG_CACHE_HOME", "cache"},
                                                                 {"XDG_RUNTIME_DIR", "runtime"}};
        for (const auto& [name, sub] : variables)
            m_environment.insert(s(name), m_root.filePath(s(sub)));
        m_environment.insert(s("NIMBREL_UPDATE_FEED"), feed);

        m_bus.setProgram(s("dbus-daemon"));
        m_bus.setArguments({s("--session"), s("--nofork"), s("--print-address")});
        m_bus.start();
        if (!m_bus.waitForStarted() || !m_bus.waitForReadyRead(5000))
            return fail("cannot start a private dbus-daemon");
        const QByteArray address = m_bus.readLine().trimmed();
        qputenv("DBUS_SESSION_BUS_ADDRESS", address);
        m_environment.insert(s("DBUS_SESSION_BUS_ADDRESS"), QString::fromUtf8(address));
        return QDBusConnection::sessionBus().isConnected() || fail("cannot connect to the private bus");
    }

    ~World()
    {
        stopApp();
        m_bus.terminate();
        m_bus.waitForFinished(2000);
    }

    // Starts the application and returns the seconds until `version` (or, with `list`, the whole
    // calendar list) first answered (<0: never).
    double startApp(bool list = false)
    {
        QElapsedTimer clock;
        clock.start();
        m_app.setProcessEnvironment(m_environment);
        m_app.setProgram(s(NIMBREL_BENCH_APP));
        m_app.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_app.start();
        const QDBusMessage call = appCall(list ? "calendarsPublishableViaBonjour" : "version");
        while (clock.elapsed() < 60000 && m_app.state() != QProcess::NotRunning) {
            const QDBusMessage reply = QDBusConnection::sessionBus().call(call, QDBus::Block, 60000);
            if (reply.type() == QDBusMessage::ReplyMessage)
                return double(clock.nsecsElapsed()) / 1e9;
            QThread::usleep(500); // not serving yet: NameHasNoOwner comes back at once
        }
        return -1;
    }

    void stopApp()
    {
        if (m_app.state() == QProcess::NotRunning)
            return;
        m_app.terminate();
        if (!m_app.waitForFinished(30000)) {
            m_app.kill();
            m_app.waitForFinished();
        }
    }

    void removeDatabase()
    {
        for (const char* suffix : {"", "-wal", "-shm"})
            QFile::remove(m_root.filePath(s("data/Nimbrel/Nimbrel.nsql")) + QLatin1String(suffix));
    }

    const QStringList& folders() const { return m_folders; }

private:
    bool fail(const char* why)
    {
        std::fprintf(stderr, "background_bench: %s\n", why);
        return false;
    }

    QTemporaryDir m_root;
    QStringList m_folders;
    QProcessEnvironment m_environment;
    QProcess m_bus;
    QProcess m_app;
};

World* gWorld = nullptr;

void BM_BackgroundStart10000(benchmark::State& state)
{
    const bool fresh = state.range(0) != 0;
    const bool list = state.range(1) != 0;
    for (auto _ : state) {
        if (fresh)
            gWorld->removeDatabase();
        const double seconds = gWorld->startApp(list);
        if (seconds < 0) {
            state.SkipWithError("the background application never answered");
            break;
        }
        state.SetIterationTime(seconds);
        gWorld->stopApp();
    }
}
BENCHMARK(BM_BackgroundStart10000)
    ->ArgNames({"fresh", "list"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({0, 1})
    ->Args({1, 1})
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// Lets the application settle: no notice for five seconds (a first look at 10 000 folders ends in
// one notice).
void settle(NoticeCounter& notices)
{
    for (int seen = -1; seen != notices.count;) {
        seen = notices.count;
        QEventLoop loop;
        QTimer::singleShot(5000, &loop, &QEventLoop::quit);
        loop.exec();
    }
}

void BM_EditToNotice10000(benchmark::State& state)
{
    NoticeCounter notices;
    QDBusConnection::sessionBus().connect(QString(), s("/com/quorvia/Nimbrel/Notifications"),
                                          s("com.quorvia.Nimbrel.Notifications"), s("Posted"), &notices,
                                          SLOT(posted(QString)));
    // Probes from the start on: phase 0 while the application looks at its folders after starting,
    // phase 1 during the edits.
    std::atomic<int> phase = -1;
    std::atomic<qint64> longestWaitNs[2] = {0, 0};
    std::thread prober([&] {
        QDBusConnection connection = QDBusConnection::connectToBus(QDBusConnection::SessionBus, s("probe"));
        const QDBusMessage call = appCall("version");
        while (phase < 2) {
            QElapsedTimer clock;
            clock.start();
            const bool answered =
                connection.call(call, QDBus::Block, 60000).type() == QDBusMessage::ReplyMessage;
            const qint64 waited = clock.nsecsElapsed();
            if (const int p = phase; answered && p >= 0 && p < 2 && waited > longestWaitNs[p])
                longestWaitNs[p] = waited;
            QThread::usleep(2000);
        }
    });
    const double started = gWorld->startApp();
    phase = 0;
    if (started < 0) {
        state.SkipWithError("the background application never answered");
        phase = 2;
        prober.join();
        return;
    }
    settle(notices);
    phase = 1;

    int edit = 0;
    for (auto _ : state) {
        const int before = notices.count;
        const QString path = gWorld->folders().at((edit * 7919) % kCalendars) + s("/displayname");
        QElapsedTimer clock;
        clock.start();
        writeFile(path, "Edited " + QByteArray::number(edit++) + '\n');
        while (notices.count == before && clock.elapsed() < 30000)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
        state.SetIterationTime(double(clock.nsecsElapsed()) / 1e9);
        if (notices.count == before) {
            state.SkipWithError("no notice within 30 s");
            break;
        }
        state.PauseTiming();
        settle(notices); // the next edit starts from quiet
        state.ResumeTiming();
    }
    phase = 2;
    prober.join();
    QDBusConnection::disconnectFromBus(s("probe"));
    state.counters["max_call_wait_ms"] = double(longestWaitNs[1]) / 1e6;
    state.counters["max_call_wait_after_start_ms"] = double(longestWaitNs[0]) / 1e6;
    gWorld->stopApp();
}
BENCHMARK(BM_EditToNotice10000)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    World world;
    if (!world.make())
        return 1;
    gWorld = &world;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    gWorld = nullptr;
    return 0;
}

#include "background_bench.moc"
