#pragma once

// The published calendars as the CalDAV server sees them: the local calendars of the calendar store
// whose "publishedToBonjour" is set, with their passwords and "readOnly" from the calendar settings.
// Writes go through the store, so the watcher, the sync token and the panel see them as any change.

#include "PublishedStore.h"

#include <QHash>
#include <optional>

namespace nimbrel::background {

class CalendarStore;
class CalendarSettings;
struct CalendarSettingsRow;

class PublishedCalendars : public publish::PublishedStore
{
    Q_OBJECT
public:
    PublishedCalendars(CalendarStore& store, CalendarSettings& settings, QObject* parent = nullptr);
    ~PublishedCalendars() override;

    // The publishing settings changed (a flag, a password): read them again on the next request.
    void settingsChanged();

    QStringList publishedUids() const override;
    std::optional<publish::PublishedCalendar> calendar(const QString& uid) const override;
    QList<publish::PublishedItem> items(const QString& uid) const override;
    std::optional<publish::PublishedItem> item(const QString& uid, const QString& name) const override;
    std::optional<QByteArray> readItem(const QString& uid, const QString& name, QByteArray* etag) const override;
    QString itemNameForComponentUid(const QString& uid, const QString& componentUid) const override;
    QString syncToken(const QString& uid) const override;
    std::optional<QList<publish::ItemChange>> changesSince(const QString& uid, const QString& token) const override;
    publish::StoreWrite writeItem(const QString& uid, const QString& name, const QByteArray& data) override;
    publish::StoreWrite removeItem(const QString& uid, const QString& name) override;

private:
    const QHash<QString, CalendarSettingsRow>& rows() const;
    bool isPublished(const QString& uid) const;

    CalendarStore& m_store;
    CalendarSettings& m_settings;
    mutable std::unique_ptr<QHash<QString, CalendarSettingsRow>> m_rows; // read once per change
    // Per calendar, the iCalendar UID of each item (for the UID-conflict check), made when first
    // needed and dropped when the calendar changes.
    mutable QHash<QString, QHash<QString, QString>> m_componentUids;
};

} // namespace nimbrel::background
