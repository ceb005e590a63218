#include "DataFolder.h"

#include <QDir>

namespace nimbrel::background {

namespace {

QString dataHome()
{
    const QString configured = qEnvironmentVariable("XDG_DATA_HOME");
    if (!configured.isEmpty() && QDir::isAbsolutePath(configured))
        return configured;
    return QDir::homePath() + QStringLiteral("/.local/share");
}

} // namespace

QString supportFolder()
{
    return dataHome() + QStringLiteral("/Nimbrel");
}

QString databasePath()
{
    return supportFolder() + QStringLiteral("/Nimbrel.nsql");
}

QString backupFolder()
{
    return supportFolder() + QStringLiteral("/Backup");
}

QString calendarsFolder()
{
    return supportFolder() + QStringLiteral("/Calendars");
}

} // namespace nimbrel::background
