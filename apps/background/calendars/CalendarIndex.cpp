#include "CalendarIndex.h"

#include "state/StateDatabase.h"

#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSqlError>

namespace nimbrel::background {

// Prepared once per load: a start indexes thousands of rows through them.
struct CalendarIndex::Statements
{
    explicit Statements(const QSqlDatabase& db)
        : insertCalendar(db), deleteCalendar(db), deleteItems(db), deleteLog(db), updateCalendar(db),
          touch(db), upsertItem(db), restamp(db), deleteItem(db), logChange(db)
    {
        insertCalendar.prepare(QStringLiteral("INSERT OR REPLACE INTO local_calendars (uid, title, color, "
                                              "token, first_token) VALUES (?, ?, ?, ?, ?)"));
        deleteCalendar.prepare(QStringLiteral("DELETE FROM local_calendars WHERE uid = ?"));
        deleteItems.prepare(QStringLiteral("DELETE FROM local_items WHERE calendar_uid = ?"));
        deleteLog.prepare(QStringLiteral("DELETE FROM change_log WHERE calendar_uid = ?"));
        updateCalendar.prepare(
            QStringLiteral("UPDATE local_calendars SET title = ?, color = ?, token = ? WHERE uid = ?"));
        touch.prepare(QStringLiteral("UPDATE local_calendars SET token = ? WHERE uid = ?"));
        upsertItem.prepare(QStringLiteral("INSERT OR REPLACE INTO local_items "
                                          "(calendar_uid, href, etag, size, mtime_ns, ctime_ns, inode) "
                                          "VALUES (?, ?, ?, ?, ?, ?, ?)"));
        restamp.prepare(
            QStringLiteral("UPDATE local_items SET size = ?, mtime_ns = ?, ctime_ns = ?, inode = ? "
                           "WHERE calendar_uid = ? AND href = ?"));
        deleteItem.prepare(QStringLiteral("DELETE FROM local_items WHERE calendar_uid = ? AND href = ?"));
        logChange.prepare(QStringLiteral(
            "INSERT OR REPLACE INTO change_log (calendar_uid, href, token, deleted) VALUES (?, ?, ?, ?)"));
    }

    static bool run(QSqlQuery& q, const QVariantList& values)
    {
        for (int i = 0; i < values.size(); ++i) {
            const bool nullText = values[i].typeId() == QMetaType::QString && values[i].toString().isNull();
            q.bindValue(i, nullText ? QVariant(QString::fromLatin1(""))
                                    : values[i]); // text columns are NOT NULL
        }
        return q.exec();
    }

