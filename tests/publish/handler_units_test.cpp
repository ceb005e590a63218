// The parts of the CalDAV server that decide alone: path rules, the failed-password back-off (in
// virtual time), time-range matching with recurrences, and hostile XML.

#include "Access.h"
#include "DavPath.h"
#include "DavXml.h"
#include "ICalendarObject.h"
#include "platform/VirtualRunLoop.h"

#include <gtest/gtest.h>

using namespace nimbrel;
using namespace nimbrel::publish;

TEST(DavPathTest, KeepsEveryPathInsideACalendarFolder)
{
    const struct
    {
        const char* target;
        DavPath::Kind kind;
        const char* calendar;
        const char* item;
    } cases[] = {
        {"/", DavPath::Root, "", ""},
        {"/.well-known/caldav", DavPath::WellKnown, "", ""},
        {"/cal", DavPath::Calendar, "cal", ""},
        {"/cal/", DavPath::Calendar, "cal", ""},
        {"/cal/a%20b.ics", DavPath::Item, "cal", "a b.ics"},
        {"https://host:4990/cal/x.ics?q#f", DavPath::Item, "cal", "x.ics"},
        {"/caf%C3%A9/x.ics", DavPath::Item, "café", "x.ics"},
        {"/cal/../x.ics", DavPath::Invalid, "", ""},
        {"/cal/..%2Fx.ics", DavPath::Invalid, "", ""},   // "../x.ics" as one segment: a dot file
        {"/cal/a%2Fb.ics", DavPath::Invalid, "", ""},    // a slash inside a segment
        {"/%2e%2e/x.ics", DavPath::Invalid, "", ""},
        {"/cal/.hidden", DavPath::Invalid, "", ""},
        {"/cal/a%00.ics", DavPath::Invalid, "", ""},
        {"/cal/a%0a.ics", DavPath::Invalid, "", ""},
        {"/cal/%ff.ics", DavPath::Invalid, "", ""},      // not UTF-8
        {"/cal/%4.ics", DavPath::Invalid, "", ""},       // broken escape
        {"/cal//x.ics", DavPath::Invalid, "", ""},
        {"/a/b/c.ics", DavPath::Invalid, "", ""},
        {"cal/x.ics", DavPath::Invalid, "", ""},
    };
    for (const auto& c : cases) {
        const DavPath p = DavPath::parse(c.target);
        EXPECT_EQ(p.kind, c.kind) << c.target;
        EXPECT_EQ(p.calendar, QString::fromUtf8(c.calendar)) << c.target;
        EXPECT_EQ(p.item, QString::fromUtf8(c.item)) << c.target;
    }
    EXPECT_EQ(DavPath::itemHref(QStringLiteral("c a"), QStringLiteral("x/y.ics")), "/c%20a/x%2Fy.ics");
}

TEST(FailedPasswordGuardTest, BacksOffExponentiallyPerAddressInVirtualTime)
{
    VirtualRunLoop loop;
    FailedPasswordGuard guard([&] { return loop.now(); });
    const QByteArray a = "192.0.2.7";
    for (int i = 0; i < FailedPasswordGuard::kFreeFailures - 1; ++i)
        guard.recordFailure(a);
    EXPECT_FALSE(guard.retryAfter(a)) << "the first failures are free";
    for (int wait : {1, 2, 4, 8}) {
        guard.recordFailure(a);
        EXPECT_EQ(guard.retryAfter(a), wait);
        EXPECT_FALSE(guard.retryAfter("192.0.2.8")) << "another address is not blocked";
        loop.advance(wait - 0.5);
        EXPECT_TRUE(guard.retryAfter(a));
        loop.advance(0.5);
        EXPECT_FALSE(guard.retryAfter(a));
    }
    for (int i = 0; i < 30; ++i)
        guard.recordFailure(a);
    EXPECT_EQ(guard.retryAfter(a), int(FailedPasswordGuard::kMaxDelaySeconds));
    guard.recordSuccess(a);
    guard.recordFailure(a);
    EXPECT_FALSE(guard.retryAfter(a)) << "a right password starts the count afresh";
}

namespace {
QByteArray calendarWith(const char* components)
{
    return QByteArray("BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:t\r\n") + components + "END:VCALENDAR\r\n";
}

CompFilter eventsIn(const char* start, const char* end)
{
    CompFilter event;
    event.name = QStringLiteral("VEVENT");
    event.timeRange = TimeRange{*parseUtcDateTime(QString::fromLatin1(start)), *parseUtcDateTime(QString::fromLatin1(end))};
    CompFilter top;
    top.name = QStringLiteral("VCALENDAR");
    top.compFilters = {event};
    return top;
}
} // namespace

