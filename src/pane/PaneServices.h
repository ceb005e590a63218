#pragma once

// What the pane asks of the world outside the program: external tools, the system log, the desktop
// and the host. Each is a plain function so tests replace them and never reboot, mail or launch
// anything real.

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <functional>

namespace nimbrel {

struct PaneServices
{
    // Runs a tool and waits for it.
    struct ToolResult
    {
        bool started = false;
        int exitStatus = -1;
        QByteArray output;
    };
    std::function<ToolResult(const QString& program, const QStringList& arguments)> runTool;
    // A line for the system log (syslog), never formatted.
    std::function<void(const QString& text)> systemLog;
    // Opens a URL with the desktop (web page, user guide, a backup file with its calendar application).
    std::function<bool(const QString& url)> openUrl;
    // A GET whose answer nobody reads (the welcome sheet's sign-up).
    std::function<void(const QString& url)> fetchUrl;
    // Asks the process of a bundle identifier to quit and waits up to 5 s for it to end.
    std::function<void(const QString& bundleIdentifier)> quitApplication;
    // Starts the job that waits for this process to end and then starts `program` with
    // NIMBREL_PANE_BUNDLE=launchPath. False when it could not be started.
    std::function<bool(const QString& launchPath, const QString& program)> startRelaunchJob;
    // Restarts the computer; an empty string on success, else the error.
    std::function<QString()> restartComputer;
    // Zips the logs and hands them to the mail program (the support bundle's emailLogFiles).
    std::function<bool(const QString& logFolder, const QString& scriptPath, const QString& subject,
                       const QString& filteredLogPath, bool includeSystemLog, const QString& mailto)>
        emailLogFiles;
    // Asks the host to end: unselect, destroy the pane, leave the event loop. Never synchronous.
    std::function<void()> terminateHost;
    // The host program, started again by the relaunch job.
    QString hostProgram;
    // Native file dialogs where the desktop has them; tests use Qt's own, which never blocks.
    bool nativeDialogs = true;

    // The real services.
    static PaneServices system();
};

// The relaunch job: bash waiting (every 0.2 s, at most 10 minutes) for its parent to end, then starting
// the host again. Exposed for the test that runs it under a throwaway parent.
QString relaunchJobScript();
// Starts the job as a direct child of this process (so that $PPID in the job is this process),
// with LAUNCH_PATH and NIMBREL_HOST in its environment only. False when bash could not be started.
bool startRelaunchJob(const QString& launchPath, const QString& program);

} // namespace nimbrel
