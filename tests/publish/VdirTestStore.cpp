#include "VdirTestStore.h"

#include "ICalendarObject.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QSaveFile>

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>

namespace nimbrel::publish::test {

namespace {
QString readSmallFile(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.read(4096)).trimmed() : QString();
}

QString componentUidOf(const QByteArray& data)
{
    return checkCalendarObject(data).uid;
}
} // namespace

VdirTestStore::VdirTestStore(const QString& root, bool allPublished)
    : m_root(root)
    , m_generation(QString::number(QRandomGenerator::global()->generate(), 36))
{
    const QDir dir(root);
    for (const QString& uid : dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
        Calendar& c = m_calendars[uid];
        c.info.uid = uid;
        c.info.title = readSmallFile(dir.filePath(uid + QStringLiteral("/displayname")));
        if (c.info.title.isEmpty())
            c.info.title = uid;
        c.info.color = readSmallFile(dir.filePath(uid + QStringLiteral("/color")));
        c.published = allPublished;
        const QDir folder(dir.filePath(uid));
        for (const QString& name : folder.entryList({QStringLiteral("*.ics")}, QDir::Files)) {
            QFile f(folder.filePath(name));
            if (f.open(QIODevice::ReadOnly))
                index(c, name, f.readAll());
        }
    }
}

QByteArray VdirTestStore::etagOf(const QByteArray& data)
{
    return '"' + QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex().left(32) + '"';
}

void VdirTestStore::index(Calendar& c, const QString& name, const QByteArray& data)
{
    const auto old = c.items.constFind(name);
    if (old != c.items.constEnd())
        c.byComponentUid.remove(old->componentUid);
    Entry e{etagOf(data), data.size(), componentUidOf(data)};
    c.byComponentUid.insert(e.componentUid, name);
    c.items.insert(name, e);
    c.listing.clear();
}

void VdirTestStore::record(Calendar& c, const QString& name, bool deleted)
{
    c.log.append({++c.token, ItemChange{name, deleted}});
    c.listing.clear();
    emit changed(c.info.uid);
}

void VdirTestStore::setPublished(const QString& uid, bool published)
{
    if (m_calendars.contains(uid))
        m_calendars[uid].published = published;
}

void VdirTestStore::setAccess(const QString& uid, const QString& readPassword, const QString& writePassword,
                              bool readOnly)
{
    if (!m_calendars.contains(uid))
        return;
    PublishedCalendar& info = m_calendars[uid].info;
    info.readPassword = readPassword;
    info.writePassword = writePassword;
    info.readOnly = readOnly;
}

QStringList VdirTestStore::publishedUids() const
{
    QStringList out;
    for (const Calendar& c : m_calendars) {
        if (c.published)
            out.append(c.info.uid);
    }
    return out;
}

std::optional<PublishedCalendar> VdirTestStore::calendar(const QString& uid) const
{
    const auto it = m_calendars.constFind(uid);
    if (it == m_calendars.constEnd() || !it->published)
        return std::nullopt;
    return it->info;
}

QList<PublishedItem> VdirTestStore::items(const QString& uid) const
{
    const auto it = m_calendars.constFind(uid);
    if (it == m_calendars.constEnd())
        return {};
    if (it->listing.isEmpty()) {
        for (auto e = it->items.constBegin(); e != it->items.constEnd(); ++e)
            it->listing.append({e.key(), e->etag, e->size});
        std::sort(it->listing.begin(), it->listing.end(),
                  [](const PublishedItem& a, const PublishedItem& b) { return a.name < b.name; });
    }
    return it->listing;
}

std::optional<PublishedItem> VdirTestStore::item(const QString& uid, const QString& name) const
{
    const auto it = m_calendars.constFind(uid);
    if (it == m_calendars.constEnd())
        return std::nullopt;
    const auto e = it->items.constFind(name);
    if (e == it->items.constEnd())
        return std::nullopt;
    return PublishedItem{name, e->etag, e->size};
}

