// Serves a folder of vdir calendars with the CalDAV server, for tests and benchmarks that point real
// clients at it. Prints "listening <port> <fingerprint>" when it serves, and "announced <name>" or
// "announce-failed <reason>" for DNS-SD. Reads commands on standard input, one a line, and answers
// "ok" to each:
//     publish <uid> 0|1
//     access <uid> <readPassword|-> <writePassword|-> <readOnly 0|1>
// SIGTERM or SIGINT ends it cleanly (the announcement is withdrawn).

#include "CaldavPublisher.h"
#include "VdirTestStore.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

using namespace nimbrel;
using namespace nimbrel::publish;

namespace {
int gSignalPipe[2];

void say(const QByteArray& line)
{
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void command(test::VdirTestStore& store, const QByteArray& line)
{
    const QList<QByteArray> w = line.simplified().split(' ');
    auto arg = [&](int i) { return w.size() > i && w[i] != "-" ? QString::fromUtf8(w[i]) : QString(); };
    if (w.size() == 3 && w[0] == "publish")
        store.setPublished(arg(1), w[2] == "1");
    else if (w.size() == 5 && w[0] == "access")
        store.setAccess(arg(1), arg(2), arg(3), w[4] == "1");
    else {
        say("error");
        return;
    }
    say("ok");
}
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addOptions({{QStringLiteral("root"), QStringLiteral("calendar folders"), QStringLiteral("dir")},
                       {QStringLiteral("data"), QStringLiteral("certificate folder"), QStringLiteral("dir")},
                       {QStringLiteral("port"), QStringLiteral("port (0 = any)"), QStringLiteral("n"), QStringLiteral("0")},
                       {QStringLiteral("plain"), QStringLiteral("no TLS")},
                       {QStringLiteral("announce"), QStringLiteral("DNS-SD name"), QStringLiteral("name")},
                       {QStringLiteral("id"), QStringLiteral("instance id"), QStringLiteral("id"), QStringLiteral("test")},
                       {QStringLiteral("per-address"), QStringLiteral("connections per address"), QStringLiteral("n"),
                        QStringLiteral("64")}});
    parser.process(app);

    test::VdirTestStore store(parser.value(QStringLiteral("root")));
    CaldavPublisher publisher(store);
    PublisherConfig config;
    config.dataFolder = parser.value(QStringLiteral("data"));
    config.hostName = QStringLiteral("testhost");
    config.fixedPort = quint16(parser.value(QStringLiteral("port")).toUInt());
    config.tls = !parser.isSet(QStringLiteral("plain"));
    config.limits.connectionsPerAddress = parser.value(QStringLiteral("per-address")).toUInt();
    QString error;
    if (!publisher.start(config, &error)) {
        std::fprintf(stderr, "cannot serve: %s\n", qPrintable(error));
        return 2;
    }
    say("listening " + QByteArray::number(publisher.port()) + ' ' + publisher.fingerprint().toLatin1());
    QObject::connect(&publisher, &CaldavPublisher::namePublished, [](const QString& n) { say("announced " + n.toUtf8()); });
    QObject::connect(&publisher, &CaldavPublisher::nameFailed, [](const QString& r) { say("announce-failed " + r.toUtf8()); });
    if (parser.isSet(QStringLiteral("announce")))
        publisher.announce(parser.value(QStringLiteral("announce")), parser.value(QStringLiteral("id")));

    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QByteArray pending;
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        char buffer[4096];
        const ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
        if (n <= 0) {
            input.setEnabled(false);
            return;
        }
        pending.append(buffer, n);
        for (qsizetype nl; (nl = pending.indexOf('\n')) >= 0; pending.remove(0, nl + 1))
            command(store, pending.left(nl));
    });

    socketpair(AF_UNIX, SOCK_STREAM, 0, gSignalPipe);
    std::signal(SIGTERM, [](int) { (void)!write(gSignalPipe[0], "x", 1); });
    std::signal(SIGINT, [](int) { (void)!write(gSignalPipe[0], "x", 1); });
    QSocketNotifier signalNotifier(gSignalPipe[1], QSocketNotifier::Read);
    QObject::connect(&signalNotifier, &QSocketNotifier::activated, [&] {
        publisher.stop();
        app.quit();
    });
    return app.exec();
}
