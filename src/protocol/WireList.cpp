// Calendar lists as one CBOR byte array (RFC 8949, see WireCodec.h). A small encoder writes
// property-list values straight from their QVariants; a small decoder reads untrusted bytes into
// property-list values only, checking every length against what is left.

#include "logging/Log.h"
#include "platform/PlistValue.h"
#include "protocol/WireCodec.h"

#include <QDateTime>
#include <QHash>
#include <QVariantMap>
#include <cmath>
#include <cstring>
#include <limits>

namespace nimbrel::wire {

namespace {

// As deep as a message of the bus may nest, so a list that could travel as a{sv}/av can travel here.
constexpr int kMaxDepth = 32;

enum Major : quint8
{
    Unsigned = 0,
    Negative = 1,
    Bytes = 2,
    Text = 3,
    Array = 4,
    Map = 5,
    Tag = 6,
    Simple = 7,
};
constexpr quint8 kIndefinite = 31;
constexpr uchar kBreak = 0xFF;
constexpr quint64 kEpochSecondsTag = 1;

// ---- Writing ---------------------------------------------------------------------------------------

class Encoder
{
public:
    QByteArray bytes;

    void head(Major major, quint64 value)
    {
        const uchar type = uchar(major << 5);
        if (value < 24) {
            bytes.append(char(type | value));
            return;
        }
        const int size = value <= 0xFF ? 1 : value <= 0xFFFF ? 2 : value <= 0xFFFFFFFF ? 4 : 8;
        bytes.append(char(type | (size == 1 ? 24 : size == 2 ? 25 : size == 4 ? 26 : 27)));
        for (int shift = (size - 1) * 8; shift >= 0; shift -= 8)
            bytes.append(char(value >> shift));
    }
    void integer(qint64 value)
    {
        if (value >= 0)
            head(Unsigned, quint64(value));
        else
            head(Negative, quint64(-(value + 1)));
    }
    void real(double value)
    {
        quint64 bits;
        std::memcpy(&bits, &value, sizeof bits);
        bytes.append(char(Simple << 5 | 27));
        for (int shift = 56; shift >= 0; shift -= 8)
            bytes.append(char(bits >> shift));
    }
    void utf8(Major major, const QByteArray& data)
    {
        head(major, quint64(data.size()));
        bytes.append(data);
    }
    void text(const QString& value) { utf8(Text, value.toUtf8()); }

    // Writes one value; false (nothing written) for a value no property list holds.
    bool write(const QVariant& value, int depth)
    {
        switch (value.typeId()) {
        case QMetaType::Bool:
            bytes.append(char(Simple << 5 | (value.toBool() ? 21 : 20)));
            return true;
        case QMetaType::Int:
        case QMetaType::LongLong:
            integer(value.toLongLong());
            return true;
        case QMetaType::Double:
            real(value.toDouble());
            return true;
        case QMetaType::QString:
            text(value.toString());
            return true;
        case QMetaType::QByteArray:
            utf8(Bytes, value.toByteArray());
            return true;
        case QMetaType::QDateTime: {
            const QDateTime date = value.toDateTime();
            if (!date.isValid())
                return false;
            // Seconds since the epoch: whole seconds as an integer, else with the milliseconds.
            const qint64 msecs = date.toMSecsSinceEpoch();
            head(Tag, kEpochSecondsTag);
            if (msecs % 1000 == 0)
                integer(msecs / 1000);
            else
                real(double(msecs) / 1000.0);
            return true;
        }
        case QMetaType::QVariantList: {
            if (depth >= kMaxDepth)
                return false;
            // Indefinite length: an element that cannot be written is left out.
            bytes.append(char(Array << 5 | kIndefinite));
            for (const QVariant& element : value.toList()) {
                if (!write(element, depth + 1) && element.isValid())
                    Log(13, "encodeList: dropped a %s", element.metaType().name());
            }
            bytes.append(char(kBreak));
            return true;
        }
        case QMetaType::QVariantMap: {
            if (depth >= kMaxDepth)
                return false;
            const QVariantMap map = value.toMap();
            bytes.append(char(Map << 5 | kIndefinite));
            for (auto it = map.cbegin(); it != map.cend(); ++it) {
                const qsizetype mark = bytes.size();
                text(it.key());
                if (!write(it.value(), depth + 1)) {
                    bytes.truncate(mark); // no key without its value
                    if (it.value().isValid())
                        Log(13, "encodeList: dropped %@ (a %s)", it.key(), it.value().metaType().name());
                }
            }
            bytes.append(char(kBreak));
            return true;
        }
        default: {
            // Other integer widths, float, string lists, hashes: their property-list form.
            const QVariant normal = plist::normalized(value);
            return normal.isValid() && normal.typeId() != value.typeId() && write(normal, depth);
        }
        }
    }
};

// ---- Reading ---------------------------------------------------------------------------------------

class Decoder
{
public:
    explicit Decoder(const QByteArray& bytes)
        : m_at(reinterpret_cast<const uchar*>(bytes.constData())), m_end(m_at + bytes.size())
    {
    }

