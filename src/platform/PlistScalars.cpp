// Text forms of the scalar values of the XML property-list format, shared by its reader and writer.
#include "platform/PlistScalars.h"

#include <QDateTime>
#include <QLocale>
#include <cmath>
#include <limits>

namespace nimbrel::plist::detail {

// A piece of the input for an error message, cut short so that a huge value cannot flood it.
QString quoted(QStringView text)
{
    constexpr qsizetype kLimit = 40;
    QString result = u'"' + text.left(kLimit).toString();
    if (text.size() > kLimit)
        result += QChar(0x2026);
    return result + u'"';
}

bool isBlank(QChar c)
{
    return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r';
}

// Decimal or 0x hexadecimal, with an optional sign; the full qint64 range including its minimum.
NumberStatus parseInteger(QStringView text, qint64* out)
{
    qsizetype pos = 0;
    bool negative = false;
    if (pos < text.size() && (text[pos] == u'+' || text[pos] == u'-'))
        negative = text[pos++] == u'-';
    int base = 10;
    if (pos + 1 < text.size() && text[pos] == u'0' && (text[pos + 1] == u'x' || text[pos + 1] == u'X')) {
        base = 16;
        pos += 2;
    }
    if (pos == text.size())
        return NumberStatus::NotANumber;
    quint64 magnitude = 0;
    bool overflow = false;
    for (; pos < text.size(); ++pos) {
        const char16_t c = text[pos].unicode();
        int digit;
        if (c >= u'0' && c <= u'9')
            digit = c - u'0';
        else if (base == 16 && c >= u'a' && c <= u'f')
            digit = c - u'a' + 10;
        else if (base == 16 && c >= u'A' && c <= u'F')
            digit = c - u'A' + 10;
        else
            return NumberStatus::NotANumber;
        if (magnitude > (std::numeric_limits<quint64>::max() - quint64(digit)) / quint64(base))
            overflow = true; // keep scanning: a later non-digit makes it "not a number" instead
        else
            magnitude = magnitude * quint64(base) + quint64(digit);
    }
    constexpr quint64 kMax = quint64(std::numeric_limits<qint64>::max());
    if (overflow || magnitude > kMax + (negative ? 1 : 0))
        return NumberStatus::Overflow;
    // Negate in unsigned arithmetic so that the minimum does not overflow on the way.
    *out = negative ? qint64(quint64(0) - magnitude) : qint64(magnitude);
    return NumberStatus::Ok;
}

std::optional<double> parseReal(QStringView text)
{
    const QString lower = text.toString().toLower();
    if (lower == QLatin1String("nan"))
        return std::numeric_limits<double>::quiet_NaN();
    QStringView body = lower;
    const bool negative = body.startsWith(u'-');
    if (negative || body.startsWith(u'+'))
        body = body.mid(1);
    if (body == QLatin1String("inf") || body == QLatin1String("infinity"))
        return negative ? -std::numeric_limits<double>::infinity() : std::numeric_limits<double>::infinity();
    bool ok = false;
    const double value = lower.toDouble(&ok); // C locale: no group separators, no hex
    if (!ok)
        return std::nullopt; // not a number, or out of the range of a double
    return value;
}

QString formatReal(double value)
{
    if (std::isnan(value))
        return QStringLiteral("nan");
    if (std::isinf(value))
        return value > 0 ? QStringLiteral("+infinity") : QStringLiteral("-infinity");
    if (value == 0 && std::signbit(value))
        return QStringLiteral("-0"); // QString::number drops the sign of zero
    return QString::number(value, 'g', QLocale::FloatingPointShortest);
}

// Dates are stored in UTC with four-digit years; anything outside cannot be written back.
bool dateInRange(const QDateTime& utc)
{
    const int year = utc.date().year();
    return year >= 1 && year <= 9999;
}

// YYYY-MM-DDThh:mm:ss[.fff][Z|±hh[:mm]]. A missing zone means UTC; more than three fraction digits
// are cut to milliseconds. Sets `outOfRange` when the date is well formed but not representable.
std::optional<QDateTime> parseDate(QStringView text, bool* outOfRange)
{
    qsizetype pos = 0;
    auto number = [&](int digits, int* out) {
        if (pos + digits > text.size())
            return false;
        int value = 0;
        for (int i = 0; i < digits; ++i) {
            const QChar c = text[pos + i];
            if (c < u'0' || c > u'9')
                return false;
            value = value * 10 + (c.unicode() - u'0');
        }
        pos += digits;
        *out = value;
        return true;
    };
    auto literal = [&](char16_t c) {
        if (pos >= text.size() || text[pos] != c)
            return false;
        ++pos;
        return true;
    };

    int year, month, day, hour, minute, second, msec = 0;
    if (!(number(4, &year) && literal(u'-') && number(2, &month) && literal(u'-') && number(2, &day) &&
          literal(u'T') && number(2, &hour) && literal(u':') && number(2, &minute) && literal(u':') &&
          number(2, &second)))
        return std::nullopt;
    if (literal(u'.') || literal(u',')) {
        const qsizetype start = pos;
        int scale = 100;
        while (pos < text.size() && text[pos] >= u'0' && text[pos] <= u'9') {
            msec += (text[pos].unicode() - u'0') * scale;
            scale /= 10;
            ++pos;
        }
        if (pos == start)
            return std::nullopt;
    }
    int offset = 0;
    if (pos < text.size() && (text[pos] == u'+' || text[pos] == u'-')) {
        const int sign = text[pos++] == u'-' ? -1 : 1;
        int offsetHours, offsetMinutes = 0;
        if (!number(2, &offsetHours))
            return std::nullopt;
        if (pos < text.size()) {
            literal(u':');
            if (!number(2, &offsetMinutes))
                return std::nullopt;
        }
        if (offsetHours > 23 || offsetMinutes > 59)
            return std::nullopt;
        offset = sign * (offsetHours * 3600 + offsetMinutes * 60);
    } else {
        literal(u'Z');
    }
    if (pos != text.size())
        return std::nullopt;
    const QDate date(year, month, day);
    const QTime time(hour, minute, second, msec);
    if (year < 1 || !date.isValid() || !time.isValid())
        return std::nullopt;
    const QDateTime utc = QDateTime(date, time, Qt::UTC).addSecs(-offset);
    if (!dateInRange(utc)) {
        *outOfRange = true;
        return std::nullopt;
    }
    return utc;
}

QString formatDate(const QDateTime& utc)
{
    const QDate date = utc.date();
    const QTime time = utc.time();
    QString text = QString::asprintf("%04d-%02d-%02dT%02d:%02d:%02d", date.year(), date.month(), date.day(),
                                     time.hour(), time.minute(), time.second());
    if (time.msec() != 0)
        text += QString::asprintf(".%03d", time.msec());
    return text + u'Z';
}

std::optional<QByteArray> parseData(QStringView text)
{
    QByteArray compact;
    compact.reserve(text.size());
    for (QChar c : text) {
        if (isBlank(c))
            continue;
        if (c.unicode() > 0x7f)
            return std::nullopt;
        compact.append(char(c.unicode()));
    }
    // A lone trailing character carries fewer than eight bits: not valid base64, although Qt allows it.
    if (compact.size() % 4 == 1)
        return std::nullopt;
    auto result = QByteArray::fromBase64Encoding(compact, QByteArray::AbortOnBase64DecodingErrors);
    if (!result)
        return std::nullopt;
    return std::move(result.decoded);
}

// The first UTF-16 unit of `text` that XML 1.0 cannot carry, or -1. Qt's writer would drop such
// characters silently (or, for unpaired surrogates, produce a broken document).
qsizetype firstForbiddenCharacter(const QString& text)
{
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char16_t c = text[i].unicode();
        if (c < 0x20) {
            if (c != u'\t' && c != u'\n' && c != u'\r')
                return i;
        } else if (QChar::isHighSurrogate(c)) {
            if (i + 1 >= text.size() || !text[i + 1].isLowSurrogate())
                return i;
            ++i;
        } else if (QChar::isLowSurrogate(c) || c == 0xfffe || c == 0xffff) {
            return i;
        }
    }
    return -1;
}

} // namespace nimbrel::plist::detail
