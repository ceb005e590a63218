#include "CalendarSettings.h"

#include "StateDatabase.h"

#include <QSqlQuery>

namespace nimbrel::background {

QHash<QString, CalendarSettingsRow> CalendarSettings::rows() const
{
    QHash<QString, CalendarSettingsRow> rows;
    QSqlQuery q(m_db.handle());
    q.setForwardOnly(true);
    if (!q.exec(QStringLiteral("SELECT uid, sort_order, published_bonjour, published_google, read_password, "
                               "write_password, read_only FROM calendars WHERE vanished_at IS NULL")))
        return rows;
    while (q.next()) {
        rows.insert(q.value(0).toString(),
                    {q.value(1).toLongLong(), q.value(2).toBool(), q.value(3).toBool(), q.value(4).toString(),
                     q.value(5).toString(), q.value(6).toBool()});
    }
    return rows;
}

std::optional<CalendarSettingsRow> CalendarSettings::row(const QString& uid) const
{
    QSqlQuery q(m_db.handle());
    q.prepare(QStringLiteral(
        "SELECT sort_order, published_bonjour, published_google, read_password, write_password, "
        "read_only FROM calendars WHERE uid = ? AND vanished_at IS NULL"));
    q.addBindValue(uid);
    if (!q.exec() || !q.next())
        return std::nullopt;
    return CalendarSettingsRow{q.value(0).toLongLong(), q.value(1).toBool(),   q.value(2).toBool(),
                               q.value(3).toString(),   q.value(4).toString(), q.value(5).toBool()};
}

bool CalendarSettings::contains(const QString& uid) const
{
    return m_db.scalar(QStringLiteral("SELECT 1 FROM calendars WHERE uid = ? AND vanished_at IS NULL"), {uid})
        .isValid();
}

bool CalendarSettings::add(const QStringList& uids)
{
    if (uids.isEmpty())
        return true;
    qint64 order =
        m_db.scalar(QStringLiteral("SELECT COALESCE(MAX(sort_order), 0) FROM calendars")).toLongLong();
    QSqlQuery q(m_db.handle());
    if (!q.prepare(QStringLiteral("INSERT INTO calendars (uid, sort_order) VALUES (?, ?) "
                                  "ON CONFLICT (uid) DO UPDATE SET vanished_at = NULL")))
        return false;
    for (const QString& uid : uids) {
        q.addBindValue(uid);
        q.addBindValue(++order);
        if (!q.exec())
            return false;
    }
    return true;
}

bool CalendarSettings::markVanished(const QStringList& uids, qint64 nowMs)
{
    QSqlQuery q(m_db.handle());
    if (!q.prepare(
            QStringLiteral("UPDATE calendars SET vanished_at = ? WHERE uid = ? AND vanished_at IS NULL")))
        return false;
    for (const QString& uid : uids) {
        q.addBindValue(nowMs);
        q.addBindValue(uid);
        if (!q.exec())
            return false;
    }
    return true;
}

bool CalendarSettings::purgeVanished(qint64 nowMs)
{
    return m_db.exec(QStringLiteral("DELETE FROM calendars WHERE vanished_at < ?"),
                     {nowMs - kVanishedKeepMs});
}

bool CalendarSettings::setPublishedToBonjour(const QString& uid, bool published)
{
    return m_db.exec(QStringLiteral("UPDATE calendars SET published_bonjour = ? WHERE uid = ?"),
                     {published, uid});
}

bool CalendarSettings::setPublishedToGoogle(const QString& uid, bool published)
{
    return m_db.exec(QStringLiteral("UPDATE calendars SET published_google = ? WHERE uid = ?"),
                     {published, uid});
}

bool CalendarSettings::setPublishOptions(const QString& uid, const QString& readPassword,
                                         const QString& writePassword, bool readOnly)
{
    return m_db.exec(
        QStringLiteral("UPDATE calendars SET read_password = ?, write_password = ?, read_only = ? "
                       "WHERE uid = ?"),
        {readPassword, writePassword, readOnly, uid});
}

bool CalendarSettings::unpublishAllFromGoogle()
{
    return m_db.exec(QStringLiteral("UPDATE calendars SET published_google = 0"));
}

bool CalendarSettings::anyPublishedToGoogle() const
{
    return m_db
        .scalar(QStringLiteral(
            "SELECT 1 FROM calendars WHERE published_google != 0 AND vanished_at IS NULL LIMIT 1"))
        .isValid();
}

} // namespace nimbrel::background