    std::optional<QVariantList> list(QString* error)
    {
        const uchar* const start = m_at;
        QVariant value;
        if (m_at == m_end || (*m_at >> 5) != Array)
            m_error = QStringLiteral("not a list");
        else
            value = read(0);
        if (m_error.isEmpty() && m_at != m_end)
            m_error = QStringLiteral("bytes after the list");
        if (m_error.isEmpty())
            return value.toList();
        if (error)
            *error = QStringLiteral("%1 at byte %2").arg(m_error).arg(m_at - start);
        return std::nullopt;
    }

private:
    bool fail(const char* why)
    {
        if (m_error.isEmpty())
            m_error = QLatin1String(why);
        return false;
    }

    // The initial byte's major type and argument; `indefinite` for additional information 31.
    bool head(quint8& major, quint64& argument, bool& indefinite)
    {
        if (m_at == m_end)
            return fail("the list ends early");
        const uchar initial = *m_at++;
        major = initial >> 5;
        const quint8 info = initial & 0x1F;
        indefinite = info == kIndefinite;
        if (info < 24 || indefinite) {
            argument = indefinite ? 0 : info;
            return !indefinite || (major >= Bytes && major <= Map) || fail("a stray break");
        }
        if (info > 27)
            return fail("a malformed item");
        const int size = 1 << (info - 24);
        if (m_end - m_at < size)
            return fail("the list ends early");
        argument = 0;
        for (int i = 0; i < size; ++i)
            argument = argument << 8 | *m_at++;
        return true;
    }

    bool atBreak()
    {
        if (m_at != m_end && *m_at == kBreak) {
            ++m_at;
            return true;
        }
        return false;
    }

    // A text or byte string's bytes (definite, or chunks of the same type); views into the input
    // when definite, else collected in `scratch`.
    bool string(quint8 major, quint64 length, bool indefinite, QByteArrayView& out, QByteArray& scratch)
    {
        if (!indefinite) {
            if (length > quint64(m_end - m_at))
                return fail("the list ends early");
            out = QByteArrayView(m_at, qsizetype(length));
            m_at += length;
            return true;
        }
        scratch.clear();
        while (!atBreak()) {
            quint8 chunkMajor;
            quint64 chunkLength;
            bool chunkIndefinite;
            QByteArrayView chunk;
            QByteArray unused;
            if (!head(chunkMajor, chunkLength, chunkIndefinite))
                return false;
            if (chunkMajor != major || chunkIndefinite)
                return fail("a malformed string");
            if (!string(major, chunkLength, false, chunk, unused))
                return false;
            scratch.append(chunk);
        }
        out = scratch;
        return true;
    }

