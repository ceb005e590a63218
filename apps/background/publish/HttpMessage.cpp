#include "HttpMessage.h"

namespace nimbrel::publish {

namespace {
QByteArray findHeader(const QList<QPair<QByteArray, QByteArray>>& headers, const QByteArray& name)
{
    for (const auto& [key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value.isNull() ? QByteArray("") : value;
    }
    return {};
}
} // namespace

QByteArray HttpRequest::header(const QByteArray& name) const
{
    return findHeader(headers, name);
}

QByteArray HttpResponse::header(const QByteArray& name) const
{
    return findHeader(headers, name);
}

void HttpResponse::setHeader(const QByteArray& name, const QByteArray& value)
{
    for (auto& [key, v] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0) {
            v = value;
            return;
        }
    }
    headers.append({name, value});
}

HttpResponse HttpResponse::text(int status, const QByteArray& message)
{
    HttpResponse r;
    r.status = status;
    r.body = message + '\n';
    r.setHeader("Content-Type", "text/plain; charset=utf-8");
    return r;
}

HttpResponse HttpResponse::xml(int status, const QByteArray& body)
{
    HttpResponse r;
    r.status = status;
    r.body = body;
    r.setHeader("Content-Type", "application/xml; charset=utf-8");
    return r;
}

} // namespace nimbrel::publish