std::optional<QByteArray> VdirTestStore::readItem(const QString& uid, const QString& name, QByteArray* etag) const
{
    const auto c = m_calendars.constFind(uid);
    const auto e = c == m_calendars.constEnd() ? decltype(c->items.constEnd())() : c->items.constFind(name);
    if (c == m_calendars.constEnd() || e == c->items.constEnd())
        return std::nullopt;
    // One open and one read of the size the index knows; a file changed behind the store's back
    // reads as it is now, with its ETag computed afresh.
    const QByteArray path = QFile::encodeName(m_root + QLatin1Char('/') + uid + QLatin1Char('/') + name);
    const int fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    QByteArray data(e->size + 1, Qt::Uninitialized);
    qsizetype got = 0;
    for (ssize_t n; got < data.size() && (n = ::read(fd, data.data() + got, size_t(data.size() - got))) > 0;)
        got += n;
    ::close(fd);
    const bool unchanged = got == e->size;
    if (!unchanged) {
        QFile f(QFile::decodeName(path));
        if (!f.open(QIODevice::ReadOnly))
            return std::nullopt;
        data = f.readAll();
    } else {
        data.truncate(got);
    }
    if (etag)
        *etag = unchanged ? e->etag : etagOf(data);
    return data;
}

QString VdirTestStore::itemNameForComponentUid(const QString& uid, const QString& componentUid) const
{
    const auto it = m_calendars.constFind(uid);
    return it == m_calendars.constEnd() ? QString() : it->byComponentUid.value(componentUid);
}

QString VdirTestStore::syncToken(const QString& uid) const
{
    const auto it = m_calendars.constFind(uid);
    return m_generation + QLatin1Char('-') + QString::number(it == m_calendars.constEnd() ? 0 : it->token);
}

std::optional<QList<ItemChange>> VdirTestStore::changesSince(const QString& uid, const QString& token) const
{
    const auto it = m_calendars.constFind(uid);
    const QStringList parts = token.split(QLatin1Char('-'));
    bool ok = false;
    const quint64 since = parts.size() == 2 ? parts[1].toULongLong(&ok) : 0;
    if (it == m_calendars.constEnd() || !ok || parts[0] != m_generation || since > it->token)
        return std::nullopt;
    QMap<QString, ItemChange> latest;
    for (auto entry = it->log.crbegin(); entry != it->log.crend() && entry->first > since; ++entry) {
        if (!latest.contains(entry->second.name))
            latest.insert(entry->second.name, entry->second);
    }
    return latest.values();
}

StoreWrite VdirTestStore::writeItem(const QString& uid, const QString& name, const QByteArray& data)
{
    auto it = m_calendars.find(uid);
    if (it == m_calendars.end())
        return {StoreWrite::NotFound, {}, QStringLiteral("no such calendar")};
    QSaveFile f(m_root + QLatin1Char('/') + uid + QLatin1Char('/') + name);
    if (!f.open(QIODevice::WriteOnly) || f.write(data) != data.size() || !f.commit())
        return {StoreWrite::Failed, {}, f.errorString()};
    index(*it, name, data);
    record(*it, name, false);
    return {StoreWrite::Ok, it->items.value(name).etag, {}};
}

StoreWrite VdirTestStore::removeItem(const QString& uid, const QString& name)
{
    auto it = m_calendars.find(uid);
    if (it == m_calendars.end() || !it->items.contains(name))
        return {StoreWrite::NotFound, {}, {}};
    if (!QFile::remove(m_root + QLatin1Char('/') + uid + QLatin1Char('/') + name))
        return {StoreWrite::Failed, {}, QStringLiteral("cannot remove the file")};
    it->byComponentUid.remove(it->items.value(name).componentUid);
    it->items.remove(name);
    record(*it, name, true);
    return {StoreWrite::Ok, {}, {}};
}

} // namespace nimbrel::publish::test
