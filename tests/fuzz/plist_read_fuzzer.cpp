// Reads arbitrary bytes as a property list. Whatever is accepted must write back and read back to the
// same value, and writing that again must give the same bytes.
#include "platform/PlistCodec.h"
#include "support/PlistCompare.h"

#include <cstdio>
#include <cstdlib>

using namespace nimbrel;
using test::identical;

namespace {

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