    QSqlQuery insertCalendar, deleteCalendar, deleteItems, deleteLog, updateCalendar, touch, upsertItem,
        restamp, deleteItem, logChange;
};

CalendarIndex::CalendarIndex(StateDatabase& db) : m_db(db) {}

CalendarIndex::~CalendarIndex() = default;

void CalendarIndex::clear()
{
    m_sql.reset();
    m_calendars.clear();
    m_epoch.clear();
    m_counter = 0;
    m_loaded = false;
}

bool CalendarIndex::load()
{
    clear();
    const QSqlDatabase db = m_db.handle();
    QSqlQuery q(db);
    q.setForwardOnly(true);
    if (!q.exec(QStringLiteral("SELECT epoch, counter FROM change_counter")))
        return false;
    if (q.next()) {
        m_epoch = q.value(0).toString();
        m_counter = q.value(1).toLongLong();
    } else {
        m_epoch =
            QString::number(QRandomGenerator::system()->generate(), 16).rightJustified(8, QLatin1Char('0'));
        if (!m_db.exec(QStringLiteral("INSERT INTO change_counter (epoch, counter) VALUES (?, 0)"),
                       {m_epoch}))
            return false;
    }
    if (!q.exec(QStringLiteral("SELECT uid, title, color, token, first_token FROM local_calendars")))
        return false;
    while (q.next()) {
        IndexedCalendar& calendar = m_calendars[q.value(0).toString()];
        calendar.title = q.value(1).toString();
        calendar.color = q.value(2).toString();
        calendar.token = q.value(3).toLongLong();
        calendar.firstToken = q.value(4).toLongLong();
    }
    if (!q.exec(QStringLiteral(
            "SELECT calendar_uid, href, etag, size, mtime_ns, ctime_ns, inode FROM local_items")))
        return false;
    while (q.next()) {
        const auto calendar = m_calendars.find(q.value(0).toString());
        if (calendar == m_calendars.end())
            continue;
        calendar->items.insert(q.value(1).toString(), {q.value(2).toString(),
                                                       {q.value(3).toLongLong(), q.value(4).toLongLong(),
                                                        q.value(5).toLongLong(), q.value(6).toLongLong()}});
    }
    m_sql = std::make_unique<Statements>(db);
    m_loaded = true;
    return true;
}

const IndexedCalendar* CalendarIndex::calendar(const QString& uid) const
{
    const auto it = m_calendars.constFind(uid);
    return it == m_calendars.cend() ? nullptr : &*it;
}

QString CalendarIndex::tokenText(qint64 token) const
{
    return m_epoch + QLatin1Char('-') + QString::number(token);
}

std::optional<qint64> CalendarIndex::tokenNumber(const QString& text) const
{
    static const QRegularExpression pattern(QStringLiteral("^([0-9a-f]{8})-([0-9]{1,18})$"));
    const QRegularExpressionMatch match = pattern.match(text);
    if (!match.hasMatch() || match.captured(1) != m_epoch)
        return std::nullopt;
    const qint64 number = match.captured(2).toLongLong();
    return number <= m_counter ? std::optional<qint64>(number) : std::nullopt;
}

qint64 CalendarIndex::nextToken()
{
    return ++m_counter;
}

bool CalendarIndex::saveCounter()
{
    return m_db.exec(QStringLiteral("UPDATE change_counter SET counter = ?"), {m_counter});
}

bool CalendarIndex::addCalendar(const QString& uid, const QString& title, const QString& color,
                                const QHash<QString, IndexedItem>& items)
{
    // Items found with the calendar need no log rows: a sync from its first token lists them all.
    const qint64 token = nextToken();
    // A calendar removed before took its items and log rows with it (removeCalendar).
    if (!Statements::run(m_sql->insertCalendar, {uid, title, color, token, token}))
        return false;
    for (auto it = items.cbegin(); it != items.cend(); ++it) {
        const ItemStamp& s = it->stamp;
        if (!Statements::run(m_sql->upsertItem,
                             {uid, it.key(), it->etag, s.size, s.mtimeNs, s.ctimeNs, s.inode}))
            return false;
    }
    m_calendars.insert(uid, {title, color, token, token, items});
    return true;
}

bool CalendarIndex::removeCalendar(const QString& uid)
{
    if (!Statements::run(m_sql->deleteCalendar, {uid}) || !Statements::run(m_sql->deleteItems, {uid}) ||
        !Statements::run(m_sql->deleteLog, {uid}))
        return false;
    m_calendars.remove(uid);
    return true;
}

bool CalendarIndex::touchCalendar(const QString& uid, qint64 token)
{
    if (!Statements::run(m_sql->touch, {token, uid}))
        return false;
    m_calendars[uid].token = token;
    return true;
}

bool CalendarIndex::setTitleAndColor(const QString& uid, const QString& title, const QString& color)
{
    const qint64 token = nextToken();
    if (!Statements::run(m_sql->updateCalendar, {title, color, token, uid}))
        return false;
    IndexedCalendar& calendar = m_calendars[uid];
    calendar.title = title;
    calendar.color = color;
    calendar.token = token;
    return true;
}

bool CalendarIndex::putItem(const QString& uid, const QString& href, const IndexedItem& item)
{
    const qint64 token = nextToken();
    const ItemStamp& s = item.stamp;
    if (!Statements::run(m_sql->upsertItem, {uid, href, item.etag, s.size, s.mtimeNs, s.ctimeNs, s.inode}) ||
        !Statements::run(m_sql->logChange, {uid, href, token, false}) || !touchCalendar(uid, token))
        return false;
    m_calendars[uid].items.insert(href, item);
    return true;
}

bool CalendarIndex::restampItem(const QString& uid, const QString& href, const ItemStamp& stamp)
{
    if (!Statements::run(m_sql->restamp, {stamp.size, stamp.mtimeNs, stamp.ctimeNs, stamp.inode, uid, href}))
        return false;
    m_calendars[uid].items[href].stamp = stamp;
    return true;
}

bool CalendarIndex::removeItem(const QString& uid, const QString& href)
{
    const qint64 token = nextToken();
    if (!Statements::run(m_sql->deleteItem, {uid, href}) ||
        !Statements::run(m_sql->logChange, {uid, href, token, true}) || !touchCalendar(uid, token))
        return false;
    m_calendars[uid].items.remove(href);
    return pruneTombstones(uid);
}

bool CalendarIndex::pruneTombstones(const QString& uid)
{
    const QVariant oldestKept =
        m_db.scalar(QStringLiteral("SELECT token FROM change_log WHERE calendar_uid = ? AND deleted = 1 "
                                   "ORDER BY token DESC LIMIT 1 OFFSET ?"),
                    {uid, m_tombstoneLimit});
    if (!oldestKept.isValid())
        return true;
    const qint64 through = oldestKept.toLongLong();
    if (!m_db.exec(
            QStringLiteral("DELETE FROM change_log WHERE calendar_uid = ? AND deleted = 1 AND token <= ?"),
            {uid, through}) ||
        !m_db.exec(QStringLiteral("UPDATE local_calendars SET first_token = ? WHERE uid = ?"),
                   {through, uid}))
        return false;
    m_calendars[uid].firstToken = through;
    return true;
}

std::optional<QList<LoggedChange>> CalendarIndex::changesAfter(const QString& uid, qint64 token) const
{
    QSqlQuery q(m_db.handle());
    q.setForwardOnly(true);
    q.prepare(QStringLiteral(
        "SELECT href, deleted FROM change_log WHERE calendar_uid = ? AND token > ? ORDER BY token"));
    q.addBindValue(uid);
    q.addBindValue(token);
    if (!q.exec())
        return std::nullopt;
    QList<LoggedChange> changes;
    while (q.next())
        changes.append({q.value(0).toString(), q.value(1).toBool()});
    return changes;
}

} // namespace nimbrel::background
