#pragma once

// What the CalDAV server needs from the calendars it publishes. The server asks on every request, so a
// change of the publish flag, a password or "readOnly" takes effect on the next request. Only
// published calendars exist here: an unpublished one answers nullopt like an unknown uid.
//
// Items are addressed by their file name in the calendar folder ("<name>.ics"). ETags are strong and
// come from the item's content; sync tokens are opaque, ordered per calendar by the store.

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <optional>

namespace nimbrel::publish {

struct PublishedCalendar
{
    QString uid;           // folder name, the calendar's URL segment
    QString title;         // displayname
    QString color;         // "#RRGGBB" or "#RRGGBBAA", may be empty
    QString readPassword;  // empty = none
    QString writePassword; // empty = none
    bool readOnly = false;
};

struct PublishedItem
{
    QString name;    // file name, "<something>.ics"
    QByteArray etag; // quoted strong ETag, e.g. "\"3f2a…\""
    qint64 size = -1; // bytes, or -1 when the store does not know without reading
};

struct ItemChange
{
    QString name;
    bool deleted = false;
};

// The result of a write or a removal.
struct StoreWrite
{
    enum Status { Ok, NotFound, Failed };
    Status status = Failed;
    QByteArray etag; // the item's new ETag after a successful write
    QString error;   // why, for the log (never shown to the client)
};

class PublishedStore : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;
    ~PublishedStore() override = default;

    // The published calendars, in a stable order.
    virtual QStringList publishedUids() const = 0;
    virtual std::optional<PublishedCalendar> calendar(const QString& uid) const = 0;

    virtual QList<PublishedItem> items(const QString& uid) const = 0;
    virtual std::optional<PublishedItem> item(const QString& uid, const QString& name) const = 0;
    // The item's bytes with its ETag, or nullopt when it does not exist (or cannot be read).
    virtual std::optional<QByteArray> readItem(const QString& uid, const QString& name,
                                               QByteArray* etag = nullptr) const = 0;
    // The file name of the item whose iCalendar UID is `componentUid`, or empty when there is none.
    virtual QString itemNameForComponentUid(const QString& uid, const QString& componentUid) const = 0;

    // The calendar's current sync token (also its ctag).
    virtual QString syncToken(const QString& uid) const = 0;
    // Items changed since `token` (each name once, the latest state), or nullopt when the token is not
    // one this store handed out for that calendar or is too old to answer.
    virtual std::optional<QList<ItemChange>> changesSince(const QString& uid, const QString& token) const = 0;

    // Writes one item atomically and records the change at once, so the next sync token covers it.
    virtual StoreWrite writeItem(const QString& uid, const QString& name, const QByteArray& data) = 0;
    virtual StoreWrite removeItem(const QString& uid, const QString& name) = 0;

signals:
    // Something in a published calendar changed (items, title, publishing or access settings).
    void changed(const QString& uid);
};

} // namespace nimbrel::publish
