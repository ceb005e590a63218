#include "DavProperties.h"

#include "DavPath.h"

namespace nimbrel::publish {

namespace {

using PropStatus = Multistatus::PropStatus;

const QString kSyncPrefix = QStringLiteral("urn:x-nimbrel:sync:");

QString davUri()
{
    return QStringView(ns::kDav).toString();
}
QString calUri()
{
    return QStringView(ns::kCalDav).toString();
}

void hrefProperty(XmlWriter& w, const PropName& p, const QByteArray& href)
{
    w.writeStartElement(p.ns, p.name);
    w.writeTextElement(davUri(), u"href", href);
    w.writeEndElement();
}

void privilegeSet(XmlWriter& w, const PropName& p, const Privileges& privileges)
{
    w.writeStartElement(p.ns, p.name);
    auto privilege = [&](const char* name) {
        w.writeStartElement(davUri(), QStringLiteral("privilege"));
        w.writeEmptyElement(davUri(), QString::fromLatin1(name));
        w.writeEndElement();
    };
    if (privileges.read) {
        privilege("read");
        privilege("read-current-user-privilege-set");
    }
    if (privileges.write) {
        privilege("write");
        privilege("write-content");
        privilege("bind");
        privilege("unbind");
    }
    w.writeEndElement();
}

void reportSet(XmlWriter& w, const PropName& p)
{
    w.writeStartElement(p.ns, p.name);
    for (const auto& [nsUri, name] : {std::pair{calUri(), "calendar-multiget"}, std::pair{calUri(), "calendar-query"},
                                      std::pair{davUri(), "sync-collection"}}) {
        w.writeStartElement(davUri(), QStringLiteral("supported-report"));
        w.writeStartElement(davUri(), QStringLiteral("report"));
        w.writeEmptyElement(nsUri, QString::fromLatin1(name));
        w.writeEndElement();
        w.writeEndElement();
    }
    w.writeEndElement();
}

PropStatus writeText(XmlWriter* w, const PropName& p, const QString& text)
{
    if (w)
        w->writeTextElement(p.ns, p.name, text);
    return PropStatus::Ok;
}

PropStatus commonProperty(XmlWriter* w, const PropName& p, const ResourceView& v)
{
    if (p.is(ns::kDav, "current-user-principal") || p.is(ns::kDav, "principal-URL")
        || p.is(ns::kCalDav, "calendar-home-set")) {
        if (p.is(ns::kDav, "principal-URL") && v.kind != ResourceView::Home)
            return PropStatus::NotFound;
        if (w)
            hrefProperty(*w, p, "/");
        return PropStatus::Ok;
    }
    if (p.is(ns::kDav, "current-user-privilege-set")) {
        if (w)
            privilegeSet(*w, p, v.privileges);
        return PropStatus::Ok;
    }
    return PropStatus::NotFound;
}

PropStatus homeProperty(XmlWriter* w, const PropName& p, const ResourceView& v)
{
    if (p.is(ns::kDav, "resourcetype")) {
        if (w) {
            w->writeStartElement(p.ns, p.name);
            w->writeEmptyElement(davUri(), QStringLiteral("collection"));
            w->writeEmptyElement(davUri(), QStringLiteral("principal"));
            w->writeEndElement();
        }
        return PropStatus::Ok;
    }
    if (p.is(ns::kDav, "displayname"))
        return writeText(w, p, v.homeName);
    return commonProperty(w, p, v);
}

PropStatus calendarProperty(XmlWriter* w, const PropName& p, const ResourceView& v)
{
    const PublishedCalendar& c = *v.calendar;
    if (p.is(ns::kDav, "resourcetype")) {
        if (w) {
            w->writeStartElement(p.ns, p.name);
            w->writeEmptyElement(davUri(), QStringLiteral("collection"));
            w->writeEmptyElement(calUri(), QStringLiteral("calendar"));
            w->writeEndElement();
        }
        return PropStatus::Ok;
    }
    if (p.is(ns::kDav, "displayname"))
        return writeText(w, p, c.title);
    if (p.is(ns::kAppleICal, "calendar-color"))
        return c.color.isEmpty() ? PropStatus::NotFound : writeText(w, p, c.color);
    if (p.is(ns::kCalDav, "supported-calendar-component-set")) {
        if (w) {
            w->writeStartElement(p.ns, p.name);
            for (const char* name : {"VEVENT", "VTODO", "VJOURNAL"}) {
                w->writeEmptyElement(calUri(), QStringLiteral("comp"));
                w->writeAttribute("name", QString::fromLatin1(name));
            }
            w->writeEndElement();
        }
        return PropStatus::Ok;
    }
    if (p.is(ns::kCalDav, "supported-calendar-data")) {
        if (w) {
            w->writeStartElement(p.ns, p.name);
            w->writeEmptyElement(calUri(), QStringLiteral("calendar-data"));
            w->writeAttribute("content-type", u"text/calendar");
            w->writeAttribute("version", u"2.0");
            w->writeEndElement();
        }
        return PropStatus::Ok;
    }
    if (p.is(ns::kCalDav, "max-resource-size"))
        return writeText(w, p, QString::number(kMaxResourceSize));
    if (p.is(ns::kDav, "supported-report-set")) {
        if (w)
            reportSet(*w, p);
        return PropStatus::Ok;
    }
    if (p.is(ns::kCalendarServer, "getctag") || p.is(ns::kDav, "sync-token")) {
        if (!v.privileges.read)
            return PropStatus::Forbidden;
        return writeText(w, p, v.syncToken);
    }
    return commonProperty(w, p, v);
}

PropStatus itemProperty(XmlWriter* w, const PropName& p, const ResourceView& v)
{
    if (p.is(ns::kDav, "resourcetype")) {
        if (w)
            w->writeEmptyElement(p.ns, p.name);
        return PropStatus::Ok;
    }
    if (p.is(ns::kDav, "getetag")) {
        if (w)
            w->writeTextElement(p.ns, p.name, v.item->etag);
        return PropStatus::Ok;
    }
    if (p.is(ns::kDav, "getcontenttype"))
        return writeText(w, p, QStringLiteral("text/calendar; charset=utf-8"));
    if (p.is(ns::kDav, "getcontentlength"))
        return v.item->size < 0 ? PropStatus::NotFound : writeText(w, p, QString::number(v.item->size));
    if (p.is(ns::kCalDav, "calendar-data")) {
        if (!v.calendarData)
            return PropStatus::NotFound;
        if (w)
            w->writeTextElement(p.ns, p.name, *v.calendarData);
        return PropStatus::Ok;
    }
    return commonProperty(w, p, v);
}

QList<PropName> names(std::initializer_list<std::pair<const char16_t*, const char*>> list)
{
    QList<PropName> out;
    for (const auto& [nsUri, name] : list)
        out.append({QStringView(nsUri).toString(), QString::fromLatin1(name)});
    return out;
}

} // namespace

Multistatus::PropStatus writeProperty(XmlWriter* w, const PropName& prop, const ResourceView& view)
{
    switch (view.kind) {
    case ResourceView::Home: return homeProperty(w, prop, view);
    case ResourceView::Calendar: return calendarProperty(w, prop, view);
    case ResourceView::Item: return itemProperty(w, prop, view);
    }
    return PropStatus::NotFound;
}

const QList<PropName>& allProperties(ResourceView::Kind kind)
{
    static const QList<PropName> home = names({{ns::kDav, "resourcetype"}, {ns::kDav, "displayname"},
        {ns::kDav, "current-user-principal"}, {ns::kDav, "principal-URL"}, {ns::kCalDav, "calendar-home-set"},
        {ns::kDav, "current-user-privilege-set"}});
    static const QList<PropName> calendar = names({{ns::kDav, "resourcetype"}, {ns::kDav, "displayname"},
        {ns::kAppleICal, "calendar-color"}, {ns::kCalDav, "supported-calendar-component-set"},
        {ns::kCalDav, "supported-calendar-data"}, {ns::kCalDav, "max-resource-size"},
        {ns::kDav, "supported-report-set"}, {ns::kCalendarServer, "getctag"}, {ns::kDav, "sync-token"},
        {ns::kDav, "current-user-principal"}, {ns::kDav, "current-user-privilege-set"}});
    static const QList<PropName> item = names({{ns::kDav, "resourcetype"}, {ns::kDav, "getetag"},
        {ns::kDav, "getcontenttype"}, {ns::kDav, "getcontentlength"}});
    switch (kind) {
    case ResourceView::Home: return home;
    case ResourceView::Calendar: return calendar;
    case ResourceView::Item: return item;
    }
    return home;
}

QString syncTokenUri(const QString& token)
{
    return kSyncPrefix + token;
}

std::optional<QString> storeTokenFromUri(const QString& uri)
{
    if (!uri.startsWith(kSyncPrefix))
        return std::nullopt;
    return uri.mid(kSyncPrefix.size());
}

} // namespace nimbrel::publish
