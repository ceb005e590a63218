#include "RequestHandler.h"

#include "ICalendarObject.h"
#include "Multistatus.h"
#include "logging/Log.h"

namespace nimbrel::publish {

namespace {

// Strong comparison of an entity tag list ("a", "b" or *) against an ETag.
bool etagListMatches(const QByteArray& list, const QByteArray& etag, bool exists)
{
    const QByteArray trimmed = list.trimmed();
    if (trimmed == "*")
        return exists;
    if (!exists)
        return false;
    for (const QByteArray& part : trimmed.split(',')) {
        const QByteArray tag = part.trimmed();
        if (!tag.startsWith("W/") && tag == etag)
            return true;
    }
    return false;
}

// 412 when If-Match or If-None-Match fails for a write.
bool writePreconditionsHold(const HttpRequest& request, const std::optional<PublishedItem>& current)
{
    const QByteArray ifMatch = request.header("If-Match");
    const QByteArray ifNoneMatch = request.header("If-None-Match");
    const QByteArray etag = current ? current->etag : QByteArray();
    if (!ifMatch.isNull() && !etagListMatches(ifMatch, etag, current.has_value()))
        return false;
    if (!ifNoneMatch.isNull() && etagListMatches(ifNoneMatch, etag, current.has_value()))
        return false;
    return true;
}

bool isItemName(const QString& name)
{
    return name.endsWith(QLatin1StringView(".ics"), Qt::CaseInsensitive) && name.size() > 4;
}

} // namespace

QString printable(const QString& text)
{
    QString out;
    out.reserve(text.size());
    for (QChar c : text.left(200)) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f)
            out += QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
        else
            out += c;
    }
    return out;
}

HttpResponse preconditionFailed(int status, const QByteArray& precondition, const QByteArray& href)
{
    return HttpResponse::xml(status, errorBody(precondition, href));
}

RequestHandler::RequestHandler(PublishedStore& store, FailedPasswordGuard& guard)
    : m_store(store)
    , m_guard(guard)
{
}

HttpResponse RequestHandler::handle(const HttpRequest& request)
{
    HttpResponse response;
    const QByteArray& m = request.method;
    const DavPath path = DavPath::parse(request.target);
    if (request.body.size() > kMaxBodyBytes)
        response = HttpResponse::text(413, "Request body too large");
    else if (path.kind == DavPath::Invalid)
        response = HttpResponse::text(400, "Bad path");
    else if (m == "OPTIONS")
        response = options();
    else if (path.kind == DavPath::WellKnown) {
        response = HttpResponse::text(301, "Moved to /");
        response.setHeader("Location", "/");
    } else if (m == "GET" || m == "HEAD")
        response = get(request, path, m == "HEAD");
    else if (m == "PUT")
        response = put(request, path);
    else if (m == "DELETE")
        response = remove(request, path);
    else if (m == "PROPFIND")
        response = propfind(request, path);
    else if (m == "REPORT")
        response = report(request, path);
    else if (m == "PROPPATCH" || m == "MKCOL" || m == "MKCALENDAR" || m == "COPY" || m == "MOVE" || m == "POST"
             || m == "LOCK" || m == "UNLOCK" || m == "ACL") {
        response = HttpResponse::text(405, "Method not allowed");
        response.setHeader("Allow", options().header("Allow"));
    } else
        response = HttpResponse::text(501, "Method not implemented");
    response.headOnly = (m == "HEAD");
    return response;
}

HttpResponse RequestHandler::options() const
{
    HttpResponse r;
    r.status = 200;
    r.setHeader("DAV", "1, 3, calendar-access");
    r.setHeader("Allow", "OPTIONS, GET, HEAD, PUT, DELETE, PROPFIND, REPORT");
    return r;
}

RequestHandler::Access RequestHandler::authorize(const HttpRequest& request, const PublishedCalendar& calendar,
                                                 Need need)
{
    Access access;
    const Credentials credentials = Credentials::fromHeader(request.header("Authorization"));
    const bool hasPasswords = !calendar.readPassword.isEmpty() || !calendar.writePassword.isEmpty();
    if (credentials.present && hasPasswords) {
        if (const auto wait = m_guard.retryAfter(request.peer)) {
            HttpResponse r = HttpResponse::text(429, "Too many wrong passwords; try again later");
            r.setHeader("Retry-After", QByteArray::number(*wait));
            access.refusal = r;
            return access;
        }
    }
    bool matched = false;
    access.privileges = privilegesFor(calendar, credentials, &matched);
    // A wrong password counts even where it was not needed: the privilege set would otherwise let a
    // client test passwords without the back-off.
    if (credentials.present && hasPasswords) {
        if (matched) {
            m_guard.recordSuccess(request.peer);
        } else {
            m_guard.recordFailure(request.peer);
            Log(10, "CalDAV: wrong password from %@", QString::fromLatin1(request.peer));
        }
    }
    const bool allowed = need == NeedNothing || (need == NeedRead && access.privileges.read)
        || (need == NeedWrite && access.privileges.write);
    if (allowed)
        return access;
    if (!credentials.present) {
        HttpResponse r = HttpResponse::text(401, "A password is needed");
        r.setHeader("WWW-Authenticate", "Basic realm=\"Nimbrel\", charset=\"UTF-8\"");
        access.refusal = r;
    } else {
        access.refusal = preconditionFailed(403, "D:need-privileges");
    }
    return access;
}

