#pragma once

// What the panel's benchmarks share: the pane bundle beside the benchmark program, a private home
// (HOME and the XDG folders in a temporary folder) and the real background application on a private
// bus of its own, serving a number of local calendars.

#include "pane/ComQuorviaNimbrelPref.h"
#include "platform/Bundle.h"
#include "platform/VirtualRunLoop.h"

#include <QApplication>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <benchmark/benchmark.h>
#include <functional>
#include <memory>

namespace nimbrel::bench {

inline QString binDir()
{
    return QCoreApplication::applicationDirPath();
}

inline QString paneBundle()
{
    return QDir::cleanPath(binDir() + QStringLiteral("/../lib/nimbrel/Nimbrel.prefPane"));
}

// Call before the QApplication is made: every file the panel and Nimbrel write goes below `home`.
inline void usePrivateHome(const QTemporaryDir& home)
{
    for (const char* variable :
         {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME"}) {
        const QString path = home.path() + QLatin1Char('/') + QLatin1String(variable);
        QDir().mkpath(path);
        qputenv(variable, path.toUtf8());
    }
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("NIMBREL_UPDATE_FEED", "file:///dev/null");
}

struct BackgroundApp
{
    // Makes `calendars` local calendars (vdir folders with a display name), starts a private bus and
    // Nimbrel on it, and waits until it answers `version`.
    bool start(int calendars)
    {
        const QString root =
            QDir(qEnvironmentVariable("XDG_DATA_HOME")).filePath(QStringLiteral("Nimbrel/Calendars"));
        for (int i = 0; i < calendars; ++i) {
            const QString folder = QStringLiteral("%1/cal-%2").arg(root).arg(i, 5, 10, QLatin1Char('0'));
            QDir().mkpath(folder);
            QFile name(folder + QStringLiteral("/displayname"));
            name.open(QIODevice::WriteOnly);
            name.write("Calendar " + QByteArray::number(i));
        }
        bus.setProgram(QStringLiteral("dbus-daemon"));
        bus.setArguments(
            {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address")});
        bus.start();
        if (!bus.waitForReadyRead(10000))
            return false;
        qputenv("DBUS_SESSION_BUS_ADDRESS", bus.readLine().trimmed());
        app.setProgram(paneBundle() + QStringLiteral("/Resources/Nimbrel.app/Nimbrel"));
        app.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        app.start();
        if (!app.waitForStarted(10000))
            return false;
        for (QDeadlineTimer deadline(120000); !deadline.hasExpired(); QThread::msleep(100)) {
            QProcess probe;
            probe.start(QStringLiteral("dbus-send"),
                        {QStringLiteral("--session"), QStringLiteral("--dest=com.quorvia.Nimbrel.Proxy"),
                         QStringLiteral("--print-reply"), QStringLiteral("/com/quorvia/Nimbrel/Proxy"),
                         QStringLiteral("com.quorvia.Nimbrel.AppProtocol.version")});
            probe.waitForFinished(10000);
            if (probe.readAllStandardOutput().contains("int32 5"))
                return true;
        }
        return false;
    }
    ~BackgroundApp()
    {
        app.terminate();
        app.waitForFinished(10000);
        bus.kill();
        bus.waitForFinished(5000);
    }
    QProcess bus;
    QProcess app;
};

// A pane in virtual time with its view loaded into `window`, shown offscreen at the panel's size.
inline std::unique_ptr<ComQuorviaNimbrelPref> loadPane(QWidget& window, VirtualRunLoop& loop)
{
    PaneEnvironment environment;
    environment.runLoop = &loop;
    auto pane = std::make_unique<ComQuorviaNimbrelPref>(Bundle(paneBundle()), environment);
    pane->loadMainView(&window);
    pane->awakeFromNib();
    pane->mainViewDidLoad();
    window.resize(668, 560);
    window.show();
    return pane;
}

// main() of a panel benchmark: a private home, an offscreen application with the string table, the
// benchmarks, then `cleanup` (while the application still exists).
inline int runPanelBenchmarks(int argc, char** argv, const std::function<void()>& cleanup = {})
{
    QTemporaryDir home;
    usePrivateHome(home);
    QApplication app(argc, argv);
    Bundle(paneBundle()).loadStringTable(QStringLiteral("NimbrelPref"));
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (cleanup)
        cleanup();
    return 0;
}

} // namespace nimbrel::bench
