// NimbrelMenu: the tray companion. One per session; quits on SIGTERM and SIGINT.

#include "MenuBarApp.h"
#include "QuitOnSignal.h"
#include "SingleInstance.h"

#include <QApplication>
#include <csignal>
#include <cstdio>

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("NimbrelMenu"));
    QApplication::setApplicationDisplayName(QStringLiteral("Nimbrel"));
    QApplication::setQuitOnLastWindowClosed(false); // the menu closing is no reason to leave

    nimbrel::QuitOnSignal quitSignals({SIGTERM, SIGINT});
    QObject::connect(&quitSignals, &nimbrel::QuitOnSignal::signalReceived, &app, &QCoreApplication::quit);

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
