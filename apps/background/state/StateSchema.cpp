#include "StateSchema.h"

namespace nimbrel::background {

namespace {

// The calendar store's tables (version 3).
QStringList calendarIndexStatements()
{
    return {
        QStringLiteral("CREATE TABLE local_calendars ("
                       " uid TEXT PRIMARY KEY NOT NULL,"
                       " title TEXT NOT NULL DEFAULT '',"
                       " color TEXT NOT NULL DEFAULT '',"
                       " token INTEGER NOT NULL,"
                       " first_token INTEGER NOT NULL) WITHOUT ROWID"),
        QStringLiteral("CREATE TABLE local_items ("
                       " calendar_uid TEXT NOT NULL,"
                       " href TEXT NOT NULL,"
                       " etag TEXT NOT NULL,"
                       " size INTEGER NOT NULL,"
                       " mtime_ns INTEGER NOT NULL,"
                       " ctime_ns INTEGER NOT NULL,"
                       " inode INTEGER NOT NULL,"
                       " PRIMARY KEY (calendar_uid, href)) WITHOUT ROWID"),
        QStringLiteral("CREATE TABLE change_log ("
                       " calendar_uid TEXT NOT NULL,"
                       " href TEXT NOT NULL,"
                       " token INTEGER NOT NULL,"
                       " deleted INTEGER NOT NULL,"
                       " PRIMARY KEY (calendar_uid, href)) WITHOUT ROWID"),
        QStringLiteral("CREATE INDEX change_log_token ON change_log (calendar_uid, token)"),
        QStringLiteral("CREATE TABLE change_counter (epoch TEXT NOT NULL, counter INTEGER NOT NULL)"),
    };
}

} // namespace

QStringList schemaTables(int version)
{
    QStringList tables{QStringLiteral("calendars"), QStringLiteral("sources"),
                       QStringLiteral("subscriptions"), QStringLiteral("settings"),
                       QStringLiteral("sync_history")};
    if (version >= 3)
        tables << QStringLiteral("local_calendars") << QStringLiteral("local_items")
               << QStringLiteral("change_log") << QStringLiteral("change_counter");
    return tables;
}

const QStringList& schemaCreateStatements()
{
    static const QStringList statements =
        QStringList{
            QStringLiteral("CREATE TABLE calendars ("
                           " uid TEXT PRIMARY KEY NOT NULL,"
                           " sort_order INTEGER NOT NULL DEFAULT 0,"
                           " published_bonjour INTEGER NOT NULL DEFAULT 0,"
                           " published_google INTEGER NOT NULL DEFAULT 0,"
                           " read_password TEXT NOT NULL DEFAULT '',"
                           " write_password TEXT NOT NULL DEFAULT '',"
                           " read_only INTEGER NOT NULL DEFAULT 0,"
                           " vanished_at INTEGER)"),
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
        } +
        calendarIndexStatements();
    return statements;
}

const QList<QStringList>& schemaMigrationSteps()
{
    static const QList<QStringList> steps{
        {QStringLiteral("ALTER TABLE sync_history ADD COLUMN detail TEXT NOT NULL DEFAULT ''"),
         QStringLiteral("CREATE INDEX sync_history_calendar ON sync_history (calendar_uid, time)")},
        QStringList{QStringLiteral("ALTER TABLE calendars ADD COLUMN vanished_at INTEGER")} +
            calendarIndexStatements(),
    };
    return steps;
}

} // namespace nimbrel::background
