#pragma once

// A PublishedStore over a folder of vdir calendars, for the test host and the fuzzer: items indexed
// in memory at start, ETags from a content hash, an in-memory change log per calendar, publishing
// settings set by the caller.

#include "PublishedStore.h"

#include <QHash>
#include <QMap>

namespace nimbrel::publish::test {

class VdirTestStore : public PublishedStore
{
public:
    explicit VdirTestStore(const QString& root, bool allPublished = true);

    // Sets the publishing state of one calendar; a calendar not published is invisible.
    void setPublished(const QString& uid, bool published);
    void setAccess(const QString& uid, const QString& readPassword, const QString& writePassword, bool readOnly);

    QStringList publishedUids() const override;
    std::optional<PublishedCalendar> calendar(const QString& uid) const override;
    QList<PublishedItem> items(const QString& uid) const override;
    std::optional<PublishedItem> item(const QString& uid, const QString& name) const override;
    std::optional<QByteArray> readItem(const QString& uid, const QString& name, QByteArray* etag) const override;
    QString itemNameForComponentUid(const QString& uid, const QString& componentUid) const override;
    QString syncToken(const QString& uid) const override;
    std::optional<QList<ItemChange>> changesSince(const QString& uid, const QString& token) const override;
    StoreWrite writeItem(const QString& uid, const QString& name, const QByteArray& data) override;
    StoreWrite removeItem(const QString& uid, const QString& name) override;

    static QByteArray etagOf(const QByteArray& data);

private:
    struct Entry
    {
        QByteArray etag;
        qint64 size = 0;
        QString componentUid;
    };
    struct Calendar
    {
        PublishedCalendar info;
        bool published = false;
        QHash<QString, Entry> items;
        QHash<QString, QString> byComponentUid;
        QList<QPair<quint64, ItemChange>> log;
        quint64 token = 1;
        mutable QList<PublishedItem> listing; // cached items(), cleared by changes
    };
    void index(Calendar& c, const QString& name, const QByteArray& data);
    void record(Calendar& c, const QString& name, bool deleted);

    QString m_root;
    QString m_generation;
    QMap<QString, Calendar> m_calendars;
};

} // namespace nimbrel::publish::test
