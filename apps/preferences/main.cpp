// nimbrel-preferences: finds the pane bundle, loads its string table, and hosts the pane in a window.
// One per session: a second start brings the first window to the front and exits 0.

#include "PreferencesHost.h"
#include "SingleInstance.h"
#include "pane/PaneIcon.h"
#include "platform/Bundle.h"
#include "platform/Strings.h"
#include "platform/gui/GuiHooks.h"

#include <QApplication>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace nimbrel;

namespace {

const char kUsage[] =
    "Usage: nimbrel-preferences [--help] [--version]\n"
    "\n"
    "Opens Nimbrel Preferences, the control panel of Nimbrel: start and stop Nimbrel, choose the calendars\n"
    "it publishes and subscribes to, reset it and read its log. When the panel is already open in this\n"
    "session, its window is brought to the front instead.\n"
    "\n"
    "  --help       show this text and exit\n"
    "  --version    show the version and exit\n"
    "\n"
    "Environment: NIMBREL_PANE_BUNDLE names the pane bundle (default: ../lib/nimbrel/Nimbrel.prefPane\n"
    "beside this program).\n";

} // namespace

int main(int argc, char** argv)
{
    // Answered before any window system is touched, so they work without a display.
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (std::strcmp(argv[i], "--version") == 0) {
            std::printf("nimbrel-preferences %s\n", NIMBREL_VERSION);
            return 0;
        }
        if (argv[i][0] == '-' && std::strncmp(argv[i], "-platform", 9) != 0 &&
            std::strncmp(argv[i], "-style", 6) != 0) {
            std::fprintf(stderr, "nimbrel-preferences: unknown option %s\n\n%s", argv[i], kUsage);
            return 2;
        }
    }

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("nimbrel-preferences"));
    QApplication::setApplicationVersion(QStringLiteral(NIMBREL_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("nimbrel-preferences"));
    QApplication::setWindowIcon(paneIcon());
    installGuiPlatformHooks(); // the start-up guard's message box, the Option key of the calendar rows

    PreferencesHost* host = nullptr;
    PreferencesService service(QDBusConnection::sessionBus(), [&host] {
        if (host)
            host->activate();
    });
    QString busError;
    const std::optional<PreferencesService::Claim> claim = service.claim(&busError);
    if (claim == PreferencesService::Claim::OtherActivated)
        return 0;
    if (!claim)
        std::fprintf(stderr, "nimbrel-preferences: %s\n", qPrintable(busError));

    const Bundle bundle(Bundle::defaultPaneBundlePath());
    if (!bundle.isValid()) {
        std::fprintf(stderr, "nimbrel-preferences: cannot open the pane bundle: %s\n",
                     qPrintable(bundle.error()));
        return 2;
    }
    if (!bundle.loadStringTable(kStringTable))
        std::fprintf(stderr, "nimbrel-preferences: no string table in %s; showing the built-in texts\n",
                     qPrintable(bundle.resourcePath()));

    PreferencesHost preferences(bundle);
    host = &preferences;
    // For the start-up benchmark: say when the window first painted and when the pane was selected
    // (its status known), then leave.
    if (qEnvironmentVariableIsSet("NIMBREL_REPORT_STARTUP")) {
        const auto report = [](const char* line) {
            std::fputs(line, stdout);
            std::fflush(stdout);
        };
        QObject::connect(&preferences, &PreferencesHost::firstPaint, &preferences,
                         [report] { report("first paint\n"); });
        QObject::connect(&preferences, &PreferencesHost::selected, &preferences, [report, &preferences] {
            report("selected\n");
            preferences.terminate();
        });
    }
    preferences.start();
    return app.exec();
}
