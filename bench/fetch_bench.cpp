// Fetching a large calendar list from the background application: one synchronous D-Bus call of
// calendarsPublishableViaBonjour answered with 10 000 calendar dictionaries (encoded by the peer as
// the background application does, one CBOR byte array), decoded and wrapped into calendar rows.
// Budget: 100 ms for the whole fetch.
//
// The benchmark starts its own private bus (dbus-daemon --session --nofork --print-address), so it
// never touches the user's session bus; it needs nothing else:
//     cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DNIMBREL_BUILD_BENCH=ON
//     -DNIMBREL_BUILD_TESTS=OFF cmake --build build-bench --target fetch_bench && build-bench/bin/fetch_bench
// The answering peer lives in this process, on its own thread and its own bus connection, like the
// background application would in its own process.
#include "link/AppProtocolProxy.h"
#include "model/NimbrelCalendar.h"
#include "protocol/WireCodec.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDateTime>
#include <QProcess>
#include <QThread>
#include <QUuid>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

constexpr int kCalendars = 10000;

// The background application's side, as far as this benchmark needs it.
class Peer : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.quorvia.Nimbrel.AppProtocol")
public:
    explicit Peer(QVariantList answer) : m_answer(std::move(answer)) {}

public slots:
    // What the background application does for every answer: the list encoded afresh.
    QByteArray calendarsPublishableViaBonjour() { return nimbrel::wire::encodeList(m_answer); }

private:
    QVariantList m_answer;
};

QVariantList realisticCalendars(int count)
{
    const QDateTime base(QDate(2008, 6, 1), QTime(8, 0), Qt::UTC);
    QVariantList list;
    list.reserve(count);
    for (int i = 0; i < count; ++i) {
        const bool published = i % 3 == 0;
        QVariantMap calendar{
            {QStringLiteral("uid"), QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper()},
            {QStringLiteral("title"), QStringLiteral("Calendar %1 \u2013 Team %2").arg(i).arg(i % 17)},
            {QStringLiteral("order"), qint64(i)},
            {QStringLiteral("publishedToBonjour"), published},
            {QStringLiteral("publishedToGoogle"), i % 5 == 0},
            {QStringLiteral("subscribable"), true},
            {QStringLiteral("readOnly"), i % 4 == 0},
            {QStringLiteral("running"), false},
            {QStringLiteral("syncTime"), base.addSecs(i * 37)},
        };
        if (published) {
            calendar.insert(QStringLiteral("readPassword"), QStringLiteral("r%1pw").arg(i));
            calendar.insert(QStringLiteral("writePassword"), QStringLiteral("w%1pw").arg(i));
        }
        if (i % 50 == 0)
            calendar.insert(QStringLiteral("syncError"), QStringLiteral("The server did not answer."));
        list.append(calendar);
    }
    return list;
}

