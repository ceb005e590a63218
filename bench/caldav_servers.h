#pragma once

// The three CalDAV servers the CalDAV benchmark compares, each started on 127.0.0.1 in a temporary
// folder with the same calendar of events: Nimbrel's server (the test host over a vdir folder),
// Radicale and xandikos (Debian's).

#include <string>
#include <sys/types.h>
#include <vector>

namespace caldavbench {

struct Server
{
    std::string name;
    std::string base;       // "https://127.0.0.1:PORT" or "http://…"
    std::string collection; // path of the calendar, ending in "/"
    pid_t pid = -1;
};

// Writes `count` events as <folder>/ev-N.ics (the same bytes for every server).
std::vector<std::string> writeEvents(const std::string& folder, int count);

Server startNimbrel(const std::string& work, const std::string& testHost, const std::vector<std::string>& files);
Server startRadicale(const std::string& work, const std::vector<std::string>& files);
Server startXandikos(const std::string& work, const std::vector<std::string>& files);
void stop(Server& server);

// The resident memory of a process, in KiB.
long residentKiB(pid_t pid);

} // namespace caldavbench
