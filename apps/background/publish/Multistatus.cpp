#include "Multistatus.h"

#include <QVarLengthArray>

namespace nimbrel::publish {

namespace {

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
    XmlWriter w;
    w.startDocument(davNs(), "error");
    const bool caldav = precondition.startsWith("C:");
    const QString nsUri = caldav ? QStringView(ns::kCalDav).toString() : davNs();
    const QString name = QString::fromLatin1(precondition.mid(precondition.indexOf(':') + 1));
    if (href.isEmpty()) {
        w.writeEmptyElement(nsUri, name);
    } else {
        w.writeStartElement(nsUri, name);
        w.writeTextElement(davNs(), u"href", href);
        w.writeEndElement();
    }
    w.endDocument();
    return w.take();
}

Multistatus::Multistatus()
{
    m_w.startDocument(davNs(), "multistatus");
}

void Multistatus::response(const QByteArray& href, const QList<PropName>& props, const PropertyWriter& write,
                           bool listMissing)
{
    m_w.writeStartElement(davNs(), u"response");
    m_w.writeTextElement(davNs(), u"href", href);
    QVarLengthArray<const PropName*, 16> found;
    QVarLengthArray<const PropName*, 16> missing;
    QVarLengthArray<const PropName*, 16> forbidden;
    for (const PropName& p : props) {
        switch (write(nullptr, p)) {
        case PropStatus::Ok: found.append(&p); break;
        case PropStatus::NotFound:
            if (listMissing)
                missing.append(&p);
            break;
        case PropStatus::Forbidden: forbidden.append(&p); break;
        }
    }
    if (!found.isEmpty()) {
        m_w.writeStartElement(davNs(), u"propstat");
        m_w.writeStartElement(davNs(), u"prop");
        for (const PropName* p : found)
            write(&m_w, *p);
        m_w.writeEndElement();
        m_w.writeTextElement(davNs(), u"status", statusLine(200));
        m_w.writeEndElement();
    }
    for (const auto& [list, status] : {std::pair{&missing, 404}, std::pair{&forbidden, 403}}) {
        if (list->isEmpty())
            continue;
        m_w.writeStartElement(davNs(), u"propstat");
        m_w.writeStartElement(davNs(), u"prop");
        for (const PropName* p : *list)
            m_w.writeEmptyElement(p->ns, p->name);
        m_w.writeEndElement();
        m_w.writeTextElement(davNs(), u"status", statusLine(status));
        m_w.writeEndElement();
    }
    m_w.writeEndElement();
}

void Multistatus::statusResponse(const QByteArray& href, int status)
{
    m_w.writeStartElement(davNs(), u"response");
    m_w.writeTextElement(davNs(), u"href", href);
    m_w.writeTextElement(davNs(), u"status", statusLine(status));
    m_w.writeEndElement();
}

QByteArray Multistatus::finish(const QString& syncToken)
{
    if (!syncToken.isEmpty())
        m_w.writeTextElement(davNs(), u"sync-token", syncToken);
    m_w.endDocument();
    return m_w.take();
}

} // namespace nimbrel::publish
