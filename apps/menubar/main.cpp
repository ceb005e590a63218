// NimbrelMenu: the tray companion. One per session; quits on SIGTERM and SIGINT.

#include "MenuBarApp.h"
#include "SingleInstance.h"
#include "platform/SignalNotifier.h"

#include <QApplication>
#include <QCommandLineParser>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace {

// Options are read before the GUI starts, so --help and --version work without a display. Returns
// the exit status when the program is done, -1 when it goes on.
int parseOptions(int argc, char** argv)
{
    QCoreApplication probe(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("NimbrelMenu"));
    QCoreApplication::setApplicationVersion(QStringLiteral(NIMBREL_VERSION));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Nimbrel's tray icon: shows whether Nimbrel runs, starts and stops it, and opens its "
                       "preferences."));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.process(probe); // --help and --version print and exit 0; unknown options exit 1
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") &&
        qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        std::fputs("NimbrelMenu: no display (neither DISPLAY nor WAYLAND_DISPLAY is set)\n", stderr);
        return 1;
    }
    return -1;
}

} // namespace

int main(int argc, char** argv)
{
    if (const int status = parseOptions(argc, argv); status >= 0)
        return status;

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("NimbrelMenu"));
    QApplication::setApplicationDisplayName(QStringLiteral("Nimbrel"));
    QApplication::setQuitOnLastWindowClosed(false); // the menu closing is no reason to leave

    nimbrel::SignalNotifier quitSignals({SIGTERM, SIGINT});
    QObject::connect(&quitSignals, &nimbrel::SignalNotifier::signalReceived, &app, &QCoreApplication::quit);

    const QDBusConnection bus = QDBusConnection::sessionBus();
    QString error;
    if (!nimbrel::claimBusName(bus, nimbrel::kMenuBarServiceName, &error)) {
        std::fprintf(stderr, "NimbrelMenu: %s\n", qPrintable(error));
        return 1;
    }

    nimbrel::MenuBarApp menuBar(nimbrel::paneBundlePathForExecutable(QCoreApplication::applicationFilePath()),
                                bus);
    QObject::connect(&menuBar, &nimbrel::MenuBarApp::quitRequested, &app, &QCoreApplication::quit);
    menuBar.start();
    return app.exec();
}
