#include "Multistatus.h"

namespace nimbrel::publish {

namespace {

void declareNamespaces(QXmlStreamWriter& w)
{
    w.writeNamespace(QStringView(ns::kDav).toString(), QStringLiteral("D"));
    w.writeNamespace(QStringView(ns::kCalDav).toString(), QStringLiteral("C"));
    w.writeNamespace(QStringView(ns::kCalendarServer).toString(), QStringLiteral("CS"));
    w.writeNamespace(QStringView(ns::kAppleICal).toString(), QStringLiteral("I"));
}

const QString& davNs()
{
    static const QString s = QStringView(ns::kDav).toString();
    return s;
}

} // namespace

QByteArray statusLine(int status)
{
    switch (status) {
    case 200: return QByteArrayLiteral("HTTP/1.1 200 OK");
    case 403: return QByteArrayLiteral("HTTP/1.1 403 Forbidden");
    case 404: return QByteArrayLiteral("HTTP/1.1 404 Not Found");
    default: return "HTTP/1.1 " + QByteArray::number(status);
    }
}

QByteArray errorBody(const QByteArray& precondition, const QByteArray& href)
{
    QByteArray body;
    QXmlStreamWriter w(&body);
    w.writeStartDocument();
    declareNamespaces(w);
    w.writeStartElement(davNs(), QStringLiteral("error"));
    const bool caldav = precondition.startsWith("C:");
    const QString nsUri = caldav ? QStringView(ns::kCalDav).toString() : davNs();
    const QString name = QString::fromLatin1(precondition.mid(precondition.indexOf(':') + 1));
    if (href.isEmpty()) {
        w.writeEmptyElement(nsUri, name);
    } else {
        w.writeStartElement(nsUri, name);
        w.writeTextElement(davNs(), QStringLiteral("href"), QString::fromUtf8(href));
        w.writeEndElement();
    }
    w.writeEndElement();
    w.writeEndDocument();
    return body;
}

Multistatus::Multistatus()
    : m_w(&m_body)
{
    m_body.reserve(64 * 1024);
    m_w.writeStartDocument();
    declareNamespaces(m_w);
    m_w.writeStartElement(davNs(), QStringLiteral("multistatus"));
}

void Multistatus::response(const QByteArray& href, const QList<PropName>& props, const PropertyWriter& write)
{
    m_w.writeStartElement(davNs(), QStringLiteral("response"));
    m_w.writeTextElement(davNs(), QStringLiteral("href"), QString::fromLatin1(href));
    QList<PropName> found;
    QList<PropName> missing;
    QList<PropName> forbidden;
    for (const PropName& p : props) {
        switch (write(nullptr, p)) {
        case PropStatus::Ok: found.append(p); break;
        case PropStatus::NotFound: missing.append(p); break;
        case PropStatus::Forbidden: forbidden.append(p); break;
        }
    }
    if (!found.isEmpty()) {
        m_w.writeStartElement(davNs(), QStringLiteral("propstat"));
        m_w.writeStartElement(davNs(), QStringLiteral("prop"));
        for (const PropName& p : found)
            write(&m_w, p);
        m_w.writeEndElement();
        m_w.writeTextElement(davNs(), QStringLiteral("status"), QString::fromLatin1(statusLine(200)));
        m_w.writeEndElement();
    }
    for (const auto& [list, status] : {std::pair{&missing, 404}, std::pair{&forbidden, 403}}) {
        if (list->isEmpty())
            continue;
        m_w.writeStartElement(davNs(), QStringLiteral("propstat"));
        m_w.writeStartElement(davNs(), QStringLiteral("prop"));
        for (const PropName& p : *list)
            m_w.writeEmptyElement(p.ns, p.name);
        m_w.writeEndElement();
        m_w.writeTextElement(davNs(), QStringLiteral("status"), QString::fromLatin1(statusLine(status)));
        m_w.writeEndElement();
    }
    m_w.writeEndElement();
}

void Multistatus::statusResponse(const QByteArray& href, int status)
{
    m_w.writeStartElement(davNs(), QStringLiteral("response"));
    m_w.writeTextElement(davNs(), QStringLiteral("href"), QString::fromLatin1(href));
    m_w.writeTextElement(davNs(), QStringLiteral("status"), QString::fromLatin1(statusLine(status)));
    m_w.writeEndElement();
}

QByteArray Multistatus::finish(const QString& syncToken)
{
    if (!syncToken.isEmpty())
        m_w.writeTextElement(davNs(), QStringLiteral("sync-token"), syncToken);
    m_w.writeEndElement();
    m_w.writeEndDocument();
    return std::move(m_body);
}

} // namespace nimbrel::publish
