#include "DavXml.h"

#include <QDateTime>
#include <QXmlStreamReader>

namespace nimbrel::publish {

bool PropName::is(const char16_t* nsUri, const char* localName) const
{
    return ns == QStringView(nsUri) && name == QLatin1StringView(localName);
}

namespace {

constexpr int kMaxDepth = 32;
constexpr int kMaxHrefs = 10000;
constexpr int kMaxFilters = 256;

bool isElement(const QXmlStreamReader& r, const char16_t* nsUri, const char* name)
{
    return r.namespaceUri() == QStringView(nsUri) && r.name() == QLatin1StringView(name);
}

// A reader that refuses DTDs and counts its depth.
class Reader
{
public:
    explicit Reader(const QByteArray& body)
        : m_r(body)
    {
        m_r.setNamespaceProcessing(true);
    }

    // Next start element, or false at the end of the current element / document / on error.
    bool nextChild()
    {
        while (!m_r.atEnd()) {
            const auto t = m_r.readNext();
            if (t == QXmlStreamReader::DTD || t == QXmlStreamReader::EntityReference) {
                m_refused = true;
                return false;
            }
            if (t == QXmlStreamReader::StartElement) {
                if (++m_depth > kMaxDepth) {
                    m_refused = true;
                    return false;
                }
                return true;
            }
            if (t == QXmlStreamReader::EndElement) {
                --m_depth;
                return false;
            }
        }
        return false;
    }

    void skip()
    {
        int level = 1;
        while (level > 0 && !m_r.atEnd()) {
            const auto t = m_r.readNext();
            if (t == QXmlStreamReader::DTD || t == QXmlStreamReader::EntityReference)
                m_refused = true;
            else if (t == QXmlStreamReader::StartElement)
                ++level;
            else if (t == QXmlStreamReader::EndElement)
                --level;
        }
        --m_depth;
    }

    QString text()
    {
        QString out;
        while (!m_r.atEnd()) {
            const auto t = m_r.readNext();
            if (t == QXmlStreamReader::Characters)
                out += m_r.text();
            else if (t == QXmlStreamReader::StartElement) {
                ++m_depth;
                skip();
            } else if (t == QXmlStreamReader::EndElement) {
                --m_depth;
                break;
            } else if (t == QXmlStreamReader::DTD || t == QXmlStreamReader::EntityReference) {
                m_refused = true;
                break;
            }
        }
        return out;
    }

    // Reads to the end so that well-formedness of the whole body is checked.
    bool finish()
    {
        while (!m_r.atEnd()) {
            const auto t = m_r.readNext();
            if (t == QXmlStreamReader::DTD || t == QXmlStreamReader::EntityReference)
                m_refused = true;
        }
        return ok();
    }

