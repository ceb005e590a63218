#include "platform/ProcessLaunch.h"

#include "platform/Bundle.h"

#include <QFileInfo>
#include <QProcess>
#include <QUrl>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace nimbrel {

bool launchApplication(const QString& bundlePath, const QStringList& arguments, qint64* outPid,
                       QString* error)
{
    const auto fail = [error](const QString& reason) {
        if (error)
            *error = reason;
        return false;
    };
    const Bundle bundle(bundlePath);
    if (!bundle.isValid())
        return fail(bundle.error());
    const QString executable = bundle.executablePath();
    if (executable.isEmpty() || !QFileInfo(executable).isExecutable())
        return fail(QStringLiteral("%1 has no executable").arg(bundlePath));

    // QProcess::startDetached double-forks and calls setsid(); the streams are pointed at /dev/null so
    // the companion never writes into our terminal or holds our pipes open.
    QProcess process;
    process.setProgram(executable);
    process.setArguments(arguments);
    process.setWorkingDirectory(bundlePath);
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    if (!process.startDetached(outPid))
        return fail(QStringLiteral("cannot start %1: %2").arg(executable, process.errorString()));
    return true;
}

bool openUrlWithDesktop(const QString& url, QString* error)
{
    // A scheme first means the argument can never be taken for an option of xdg-open.
    if (QUrl(url).scheme().isEmpty()) {
        if (error)
            *error = QStringLiteral("not a URL: %1").arg(url);
        return false;
    }
    QProcess process;
    process.setProgram(QStringLiteral("/usr/bin/xdg-open"));
    process.setArguments({url});
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    if (process.startDetached())
        return true;
    if (error)
        *error = QStringLiteral("cannot start xdg-open: %1").arg(process.errorString());
    return false;
}

bool requestQuit(qint64 pid)
{
    if (pid <= 0)
        return false;
    return ::kill(static_cast<pid_t>(pid), SIGTERM) == 0;
}

} // namespace nimbrel
