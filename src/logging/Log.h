#pragma once

// The process-wide logging module: free functions over module state, no locks (log from one thread).
// A host that keeps a log makes standard error its main log file (<name>.log) and writes every line
// through Log(); lines of level 10 and above are also copied to a shorter filtered log
// (<name>.filteredlog) that the panel shows. LogFlush() flushes both, rotates the main log by age or
// size and empties the filtered log when it grows too large.
//
// Formats are printf-like. "%@" takes a string argument (QString, std::string or const char*); the
// usual integer, floating-point, character and string directives work as in printf; "%%" is a "%".
// A directive with no argument left is written as it stands. Usable from plain C++: no Qt type is
// needed to call any function here.

#include <QString>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

namespace nimbrel {

// ---- Module state (the names every host and test see) ----------------------------------------------
extern long gLogLevel;         // minimum level Log() writes; 2 at start
extern long gLogKeepCount;     // keep count of the last successful prepLogFilePath
extern long gLogBytesWritten;  // bytes Log() wrote to standard error since then
extern bool gLogDirty;         // set by every written line, cleared by LogFlush
extern long gFilteredLogBytes; // size of the filtered log: position at open plus bytes written since
extern bool gFilteredLogUpdateMode;
// gLogName, gLogStartDate and the filtered log stream live in the .cpp files; see logName()/logStartDate().

inline constexpr long kLogRotateBytes = 8388608; // rotate / clear when strictly greater than this

// ---- Paths ---------------------------------------------------------------------------------------
// $XDG_STATE_HOME (default ~/.local/state): where every name has its log folder.
QString userLibraryLogFolder();
// <log folder>/<name>/<name>.log and <name>.filteredlog
QString logFilePath(const QString& name);
QString filteredLogFilePath(const QString& name);

// ---- Levels and lines ----------------------------------------------------------------------------
void SetLogLevel(long level);

// One argument of a format, converted at the call site.
using LogArgument = std::variant<long long, unsigned long long, double, std::string, const void*>;
void LogV(long level, std::string_view format, const std::vector<LogArgument>& arguments);

namespace logdetail {
inline LogArgument toArgument(const QString& s)
{
    return s.toStdString();
}
inline LogArgument toArgument(const std::string& s)
{
    return s;
}
inline LogArgument toArgument(std::string_view s)
{
    return std::string(s);
}
inline LogArgument toArgument(const char* s)
{
    return std::string(s ? s : "(null)");
}
inline LogArgument toArgument(char c)
{
    return static_cast<long long>(c);
}
inline LogArgument toArgument(bool b)
{
    return static_cast<long long>(b);
}
inline LogArgument toArgument(double d)
{
    return d;
}
inline LogArgument toArgument(float f)
{
    return static_cast<double>(f);
}
inline LogArgument toArgument(const void* p)
{
    return p;
}
template <class T>
requires std::is_integral_v<T> LogArgument toArgument(T v)
{
    if constexpr (std::is_signed_v<T>)
        return static_cast<long long>(v);
    else
        return static_cast<unsigned long long>(v);
}
} // namespace logdetail

// Log(level, format, args...): writes "<date> - <message>\n" to standard error when level >= gLogLevel.
template <class... Args> void Log(long level, std::string_view format, const Args&... args)
{
    if (level < gLogLevel)
        return;
    LogV(level, format, {logdetail::toArgument(args)...});
}
template <class... Args> void Log(long level, const QString& format, const Args&... args)
{
    if (level < gLogLevel)
        return;
    LogV(level, format.toStdString(), {logdetail::toArgument(args)...});
}
template <class... Args> void Log(long level, const char* format, const Args&... args)
{
    Log(level, std::string_view(format ? format : ""), args...);
}

// ---- Files ---------------------------------------------------------------------------------------
// Opens the filtered log of `name`: "w+" (truncate, update mode), "w", "a+" or "a".
void OpenFilteredLogFile(const QString& name, bool updateMode, bool truncate);
void CloseFilteredLogFile();
bool FilteredLogFileIsOpen();

// Prepares <log folder>/<name>, prunes old logs beyond `keepCount` and moves the current main log to
// its dated name. Returns the main log's path, or a null string on failure. Opens nothing.
QString prepLogFilePath(const QString& name, long keepCount);

// Reopens standard error, in append mode and fully buffered, on `path` (what a host does with the path
// prepLogFilePath returned). Returns 0 or the errno of the failure.
int ReopenStandardError(const QString& path);

// Flushes, rotates the main log when it is older than a day or larger than kLogRotateBytes, and empties
// the filtered log when it is larger than kLogRotateBytes. Does nothing when nothing was written since
// the last call.
void LogFlush();

// Comparator for names in `folder`: -1 when a is younger (later creation date, then later modification
// date), +1 when b is, 0 when neither decides. Creation is the birth time where the file system keeps
// one (statx), else the status-change time.
int youngestFirst(const QString& a, const QString& b, const QString& folder);

// The name and time of the last successful prepLogFilePath (null before any).
QString logName();
double logStartDate(); // seconds since the Unix epoch; NaN when there is none

} // namespace nimbrel
