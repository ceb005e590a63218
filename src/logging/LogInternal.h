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

// Appends `seconds` since the epoch as local "YYYY-MM-DD HH:MM:SS.mmm".
void appendLogDate(std::string& out, double seconds);

// `seconds` as local " Mon dd, HH.MM.SS" (day padded with a blank, English month): the part a rotated
// log adds to its name.
std::string rotatedLogNameDate(long long seconds);

// Whether `name` can be a log folder's name: not empty, no '/' or NUL, not "." or "..".
bool isUsableLogName(const QString& name);

} // namespace nimbrel::logdetail
