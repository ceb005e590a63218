// Lines, the filtered log and LogFlush. Paths, pruning and rotation of files are in LogFiles.cpp.
#include "logging/Log.h"

#include "logging/LogClock.h"
#include "logging/LogInternal.h"

#include <QFile>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

namespace nimbrel {

long gLogLevel = 2;
long gLogKeepCount = 0;
long gLogBytesWritten = 0;
bool gLogDirty = false;
long gFilteredLogBytes = 0;
bool gFilteredLogUpdateMode = false;

namespace {

FILE* gFilteredLogFile = nullptr;

// Never destroyed, so that a line logged while the program ends still works.
logdetail::LogClock& clockOverride()
{
    static auto* clock = new logdetail::LogClock;
    return *clock;
}

std::string& loggerOverride()
{
    static auto* path = new std::string;
    return *path;
}

std::string& lineBuffer()
{
    static auto* line = new std::string;
    return *line;
}

std::string& messageBuffer()
{
    static auto* message = new std::string;
    return *message;
}

// Runs the logger with `message` as its only argument, without a shell, and waits for it.
void runLogger(std::string message)
{
    std::string program = logdetail::loggerPath();
    char* argv[] = {program.data(), message.data(), nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv, environ) != 0)
        return;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
}

} // namespace

namespace logdetail {

void setLogClock(LogClock clock)
{
    clockOverride() = std::move(clock);
}

double logNow()
{
    if (const LogClock& clock = clockOverride())
        return clock();
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void setLoggerPath(const std::string& path)
{
    loggerOverride() = path;
}

std::string loggerPath()
{
    const std::string& path = loggerOverride();
    return path.empty() ? std::string("/usr/bin/logger") : path;
}

} // namespace logdetail

void SetLogLevel(long level)
{
    gLogLevel = level;
}

void LogV(long level, std::string_view format, const std::vector<LogArgument>& arguments)
{
    if (level < gLogLevel)
        return;
    std::string& line = lineBuffer();
    line.clear();
    logdetail::appendLogDate(line, logdetail::logNow());
    line.append(" - ");
    const size_t messageStart = line.size();
    logdetail::appendFormatted(line, format, arguments);
    if (logdetail::needsEscaping(std::string_view(line).substr(messageStart))) {
        std::string& message = messageBuffer();
        message.assign(line, messageStart);
        line.resize(messageStart);
        logdetail::appendEscapedMessage(line, message);
    }
    line.push_back('\n');

    gLogBytesWritten += static_cast<long>(std::fwrite(line.data(), 1, line.size(), stderr));
    gLogDirty = true;
    if (level > 11 || gLogLevel <= 1)
        std::fflush(stderr);

    if (level > 9 && gFilteredLogFile) {
        size_t written = 0;
        if (level > 11) {
            written += std::fwrite(line.data(), 1, messageStart, gFilteredLogFile);
            written += std::fwrite("*** ", 1, 4, gFilteredLogFile);
            written +=
                std::fwrite(line.data() + messageStart, 1, line.size() - messageStart, gFilteredLogFile);
        } else {
            written = std::fwrite(line.data(), 1, line.size(), gFilteredLogFile);
        }
        gFilteredLogBytes += static_cast<long>(written);
        if (level > 11 || !gFilteredLogUpdateMode)
            std::fflush(gFilteredLogFile);
    }
}

void OpenFilteredLogFile(const QString& name, bool updateMode, bool truncate)
{
    CloseFilteredLogFile();
    // "e": the programs we start (logger, zip) do not inherit the stream.
    const char* mode = truncate ? (updateMode ? "w+e" : "we") : (updateMode ? "a+e" : "ae");
    FILE* file = logdetail::isUsableLogName(name)
                     ? std::fopen(QFile::encodeName(filteredLogFilePath(name)).constData(), mode)
                     : nullptr;
    if (!file)
        return;
    // As large a buffer as standard error's: in update mode lines wait for LogFlush, not for 4 KiB.
    static char buffer[65536];
    std::setvbuf(file, buffer, _IOFBF, sizeof buffer);
    // An append stream may report 0 until it is positioned: the size is where writing starts.
    if (!truncate)
        std::fseek(file, 0, SEEK_END);
    const long position = std::ftell(file);
    gFilteredLogFile = file;
    gFilteredLogBytes = position < 0 ? 0 : position;
    gFilteredLogUpdateMode = updateMode;
}

void CloseFilteredLogFile()
{
    if (gFilteredLogFile)
        std::fclose(gFilteredLogFile);
    gFilteredLogFile = nullptr;
}

bool FilteredLogFileIsOpen()
{
    return gFilteredLogFile != nullptr;
}

void LogFlush()
{
    if (!gLogDirty)
        return;
    std::fflush(stderr);
    gLogDirty = false;
    if (gFilteredLogFile)
        std::fflush(gFilteredLogFile);

    // NaN (no start date) fails the age test and leaves the size test.
    const QString name = logName();
    if (logdetail::logNow() - logStartDate() > 86400.0 || gLogBytesWritten > kLogRotateBytes) {
        // Written to the old file: the stream follows it when it is renamed.
        Log(2, "Rotating %@ log file", name);
        const QString path = prepLogFilePath(name, gLogKeepCount);
        if (!path.isNull()) {
            if (const int error = ReopenStandardError(path); error != 0)
                runLogger(name.toStdString() + " could not reopen stderr (" + std::to_string(error) + ")");
            Log(2, "%@ log file rotated", name);
        }
    }

    if (gFilteredLogBytes > kLogRotateBytes) {
        Log(2, "Clearing %@.%@", name, "filteredlog");
        CloseFilteredLogFile();
        OpenFilteredLogFile(name, gFilteredLogUpdateMode, true);
        Log(11, "Log cleared");
    }
}

} // namespace nimbrel
