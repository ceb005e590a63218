// Nimbrel, the background application: serves the control panel over the session bus until told to stop.
#include "BackgroundApp.h"

#include <QCoreApplication>
#include <QStringList>
#include <cstdio>

namespace {

const char kUsage[] = "Usage: Nimbrel [-sparkle | --version | --help]\n"
                      "  (no argument)  serve com.quorvia.Nimbrel.Proxy on the session bus until shutdown,\n"
                      "                 SIGTERM or SIGINT; exit status 1 when another instance serves it\n"
                      "  -sparkle       check the update feed once, record the check time and exit\n"
                      "  --version      print the version\n"
                      "Environment: NIMBREL_UPDATE_FEED overrides the update feed URL.\n"
                      "Shared setting \"logLevel\" (number) overrides the log level (default 2).\n";

} // namespace

int main(int argc, char** argv)
{
    using nimbrel::background::BackgroundApp;
    using nimbrel::background::BackgroundOptions;

    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Nimbrel"));
    const QString bundlePath = QCoreApplication::applicationDirPath();
    QCoreApplication::setApplicationVersion(BackgroundApp::appVersion(bundlePath));

    const QStringList arguments = QCoreApplication::arguments().mid(1);
    const QString argument = arguments.value(0);
    if (arguments.size() > 1 ||
        (!arguments.isEmpty() && argument != QLatin1String("-sparkle") &&
         argument != QLatin1String("--version") && argument != QLatin1String("--help"))) {
        std::fputs(kUsage, stderr);
        return BackgroundApp::ExitFailure;
    }
    if (argument == QLatin1String("--help")) {
        std::fputs(kUsage, stdout);
        return BackgroundApp::ExitOk;
    }
    if (argument == QLatin1String("--version")) {
        std::printf("Nimbrel %s\n", QCoreApplication::applicationVersion().toLocal8Bit().constData());
        return BackgroundApp::ExitOk;
    }

    const BackgroundOptions options = BackgroundOptions::defaults(bundlePath);
    if (argument == QLatin1String("-sparkle"))
        return BackgroundApp::runUpdateCheck(options);

    BackgroundApp background(options);
    QObject::connect(&background, &BackgroundApp::finished, &app, &QCoreApplication::exit);
    if (const int status = background.start(); status != BackgroundApp::ExitOk)
        return status;
    return QCoreApplication::exec();
}