    std::optional<double> real(quint8 info, quint64 bits)
    {
        if (info == 27) {
            double value;
            std::memcpy(&value, &bits, sizeof value);
            return value;
        }
        if (info == 26) {
            float value;
            const quint32 narrow = quint32(bits);
            std::memcpy(&value, &narrow, sizeof value);
            return double(value);
        }
        if (info == 25) { // half precision, by hand
            const int exponent = int(bits >> 10 & 0x1F), mantissa = int(bits & 0x3FF);
            const double magnitude = exponent == 0    ? std::ldexp(mantissa, -24)
                                     : exponent == 31 ? (mantissa ? NAN : INFINITY)
                                                      : std::ldexp(mantissa + 1024, exponent - 25);
            return bits & 0x8000 ? -magnitude : magnitude;
        }
        return std::nullopt;
    }

    QVariant read(int depth)
    {
        const uchar initial = m_at != m_end ? *m_at : 0;
        quint8 major;
        quint64 argument;
        bool indefinite;
        if (!head(major, argument, indefinite))
            return {};
        switch (major) {
        case Unsigned:
            if (argument > quint64(std::numeric_limits<qint64>::max()))
                break;
            return qint64(argument);
        case Negative:
            if (argument > quint64(std::numeric_limits<qint64>::max()))
                break;
            return qint64(-1 - qint64(argument));
        case Bytes:
        case Text: {
            QByteArrayView view;
            if (!string(major, argument, indefinite, view, m_scratch))
                return {};
            return major == Text ? QVariant(QString::fromUtf8(view)) : QVariant(view.toByteArray());
        }
        case Array: {
            if (depth >= kMaxDepth)
                break;
            QVariantList list;
            // Every element takes at least a byte: a length beyond what is left is a lie.
            if (!indefinite && argument > quint64(m_end - m_at))
                return fail("the list ends early"), QVariant();
            list.reserve(qsizetype(indefinite ? 0 : argument));
            for (quint64 n = 0; m_error.isEmpty() && (indefinite ? !atBreak() : n < argument); ++n)
                list.append(read(depth + 1));
            return list;
        }
        case Map: {
            if (depth >= kMaxDepth)
                break;
            QVariantMap map;
            if (!indefinite && argument > quint64(m_end - m_at) / 2)
                return fail("the list ends early"), QVariant();
            for (quint64 n = 0; m_error.isEmpty() && (indefinite ? !atBreak() : n < argument); ++n) {
                quint8 keyMajor;
                quint64 keyLength;
                bool keyIndefinite;
                QByteArrayView keyBytes;
                if (!head(keyMajor, keyLength, keyIndefinite))
                    return {};
                if (keyMajor != Text)
                    return fail("a key that is not text"), QVariant();
                if (!string(Text, keyLength, keyIndefinite, keyBytes, m_scratch))
                    return {};
                const QString name = plist::sharedKey(keyBytes);
                QVariant value = read(depth + 1);
                // Keys come sorted from the encoder: the end is the place to try first.
                if (m_error.isEmpty())
                    map.insert(map.cend(), name, std::move(value));
            }
            return map;
        }
        case Tag: {
            if (argument != kEpochSecondsTag || depth > kMaxDepth)
                break;
            const QVariant seconds = read(kMaxDepth + 1); // a number; containers and tags are refused
            if (!m_error.isEmpty())
                return {};
            bool ok = false;
            const double value = seconds.toDouble(&ok);
            if (!ok || seconds.typeId() == QMetaType::Bool || !(std::abs(value) < 1e14))
                break;
            return QDateTime::fromMSecsSinceEpoch(qRound64(value * 1000.0), Qt::UTC);
        }
        case Simple: {
            const quint8 info = initial & 0x1F;
            if (info == 20 || info == 21)
                return info == 21;
            if (const std::optional<double> value = real(info, argument))
                return *value;
            break;
        }
        }
        fail("a value no property list holds");
        return {};
    }

    const uchar* m_at;
    const uchar* const m_end;
    QString m_error;
    QByteArray m_scratch;
};

} // namespace

QByteArray encodeList(const QVariantList& list)
{
    Encoder encoder;
    encoder.bytes.reserve(list.size() * 256);
    encoder.write(QVariant(list), 0);
    return encoder.bytes;
}

std::optional<QVariantList> decodeList(const QByteArray& bytes, QString* error)
{
    return Decoder(bytes).list(error);
}

} // namespace nimbrel::wire