RequestHandler::Target RequestHandler::open(const HttpRequest& request, const DavPath& path, Need need)
{
    Target target;
    const auto calendar = m_store.calendar(path.calendar);
    if (!calendar) {
        target.access.refusal = HttpResponse::text(404, "No such calendar");
        return target;
    }
    target.calendar = *calendar;
    target.access = authorize(request, target.calendar, need);
    return target;
}

HttpResponse RequestHandler::get(const HttpRequest& request, const DavPath& path, bool head)
{
    Q_UNUSED(head);
    if (path.kind == DavPath::Root)
        return HttpResponse::text(200, "Nimbrel calendars. Add this address to a CalDAV calendar client.");
    const Target target = open(request, path, NeedRead);
    if (target.access.refusal)
        return *target.access.refusal;
    if (path.kind == DavPath::Calendar)
        return HttpResponse::text(405, "A calendar is read item by item");
    QByteArray etag;
    const auto data = m_store.readItem(path.calendar, path.item, &etag);
    if (!data)
        return HttpResponse::text(404, "No such item");
    const QByteArray ifNoneMatch = request.header("If-None-Match");
    HttpResponse r;
    if (!ifNoneMatch.isNull() && etagListMatches(ifNoneMatch, etag, true)) {
        r.status = 304;
    } else {
        r.status = 200;
        r.body = *data;
        r.setHeader("Content-Type", "text/calendar; charset=utf-8");
    }
    r.setHeader("ETag", etag);
    return r;
}

HttpResponse RequestHandler::put(const HttpRequest& request, const DavPath& path)
{
    if (path.kind != DavPath::Item)
        return HttpResponse::text(405, "Calendars are made on the computer that publishes them");
    const Target target = open(request, path, NeedWrite);
    if (target.access.refusal)
        return *target.access.refusal;
    if (!isItemName(path.item))
        return HttpResponse::text(403, "Item names end in .ics");
    const auto current = m_store.item(path.calendar, path.item);
    if (!writePreconditionsHold(request, current))
        return HttpResponse::text(412, "Precondition failed");
    const QByteArray type = request.header("Content-Type").trimmed().toLower();
    if (!type.isEmpty() && !type.startsWith("text/calendar"))
        return preconditionFailed(403, "C:supported-calendar-data");
    const CalendarObjectCheck check = checkCalendarObject(request.body);
    if (!check.ok)
        return preconditionFailed(403, check.precondition);
    const QString other = m_store.itemNameForComponentUid(path.calendar, check.uid);
    if (!other.isEmpty() && other != path.item)
        return preconditionFailed(409, "C:no-uid-conflict", DavPath::itemHref(path.calendar, other));
    const StoreWrite written = m_store.writeItem(path.calendar, path.item, request.body);
    if (written.status != StoreWrite::Ok) {
        Log(13, "CalDAV: could not write %@ in %@: %@", printable(path.item), printable(path.calendar),
            printable(written.error));
        return HttpResponse::text(written.status == StoreWrite::NotFound ? 404 : 500, "The item could not be stored");
    }
    HttpResponse r;
    r.status = current ? 204 : 201;
    r.setHeader("ETag", written.etag);
    return r;
}

HttpResponse RequestHandler::remove(const HttpRequest& request, const DavPath& path)
{
    if (path.kind != DavPath::Item)
        return HttpResponse::text(403, "Calendars are removed on the computer that publishes them");
    const Target target = open(request, path, NeedWrite);
    if (target.access.refusal)
        return *target.access.refusal;
    const auto current = m_store.item(path.calendar, path.item);
    if (!current)
        return HttpResponse::text(404, "No such item");
    if (!writePreconditionsHold(request, current))
        return HttpResponse::text(412, "Precondition failed");
    const StoreWrite removed = m_store.removeItem(path.calendar, path.item);
    if (removed.status == StoreWrite::NotFound)
        return HttpResponse::text(404, "No such item");
    if (removed.status != StoreWrite::Ok) {
        Log(13, "CalDAV: could not remove %@ in %@: %@", printable(path.item), printable(path.calendar),
            printable(removed.error));
        return HttpResponse::text(500, "The item could not be removed");
    }
    HttpResponse r;
    r.status = 204;
    return r;
}

} // namespace nimbrel::publish
