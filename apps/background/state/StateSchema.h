#pragma once

// The schema of Nimbrel.nsql (PRAGMA user_version = kSchemaVersion):
//   calendars(uid PK, sort_order, published_bonjour, published_google, read_password, write_password,
//             read_only, vanished_at)         one row per local calendar folder; kept a while after the
//                                             folder vanished (vanished_at, ms since the epoch)
//   sources(uid PK, kind 'server'|'google', settings BLOB)
//                                             remote servers and the Google account; settings is the
//                                             source's own dictionary as an XML property list
//   subscriptions(uid PK, source_uid -> sources ON DELETE CASCADE, subscribed, record BLOB)
//   settings(key PK, value)                   "bonjourName", "portNumber"
//   sync_history(id PK, calendar_uid, time (ms since the epoch, UTC), kind, detail)
//   local_calendars, local_items, change_log, change_counter
//                                             the calendar store's index (calendars/CalendarIndex.h)
// Version 1 had no sync_history.detail and no index on sync_history; version 2 had neither
// calendars.vanished_at nor the calendar store's tables.

#include <QList>
#include <QString>
#include <QStringList>

namespace nimbrel::background {

inline constexpr int kSchemaVersion = 3;

// The tables a file of the given version has (one lacking any of them is damaged).
QStringList schemaTables(int version);
// The current schema, made in one go for a new file.
const QStringList& schemaCreateStatements();
// Steps from version N to N+1, index 0 being 1 -> 2.
const QList<QStringList>& schemaMigrationSteps();

} // namespace nimbrel::background
