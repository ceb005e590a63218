// Feeds arbitrary requests to the CalDAV request handler over a small in-memory calendar. The input is
// "METHOD\nTARGET\nHeader: value\n…\n\nBODY". Whatever the request, the answer must carry a real
// status, a 207 must be well-formed XML, and nothing stored may fail the checks a PUT must pass.

#include "RequestHandler.h"
#include "ICalendarObject.h"
#include "logging/Log.h"

#include <QMap>
#include <QXmlStreamReader>
#include <cstdio>
#include <cstdlib>

using namespace nimbrel;
using namespace nimbrel::publish;

namespace {

[[noreturn]] void fail(const char* what, const QByteArray& detail)
{
    std::fprintf(stderr, "caldav request: %s\n%s\n", what, detail.constData());
    std::abort();
}

class MemoryStore : public PublishedStore
{
public:
    MemoryStore()
    {
        m_calendar = {QStringLiteral("cal"), QStringLiteral("Cal"), QStringLiteral("#336699"), {}, QStringLiteral("w"), false};
        m_items.insert(QStringLiteral("a.ics"), QByteArray("BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:f\r\nBEGIN:VEVENT\r\n"
            "UID:a\r\nDTSTAMP:20250101T000000Z\r\nDTSTART:20250106T090000Z\r\nDURATION:PT1H\r\n"
            "RRULE:FREQ=DAILY;COUNT=400\r\nEXDATE:20250107T090000Z\r\nSUMMARY:a\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n"));
        m_items.insert(QStringLiteral("b.ics"), QByteArray("BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:f\r\nBEGIN:VTODO\r\n"
            "UID:b\r\nDTSTAMP:20250101T000000Z\r\nDUE;VALUE=DATE:20250301\r\nEND:VTODO\r\nEND:VCALENDAR\r\n"));
    }
    QStringList publishedUids() const override { return {m_calendar.uid}; }
    std::optional<PublishedCalendar> calendar(const QString& uid) const override
    {
        return uid == m_calendar.uid ? std::optional(m_calendar) : std::nullopt;
    }
    QList<PublishedItem> items(const QString& uid) const override
    {
        QList<PublishedItem> out;
        for (auto it = m_items.begin(); uid == m_calendar.uid && it != m_items.end(); ++it)
            out.append({it.key(), etag(*it), it->size()});
        return out;
    }
    std::optional<PublishedItem> item(const QString& uid, const QString& name) const override
    {
        if (uid != m_calendar.uid || !m_items.contains(name))
            return std::nullopt;
        return PublishedItem{name, etag(m_items[name]), m_items[name].size()};
    }
    std::optional<QByteArray> readItem(const QString& uid, const QString& name, QByteArray* tag) const override
    {
        if (!item(uid, name))
            return std::nullopt;
        if (tag)
            *tag = etag(m_items[name]);
        return m_items[name];
    }
    QString itemNameForComponentUid(const QString&, const QString& componentUid) const override
    {
        for (auto it = m_items.begin(); it != m_items.end(); ++it) {
            if (checkCalendarObject(*it).uid == componentUid)
                return it.key();
        }
        return {};
    }
    QString syncToken(const QString&) const override { return QString::number(m_log.size()); }
    std::optional<QList<ItemChange>> changesSince(const QString&, const QString& token) const override
    {
        bool ok = false;
        const int since = token.toInt(&ok);
        if (!ok || since < 0 || since > m_log.size())
            return std::nullopt;
        return m_log.mid(since);
    }
    StoreWrite writeItem(const QString& uid, const QString& name, const QByteArray& data) override
    {
        if (uid != m_calendar.uid || !isSafeSegment(name) || !checkCalendarObject(data).ok)
            fail("the handler stored what it should have refused", name.toUtf8() + '\n' + data);
        m_items.insert(name, data);
        m_log.append({name, false});
        return {StoreWrite::Ok, etag(data), {}};
    }
    StoreWrite removeItem(const QString&, const QString& name) override
    {
        if (!m_items.remove(name))
            return {StoreWrite::NotFound, {}, {}};
        m_log.append({name, true});
        return {StoreWrite::Ok, {}, {}};
    }

private:
    static QByteArray etag(const QByteArray& data) { return '"' + QByteArray::number(qHash(data), 16) + '"'; }
    PublishedCalendar m_calendar;
    QMap<QString, QByteArray> m_items;
    QList<ItemChange> m_log;
};

HttpRequest parseInput(const QByteArray& input)
{
    HttpRequest request;
    const qsizetype split = input.indexOf("\n\n");
    const QByteArray head = split < 0 ? input : input.left(split);
    request.body = split < 0 ? QByteArray() : input.mid(split + 2);
    const QList<QByteArray> lines = head.split('\n');
    request.method = lines.value(0);
    request.target = lines.value(1);
    for (qsizetype i = 2; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon > 0)
            request.headers.append({lines[i].left(colon), lines[i].mid(colon + 1).trimmed()});
    }
    request.peer = "192.0.2.9";
    return request;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool quiet = [] {
        SetLogLevel(1000);
        return true;
    }();
    (void)quiet;
    const HttpRequest request =
        parseInput(QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)));
    MemoryStore store;
    FailedPasswordGuard guard([] { return 0.0; });
    RequestHandler handler(store, guard);
    const HttpResponse response = handler.handle(request);
    if (response.status < 200 || response.status > 599)
        fail("a status outside 200-599", QByteArray::number(response.status));
    if (response.status == 207) {
        QXmlStreamReader xml(response.body);
        while (!xml.atEnd())
            xml.readNext();
        if (xml.hasError())
            fail("a 207 that is not well-formed XML", response.body);
    }
    return 0;
}
