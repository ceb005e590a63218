#pragma once

// iCalendar through libical: the checks a PUT must pass (CalDAV's preconditions) and the calendar-query
// filter match, with recurrences expanded for time ranges.

#include "DavXml.h"

#include <QByteArray>
#include <QString>

namespace nimbrel::publish {

struct CalendarObjectCheck
{
    bool ok = false;
    QByteArray precondition; // "C:valid-calendar-data", "C:valid-calendar-object-resource",
                             // "C:supported-calendar-component" when not ok
    QString message;
    QString uid;             // the components' UID when ok
};

// Components a published calendar holds.
bool isSupportedComponent(const QString& name);

CalendarObjectCheck checkCalendarObject(const QByteArray& data);

// Whether the item matches the calendar-query filter (which starts at VCALENDAR). Unparsable items
// never match.
bool matchesFilter(const QByteArray& data, const CompFilter& filter);

} // namespace nimbrel::publish
