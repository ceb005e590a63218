#pragma once

// Hooks of the logging module for tests: the clock every date comes from, and the program run when
// standard error cannot be reopened after a rotation.

#include <functional>
#include <string>

namespace nimbrel::logdetail {

// Seconds since the Unix epoch.
using LogClock = std::function<double()>;

// Replaces the clock; an empty function restores the real time.
void setLogClock(LogClock clock);
double logNow();

// Replaces /usr/bin/logger; an empty path restores it.
void setLoggerPath(const std::string& path);
std::string loggerPath();

} // namespace nimbrel::logdetail