    bool ok() const { return !m_refused && (!m_r.hasError() || m_r.error() == QXmlStreamReader::NoError); }
    QXmlStreamReader& r() { return m_r; }
    QString errorText() const
    {
        return m_refused ? QStringLiteral("DTDs, entities and deep nesting are not accepted") : m_r.errorString();
    }

private:
    QXmlStreamReader m_r;
    int m_depth = 0;
    bool m_refused = false;
};

void readPropNames(Reader& reader, QList<PropName>* out)
{
    while (reader.nextChild()) {
        out->append({reader.r().namespaceUri().toString(), reader.r().name().toString()});
        reader.skip();
    }
}

bool fail(XmlError* error, int status, const QString& message, const QByteArray& precondition = {})
{
    if (error)
        *error = {status, precondition, message};
    return false;
}

std::optional<TimeRange> readTimeRange(Reader& reader)
{
    TimeRange range;
    const auto attrs = reader.r().attributes();
    bool any = false;
    for (const char* key : {"start", "end"}) {
        if (!attrs.hasAttribute(QLatin1StringView(key)))
            continue;
        const auto value = parseUtcDateTime(attrs.value(QLatin1StringView(key)).toString());
        if (!value)
            return std::nullopt;
        (key[0] == 's' ? range.start : range.end) = *value;
        any = true;
    }
    reader.skip();
    if (!any || range.start >= range.end)
        return std::nullopt;
    return range;
}

bool readCompFilter(Reader& reader, CompFilter* filter, int* count, XmlError* error)
{
    if (++*count > kMaxFilters)
        return fail(error, 403, QStringLiteral("too many filters"), "C:supported-filter");
    filter->name = reader.r().attributes().value(QLatin1StringView("name")).toString().toUpper();
    if (filter->name.isEmpty())
        return fail(error, 400, QStringLiteral("comp-filter without a name"));
    while (reader.nextChild()) {
        auto& r = reader.r();
        if (isElement(r, ns::kCalDav, "is-not-defined")) {
            filter->isNotDefined = true;
            reader.skip();
        } else if (isElement(r, ns::kCalDav, "time-range")) {
            filter->timeRange = readTimeRange(reader);
            if (!filter->timeRange)
                return fail(error, 400, QStringLiteral("malformed time-range"), "C:valid-filter");
        } else if (isElement(r, ns::kCalDav, "comp-filter")) {
            CompFilter child;
            if (!readCompFilter(reader, &child, count, error))
                return false;
            filter->compFilters.append(child);
        } else if (isElement(r, ns::kCalDav, "prop-filter")) {
            if (++*count > kMaxFilters)
                return fail(error, 403, QStringLiteral("too many filters"), "C:supported-filter");
            PropFilter prop;
            prop.name = r.attributes().value(QLatin1StringView("name")).toString().toUpper();
            while (reader.nextChild()) {
                if (isElement(r, ns::kCalDav, "is-not-defined")) {
                    prop.isNotDefined = true;
                    reader.skip();
                } else if (isElement(r, ns::kCalDav, "text-match")) {
                    TextMatch match;
                    match.negate = r.attributes().value(QLatin1StringView("negate-condition")) == QLatin1StringView("yes");
                    match.text = reader.text();
                    prop.textMatch = match;
                } else {
                    return fail(error, 403, QStringLiteral("unsupported filter"), "C:supported-filter");
                }
            }
            filter->propFilters.append(prop);
        } else {
            return fail(error, 403, QStringLiteral("unsupported filter"), "C:supported-filter");
        }
    }
    return true;
}

// <prop>, <allprop/> or nothing; other children are handed to `other`.
template <class Other>
bool readReportChildren(Reader& reader, ReportRequest* report, Other other)
{
    while (reader.nextChild()) {
        auto& r = reader.r();
        if (isElement(r, ns::kDav, "prop"))
            readPropNames(reader, &report->props);
        else if (isElement(r, ns::kDav, "allprop")) {
            report->allProp = true;
            reader.skip();
        } else if (!other())
            return false;
    }
    return true;
}

} // namespace

std::optional<qint64> parseUtcDateTime(const QString& text)
{
    const QString t = text.trimmed();
    if (t.size() != 16 || !t.endsWith(QLatin1Char('Z')) || t[8] != QLatin1Char('T'))
        return std::nullopt;
    QDateTime dt = QDateTime::fromString(t.left(15), QStringLiteral("yyyyMMdd'T'HHmmss"));
    if (!dt.isValid())
        return std::nullopt;
    dt.setTimeSpec(Qt::UTC);
    return dt.toSecsSinceEpoch();
}

std::optional<PropfindRequest> parsePropfind(const QByteArray& body, XmlError* error)
{
    PropfindRequest request;
    if (body.trimmed().isEmpty())
        return request; // no body: allprop
    Reader reader(body);
    if (!reader.nextChild() || !isElement(reader.r(), ns::kDav, "propfind")) {
        fail(error, 400, reader.ok() ? QStringLiteral("expected DAV:propfind") : reader.errorText());
        return std::nullopt;
    }
    while (reader.nextChild()) {
        auto& r = reader.r();
        if (isElement(r, ns::kDav, "prop")) {
            request.mode = PropfindRequest::Prop;
            readPropNames(reader, &request.props);
        } else if (isElement(r, ns::kDav, "propname")) {
            request.mode = PropfindRequest::PropNames;
            reader.skip();
        } else {
            reader.skip(); // allprop, include
        }
    }
    if (!reader.finish()) {
        fail(error, 400, reader.errorText());
        return std::nullopt;
    }
    return request;
}

std::optional<ReportRequest> parseReport(const QByteArray& body, XmlError* error)
{
    Reader reader(body);
    if (!reader.nextChild()) {
        fail(error, 400, reader.ok() ? QStringLiteral("empty REPORT body") : reader.errorText());
        return std::nullopt;
    }
    ReportRequest report;
    auto& r = reader.r();
    bool ok = true;
    if (isElement(r, ns::kCalDav, "calendar-multiget")) {
        report.kind = ReportRequest::Multiget;
        ok = readReportChildren(reader, &report, [&] {
            if (isElement(r, ns::kDav, "href")) {
                if (report.hrefs.size() >= kMaxHrefs)
                    return fail(error, 403, QStringLiteral("too many hrefs"), "D:number-of-matches-within-limits");
                report.hrefs.append(reader.text().trimmed().toUtf8());
            } else {
                reader.skip();
            }
            return true;
        });
    } else if (isElement(r, ns::kCalDav, "calendar-query")) {
        report.kind = ReportRequest::Query;
        ok = readReportChildren(reader, &report, [&] {
            if (!isElement(r, ns::kCalDav, "filter")) {
                reader.skip(); // timezone
                return true;
            }
            int count = 0;
            if (!reader.nextChild() || !isElement(r, ns::kCalDav, "comp-filter"))
                return fail(error, 400, QStringLiteral("filter without comp-filter"), "C:valid-filter");
            CompFilter top;
            if (!readCompFilter(reader, &top, &count, error))
                return false;
            if (top.name != QLatin1StringView("VCALENDAR"))
                return fail(error, 403, QStringLiteral("the filter must start at VCALENDAR"), "C:valid-filter");
            report.filter = top;
            while (reader.nextChild())
                reader.skip();
            return true;
        });
    } else if (isElement(r, ns::kDav, "sync-collection")) {
        report.kind = ReportRequest::SyncCollection;
        ok = readReportChildren(reader, &report, [&] {
            if (isElement(r, ns::kDav, "sync-token"))
                report.syncToken = reader.text().trimmed();
            else if (isElement(r, ns::kDav, "sync-level"))
                report.syncLevel = reader.text().trimmed().toLatin1();
            else
                reader.skip(); // limit: the answer is always complete
            return true;
        });
    } else {
        if (reader.ok())
            fail(error, 403, QStringLiteral("unsupported report"), "D:supported-report");
        else
            fail(error, 400, reader.errorText());
        return std::nullopt;
    }
    if (!ok)
        return std::nullopt;
    if (!reader.finish()) {
        fail(error, 400, reader.errorText());
        return std::nullopt;
    }
    return report;
}

} // namespace nimbrel::publish
