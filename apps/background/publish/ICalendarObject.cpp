#include "ICalendarObject.h"

#include <libical/ical.h>

#include <QSet>
#include <memory>

namespace nimbrel::publish {

namespace {

constexpr int kMaxInstancesPerRule = 20000;
constexpr qint64 kDay = 86400;

struct ComponentDeleter
{
    void operator()(icalcomponent* c) const { icalcomponent_free(c); }
};
using ComponentPtr = std::unique_ptr<icalcomponent, ComponentDeleter>;

ComponentPtr parse(const QByteArray& data)
{
    static const bool initialised = [] {
        icalerror_set_errors_are_fatal(0);
        return true;
    }();
    (void)initialised;
    const QByteArray terminated(data.constData(), data.size()); // libical wants a NUL-terminated string
    ComponentPtr root(icalparser_parse_string(terminated.constData()));
    icalmemory_free_ring();
    return root;
}

qint64 toUtcSeconds(icaltimetype t)
{
    return qint64(icaltime_as_timet_with_zone(t, t.zone ? t.zone : icaltimezone_get_utc_timezone()));
}

// The span of a component's first instance: [start, start + duration).
struct Span
{
    icaltimetype start;
    qint64 duration = 0;
    bool valid = false;
};

Span baseSpan(icalcomponent* c)
{
    Span span;
    const icalcomponent_kind kind = icalcomponent_isa(c);
    span.start = icalcomponent_get_dtstart(c);
    if (kind == ICAL_VTODO_COMPONENT && icaltime_is_null_time(span.start)) {
        span.start = icalcomponent_get_due(c);
        span.valid = !icaltime_is_null_time(span.start);
        return span;
    }
    if (icaltime_is_null_time(span.start))
        return span;
    span.valid = true;
    icaltimetype end = kind == ICAL_VTODO_COMPONENT ? icalcomponent_get_due(c) : icalcomponent_get_dtend(c);
    if (!icaltime_is_null_time(end))
        span.duration = std::max<qint64>(0, toUtcSeconds(end) - toUtcSeconds(span.start));
    else if (icaltime_is_date(span.start) && kind == ICAL_VEVENT_COMPONENT)
        span.duration = kDay;
    return span;
}

bool overlaps(qint64 start, qint64 duration, const TimeRange& range)
{
    if (duration > 0)
        return range.start < start + duration && range.end > start;
    return range.start <= start && range.end > start;
}

// Whether any instance of `c` (its own DTSTART, RRULE and RDATE instances, minus EXDATEs and the
// instances moved by overrides in `overridden`) overlaps `range`.
bool anyInstanceOverlaps(icalcomponent* c, const TimeRange& range, const QSet<qint64>& overridden)
{
    const Span span = baseSpan(c);
    if (!span.valid)
        return icalcomponent_isa(c) == ICAL_VTODO_COMPONENT; // a to-do without dates matches any range
    icaltimetype dtstart = span.start;
    auto test = [&](icaltimetype instance) {
        const qint64 s = toUtcSeconds(instance);
        if (overridden.contains(s) || icalproperty_recurrence_is_excluded(c, &dtstart, &instance))
            return false;
        return overlaps(s, span.duration, range);
    };
    if (test(dtstart))
        return true;
    const bool recurring = icalcomponent_get_first_property(c, ICAL_RECURRENCEID_PROPERTY) == nullptr;
    if (!recurring)
        return false;
    for (icalproperty* p = icalcomponent_get_first_property(c, ICAL_RRULE_PROPERTY); p;
         p = icalcomponent_get_next_property(c, ICAL_RRULE_PROPERTY)) {
        const icalrecurrencetype rule = icalproperty_get_rrule(p);
        icalrecur_iterator* it = icalrecur_iterator_new(rule, dtstart);
        if (!it)
            continue;
        if (rule.count == 0 && range.start != std::numeric_limits<qint64>::min()) {
            // Jump close to the range instead of walking every instance since DTSTART.
            const qint64 from = range.start - span.duration - 2 * kDay;
            if (from > toUtcSeconds(dtstart)) {
                icaltimetype jump = icaltime_from_timet_with_zone(time_t(from), icaltime_is_date(dtstart),
                                                                  const_cast<icaltimezone*>(dtstart.zone));
                icalrecur_iterator_set_start(it, jump);
            }
        }
        bool hit = false;
        for (int n = 0; n < kMaxInstancesPerRule; ++n) {
            const icaltimetype next = icalrecur_iterator_next(it);
            if (icaltime_is_null_time(next) || toUtcSeconds(next) >= range.end)
                break;
            if (test(next)) {
                hit = true;
                break;
            }
        }
        icalrecur_iterator_free(it);
        if (hit)
            return true;
    }
    for (icalproperty* p = icalcomponent_get_first_property(c, ICAL_RDATE_PROPERTY); p;
         p = icalcomponent_get_next_property(c, ICAL_RDATE_PROPERTY)) {
        const icaldatetimeperiodtype rdate = icalproperty_get_rdate(p);
        icaltimetype t = icaltime_is_null_time(rdate.time) ? rdate.period.start : rdate.time;
        if (!icaltime_is_null_time(t) && !t.zone)
            t.zone = dtstart.zone;
        if (!icaltime_is_null_time(t) && test(t))
            return true;
    }
    return false;
}

bool textMatches(icalcomponent* c, const PropFilter& filter)
{
    const icalproperty_kind kind = icalproperty_string_to_kind(filter.name.toUtf8().constData());
    icalproperty* p = kind == ICAL_NO_PROPERTY ? nullptr : icalcomponent_get_first_property(c, kind);
    if (filter.isNotDefined)
        return p == nullptr;
    if (!p)
        return false;
    if (!filter.textMatch)
        return true;
    for (; p; p = icalcomponent_get_next_property(c, kind)) {
        const char* value = icalproperty_get_value_as_string(p);
        const bool found = QString::fromUtf8(value ? value : "").contains(filter.textMatch->text, Qt::CaseInsensitive);
        if (found != filter.textMatch->negate)
            return true;
    }
    return false;
}

bool matchesComponent(icalcomponent* parent, const CompFilter& filter);

// Whether `c` (already of the filter's type) satisfies the filter's own tests and its children.
bool componentSatisfies(icalcomponent* c, const CompFilter& filter, const QSet<qint64>& overridden)
{
    if (filter.timeRange && !anyInstanceOverlaps(c, *filter.timeRange, overridden))
        return false;
    for (const PropFilter& p : filter.propFilters) {
        if (!textMatches(c, p))
            return false;
    }
    for (const CompFilter& child : filter.compFilters) {
        if (!matchesComponent(c, child))
            return false;
    }
    return true;
}

bool matchesComponent(icalcomponent* parent, const CompFilter& filter)
{
    const icalcomponent_kind kind = icalcomponent_string_to_kind(filter.name.toUtf8().constData());
    if (kind == ICAL_NO_COMPONENT)
        return filter.isNotDefined;
    // Start times of the overridden instances, so the master's moved instances are not matched twice.
    QSet<qint64> overridden;
    for (icalcomponent* c = icalcomponent_get_first_component(parent, kind); c;
         c = icalcomponent_get_next_component(parent, kind)) {
        icalproperty* rid = icalcomponent_get_first_property(c, ICAL_RECURRENCEID_PROPERTY);
        if (rid) // with its TZID resolved against the calendar's time zones
            overridden.insert(toUtcSeconds(icalproperty_get_datetime_with_component(rid, c)));
    }
    bool any = false;
    for (icalcomponent* c = icalcomponent_get_first_component(parent, kind); c;
         c = icalcomponent_get_next_component(parent, kind)) {
        any = true;
        if (filter.isNotDefined)
            return false;
        const bool isOverride = icalcomponent_get_first_property(c, ICAL_RECURRENCEID_PROPERTY) != nullptr;
        if (componentSatisfies(c, filter, isOverride ? QSet<qint64>{} : overridden))
            return true;
    }
    return !any && filter.isNotDefined;
}

} // namespace

bool isSupportedComponent(const QString& name)
{
    return name == QLatin1StringView("VEVENT") || name == QLatin1StringView("VTODO")
        || name == QLatin1StringView("VJOURNAL");
}

CalendarObjectCheck checkCalendarObject(const QByteArray& data)
{
    CalendarObjectCheck result;
    auto invalid = [&](const char* precondition, const char* message) {
        result.precondition = precondition;
        result.message = QString::fromLatin1(message);
        return result;
    };
    if (!data.trimmed().startsWith("BEGIN:VCALENDAR") || data.contains('\0'))
        return invalid("C:valid-calendar-data", "not an iCalendar object");
    ComponentPtr root = parse(data);
    if (!root || icalcomponent_isa(root.get()) != ICAL_VCALENDAR_COMPONENT)
        return invalid("C:valid-calendar-data", "not one VCALENDAR");
    if (icalcomponent_count_errors(root.get()) > 0)
        return invalid("C:valid-calendar-data", "iCalendar errors");
    if (icalcomponent_get_first_property(root.get(), ICAL_METHOD_PROPERTY))
        return invalid("C:valid-calendar-object-resource", "METHOD is not allowed in a stored object");
    QString type;
    QString uid;
    int count = 0;
    for (icalcomponent* c = icalcomponent_get_first_component(root.get(), ICAL_ANY_COMPONENT); c;
         c = icalcomponent_get_next_component(root.get(), ICAL_ANY_COMPONENT)) {
        const QString name = QString::fromLatin1(icalcomponent_kind_to_string(icalcomponent_isa(c)));
        if (name == QLatin1StringView("VTIMEZONE"))
            continue;
        if (!isSupportedComponent(name))
            return invalid("C:supported-calendar-component", "unsupported component type");
        if (!type.isEmpty() && name != type)
            return invalid("C:valid-calendar-object-resource", "more than one component type");
        const char* cuid = icalcomponent_get_uid(c);
        const QString thisUid = QString::fromUtf8(cuid ? cuid : "");
        if (thisUid.isEmpty())
            return invalid("C:valid-calendar-object-resource", "a component without UID");
        if (!uid.isEmpty() && thisUid != uid)
            return invalid("C:valid-calendar-object-resource", "more than one UID");
        type = name;
        uid = thisUid;
        ++count;
    }
    if (count == 0)
        return invalid("C:valid-calendar-object-resource", "no component");
    result.ok = true;
    result.uid = uid;
    return result;
}

bool matchesFilter(const QByteArray& data, const CompFilter& filter)
{
    ComponentPtr root = parse(data);
    if (!root || icalcomponent_isa(root.get()) != ICAL_VCALENDAR_COMPONENT)
        return false;
    return componentSatisfies(root.get(), filter, {});
}

} // namespace nimbrel::publish