TEST(TimeRangeTest, MatchesInstancesOfRecurringAndSingleEvents)
{
    const QByteArray weekly = calendarWith(
        "BEGIN:VEVENT\r\nUID:w\r\nDTSTAMP:20250101T000000Z\r\nDTSTART;TZID=Europe/Berlin:20250106T090000\r\n"
        "DTEND;TZID=Europe/Berlin:20250106T100000\r\nRRULE:FREQ=WEEKLY\r\nEXDATE;TZID=Europe/Berlin:20250120T090000\r\n"
        "RDATE;TZID=Europe/Berlin:20250108T150000\r\nEND:VEVENT\r\n"
        "BEGIN:VEVENT\r\nUID:w\r\nDTSTAMP:20250101T000000Z\r\nRECURRENCE-ID;TZID=Europe/Berlin:20250113T090000\r\n"
        "DTSTART;TZID=Europe/Berlin:20250114T120000\r\nDTEND;TZID=Europe/Berlin:20250114T130000\r\nEND:VEVENT\r\n");
    const QByteArray allDay = calendarWith("BEGIN:VEVENT\r\nUID:d\r\nDTSTAMP:20250101T000000Z\r\n"
                                           "DTSTART;VALUE=DATE:20250301\r\nEND:VEVENT\r\n");
    const QByteArray instant = calendarWith("BEGIN:VEVENT\r\nUID:i\r\nDTSTAMP:20250101T000000Z\r\n"
                                            "DTSTART:20250301T120000Z\r\nEND:VEVENT\r\n");
    const struct
    {
        const QByteArray* data;
        const char* start;
        const char* end;
        bool match;
    } cases[] = {
        {&weekly, "20250106T080000Z", "20250106T083000Z", true},   // 09:00 Berlin is 08:00 UTC
        {&weekly, "20250106T090000Z", "20250106T093000Z", false},  // after the first instance's end
        {&weekly, "20250120T000000Z", "20250121T000000Z", false},  // excluded
        {&weekly, "20250113T000000Z", "20250113T235959Z", false},  // moved by its override...
        {&weekly, "20250114T110000Z", "20250114T113000Z", true},   // ...to here
        {&weekly, "20250108T140000Z", "20250108T141000Z", true},   // RDATE
        {&weekly, "20300107T080000Z", "20300107T083000Z", true},   // a Monday years later, no COUNT
        {&allDay, "20250301T230000Z", "20250302T010000Z", true},   // a date lasts the whole day
        {&allDay, "20250302T000000Z", "20250303T000000Z", false},
        {&instant, "20250301T120000Z", "20250301T120001Z", true},  // no duration: start in range
        {&instant, "20250301T110000Z", "20250301T120000Z", false}, // ends at the instant
    };
    for (const auto& c : cases)
        EXPECT_EQ(matchesFilter(*c.data, eventsIn(c.start, c.end)), c.match) << c.start << " " << c.data->left(120).constData();
}

TEST(DavXmlTest, RefusesDtdsEntitiesAndDeepNesting)
{
    XmlError error;
    EXPECT_FALSE(parsePropfind("<!DOCTYPE d [<!ENTITY x SYSTEM 'file:///etc/passwd'>]><propfind xmlns='DAV:'>"
                               "<prop><displayname>&x;</displayname></prop></propfind>", &error));
    EXPECT_EQ(error.status, 400);
    EXPECT_FALSE(parseReport(QByteArray("<a xmlns='DAV:'>").repeated(100), &error));
    EXPECT_FALSE(parsePropfind("<propfind xmlns='DAV:'><prop><x/></prop>", &error)) << "not closed";
    const auto ok = parsePropfind("<p:propfind xmlns:p='DAV:' xmlns:q='urn:ietf:params:xml:ns:caldav'><p:prop>"
                                  "<q:calendar-data/><p:getetag/></p:prop></p:propfind>", &error);
    ASSERT_TRUE(ok) << "prefixes are free, namespaces decide";
    EXPECT_TRUE(ok->props.value(0).is(ns::kCalDav, "calendar-data"));
    EXPECT_TRUE(ok->props.value(1).is(ns::kDav, "getetag"));
}