// A private bus for the run; the daemon is stopped when the benchmark ends.
class PrivateBus
{
public:
    bool start()
    {
        m_daemon.setProgram(QStringLiteral("dbus-daemon"));
        m_daemon.setArguments(
            {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address")});
        m_daemon.setProcessChannelMode(QProcess::SeparateChannels);
        m_daemon.start();
        if (!m_daemon.waitForStarted() || !m_daemon.waitForReadyRead(5000))
            return false;
        const QByteArray address = m_daemon.readLine().trimmed();
        if (address.isEmpty())
            return false;
        qputenv("DBUS_SESSION_BUS_ADDRESS", address);
        return true;
    }
    ~PrivateBus()
    {
        m_daemon.terminate();
        m_daemon.waitForFinished(2000);
    }

private:
    QProcess m_daemon;
};

struct Fixture
{
    QThread thread;
    std::unique_ptr<Peer> peer;
    QString connectionName = QStringLiteral("fetch-bench-peer");

    bool start()
    {
        peer = std::make_unique<Peer>(realisticCalendars(kCalendars));
        QDBusConnection connection =
            QDBusConnection::connectToBus(QDBusConnection::SessionBus, connectionName);
        thread.start();
        peer->moveToThread(&thread);
        return connection.registerObject(nimbrel::kAppProtocolPath, peer.get(),
                                         QDBusConnection::ExportAllSlots) &&
               connection.registerService(nimbrel::kAppProtocolService);
    }
    ~Fixture()
    {
        QDBusConnection::disconnectFromBus(connectionName);
        thread.quit();
        thread.wait();
    }
};

void BM_FetchUnwrapAndWrap10000(benchmark::State& state)
{
    const nimbrel::AppProtocolProxy proxy;
    for (auto _ : state) {
        const QVariantList dictionaries = proxy.calendarsPublishableViaBonjour().value_or(QVariantList());
        nimbrel::CalendarList rows;
        rows.reserve(dictionaries.size());
        for (const QVariant& dictionary : dictionaries)
            rows.append(nimbrel::NimbrelCalendar::create(dictionary.toMap(), nullptr));
        if (rows.size() != kCalendars)
            state.SkipWithError("the peer did not answer with every calendar");
        benchmark::DoNotOptimize(rows);
    }
    state.SetItemsProcessed(state.iterations() * kCalendars);
}
BENCHMARK(BM_FetchUnwrapAndWrap10000)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FetchAndUnwrap10000(benchmark::State& state)
{
    const nimbrel::AppProtocolProxy proxy;
    for (auto _ : state) {
        const QVariantList dictionaries = proxy.calendarsPublishableViaBonjour().value_or(QVariantList());
        if (dictionaries.size() != kCalendars)
            state.SkipWithError("the peer did not answer with every calendar");
        benchmark::DoNotOptimize(dictionaries);
    }
    state.SetItemsProcessed(state.iterations() * kCalendars);
}
BENCHMARK(BM_FetchAndUnwrap10000)->Unit(benchmark::kMillisecond)->UseRealTime();

// The parts of the fetch on their own: the call with the answer left undecoded (the peer's encoding,
// the bus and the receipt), the decoding, and the wrapping into rows.
QDBusMessage listCall()
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        nimbrel::kAppProtocolService, nimbrel::kAppProtocolPath, nimbrel::kAppProtocolInterface,
        QStringLiteral("calendarsPublishableViaBonjour"));
    call.setAutoStartService(false);
    return call;
}

void BM_CallOnly10000(benchmark::State& state)
{
    const QDBusMessage call = listCall();
    for (auto _ : state) {
        const QDBusMessage reply = QDBusConnection::sessionBus().call(call);
        if (reply.type() != QDBusMessage::ReplyMessage)
            state.SkipWithError("the call failed");
        benchmark::DoNotOptimize(reply);
    }
}
BENCHMARK(BM_CallOnly10000)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_UnwrapOnly10000(benchmark::State& state)
{
    const QVariant received = QDBusConnection::sessionBus().call(listCall()).arguments().value(0);
    for (auto _ : state) {
        const std::optional<QVariantList> list = nimbrel::wire::decodeList(received.toByteArray());
        benchmark::DoNotOptimize(list);
    }
}
BENCHMARK(BM_UnwrapOnly10000)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_WrapOnly10000(benchmark::State& state)
{
    const QVariantList dictionaries =
        nimbrel::AppProtocolProxy().calendarsPublishableViaBonjour().value_or(QVariantList());
    for (auto _ : state) {
        nimbrel::CalendarList rows;
        rows.reserve(dictionaries.size());
        for (const QVariant& dictionary : dictionaries)
            rows.append(nimbrel::NimbrelCalendar::create(dictionary.toMap(), nullptr));
        benchmark::DoNotOptimize(rows);
    }
}
BENCHMARK(BM_WrapOnly10000)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    PrivateBus bus;
    if (!bus.start()) {
        std::fprintf(stderr, "fetch_bench: cannot start a private dbus-daemon\n");
        return 1;
    }
    Fixture fixture;
    if (!fixture.start()) {
        std::fprintf(stderr, "fetch_bench: the peer could not take %s\n",
                     qPrintable(nimbrel::kAppProtocolService));
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

#include "fetch_bench.moc"
