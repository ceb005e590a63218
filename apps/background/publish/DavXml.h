#pragma once

// The XML bodies of PROPFIND and REPORT requests, read with QXmlStreamReader by namespace URI. A body
// with a DTD (and so any entity declaration) is refused, as is anything not well-formed.

#include <QByteArray>
#include <QList>
#include <QString>
#include <limits>
#include <optional>

namespace nimbrel::publish {

namespace ns {
inline constexpr char16_t kDav[] = u"DAV:";
inline constexpr char16_t kCalDav[] = u"urn:ietf:params:xml:ns:caldav";
inline constexpr char16_t kCalendarServer[] = u"http://calendarserver.org/ns/";
inline constexpr char16_t kAppleICal[] = u"http://apple.com/ns/ical/";
} // namespace ns

struct PropName
{
    QString ns;
    QString name;
    bool operator==(const PropName&) const = default;
    bool is(const char16_t* nsUri, const char* localName) const;
};

struct PropfindRequest
{
    enum Mode { AllProp, PropNames, Prop };
    Mode mode = AllProp;
    QList<PropName> props;
};

// Seconds since the epoch, UTC; an open end is the extreme value.
struct TimeRange
{
    qint64 start = std::numeric_limits<qint64>::min();
    qint64 end = std::numeric_limits<qint64>::max();
};

struct TextMatch
{
    QString text;
    bool negate = false;
};

struct PropFilter
{
    QString name;
    bool isNotDefined = false;
    std::optional<TextMatch> textMatch;
};

struct CompFilter
{
    QString name;
    bool isNotDefined = false;
    std::optional<TimeRange> timeRange;
    QList<PropFilter> propFilters;
    QList<CompFilter> compFilters;
};

struct ReportRequest
{
    enum Kind { Multiget, Query, SyncCollection };
    Kind kind = Multiget;
    bool allProp = false;
    QList<PropName> props;
    QList<QByteArray> hrefs;       // calendar-multiget
    std::optional<CompFilter> filter; // calendar-query
    QString syncToken;             // sync-collection; empty = initial
    QByteArray syncLevel;
};

struct XmlError
{
    int status = 400;        // 400 malformed, 403 with a precondition, 415 not XML at all
    QByteArray precondition; // e.g. "DAV:supported-report" (element in the DAV: namespace) or empty
    QString message;
};

std::optional<PropfindRequest> parsePropfind(const QByteArray& body, XmlError* error);
std::optional<ReportRequest> parseReport(const QByteArray& body, XmlError* error);

// "20060104T000000Z" → seconds since the epoch, nullopt when malformed.
std::optional<qint64> parseUtcDateTime(const QString& text);

} // namespace nimbrel::publish
