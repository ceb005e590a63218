// The start-up guard that refuses systems older than the program supports.
#include "platform/KeyValueFile.h"
#include "platform/PrefPaneUtilities.h"
#include "platform/ProcessLaunch.h"
#include "platform/Strings.h"
#include "platform/SystemVersion.h"

#include <QCoreApplication>
#include <QFile>
#include <QThread>
#include <cstdio>
#include <cstdlib>

namespace nimbrel {

namespace {

// Without a GUI (or before installGuiPlatformHooks) the alert is said on standard error.
PrefPaneUtilities::AlertButton defaultAlert(const PrefPaneUtilities::AlertTexts& texts)
{
    std::fprintf(stderr, "%s\n%s\n", qPrintable(texts.title), qPrintable(texts.message));
    return PrefPaneUtilities::AlertButton::Default;
}

void defaultOpenUrl(const QString& url)
{
    openUrlWithDesktop(url);
}

// The application must not go on running: leave the event loop if one runs, then end the process.
void defaultTerminate()
{
    if (QCoreApplication::instance() && QThread::currentThread()->loopLevel() > 0)
        QCoreApplication::exit(0);
    std::fflush(nullptr);
    std::exit(0);
}

struct StartupGuardHooks
{
    PrefPaneUtilities::AlertFunction alert = defaultAlert;
    PrefPaneUtilities::UrlOpener openUrl = defaultOpenUrl;
    PrefPaneUtilities::Terminator terminate = defaultTerminate;
};

StartupGuardHooks& hooks()
{
    static StartupGuardHooks h;
    return h;
}

// The value of KEY=value in an os-release file, with shell quoting removed.
QString osReleaseValue(const QString& path, const QString& key)
{
    const std::optional<QList<KeyValueGroup>> groups = readKeyValueFile(path);
    if (!groups || groups->isEmpty())
        return QString();
    QString value = groups->constFirst().value(key).value_or(QString()).trimmed();
    if (value.size() >= 2 && (value.front() == u'"' || value.front() == u'\'') &&
        value.back() == value.front()) {
        const bool doubleQuoted = value.front() == u'"';
        value = value.mid(1, value.size() - 2);
        if (doubleQuoted) {
            QString unescaped;
            for (qsizetype i = 0; i < value.size(); ++i) {
                if (value.at(i) == u'\\' && i + 1 < value.size())
                    ++i;
                unescaped += value.at(i);
            }
            value = unescaped;
        }
    }
    return value.trimmed();
}

} // namespace

void PrefPaneUtilities::setStartupGuardHooks(AlertFunction alert, UrlOpener openUrl, Terminator terminate)
{
    StartupGuardHooks& h = hooks();
    h.alert = alert ? std::move(alert) : AlertFunction(defaultAlert);
    h.openUrl = openUrl ? std::move(openUrl) : UrlOpener(defaultOpenUrl);
    h.terminate = terminate ? std::move(terminate) : Terminator(defaultTerminate);
}

QString PrefPaneUtilities::vendorProductPage()
{
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        const QString url = osReleaseValue(QString::fromLatin1(path), QStringLiteral("HOME_URL"));
        if (!url.isEmpty())
            return url;
        if (QFile::exists(QString::fromLatin1(path)))
            break; // the first file that exists is the one that counts
    }
    return QStringLiteral("https://www.debian.org/");
}

void PrefPaneUtilities::tigerRequired(const Bundle& bundle, const QString& table)
{
    // The table has been loaded into the application by the bundle; only its name is needed here.
    Q_UNUSED(bundle);
    if (getSystemVersion() > kSystemVersion10_4OrLater)
        return;

    const AlertTexts texts{localizedString(QStringLiteral("Mac OS X 10.4 Required"), table),
                           localizedString(QStringLiteral("Mac OS X 10.4 or greater is required."), table),
                           localizedString(QStringLiteral("Quit"), table),
                           localizedString(QStringLiteral("More Info..."), table)};
    // Copies: a hook may replace the hooks while it runs.
    const StartupGuardHooks h = hooks();
    if (h.alert(texts) == AlertButton::Alternate)
        h.openUrl(vendorProductPage());
    h.terminate();
}

} // namespace nimbrel
