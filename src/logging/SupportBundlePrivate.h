#pragma once

// Pieces of the support bundle shared between its source files (and reachable from its tests).

#include "logging/SupportBundle.h"

#include <QString>

namespace nimbrel::supportbundle {

inline constexpr int kSystemLogLines = 10000;

// Started, ended normally, exit status 0.
bool succeeded(const ProcessResult& result);

// "exit status 3; stderr: ...; stdout: ..." (or "not started" / "crashed"), for the log.
QString describe(const ProcessResult& result);

// Opens `url` with the opener in use.
bool openUrl(const QString& url);

// Creates `path` as a new file only the user can read (never through a symbolic link, never over
// an existing file) and writes `data` to it.
bool writePrivateFile(const QString& path, const char* data, qsizetype size);

// Writes the last `count` lines of `source` (like tail -n) to `destination` as a private file.
bool keepLastLines(const QString& source, const QString& destination, qsizetype count);

// <folder>/system.log with the tail of the system journal (or of the copied syslog); the path, or a
// null string when neither source could be read.
QString writeSystemLogTail(const QString& folder);

} // namespace nimbrel::supportbundle
