// PROPFIND and REPORT: the read side of the CalDAV server.

#include "DavProperties.h"
#include "ICalendarObject.h"
#include "Multistatus.h"
#include "RequestHandler.h"

namespace nimbrel::publish {

namespace {

// Depth of a request: 0, 1, or -1 for a value that is refused (infinity) or malformed (-2).
int parseDepth(const QByteArray& header)
{
    const QByteArray d = header.trimmed().toLower();
    if (d.isNull() || d == "0")
        return 0;
    if (d == "1")
        return 1;
    if (d == "infinity")
        return -1;
    return -2;
}

HttpResponse xmlError(const XmlError& e)
{
    if (!e.precondition.isEmpty())
        return preconditionFailed(e.status, e.precondition);
    return HttpResponse::text(e.status, "Malformed request body: " + printable(e.message).toUtf8());
}

const QList<PropName>& propsOf(const PropfindRequest& body, ResourceView::Kind kind)
{
    return body.mode == PropfindRequest::Prop ? body.props : allProperties(kind);
}

bool wantsCalendarData(const QList<PropName>& props)
{
    for (const PropName& p : props) {
        if (p.is(ns::kCalDav, "calendar-data"))
            return true;
    }
    return false;
}

HttpResponse multistatus(Multistatus& out, const QString& syncToken = {})
{
    return HttpResponse::xml(207, out.finish(syncToken));
}

// propname: every property named, with no value.
Multistatus::PropertyWriter nameOnly()
{
    return [](XmlWriter* w, const PropName& p) {
        if (w)
            w->writeEmptyElement(p.ns, p.name);
        return Multistatus::PropStatus::Ok;
    };
}

} // namespace

HttpResponse RequestHandler::propfind(const HttpRequest& request, const DavPath& path)
{
    const int depth = parseDepth(request.header("Depth"));
    if (depth == -1)
        return preconditionFailed(403, "D:propfind-finite-depth");
    if (depth < 0)
        return HttpResponse::text(400, "Bad Depth header");
    XmlError error;
    const auto body = parsePropfind(request.body, &error);
    if (!body)
        return xmlError(error);
    if (path.kind == DavPath::Root)
        return propfindHome(request, *body, depth);

    const Target target = open(request, path, NeedRead);
    if (target.access.refusal)
        return *target.access.refusal;
    const PublishedCalendar& calendar = target.calendar;
    const Access& access = target.access;
    Multistatus out;
    if (path.kind == DavPath::Calendar) {
        propfindCalendar(out, calendar, access.privileges, *body, depth);
        return multistatus(out);
    }
    const auto item = m_store.item(path.calendar, path.item);
    if (!item)
        return HttpResponse::text(404, "No such item");
    ResourceView view{ResourceView::Item, m_homeName, &calendar, access.privileges, {}, &*item, nullptr};
    QByteArray data;
    const QList<PropName>& props = propsOf(*body, ResourceView::Item);
    if (wantsCalendarData(props)) {
        const auto read = m_store.readItem(path.calendar, path.item);
        data = read.value_or(QByteArray());
        view.calendarData = read ? &data : nullptr;
    }
    out.response(DavPath::itemHref(path.calendar, path.item), props,
                 body->mode == PropfindRequest::PropNames
                     ? nameOnly()
                     : [&](XmlWriter* w, const PropName& p) { return writeProperty(w, p, view); },
                 body->mode == PropfindRequest::Prop);
    return multistatus(out);
}

HttpResponse RequestHandler::propfindHome(const HttpRequest& request, const PropfindRequest& body, int depth)
{
    const Credentials credentials = Credentials::fromHeader(request.header("Authorization"));
    Multistatus out;
    ResourceView home{ResourceView::Home, m_homeName, nullptr, {true, false}, {}, nullptr, nullptr};
    const auto homeWriter = body.mode == PropfindRequest::PropNames
        ? nameOnly()
        : [&](XmlWriter* w, const PropName& p) { return writeProperty(w, p, home); };
    out.response("/", propsOf(body, ResourceView::Home), homeWriter);
    if (depth == 0)
        return multistatus(out);

    QList<PublishedCalendar> calendars;
    bool anyPasswords = false;
    for (const QString& uid : m_store.publishedUids()) {
        if (auto c = m_store.calendar(uid)) {
            anyPasswords = anyPasswords || !c->readPassword.isEmpty() || !c->writePassword.isEmpty();
            calendars.append(*c);
        }
    }
    const bool checkPassword = credentials.present && anyPasswords;
    if (checkPassword) {
        if (const auto wait = m_guard.retryAfter(request.peer)) {
            HttpResponse r = HttpResponse::text(429, "Too many wrong passwords; try again later");
            r.setHeader("Retry-After", QByteArray::number(*wait));
            return r;
        }
    }
    // Every published calendar is listed, with what these credentials may do in it.
    bool matchedAny = false;
    for (const PublishedCalendar& c : calendars) {
        bool matched = false;
        const Privileges privileges = privilegesFor(c, credentials, &matched);
        matchedAny = matchedAny || matched;
        ResourceView view{ResourceView::Calendar, m_homeName, &c, privileges,
                          privileges.read ? syncTokenUri(m_store.syncToken(c.uid)) : QString(), nullptr, nullptr};
        out.response(DavPath::calendarHref(c.uid), propsOf(body, ResourceView::Calendar),
                     body.mode == PropfindRequest::PropNames
                         ? nameOnly()
                         : [&](XmlWriter* w, const PropName& p) { return writeProperty(w, p, view); },
                     body.mode == PropfindRequest::Prop);
    }
    if (checkPassword) {
        if (matchedAny)
            m_guard.recordSuccess(request.peer);
        else
            m_guard.recordFailure(request.peer);
    }
    return multistatus(out);
}

void RequestHandler::propfindCalendar(Multistatus& out, const PublishedCalendar& calendar,
                                      const Privileges& privileges, const PropfindRequest& body, int depth)
{
    ResourceView view{ResourceView::Calendar, m_homeName, &calendar, privileges,
                      syncTokenUri(m_store.syncToken(calendar.uid)), nullptr, nullptr};
    const bool names = body.mode == PropfindRequest::PropNames;
    out.response(DavPath::calendarHref(calendar.uid), propsOf(body, ResourceView::Calendar),
                 names ? nameOnly()
                       : [&](XmlWriter* w, const PropName& p) { return writeProperty(w, p, view); },
                 body.mode == PropfindRequest::Prop);
    if (depth == 0)
        return;
    const QList<PropName>& props = propsOf(body, ResourceView::Item);
    const bool withData = wantsCalendarData(props);
    const QList<PublishedItem> items = m_store.items(calendar.uid);
    out.expect(items.size() * (withData ? 4 : 1));
    for (const PublishedItem& item : items) {
        ResourceView itemView{ResourceView::Item, m_homeName, &calendar, privileges, {}, &item, nullptr};
        QByteArray data;
        if (withData) {
            const auto read = m_store.readItem(calendar.uid, item.name);
            data = read.value_or(QByteArray());
            itemView.calendarData = read ? &data : nullptr;
        }
        out.response(DavPath::itemHref(calendar.uid, item.name), props,
                     names ? nameOnly()
                           : [&](XmlWriter* w, const PropName& p) { return writeProperty(w, p, itemView); },
                     body.mode == PropfindRequest::Prop);
    }
}

HttpResponse RequestHandler::report(const HttpRequest& request, const DavPath& path)
{
    if (parseDepth(request.header("Depth")) == -2)
        return HttpResponse::text(400, "Bad Depth header");
    XmlError error;
    const auto body = parseReport(request.body, &error);
    if (!body)
        return xmlError(error);
    if (path.kind != DavPath::Calendar)
        return preconditionFailed(403, "D:supported-report");
    const Target target = open(request, path, NeedRead);
    if (target.access.refusal)
        return *target.access.refusal;
    const Privileges& privileges = target.access.privileges;
    switch (body->kind) {
    case ReportRequest::Multiget: return multiget(target.calendar, privileges, *body);
    case ReportRequest::Query: return query(target.calendar, privileges, *body);
    case ReportRequest::SyncCollection: return syncCollection(target.calendar, privileges, *body);
    }
    return preconditionFailed(403, "D:supported-report");
}

namespace {

// Writes one item of a report with the requested properties (allprop: the item's usual ones).
void reportItem(Multistatus& out, const ResourceView& base, const QString& calendarUid, const PublishedItem& item,
                const QList<PropName>& props, const QByteArray* data)
{
    ResourceView view = base;
    view.kind = ResourceView::Item;
    view.item = &item;
    view.calendarData = data;
    out.response(DavPath::itemHref(calendarUid, item.name), props,
                 [&](XmlWriter* w, const PropName& p) { return writeProperty(w, p, view); });
}

const QList<PropName>& reportProps(const ReportRequest& r)
{
    return r.props.isEmpty() || r.allProp ? allProperties(ResourceView::Item) : r.props;
}

} // namespace

HttpResponse RequestHandler::multiget(const PublishedCalendar& calendar, const Privileges& privileges,
                                      const ReportRequest& r)
{
    Multistatus out;
    const ResourceView base{ResourceView::Item, m_homeName, &calendar, privileges, {}, nullptr, nullptr};
    const QList<PropName>& props = reportProps(r);
    const bool withData = wantsCalendarData(props);
    out.expect(r.hrefs.size() * (withData ? 4 : 1));
    for (const QByteArray& href : r.hrefs) {
        const DavPath path = DavPath::parse(href);
        if (path.kind != DavPath::Item || path.calendar != calendar.uid) {
            out.statusResponse(href.toPercentEncoding("/:@!$&'()*+,;=-._~%"), 404);
            continue;
        }
        QByteArray etag;
        std::optional<QByteArray> data;
        std::optional<PublishedItem> item;
        if (withData) {
            data = m_store.readItem(calendar.uid, path.item, &etag);
            if (data)
                item = PublishedItem{path.item, etag, data->size()};
        } else {
            item = m_store.item(calendar.uid, path.item);
        }
        if (!item) {
            out.statusResponse(DavPath::itemHref(calendar.uid, path.item), 404);
            continue;
        }
        reportItem(out, base, calendar.uid, *item, props, data ? &*data : nullptr);
    }
    return multistatus(out);
}

HttpResponse RequestHandler::query(const PublishedCalendar& calendar, const Privileges& privileges,
                                   const ReportRequest& r)
{
    Multistatus out;
    const ResourceView base{ResourceView::Item, m_homeName, &calendar, privileges, {}, nullptr, nullptr};
    const QList<PropName>& props = reportProps(r);
    const bool withData = wantsCalendarData(props);
    for (const PublishedItem& item : m_store.items(calendar.uid)) {
        const auto data = (r.filter || withData) ? m_store.readItem(calendar.uid, item.name) : std::nullopt;
        if (r.filter && (!data || !matchesFilter(*data, *r.filter)))
            continue;
        reportItem(out, base, calendar.uid, item, props, data ? &*data : nullptr);
    }
    return multistatus(out);
}

HttpResponse RequestHandler::syncCollection(const PublishedCalendar& calendar, const Privileges& privileges,
                                            const ReportRequest& r)
{
    if (!r.syncLevel.isEmpty() && r.syncLevel != "1" && r.syncLevel != "infinite")
        return HttpResponse::text(400, "Bad sync-level");
    const QString current = m_store.syncToken(calendar.uid);
    Multistatus out;
    const ResourceView base{ResourceView::Item, m_homeName, &calendar, privileges, {}, nullptr, nullptr};
    const QList<PropName>& props = reportProps(r);
    const bool withData = wantsCalendarData(props);
    auto writeItem = [&](const PublishedItem& item) {
        std::optional<QByteArray> data;
        if (withData)
            data = m_store.readItem(calendar.uid, item.name);
        reportItem(out, base, calendar.uid, item, props, data ? &*data : nullptr);
    };
    if (r.syncToken.isEmpty()) {
        const QList<PublishedItem> items = m_store.items(calendar.uid);
        out.expect(items.size() * (withData ? 4 : 1));
        for (const PublishedItem& item : items)
            writeItem(item);
        return multistatus(out, syncTokenUri(current));
    }
    const auto token = storeTokenFromUri(r.syncToken);
    const auto changes = token ? m_store.changesSince(calendar.uid, *token) : std::nullopt;
    if (!changes)
        return preconditionFailed(403, "D:valid-sync-token");
    for (const ItemChange& change : *changes) {
        const auto item = change.deleted ? std::nullopt : m_store.item(calendar.uid, change.name);
        if (!item)
            out.statusResponse(DavPath::itemHref(calendar.uid, change.name), 404);
        else
            writeItem(*item);
    }
    return multistatus(out, syncTokenUri(current));
}

} // namespace nimbrel::publish
