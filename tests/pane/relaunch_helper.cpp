// A throw-away host for the relaunch job test: starts the job, says so, and ends when its standard
// input closes.
#include "pane/PaneServices.h"

#include <QString>
#include <cstdio>

int main(int argc, char** argv)
{
    if (argc != 3)
        return 2;
    if (!nimbrel::startRelaunchJob(QString::fromLocal8Bit(argv[1]), QString::fromLocal8Bit(argv[2])))
        return 1;
    std::puts("job started");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
}
