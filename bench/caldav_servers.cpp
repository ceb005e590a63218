#include "caldav_servers.h"

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <netinet/in.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace caldavbench {

namespace {

void run(const std::string& command)
{
    if (std::system(command.c_str()) != 0)
        throw std::runtime_error("failed: " + command);
}

// Arguments travel as single-quoted words; the paths here are our own temporary folders.
std::string quote(const std::string& s)
{
    std::string out = "'";
    for (char c : s)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

pid_t spawn(const std::vector<std::string>& args, const std::string& output)
{
    std::vector<char*> argv;
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0)
        throw std::runtime_error("cannot start " + args[0]);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

int freePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

void waitForPort(int port, pid_t pid, int seconds = 60)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(uint16_t(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const bool up = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        close(fd);
        if (up)
            return;
        if (waitpid(pid, nullptr, WNOHANG) == pid)
            throw std::runtime_error("a server ended at start");
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    throw std::runtime_error("a server did not start");
}

void copyEvents(const std::vector<std::string>& files, const std::string& to)
{
    run("mkdir -p " + quote(to));
    const std::string from = files.front().substr(0, files.front().rfind('/'));
    run("cp " + quote(from) + "/*.ics " + quote(to) + "/");
}

} // namespace

std::vector<std::string> writeEvents(const std::string& folder, int count)
{
    run("mkdir -p " + quote(folder));
    std::vector<std::string> files;
    for (int i = 0; i < count; ++i) {
        const std::string name = folder + "/ev-" + std::to_string(i) + ".ics";
        char when[32];
        std::snprintf(when, sizeof when, "2025%02d%02dT%02d0000Z", 1 + i % 12, 1 + i % 28, 8 + i % 10);
        std::ofstream f(name, std::ios::binary);
        f << "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//bench//EN\r\nBEGIN:VEVENT\r\nUID:ev-" << i
          << "\r\nDTSTAMP:20250101T000000Z\r\nDTSTART:" << when << "\r\nDURATION:PT1H\r\nSUMMARY:Event number " << i
          << "\r\nDESCRIPTION:A benchmark event with a few words of description.\r\nLOCATION:Room " << i % 50
          << "\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";
        files.push_back(name);
    }
    return files;
}

Server startNimbrel(const std::string& work, const std::string& testHost, const std::vector<std::string>& files)
{
    copyEvents(files, work + "/nimbrel/root/bench");
    std::ofstream(work + "/nimbrel/root/bench/displayname") << "Bench";
    const int port = freePort();
    Server s{"nimbrel", "https://127.0.0.1:" + std::to_string(port), "/bench/", -1};
    s.pid = spawn({testHost, "--root", work + "/nimbrel/root", "--data", work + "/nimbrel", "--port",
                   std::to_string(port), "--per-address", "64"},
                  work + "/nimbrel.log");
    waitForPort(port, s.pid);
    return s;
}

Server startRadicale(const std::string& work, const std::vector<std::string>& files)
{
    const std::string dir = work + "/radicale";
    copyEvents(files, dir + "/collections/collection-root/bench");
    std::ofstream(dir + "/collections/collection-root/bench/.Radicale.props") << R"({"tag": "VCALENDAR"})";
    std::ofstream(dir + "/rights") << "[all]\nuser: .*\ncollection: .*\npermissions: RrWw\n";
    const int port = freePort();
    std::ofstream(dir + "/config") << "[server]\nhosts = 127.0.0.1:" << port
                                   << "\n[auth]\ntype = none\n[rights]\ntype = from_file\nfile = " << dir
                                   << "/rights\n[storage]\nfilesystem_folder = " << dir
                                   << "/collections\n[web]\ntype = none\n[logging]\nlevel = warning\n";
    Server s{"radicale", "http://127.0.0.1:" + std::to_string(port), "/bench/", -1};
    s.pid = spawn({"radicale", "--config", dir + "/config"}, work + "/radicale.log");
    waitForPort(port, s.pid);
    return s;
}

Server startXandikos(const std::string& work, const std::vector<std::string>& files)
{
    const std::string dir = work + "/xandikos";
    const int port = freePort();
    const std::vector<std::string> args = {"xandikos", "-d", dir, "-l", "127.0.0.1", "-p", std::to_string(port),
                                           "--defaults"};
    // The first start makes the principal and an empty calendar; the events are then committed with git,
    // which is how xandikos stores them.
    pid_t first = spawn(args, work + "/xandikos-first.log");
    waitForPort(port, first);
    kill(first, SIGTERM);
    waitpid(first, nullptr, 0);
    // The calendar is a git repository with a working tree: the events are committed into it.
    const std::string repo = dir + "/user/calendars/calendar";
    copyEvents(files, repo);
    run("cd " + quote(repo) + " && git add -A && git -c user.name=bench -c user.email=bench@localhost commit -qm "
        "events");
    Server s{"xandikos", "http://127.0.0.1:" + std::to_string(port), "/user/calendars/calendar/", -1};
    s.pid = spawn(args, work + "/xandikos.log");
    waitForPort(port, s.pid);
    return s;
}

void stop(Server& server)
{
    if (server.pid > 0) {
        kill(server.pid, SIGTERM);
        waitpid(server.pid, nullptr, 0);
        server.pid = -1;
    }
}

long residentKiB(pid_t pid)
{
    std::ifstream f("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(f, line)) {
        if (line.rfind("VmRSS:", 0) == 0)
            return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return -1;
}

} // namespace caldavbench
