// The writer of the XML property-list format.
#include "platform/PlistCodec.h"
#include "platform/PlistScalars.h"
#include "platform/PlistValue.h"

#include <QSaveFile>
#include <QVariantList>
#include <QVariantMap>
#include <QXmlStreamWriter>
#include <vector>

namespace nimbrel::plist {

using namespace detail;

namespace {

class Writer
{
public:
    Writer() : xml_(&out_) {}
    bool run(const QVariant& value);

    QByteArray out_;
    QString error;

private:
    struct PathStep
    {
        const QString* key = nullptr;
        qsizetype index = 0;
    };

    bool fail(const QString& what);
    bool writeValue(const QVariant& value, int depth);
    bool writeString(const QString& element, const QString& text);
    void writeBase64(const QByteArray& data, const QString& indent);
    void newline() { xml_.writeCharacters(QStringLiteral("\n")); }

    QXmlStreamWriter xml_;
    std::vector<PathStep> path_;
};

bool Writer::fail(const QString& what)
{
    QString path = QStringLiteral("root");
    for (const PathStep& step : path_)
        path += step.key ? u'.' + *step.key : u'[' + QString::number(step.index) + u']';
    error = path + QStringLiteral(": ") + what;
    return false;
}

bool Writer::run(const QVariant& value)
{
    xml_.writeStartDocument();
    newline();
    xml_.writeDTD(QStringLiteral("<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                                 "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">"));
    newline();
    xml_.writeStartElement(QStringLiteral("plist"));
    xml_.writeAttribute(QStringLiteral("version"), QStringLiteral("1.0"));
    newline();
    if (!writeValue(value, 0))
        return false;
    xml_.writeEndElement();
    xml_.writeEndDocument();
    if (xml_.hasError()) {
        error = QStringLiteral("the property list could not be encoded");
        return false;
    }
    return true;
}

// Writes `text` as the content of `element`, keeping carriage returns (a parser would turn a literal
// one into a line feed).
bool Writer::writeString(const QString& element, const QString& text)
{
    const qsizetype bad = firstForbiddenCharacter(text);
    if (bad >= 0) {
        const QString code = QString::number(text[bad].unicode(), 16).toUpper().rightJustified(4, u'0');
        return fail(QStringLiteral("a %1 holds U+%2 at position %3, which XML 1.0 cannot carry")
                        .arg(element, code)
                        .arg(bad));
    }
    xml_.writeStartElement(element);
    qsizetype start = 0;
    for (qsizetype cr = text.indexOf(u'\r'); cr >= 0; cr = text.indexOf(u'\r', start)) {
        xml_.writeCharacters(text.mid(start, cr - start));
        xml_.writeEntityReference(QStringLiteral("#13"));
        start = cr + 1;
    }
    xml_.writeCharacters(text.mid(start)); // also keeps an empty string as <string></string>
    xml_.writeEndElement();
    return true;
}

void Writer::writeBase64(const QByteArray& data, const QString& indent)
{
    constexpr qsizetype kLineLength = 76;
    xml_.writeStartElement(QStringLiteral("data"));
    const QString encoded = QString::fromLatin1(data.toBase64());
    QString text;
    for (qsizetype i = 0; i < encoded.size(); i += kLineLength)
        text += u'\n' + indent + encoded.mid(i, kLineLength);
    if (!text.isEmpty())
        text += u'\n' + indent;
    xml_.writeCharacters(text);
    xml_.writeEndElement();
}

// The value is already normalised: one of the eight types, nested no deeper than kMaxDepth.
bool Writer::writeValue(const QVariant& value, int depth)
{
    const QString indent(depth, u'\t');
    xml_.writeCharacters(indent);
    switch (value.typeId()) {
    case QMetaType::Bool:
        xml_.writeEmptyElement(value.toBool() ? QStringLiteral("true") : QStringLiteral("false"));
        break;
    case QMetaType::LongLong:
        xml_.writeTextElement(QStringLiteral("integer"), QString::number(value.toLongLong()));
        break;
    case QMetaType::Double:
        xml_.writeTextElement(QStringLiteral("real"), formatReal(value.toDouble()));
        break;
    case QMetaType::QString:
        if (!writeString(QStringLiteral("string"), value.toString()))
            return false;
        break;
    case QMetaType::QDateTime: {
        const QDateTime utc = value.toDateTime();
        if (!dateInRange(utc))
            return fail(
                QStringLiteral("the date %1 is outside the years 1 to 9999").arg(utc.toString(Qt::ISODate)));
        xml_.writeTextElement(QStringLiteral("date"), formatDate(utc));
        break;
    }
    case QMetaType::QByteArray:
        writeBase64(value.toByteArray(), indent);
        break;
    case QMetaType::QVariantList: {
        const QVariantList list = value.toList();
        if (list.isEmpty()) {
            xml_.writeEmptyElement(QStringLiteral("array"));
            break;
        }
        xml_.writeStartElement(QStringLiteral("array"));
        newline();
        for (qsizetype i = 0; i < list.size(); ++i) {
            path_.push_back({nullptr, i});
            if (!writeValue(list.at(i), depth + 1))
                return false;
            path_.pop_back();
        }
        xml_.writeCharacters(indent);
        xml_.writeEndElement();
        break;
    }
    case QMetaType::QVariantMap: {
        const QVariantMap map = value.toMap();
        if (map.isEmpty()) {
            xml_.writeEmptyElement(QStringLiteral("dict"));
            break;
        }
        xml_.writeStartElement(QStringLiteral("dict"));
        newline();
        const QString keyIndent(depth + 1, u'\t');
        for (auto it = map.cbegin(); it != map.cend(); ++it) {
            xml_.writeCharacters(keyIndent);
            if (!writeString(QStringLiteral("key"), it.key()))
                return false;
            newline();
            path_.push_back({&it.key(), 0});
            if (!writeValue(it.value(), depth + 1))
                return false;
            path_.pop_back();
        }
        xml_.writeCharacters(indent);
        xml_.writeEndElement();
        break;
    }
    default:
        return fail(QStringLiteral("%1 values cannot be stored in a property list")
                        .arg(QLatin1String(value.metaType().name())));
    }
    newline();
    return true;
}

} // namespace

std::optional<QByteArray> write(const QVariant& value, QString* error)
{
    QString normalizeError;
    const QVariant canonical = normalized(value, &normalizeError);
    if (!canonical.isValid()) {
        if (error)
            *error = normalizeError;
        return std::nullopt;
    }
    Writer writer;
    if (!writer.run(canonical)) {
        if (error)
            *error = writer.error;
        return std::nullopt;
    }
    if (error)
        error->clear();
    return std::move(writer.out_);
}

bool writeFile(const QString& path, const QVariant& value, QString* error)
{
    const std::optional<QByteArray> bytes = write(value, error);
    if (!bytes)
        return false;
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(*bytes) != bytes->size() || !file.commit()) {
        if (error)
            *error = QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
        return false;
    }
    return true;
}

} // namespace nimbrel::plist
