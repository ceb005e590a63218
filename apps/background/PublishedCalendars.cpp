#include "PublishedCalendars.h"

#include "ICalendarObject.h"
#include "calendars/CalendarStore.h"
#include "state/CalendarSettings.h"

#include <algorithm>

namespace nimbrel::background {

namespace {
QByteArray quoted(const QString& etag)
{
    return '"' + etag.toLatin1() + '"';
}
} // namespace

PublishedCalendars::PublishedCalendars(CalendarStore& store, CalendarSettings& settings, QObject* parent)
    : publish::PublishedStore(parent)
    , m_store(store)
    , m_settings(settings)
{
    connect(&m_store, &CalendarStore::changed, this, [this](const QList<CalendarChange>& changes) {
        QSet<QString> uids;
        for (const CalendarChange& change : changes)
            uids.insert(change.uid);
        for (const QString& uid : uids) {
            m_componentUids.remove(uid);
            emit changed(uid);
        }
        m_rows.reset(); // a new calendar has a settings row now
    });
}

PublishedCalendars::~PublishedCalendars() = default;

void PublishedCalendars::settingsChanged()
{
    m_rows.reset();
}

const QHash<QString, CalendarSettingsRow>& PublishedCalendars::rows() const
{
    if (!m_rows)
        m_rows = std::make_unique<QHash<QString, CalendarSettingsRow>>(m_settings.rows());
    return *m_rows;
}

bool PublishedCalendars::isPublished(const QString& uid) const
{
    const auto it = rows().constFind(uid);
    return it != rows().constEnd() && it->publishedToBonjour && m_store.calendar(uid).has_value();
}

QStringList PublishedCalendars::publishedUids() const
{
    QStringList uids;
    for (auto it = rows().constBegin(); it != rows().constEnd(); ++it) {
        if (it->publishedToBonjour && m_store.calendar(it.key()))
            uids.append(it.key());
    }
    std::sort(uids.begin(), uids.end());
    return uids;
}

std::optional<publish::PublishedCalendar> PublishedCalendars::calendar(const QString& uid) const
{
    const auto row = rows().constFind(uid);
    if (row == rows().constEnd() || !row->publishedToBonjour)
        return std::nullopt;
    const auto calendar = m_store.calendar(uid);
    if (!calendar)
        return std::nullopt;
    return publish::PublishedCalendar{uid, calendar->displayName, calendar->color, row->readPassword,
                                      row->writePassword, row->readOnly};
}

QList<publish::PublishedItem> PublishedCalendars::items(const QString& uid) const
{
    QList<publish::PublishedItem> out;
    if (!isPublished(uid))
        return out;
    const QList<StoreItem> items = m_store.items(uid);
    out.reserve(items.size());
    for (const StoreItem& item : items)
        out.append({item.href, quoted(item.etag), -1});
    return out;
}

std::optional<publish::PublishedItem> PublishedCalendars::item(const QString& uid, const QString& name) const
{
    const auto item = isPublished(uid) ? m_store.item(uid, name) : std::nullopt;
    if (!item)
        return std::nullopt;
    return publish::PublishedItem{item->href, quoted(item->etag), -1};
}

std::optional<QByteArray> PublishedCalendars::readItem(const QString& uid, const QString& name, QByteArray* etag) const
{
    const auto content = isPublished(uid) ? m_store.readItem(uid, name) : std::nullopt;
    if (!content)
        return std::nullopt;
    if (etag)
        *etag = quoted(content->etag);
    return content->data;
}

QString PublishedCalendars::itemNameForComponentUid(const QString& uid, const QString& componentUid) const
{
    auto it = m_componentUids.find(uid);
    if (it == m_componentUids.end()) {
        QHash<QString, QString> index;
        for (const StoreItem& item : m_store.items(uid)) {
            if (const auto content = m_store.readItem(uid, item.href))
                index.insert(publish::checkCalendarObject(content->data).uid, item.href);
        }
        it = m_componentUids.insert(uid, index);
    }
    return it->value(componentUid);
}

QString PublishedCalendars::syncToken(const QString& uid) const
{
    const auto calendar = m_store.calendar(uid);
    return calendar ? calendar->syncToken : QString();
}

std::optional<QList<publish::ItemChange>> PublishedCalendars::changesSince(const QString& uid,
                                                                          const QString& token) const
{
    const SyncChanges changes = m_store.changesSince(uid, token);
    if (changes.status != SyncChanges::Ok)
        return std::nullopt;
    QList<publish::ItemChange> out;
    for (const StoreItem& item : changes.changed)
        out.append({item.href, false});
    for (const QString& href : changes.deleted)
        out.append({href, true});
    return out;
}

publish::StoreWrite PublishedCalendars::writeItem(const QString& uid, const QString& name, const QByteArray& data)
{
    const StoreWrite written = m_store.putItem(uid, name, data);
    m_componentUids.remove(uid);
    switch (written.status) {
    case StoreWrite::Ok: return {publish::StoreWrite::Ok, quoted(written.etag), {}};
    case StoreWrite::NoCalendar: return {publish::StoreWrite::NotFound, {}, QStringLiteral("no such calendar")};
    default: return {publish::StoreWrite::Failed, {}, written.error};
    }
}

publish::StoreWrite PublishedCalendars::removeItem(const QString& uid, const QString& name)
{
    const StoreWrite removed = m_store.removeItem(uid, name);
    m_componentUids.remove(uid);
    switch (removed.status) {
    case StoreWrite::Ok: return {publish::StoreWrite::Ok, {}, {}};
    case StoreWrite::NoCalendar:
    case StoreWrite::NotFound: return {publish::StoreWrite::NotFound, {}, {}};
    default: return {publish::StoreWrite::Failed, {}, removed.error};
    }
}

} // namespace nimbrel::background
