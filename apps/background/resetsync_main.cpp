// nimbrel-resetsync: clears the sync history of the background application's database, so that the
// next sync starts from scratch. The background application closes the database while this runs.

#include "state/DataFolder.h"
#include "state/SyncHistory.h"

#include <QCoreApplication>
#include <QStringList>
#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = QCoreApplication::arguments().mid(1);
    if (arguments != QStringList{QStringLiteral("full")}) {
        std::fprintf(stderr, "usage: nimbrel-resetsync full\n"
                             "  clears the sync history of the Nimbrel database\n");
        return 2;
    }
    QString error;
    if (!nimbrel::background::clearSyncHistory(nimbrel::background::databasePath(), &error)) {
        std::fprintf(stderr, "nimbrel-resetsync: %s\n", qPrintable(error));
        return 1;
    }
    return 0;
}
