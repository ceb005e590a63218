#pragma once

// One HTTP request as the server hands it to the handler, and the answer the handler gives back.
// Nothing here knows the HTTP library, so the handler can be driven directly (tests, fuzzing).

#include <QByteArray>
#include <QList>
#include <QPair>

namespace nimbrel::publish {

struct HttpRequest
{
    QByteArray method;
    QByteArray target;  // the request path as sent, still percent-encoded, without the query
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    QByteArray peer;    // the client's address, for the failed-password back-off

    // The first header of that name (case-insensitive), or a null array.
    QByteArray header(const QByteArray& name) const;
};

struct HttpResponse
{
    int status = 200;
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    bool headOnly = false; // a HEAD request: send the headers (with the length of body) but no body

    void setHeader(const QByteArray& name, const QByteArray& value);
    QByteArray header(const QByteArray& name) const;

    static HttpResponse text(int status, const QByteArray& message);
    static HttpResponse xml(int status, const QByteArray& body);
};

} // namespace nimbrel::publish
