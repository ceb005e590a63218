#pragma once

// Shared by the logging sources: message and date text (LogFormat.cpp), log names (LogFiles.cpp).

#include "logging/Log.h"

#include <QString>
#include <string>
#include <string_view>
#include <vector>

namespace nimbrel::logdetail {

// Appends `format` with `arguments` substituted (printf-like, "%@" for any string, see Log.h).
// Never fails: an unknown or incomplete directive, or one with no argument left, is copied as it
// stands; "%n" is not a directive.
void appendFormatted(std::string& out, std::string_view format, const std::vector<LogArgument>& arguments);

// Longest message a line carries, escapes included; a longer one is cut and marked.
inline constexpr size_t kMaxMessageBytes = 8192;

// Appends `message` so that it can only ever be one line of the log, whatever text from outside it
// holds: a newline becomes "\n", every other control character (C0, DEL, and the C1 controls a
// terminal may obey) "\xNN" per byte; a message longer than kMaxMessageBytes is cut at a character
// boundary and ends with " [… N more bytes]".
void appendEscapedMessage(std::string& out, std::string_view message);
// Whether appendEscapedMessage would write anything but `message` itself.
bool needsEscaping(std::string_view message);

// Appends `seconds` since the epoch as local "YYYY-MM-DD HH:MM:SS.mmm".
void appendLogDate(std::string& out, double seconds);

// `seconds` as local " Mon dd, HH.MM.SS" (day padded with a blank, English month): the part a rotated
// log adds to its name.
std::string rotatedLogNameDate(long long seconds);

// Whether `name` can be a log folder's name: not empty, no '/' or NUL, not "." or "..".
bool isUsableLogName(const QString& name);

} // namespace nimbrel::logdetail
