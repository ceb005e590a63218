#include "SourceRecords.h"

#include "StateDatabase.h"
#include "platform/PlistCodec.h"

#include <QSqlQuery>
#include <QSysInfo>
#include <algorithm>

namespace nimbrel::background {

namespace {

QByteArray encode(const QVariantMap& record, QString* error)
{
    return plist::write(record, error).value_or(QByteArray());
}

QVariantMap decode(const QByteArray& blob)
{
    return plist::read(blob).value_or(QVariant()).toMap();
}

} // namespace

bool byTitle(const QVariant& a, const QVariant& b)
{
    return a.toMap()
               .value(QStringLiteral("title"))
               .toString()
               .compare(b.toMap().value(QStringLiteral("title")).toString(), Qt::CaseInsensitive) < 0;
}

QList<SourceRecord> SourceRecords::sources(const QString& kind) const
{
    QList<SourceRecord> list;
    QSqlQuery q(m_db.handle());
    q.prepare(QStringLiteral("SELECT uid, settings FROM sources WHERE kind = ?"));
    q.addBindValue(kind);
    if (!q.exec())
        return list;
    while (q.next())
        list.append({q.value(0).toString(), decode(q.value(1).toByteArray())});
    return list;
}

std::optional<SourceRecord> SourceRecords::googleAccount() const
{
    const QList<SourceRecord> accounts = sources(kGoogleSource);
    return accounts.isEmpty() ? std::nullopt : std::optional<SourceRecord>(accounts.first());
}

QString SourceRecords::kindOf(const QString& uid) const
{
    return m_db.scalar(QStringLiteral("SELECT kind FROM sources WHERE uid = ?"), {uid}).toString();
}

std::optional<QVariantMap> SourceRecords::settingsOf(const QString& uid) const
{
    const QVariant blob = m_db.scalar(QStringLiteral("SELECT settings FROM sources WHERE uid = ?"), {uid});
    return blob.isValid() ? std::optional<QVariantMap>(decode(blob.toByteArray())) : std::nullopt;
}

QString SourceRecords::store(const QString& uid, const QString& kind, const QVariantMap& settings)
{
    QString error;
    const QByteArray blob = encode(settings, &error);
    if (blob.isEmpty())
        return QStringLiteral("the settings cannot be stored: %1").arg(error);
    if (!m_db.exec(QStringLiteral("INSERT INTO sources (uid, kind, settings) VALUES (?, ?, ?) "
                                  "ON CONFLICT (uid) DO UPDATE SET settings = excluded.settings"),
                   {uid, kind, blob}))
        return m_db.writeProblem();
    return {};
}

QString SourceRecords::remove(const QString& uid)
{
    if (!m_db.exec(QStringLiteral("DELETE FROM subscriptions WHERE source_uid = ?"), {uid}) ||
        !m_db.exec(QStringLiteral("DELETE FROM sources WHERE uid = ?"), {uid}))
        return m_db.writeProblem();
    return {};
}

QVariantList SourceRecords::subscriptionsOf(const QString& sourceUid, bool* anySubscribed) const
{
    QVariantList list;
    *anySubscribed = false;
    QSqlQuery q(m_db.handle());
    q.prepare(QStringLiteral("SELECT uid, subscribed, record FROM subscriptions WHERE source_uid = ?"));
    q.addBindValue(sourceUid);
    if (!q.exec())
        return list;
    while (q.next()) {
        QVariantMap calendar = decode(q.value(2).toByteArray());
        calendar.insert(QStringLiteral("uid"), q.value(0).toString());
        const bool subscribed = q.value(1).toBool();
        *anySubscribed = *anySubscribed || subscribed;
        calendar.insert(QStringLiteral("subscribedTo"), subscribed);
        calendar.insert(QStringLiteral("bonjour"), false);
        if (!calendar.contains(QStringLiteral("title")))
            calendar.insert(QStringLiteral("title"), q.value(0).toString());
        if (!calendar.contains(QStringLiteral("subscribable")))
            calendar.insert(QStringLiteral("subscribable"), true);
        list << calendar;
    }
    std::sort(list.begin(), list.end(), byTitle);
    return list;
}

std::optional<QVariantMap> SourceRecords::subscription(const QString& uid) const
{
    const QVariant blob =
        m_db.scalar(QStringLiteral("SELECT record FROM subscriptions WHERE uid = ?"), {uid});
    return blob.isValid() ? std::optional<QVariantMap>(decode(blob.toByteArray())) : std::nullopt;
}

bool SourceRecords::setSubscribed(const QString& uid, bool subscribed)
{
    return m_db.exec(QStringLiteral("UPDATE subscriptions SET subscribed = ? WHERE uid = ?"),
                     {subscribed, uid});
}

QString SourceRecords::setSubscriptionRecord(const QString& uid, const QVariantMap& record)
{
    QString error;
    const QByteArray blob = encode(record, &error);
    if (blob.isEmpty())
        return QStringLiteral("the options cannot be stored: %1").arg(error);
    if (!m_db.exec(QStringLiteral("UPDATE subscriptions SET record = ? WHERE uid = ?"), {blob, uid}))
        return m_db.writeProblem();
    return {};
}

QVariantMap SourceRecords::publisherInfo() const
{
    QString name =
        m_db.scalar(QStringLiteral("SELECT value FROM settings WHERE key = 'bonjourName'")).toString();
    const qint64 port =
        m_db.scalar(QStringLiteral("SELECT value FROM settings WHERE key = 'portNumber'")).toLongLong();
    if (name.isEmpty())
        name = QSysInfo::machineHostName();
    if (name.isEmpty())
        name = QStringLiteral("localhost");
    QVariantMap info{{QStringLiteral("bonjourName"), name}};
    if (port > 0)
        info.insert(QStringLiteral("portNumber"), port);
    return info;
}

bool SourceRecords::setPublisherInfo(const QString& name, qint64 port)
{
    const QString upsert = QStringLiteral("INSERT INTO settings (key, value) VALUES (?, ?) "
                                          "ON CONFLICT (key) DO UPDATE SET value = excluded.value");
    return m_db.exec(upsert, {QStringLiteral("bonjourName"), name}) &&
           m_db.exec(upsert, {QStringLiteral("portNumber"), port});
}

} // namespace nimbrel::background
