// The reader of the XML property-list format.
#include "platform/PlistCodec.h"
#include "platform/PlistScalars.h"

#include <QFile>
#include <QVariantList>
#include <QVariantMap>
#include <QXmlStreamReader>

namespace nimbrel::plist {

using namespace detail;

QString ParseError::toString() const
{
    if (line <= 0)
        return message;
    return QStringLiteral("line %1: %2").arg(line).arg(message);
}

namespace {

class Reader
{
public:
    explicit Reader(const QByteArray& xml) : xml_(xml) {}
    std::optional<QVariant> run();

    ParseError error;

private:
    bool fail(const QString& message, qint64 line = 0);
    bool failXml();
    bool next(QXmlStreamReader::TokenType* token);
    bool readValue(QVariant* out, int depth);
    bool readArray(QVariant* out, int depth);
    bool readDict(QVariant* out, int depth);
    bool readText(QString* out);
    bool readScalar(const QString& name, QVariant* out);

    QXmlStreamReader xml_;
};

bool Reader::fail(const QString& message, qint64 line)
{
    if (error.message.isEmpty()) {
        error.message = message;
        error.line = line > 0 ? line : xml_.lineNumber();
        error.column = line > 0 ? 0 : xml_.columnNumber();
    }
    return false;
}

bool Reader::failXml()
{
    return fail(QStringLiteral("malformed XML: %1").arg(xml_.errorString()));
}

// Moves to the next element boundary, skipping comments, processing instructions and whitespace.
bool Reader::next(QXmlStreamReader::TokenType* token)
{
    for (;;) {
        switch (xml_.readNext()) {
        case QXmlStreamReader::Invalid:
            return failXml();
        case QXmlStreamReader::StartDocument:
        case QXmlStreamReader::Comment:
        case QXmlStreamReader::ProcessingInstruction:
        case QXmlStreamReader::NoToken:
            continue;
        case QXmlStreamReader::DTD:
            // Property lists never declare entities; refusing them outright rules out expansion bombs
            // (the reader's per-entity limit does not bound many references to one large entity).
            if (!xml_.entityDeclarations().isEmpty())
                return fail(
                    QStringLiteral("the document declares XML entities, which property lists do not use"));
            continue;
        case QXmlStreamReader::EntityReference:
            return fail(QStringLiteral("unresolved entity reference &%1;").arg(xml_.name()));
        case QXmlStreamReader::Characters:
            if (xml_.isWhitespace())
                continue;
            return fail(QStringLiteral("text %1 outside of a value").arg(quoted(xml_.text().trimmed())));
        case QXmlStreamReader::StartElement:
        case QXmlStreamReader::EndElement:
        case QXmlStreamReader::EndDocument:
            *token = xml_.tokenType();
            return true;
        }
    }
}

std::optional<QVariant> Reader::run()
{
    QXmlStreamReader::TokenType token;
    if (!next(&token))
        return std::nullopt;
    if (token != QXmlStreamReader::StartElement) {
        fail(QStringLiteral("the document holds no value"));
        return std::nullopt;
    }
    QVariant result;
    if (xml_.name() == QLatin1String("plist")) {
        const qint64 line = xml_.lineNumber();
        if (!next(&token))
            return std::nullopt;
        if (token != QXmlStreamReader::StartElement) {
            fail(QStringLiteral("<plist> is empty"), line);
            return std::nullopt;
        }
        if (!readValue(&result, 0) || !next(&token))
            return std::nullopt;
        if (token == QXmlStreamReader::StartElement) {
            fail(QStringLiteral("<plist> holds more than one value"));
            return std::nullopt;
        }
    } else if (!readValue(&result, 0)) {
        return std::nullopt;
    }
    // Read to the end so that anything malformed after the value is still reported.
    while (!xml_.atEnd()) {
        if (!next(&token))
            return std::nullopt;
        if (token == QXmlStreamReader::EndDocument)
            break;
    }
    return result;
}

// Called on the start tag of a value; returns on its end tag. `depth` counts the enclosing containers.
bool Reader::readValue(QVariant* out, int depth)
{
    const QString name = xml_.name().toString();
    if (name == QLatin1String("array") || name == QLatin1String("dict")) {
        if (depth >= kMaxDepth)
            return fail(
                QStringLiteral("arrays and dictionaries are nested deeper than %1 levels").arg(kMaxDepth));
        return name == QLatin1String("dict") ? readDict(out, depth) : readArray(out, depth);
    }
    return readScalar(name, out);
}

bool Reader::readArray(QVariant* out, int depth)
{
    QVariantList list;
    QXmlStreamReader::TokenType token;
    for (;;) {
        if (!next(&token))
            return false;
        if (token == QXmlStreamReader::EndElement)
            break;
        QVariant element;
        if (!readValue(&element, depth + 1))
            return false;
        list.append(std::move(element));
    }
    *out = std::move(list);
    return true;
}

// A later duplicate key replaces the earlier one.
bool Reader::readDict(QVariant* out, int depth)
{
    QVariantMap map;
    QXmlStreamReader::TokenType token;
    for (;;) {
        if (!next(&token))
            return false;
        if (token == QXmlStreamReader::EndElement)
            break;
        if (xml_.name() != QLatin1String("key"))
            return fail(QStringLiteral("<%1> inside <dict> must follow a <key>").arg(xml_.name()));
        const qint64 keyLine = xml_.lineNumber();
        QString key;
        if (!readText(&key) || !next(&token))
            return false;
        if (token == QXmlStreamReader::EndElement || xml_.name() == QLatin1String("key"))
            return fail(QStringLiteral("<key> %1 has no value").arg(quoted(key)), keyLine);
        QVariant value;
        if (!readValue(&value, depth + 1))
            return false;
        map.insert(key, std::move(value));
    }
    *out = std::move(map);
    return true;
}

// The character content of the current element, up to its end tag; child elements are refused.
bool Reader::readText(QString* out)
{
    const QString element = xml_.name().toString();
    for (;;) {
        switch (xml_.readNext()) {
        case QXmlStreamReader::Characters:
            out->append(xml_.text());
            continue;
        case QXmlStreamReader::Comment:
        case QXmlStreamReader::ProcessingInstruction:
            continue;
        case QXmlStreamReader::EndElement:
            return true;
        case QXmlStreamReader::StartElement:
            return fail(QStringLiteral("<%1> cannot contain <%2>").arg(element, xml_.name()));
        case QXmlStreamReader::EntityReference:
            return fail(QStringLiteral("unresolved entity reference &%1;").arg(xml_.name()));
        default:
            return failXml();
        }
    }
}

bool Reader::readScalar(const QString& name, QVariant* out)
{
    static const QStringList kScalars = {
        QStringLiteral("string"), QStringLiteral("integer"), QStringLiteral("real"), QStringLiteral("date"),
        QStringLiteral("data"),   QStringLiteral("true"),    QStringLiteral("false")};
    if (name == QLatin1String("key"))
        return fail(QStringLiteral("<key> outside of a <dict>"));
    if (!kScalars.contains(name))
        return fail(QStringLiteral("unknown element <%1>").arg(name));
    const qint64 line = xml_.lineNumber();
    QString text;
    if (!readText(&text))
        return false;
    if (name == QLatin1String("string")) {
        *out = std::move(text);
        return true;
    }
    if (name == QLatin1String("data")) {
        std::optional<QByteArray> value = parseData(text);
        if (!value)
            return fail(QStringLiteral("<data> is not valid base64"), line);
        *out = std::move(*value);
        return true;
    }
    const QString trimmed = text.trimmed();
    if (name == QLatin1String("integer")) {
        qint64 value = 0;
        switch (parseInteger(trimmed, &value)) {
        case NumberStatus::Ok:
            *out = value;
            return true;
        case NumberStatus::Overflow:
            return fail(QStringLiteral("<integer> %1 overflows 64 bits").arg(quoted(trimmed)), line);
        case NumberStatus::NotANumber:
            break;
        }
        return fail(QStringLiteral("<integer> %1 is not a number").arg(quoted(trimmed)), line);
    }
    if (name == QLatin1String("real")) {
        const std::optional<double> value = parseReal(trimmed);
        if (!value)
            return fail(QStringLiteral("<real> %1 is not a number a double can hold").arg(quoted(trimmed)),
                        line);
        *out = *value;
        return true;
    }
    if (name == QLatin1String("date")) {
        bool outOfRange = false;
        const std::optional<QDateTime> value = parseDate(trimmed, &outOfRange);
        if (!value) {
            return fail(outOfRange
                            ? QStringLiteral("<date> %1 is outside the years 1 to 9999").arg(quoted(trimmed))
                            : QStringLiteral("<date> %1 is not a date like 2001-01-01T00:00:00Z")
                                  .arg(quoted(trimmed)),
                        line);
        }
        *out = *value;
        return true;
    }
    if (!trimmed.isEmpty()) // <true> or <false>
        return fail(QStringLiteral("<%1> must be empty").arg(name), line);
    *out = name == QLatin1String("true");
    return true;
}

} // namespace

std::optional<QVariant> read(const QByteArray& xml, ParseError* error)
{
    Reader reader(xml);
    std::optional<QVariant> result = reader.run();
    if (error)
        *error = result ? ParseError{} : reader.error;
    return result;
}

std::optional<QVariant> readFile(const QString& path, ParseError* error)
{
    auto failure = [&](const QString& message) -> std::optional<QVariant> {
        if (error)
            *error = ParseError{message};
        return std::nullopt;
    };
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return failure(QStringLiteral("cannot open %1: %2").arg(path, file.errorString()));
    const QString tooLarge =
        QStringLiteral("%1 is larger than %2 MiB").arg(path).arg(kMaxFileSize / (1024 * 1024));
    if (file.size() > kMaxFileSize)
        return failure(tooLarge);
    // The size can lie (special files, a file growing meanwhile): never read past the limit.
    const QByteArray contents = file.read(kMaxFileSize + 1);
    if (file.error() != QFileDevice::NoError)
        return failure(QStringLiteral("cannot read %1: %2").arg(path, file.errorString()));
    if (contents.size() > kMaxFileSize)
        return failure(tooLarge);
    ParseError parseError;
    std::optional<QVariant> result = read(contents, &parseError);
    if (!result && error) {
        parseError.message = path + QStringLiteral(": ") + parseError.message;
        *error = parseError;
    } else if (error) {
        *error = ParseError{};
    }
    return result;
}

} // namespace nimbrel::plist
