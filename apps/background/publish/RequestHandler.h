#pragma once

// Answers one CalDAV request from the published store. Pure request in, response out: the HTTP
// server feeds it, and tests and the fuzzer call it directly.

#include "Access.h"
#include "DavPath.h"
#include "DavXml.h"
#include "HttpMessage.h"
#include "PublishedStore.h"

namespace nimbrel::publish {

class RequestHandler
{
public:
    RequestHandler(PublishedStore& store, FailedPasswordGuard& guard);

    // The name the home shows as its displayname (the computer's published name).
    void setHomeName(const QString& name) { m_homeName = name; }

    HttpResponse handle(const HttpRequest& request);

    static constexpr qint64 kMaxBodyBytes = 8 * 1024 * 1024;

private:
    struct Access
    {
        std::optional<HttpResponse> refusal; // set when the request may not go on
        Privileges privileges;
    };
    enum Need { NeedNothing, NeedRead, NeedWrite };
    Access authorize(const HttpRequest& request, const PublishedCalendar& calendar, Need need);
    // The published calendar a request addresses, once it may do `need` there; else the refusal
    // (404 for a calendar that is not published) in `access.refusal`.
    struct Target
    {
        PublishedCalendar calendar;
        Access access;
    };
    Target open(const HttpRequest& request, const DavPath& path, Need need);

    HttpResponse options() const;
    HttpResponse get(const HttpRequest& request, const DavPath& path, bool head);
    HttpResponse put(const HttpRequest& request, const DavPath& path);
    HttpResponse remove(const HttpRequest& request, const DavPath& path);
    HttpResponse propfind(const HttpRequest& request, const DavPath& path);
    HttpResponse report(const HttpRequest& request, const DavPath& path);

    HttpResponse propfindHome(const HttpRequest& request, const PropfindRequest& body, int depth);
    void propfindCalendar(class Multistatus& out, const PublishedCalendar& calendar, const Privileges& privileges,
                          const PropfindRequest& body, int depth);
    HttpResponse multiget(const PublishedCalendar& calendar, const Privileges& privileges, const ReportRequest& r);
    HttpResponse query(const PublishedCalendar& calendar, const Privileges& privileges, const ReportRequest& r);
    HttpResponse syncCollection(const PublishedCalendar& calendar, const Privileges& privileges,
                                const ReportRequest& r);

    PublishedStore& m_store;
    FailedPasswordGuard& m_guard;
    QString m_homeName;
};

// For requests that must not go on: a short text answer, or one with a DAV:error body.
HttpResponse preconditionFailed(int status, const QByteArray& precondition, const QByteArray& href = {});

// Escapes text from outside (paths, names) for a log line.
QString printable(const QString& text);

} // namespace nimbrel::publish
