#pragma once

// The WebDAV / CalDAV properties of the three kinds of resource: the home (also the principal), a
// published calendar and one of its items.

#include "Access.h"
#include "Multistatus.h"
#include "PublishedStore.h"

namespace nimbrel::publish {

struct ResourceView
{
    enum Kind { Home, Calendar, Item };
    Kind kind = Home;
    QString homeName;
    const PublishedCalendar* calendar = nullptr;
    Privileges privileges;
    QString syncToken;                        // the calendar's, as a URI
    const PublishedItem* item = nullptr;
    const QByteArray* calendarData = nullptr; // the item's data, when calendar-data was asked for
};

Multistatus::PropStatus writeProperty(XmlWriter* w, const PropName& prop, const ResourceView& view);

// What allprop and propname answer for a kind of resource.
const QList<PropName>& allProperties(ResourceView::Kind kind);

// The sync token URI for a store token, and back (nullopt when `uri` is not one of ours).
QString syncTokenUri(const QString& token);
std::optional<QString> storeTokenFromUri(const QString& uri);

inline constexpr qint64 kMaxResourceSize = 8 * 1024 * 1024;

} // namespace nimbrel::publish
