// Reads arbitrary bytes as a property list. Whatever is accepted must write back and read back to the
// same value, and writing that again must give the same bytes.
#include "platform/PlistCodec.h"

#include <QDateTime>
#include <QVariantList>
#include <QVariantMap>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace nimbrel;

namespace {

// Same type and same value, bit for bit (NaN equals NaN, -0.0 differs from 0.0), dates in UTC.
bool identical(const QVariant& a, const QVariant& b)
{
    if (a.typeId() != b.typeId())
        return false;
    switch (a.typeId()) {
    case QMetaType::Double: {
        const double x = a.toDouble(), y = b.toDouble();
        return std::memcmp(&x, &y, sizeof x) == 0 || (std::isnan(x) && std::isnan(y));
    }
    case QMetaType::QDateTime:
        return a == b && a.toDateTime().timeSpec() == Qt::UTC && b.toDateTime().timeSpec() == Qt::UTC;
    case QMetaType::QVariantList: {
        const QVariantList x = a.toList(), y = b.toList();
        return x.size() == y.size() && std::equal(x.begin(), x.end(), y.begin(), identical);
    }
    case QMetaType::QVariantMap: {
        const QVariantMap x = a.toMap(), y = b.toMap();
        return x.keys() == y.keys() && std::equal(x.begin(), x.end(), y.begin(), identical);
    }
    case QMetaType::Bool:
    case QMetaType::LongLong:
    case QMetaType::QString:
    case QMetaType::QByteArray:
        return a == b;
    default:
        return false; // the reader never produces anything else
    }
}

[[noreturn]] void fail(const char* what, const QString& detail, const QByteArray& xml)
{
    std::fprintf(stderr, "plist round trip: %s\n%s\n--- written ---\n%s\n", what, qPrintable(detail),
                 xml.constData());
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray input = QByteArray::fromRawData(reinterpret_cast<const char*>(data), qsizetype(size));
    plist::ParseError error;
    const std::optional<QVariant> first = plist::read(input, &error);
    if (!first) {
        if (error.message.isEmpty())
            fail("a refusal without a message", QString(), QByteArray());
        return 0;
    }
    QString writeError;
    const std::optional<QByteArray> written = plist::write(*first, &writeError);
    if (!written)
        fail("a value that was read cannot be written", writeError, QByteArray());
    const std::optional<QVariant> second = plist::read(*written, &error);
    if (!second)
        fail("the written document does not read back", error.toString(), *written);
    if (!identical(*first, *second))
        fail("the value read back differs", QString(), *written);
    if (plist::write(*second) != written)
        fail("writing the value read back gives different bytes", QString(), *written);
    return 0;
}
