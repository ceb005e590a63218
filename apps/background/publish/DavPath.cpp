#include "DavPath.h"

#include <QList>
#include <QStringDecoder>
#include <QUrl>

namespace nimbrel::publish {

namespace {

constexpr int kMaxSegmentBytes = 255;

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Strict percent-decoding: a "%" must be followed by two hex digits.
bool percentDecode(const QByteArray& in, QByteArray* out)
{
    out->clear();
    out->reserve(in.size());
    for (qsizetype i = 0; i < in.size(); ++i) {
        const char c = in[i];
        if (c != '%') {
            out->append(c);
            continue;
        }
        if (i + 2 >= in.size())
            return false;
        const int hi = hexValue(in[i + 1]);
        const int lo = hexValue(in[i + 2]);
        if (hi < 0 || lo < 0)
            return false;
        out->append(char(hi * 16 + lo));
        i += 2;
    }
    return true;
}

bool decodeSegment(const QByteArray& raw, QString* out)
{
    QByteArray bytes;
    if (!percentDecode(raw, &bytes) || bytes.isEmpty() || bytes.size() > kMaxSegmentBytes)
        return false;
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    *out = decoder(bytes);
    if (decoder.hasError())
        return false;
    return isSafeSegment(*out);
}

QByteArray encodeSegment(const QString& segment)
{
    return QUrl::toPercentEncoding(segment, QByteArrayLiteral("@:!$&'()*+,;=-._~"));
}

} // namespace

bool isSafeSegment(const QString& segment)
{
    if (segment.isEmpty() || segment.startsWith(QLatin1Char('.')))
        return false;
    for (QChar c : segment) {
        const ushort u = c.unicode();
        if (u < 0x20 || u == 0x7f || u == '/' || u == '\\')
            return false;
    }
    return true;
}

DavPath DavPath::parse(const QByteArray& target)
{
    DavPath result;
    QByteArray path = target;
    // An absolute URL (hrefs may be given that way): keep its path.
    if (path.startsWith("http://") || path.startsWith("https://")) {
        const qsizetype authority = path.indexOf("//") + 2;
        const qsizetype slash = path.indexOf('/', authority);
        path = slash < 0 ? QByteArray("/") : path.mid(slash);
    }
    for (char stop : {'?', '#'}) {
        const qsizetype at = path.indexOf(stop);
        if (at >= 0)
            path.truncate(at);
    }
    if (!path.startsWith('/'))
        return result;

    QList<QByteArray> raw = path.mid(1).split('/');
    // One trailing slash is the collection form; empty segments elsewhere are not accepted.
    if (!raw.isEmpty() && raw.last().isEmpty())
        raw.removeLast();
    if (raw.isEmpty()) {
        result.kind = Root;
        return result;
    }
    if (raw.size() == 2 && raw[0] == ".well-known" && raw[1] == "caldav") {
        result.kind = WellKnown;
        return result;
    }
    if (raw.size() > 2)
        return result;
    QString segments[2];
    for (qsizetype i = 0; i < raw.size(); ++i) {
        if (!decodeSegment(raw[i], &segments[i]))
            return result;
    }
    result.calendar = segments[0];
    if (raw.size() == 2) {
        result.item = segments[1];
        result.kind = Item;
    } else {
        result.kind = Calendar;
    }
    return result;
}

QByteArray DavPath::calendarHref(const QString& uid)
{
    return '/' + encodeSegment(uid) + '/';
}

QByteArray DavPath::itemHref(const QString& uid, const QString& name)
{
    return '/' + encodeSegment(uid) + '/' + encodeSegment(name);
}

} // namespace nimbrel::publish
