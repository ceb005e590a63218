#include "pane/PaneServices.h"

#include "logging/SupportBundle.h"
#include "platform/PrefPaneUtilities.h"
#include "platform/ProcessLaunch.h"
#include "platform/ProcessLookup.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QThread>
#include <QUrl>
#include <cerrno>
#include <csignal>
#include <spawn.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

extern char** environ;

namespace nimbrel {

namespace {

PaneServices::ToolResult runTool(const QString& program, const QStringList& arguments)
{
    PaneServices::ToolResult result;
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program, arguments, QIODevice::ReadOnly);
    if (!process.waitForStarted(-1))
        return result;
    result.started = true;
    process.waitForFinished(-1);
    result.output = process.readAllStandardOutput();
    result.exitStatus = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return result;
}

void quitApplication(const QString& identifier)
{
    const qint64 pid = findProcessByBundleIdentifier(identifier);
    if (pid <= 0 || !requestQuit(pid))
        return;
    // Wait up to 5 s for it to end (a zombie child counts as ended).
    QElapsedTimer waited;
    waited.start();
    const QString status = QStringLiteral("/proc/%1/status").arg(pid);
    while (waited.elapsed() < 5000) {
        QFile file(status);
        if (!file.open(QIODevice::ReadOnly) || file.readAll().contains("State:\tZ"))
            return;
        QThread::msleep(20);
    }
}

QString restartComputer()
{
    QDBusMessage reboot = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
        QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("Reboot"));
    reboot << true; // interactive: the desktop may ask for authorisation
    const QDBusMessage reply = QDBusConnection::systemBus().call(reboot, QDBus::Block, 30000);
    if (reply.type() == QDBusMessage::ErrorMessage)
        return reply.errorName() + QStringLiteral(": ") + reply.errorMessage();
    return QString();
}

} // namespace

QString relaunchJobScript()
{
    // $PPID is the parent of the bash that runs this, which must be the host itself.
    return QStringLiteral(
        "{ for (( i = 0; i < 3000 && $(echo $(/bin/ps -p $PPID|/usr/bin/wc -l))-1; i++ )); do\n"
        "    /bin/sleep .2;\n"
        "  done\n"
        "  if [[ $(/bin/ps -p $PPID|/usr/bin/wc -l) -ne 2 ]]; then\n"
        "    NIMBREL_PANE_BUNDLE=\"${LAUNCH_PATH}\" \"${NIMBREL_HOST}\"\n"
        "  fi\n"
        "} &>/dev/null &");
}

bool startRelaunchJob(const QString& launchPath, const QString& program)
{
    // bash is spawned directly (no shell between it and us), so its $PPID is this process. Paths travel
    // in the environment only.
    std::vector<QByteArray> environment;
    for (char** entry = environ; entry && *entry; ++entry) {
        const QByteArray line(*entry);
        if (!line.startsWith("LAUNCH_PATH=") && !line.startsWith("NIMBREL_HOST="))
            environment.push_back(line);
    }
    environment.push_back("LAUNCH_PATH=" + QFile::encodeName(launchPath));
    environment.push_back("NIMBREL_HOST=" + QFile::encodeName(program));
    std::vector<char*> envp;
    for (QByteArray& line : environment)
        envp.push_back(line.data());
    envp.push_back(nullptr);

    QByteArray script = relaunchJobScript().toUtf8();
    char bash[] = "/bin/bash";
    char dashC[] = "-c";
    char* argv[] = {bash, dashC, script.data(), nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, bash, nullptr, nullptr, argv, envp.data()) != 0)
        return false;
    // bash puts the job in the background and ends at once; reap it.
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

PaneServices PaneServices::system()
{
    PaneServices services;
    services.runTool = nimbrel::runTool;
    services.systemLog = [](const QString& text) { syslog(LOG_NOTICE, "%s", text.toUtf8().constData()); };
    services.openUrl = [](const QString& url) { return QDesktopServices::openUrl(QUrl(url)); };
    services.fetchUrl = [](const QString& url) { PrefPaneUtilities::getNothingFromURL(url); };
    services.quitApplication = nimbrel::quitApplication;
    services.startRelaunchJob = nimbrel::startRelaunchJob;
    services.restartComputer = nimbrel::restartComputer;
    services.emailLogFiles = nimbrel::emailLogFiles;
    services.terminateHost = [] {
        QMetaObject::invokeMethod(QCoreApplication::instance(), &QCoreApplication::quit,
                                  Qt::QueuedConnection);
    };
    services.hostProgram = QCoreApplication::applicationFilePath();
    return services;
}

} // namespace nimbrel
