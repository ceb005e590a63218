#pragma once

// The support bundle: the logs (and the tail of the system journal) zipped and handed to the user's
// mail program; the privileged copy used when a log cannot be read; and the scan of the system log
// for known calendar-sync errors. Everything runs synchronously on the calling thread. External tools
// are run by absolute path through one replaceable runner, and no path, subject or name is ever
// formatted into shell text: they travel as arguments.

#include <QDateTime>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <functional>

namespace nimbrel {

struct ProcessResult
{
    bool started = false; // false when the program could not be run at all
    bool crashed = false; // ended by a signal
    int exitStatus = -1;  // exit code when it ended normally
    QByteArray standardOutput;
    QByteArray standardError; // kept apart so that a tool's complaints never mix into its output
};

// Runs external programs; tests install a double that records the calls.
class ProcessRunner
{
public:
    virtual ~ProcessRunner() = default;
    // Runs `program` (an absolute path) with `arguments` and waits for it. `environment`, when not
    // empty, replaces the child's environment.
    virtual ProcessResult run(const QString& program, const QStringList& arguments,
                              const QProcessEnvironment& environment = QProcessEnvironment()) = 0;
};

// The runner in use (QProcess-based unless replaced); nullptr restores the default.
ProcessRunner& processRunner();
void setProcessRunner(ProcessRunner* runner);

// How URLs are opened (xdg-open by default); an empty function restores the default.
void setUrlOpener(std::function<bool(const QString& url)> opener);

// Zips `logFolder` (and, when asked, the last 10 000 lines of the system journal as system.log) into
// <folder name>.zip in a private folder of its own (under $XDG_RUNTIME_DIR where set) and hands it to
// the mail program: through `emailScriptPath` when the
// default mail program can take an attachment, else the zip is moved to the Desktop and `mailtoTemplate`
// (two %@: subject, zip file name) is opened. `filteredLogPath` is accepted and not used.
bool emailLogFiles(const QString& logFolder, const QString& emailScriptPath, const QString& subject,
                   const QString& filteredLogPath, bool includeSystemLog, const QString& mailtoTemplate);

// Copies a file; asks for administrator rights (pkexec) only when the source cannot be read otherwise,
// and gives the copy back to the user.
bool copyFileWithAuthentication(const QString& source, const QString& destination);

// Looks through the system journal for known calendar-sync error lines newer than `since` (any, when
// null); logs them at level 13 and returns true when there are any.
bool iCalErrorsInConsole(const QDateTime& since);

} // namespace nimbrel
