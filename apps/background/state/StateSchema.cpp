#include "StateSchema.h"

namespace nimbrel::background {

const QStringList& schemaTables()
{
    static const QStringList tables{QStringLiteral("calendars"), QStringLiteral("sources"),
                                    QStringLiteral("subscriptions"), QStringLiteral("settings"),
                                    QStringLiteral("sync_history")};
    return tables;
}

// The current schema, made in one go for a new file.
const QStringList& schemaCreateStatements()
{
    static const QStringList statements{
        QStringLiteral("CREATE TABLE calendars ("
                       " uid TEXT PRIMARY KEY NOT NULL,"
                       " sort_order INTEGER NOT NULL DEFAULT 0,"
                       " published_bonjour INTEGER NOT NULL DEFAULT 0,"
                       " published_google INTEGER NOT NULL DEFAULT 0,"
                       " read_password TEXT NOT NULL DEFAULT '',"
                       " write_password TEXT NOT NULL DEFAULT '',"
                       " read_only INTEGER NOT NULL DEFAULT 0)"),
        QStringLiteral("CREATE TABLE sources ("
                       " uid TEXT PRIMARY KEY NOT NULL,"
                       " kind TEXT NOT NULL CHECK (kind IN ('server', 'google')),"
                       " settings BLOB NOT NULL)"),
        QStringLiteral("CREATE TABLE subscriptions ("
                       " uid TEXT PRIMARY KEY NOT NULL,"
                       " source_uid TEXT NOT NULL REFERENCES sources(uid) ON DELETE CASCADE,"
                       " subscribed INTEGER NOT NULL DEFAULT 0,"
                       " record BLOB NOT NULL)"),
        QStringLiteral("CREATE TABLE settings (key TEXT PRIMARY KEY NOT NULL, value)"),
        QStringLiteral("CREATE TABLE sync_history ("
                       " id INTEGER PRIMARY KEY AUTOINCREMENT,"
                       " calendar_uid TEXT NOT NULL DEFAULT '',"
                       " time INTEGER NOT NULL,"
                       " kind TEXT NOT NULL,"
                       " detail TEXT NOT NULL DEFAULT '')"),
        QStringLiteral("CREATE INDEX sync_history_calendar ON sync_history (calendar_uid, time)"),
    };
    return statements;
}

// Steps from version N to N+1, index 0 being 1 -> 2.
const QList<QStringList>& schemaMigrationSteps()
{
    static const QList<QStringList> steps{
        {QStringLiteral("ALTER TABLE sync_history ADD COLUMN detail TEXT NOT NULL DEFAULT ''"),
         QStringLiteral("CREATE INDEX sync_history_calendar ON sync_history (calendar_uid, time)")},
    };
    return steps;
}

} // namespace nimbrel::background
