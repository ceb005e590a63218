#pragma once

// The schema of Nimbrel.nsql (PRAGMA user_version = kSchemaVersion):
//   calendars(uid PK, sort_order, published_bonjour, published_google, read_password, write_password,
//             read_only)                      one row per local calendar folder
//   sources(uid PK, kind 'server'|'google', settings BLOB)
//                                             remote servers and the Google account; settings is the
//                                             source's own dictionary as an XML property list
//   subscriptions(uid PK, source_uid -> sources ON DELETE CASCADE, subscribed, record BLOB)
//   settings(key PK, value)                   "bonjourName", "portNumber"
//   sync_history(id PK, calendar_uid, time (ms since the epoch, UTC), kind, detail)
// Version 1 had no sync_history.detail and no index on sync_history.

#include <QList>
#include <QStringList>

namespace nimbrel::background {

inline constexpr int kSchemaVersion = 2;

// The tables every version since 1 has (a file of ours lacking one is damaged).
const QStringList& schemaTables();
// The current schema, made in one go for a new file.
const QStringList& schemaCreateStatements();
// Steps from version N to N+1, index 0 being 1 -> 2.
const QList<QStringList>& schemaMigrationSteps();

} // namespace nimbrel::background
