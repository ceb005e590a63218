#include "SyncHistory.h"

#include "StateDatabase.h"

#include <QFileInfo>
#include <QSqlError>
#include <QSqlQuery>

namespace nimbrel::background {

bool recordHistory(StateDatabase& db, const QList<HistoryEntry>& entries, qint64 timeMs)
{
    if (entries.isEmpty())
        return true;
    QSqlQuery q(db.handle());
    if (!q.prepare(QStringLiteral(
            "INSERT INTO sync_history (calendar_uid, time, kind, detail) VALUES (?, ?, ?, ?)")))
        return false;
    for (const HistoryEntry& entry : entries) {
        q.addBindValue(entry.calendarUid);
        q.addBindValue(timeMs);
        q.addBindValue(entry.kind);
        q.addBindValue(entry.detail.isNull() ? QString::fromLatin1("") : entry.detail);
        if (!q.exec())
            return false;
    }
    return true;
}

bool clearSyncHistory(const QString& path, QString* error)
{
    if (!QFileInfo::exists(path))
        return true;
    QString problem;
    const QString name = uniqueConnectionName(QStringLiteral("nimbrel-resetsync"));
    {
        QSqlDatabase db = openConnection(name, path, &problem);
        if (db.isOpen()) {
            QSqlQuery q(db);
            if (!db.transaction() || !q.exec(QStringLiteral("DELETE FROM sync_history")) || !db.commit()) {
                problem = q.lastError().isValid() ? q.lastError().text() : db.lastError().text();
                db.rollback();
            }
            q.finish();
            db.close();
        }
    }
    QSqlDatabase::removeDatabase(name);
    if (!problem.isEmpty() && error)
        *error = QStringLiteral("cannot clear the sync history of %1: %2").arg(path, problem);
    return problem.isEmpty();
}

} // namespace nimbrel::background
