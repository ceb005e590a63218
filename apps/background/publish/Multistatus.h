#pragma once

// Writes a DAV:multistatus body: one response per resource, its properties grouped by status.

#include "DavXml.h"

#include <QByteArray>
#include "XmlWriter.h"

#include <functional>

namespace nimbrel::publish {

class Multistatus
{
public:
    Multistatus();
    // Room for about `responses` responses, so that large answers grow once.
    void expect(qsizetype responses) { m_w.reserve(responses * 320); }

    // One resource. `write` is asked about each property with a null writer first (it only answers
    // the status), then called with the writer for the ones it has; the others land in a 404
    // (unknown) or 403 (not allowed) propstat.
    enum class PropStatus { Ok, NotFound, Forbidden };
    using PropertyWriter = std::function<PropStatus(XmlWriter*, const PropName&)>;
    // With `listMissing` false (allprop), properties the resource lacks are left out instead.
    void response(const QByteArray& href, const QList<PropName>& props, const PropertyWriter& write,
                  bool listMissing = true);
    // A resource reported by status alone (a missing href, a removed item).
    void statusResponse(const QByteArray& href, int status);

    QByteArray finish(const QString& syncToken = {});

private:
    XmlWriter m_w;
};

QByteArray statusLine(int status);

// <D:error><ns:precondition/></D:error>; `precondition` is "D:name" or "C:name".
QByteArray errorBody(const QByteArray& precondition, const QByteArray& href = {});

} // namespace nimbrel::publish
