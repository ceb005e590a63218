#pragma once

// Matching rows between calendar lists and merging a fresh list into the displayed one in place, so
// that rows that still exist keep their objects (and with them selection, expanded state, bindings).

#include "model/NimbrelCalendar.h"

namespace nimbrel {

// matchingCalendar:inList: — the first row of `list`, depth-first in list order (each row, then its
// children, before the next row), for which row.isEqualToCalendar(calendar) holds; null when none.
CalendarRef matchingCalendar(const NimbrelCalendar& calendar, const CalendarList& list);

// setCalendarList:fromList:source: — merges `fresh` into `kept` (changed in place). Kept rows that match
// take the fresh record (setDict) after their children were merged; fresh rows that match nothing are
// appended and `kept` sorted by title, announced on `source` as a union of "children"; rows that
// vanished are removed one by one, each announced with a will-union / did-minus pair. `source` is the
// row owning `kept` as its children, or null for a top-level list (then nothing is announced).
// Matching uses an index of `fresh`, not a linear search per row, with the same result.
void setCalendarList(CalendarList& kept, const CalendarList& fresh, NimbrelCalendar* source);

} // namespace nimbrel
