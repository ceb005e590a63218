#include "XmlWriter.h"

#include "DavXml.h"

#include <algorithm>
#include <cstring>

namespace nimbrel::publish {

namespace {

// The prefix of a fixed namespace, or null.
const char* prefixOf(const QString& nsUri)
{
    if (nsUri == QStringView(ns::kDav))
        return "D";
    if (nsUri == QStringView(ns::kCalDav))
        return "C";
    if (nsUri == QStringView(ns::kCalendarServer))
        return "CS";
    if (nsUri == QStringView(ns::kAppleICal))
        return "I";
    return nullptr;
}

bool isValidUtf8(const QByteArray& bytes)
{
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.constData());
    const auto* end = p + bytes.size();
    while (p < end) {
        if (*p < 0x80) {
            ++p;
            continue;
        }
        int more = 0;
        char32_t cp = 0;
        if ((*p & 0xE0) == 0xC0) {
            more = 1;
            cp = *p & 0x1F;
        } else if ((*p & 0xF0) == 0xE0) {
            more = 2;
            cp = *p & 0x0F;
        } else if ((*p & 0xF8) == 0xF0) {
            more = 3;
            cp = *p & 0x07;
        } else {
            return false;
        }
        if (end - p <= more)
            return false;
        for (int i = 1; i <= more; ++i) {
            if ((p[i] & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (p[i] & 0x3F);
        }
        static constexpr char32_t kMin[] = {0, 0x80, 0x800, 0x10000};
        if (cp < kMin[more] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF) || cp == 0xFFFE || cp == 0xFFFF)
            return false;
        p += more + 1;
    }
    return true;
}

} // namespace

XmlWriter::XmlWriter()
{
    m_out.reserve(64 * 1024);
}

QByteArray XmlWriter::take()
{
    QByteArray bytes(m_out.data(), qsizetype(m_out.size()));
    m_out.clear();
    return bytes;
}

void XmlWriter::put(const char* data, qsizetype size)
{
    m_out.append(data, size_t(size));
}

void XmlWriter::put(const char* text)
{
    put(text, qsizetype(std::strlen(text)));
}

void XmlWriter::put(char c)
{
    put(&c, 1);
}

void XmlWriter::put(const QByteArray& bytes)
{
    put(bytes.constData(), bytes.size());
}

void XmlWriter::startDocument(const QString& nsUri, const char* name)
{
    put(R"(<?xml version="1.0" encoding="UTF-8"?>)");
    openTag(nsUri, QString::fromLatin1(name));
    put(R"( xmlns:D="DAV:" xmlns:C="urn:ietf:params:xml:ns:caldav" xmlns:CS="http://calendarserver.org/ns/")"
                  R"( xmlns:I="http://apple.com/ns/ical/")");
}

void XmlWriter::closePendingTag()
{
    if (!m_tagPending)
        return;
    put(m_pendingEmpty ? "/>" : ">");
    m_tagPending = false;
}

void XmlWriter::openTag(const QString& nsUri, QStringView name)
{
    closePendingTag();
    const char* prefix = prefixOf(nsUri);
    const qsizetype start = m_names.size();
    // An element in no namespace has no prefix (an empty namespace cannot be bound to one).
    const char* written = prefix ? prefix : nsUri.isEmpty() ? "" : "X";
    // Element names are short and ASCII nearly always: build "prefix:name" on the stack.
    char buffer[96];
    qsizetype length = qsizetype(std::strlen(written));
    std::memcpy(buffer, written, size_t(length));
    if (length > 0)
        buffer[length++] = ':';
    bool ascii = name.size() < qsizetype(sizeof buffer) - length;
    for (qsizetype i = 0; ascii && i < name.size(); ++i) {
        const char16_t c = name[i].unicode();
        ascii = c < 0x80;
        buffer[length + i] = char(c);
    }
    if (ascii) {
        m_names.append(buffer, length + name.size());
    } else {
        m_names.append(buffer, length);
        m_names.append(name.toUtf8());
    }
    put('<');
    put(m_names.constData() + start, m_names.size() - start);
    if (!prefix && nsUri.isEmpty()) {
        put(" xmlns=\"\"");
    } else if (!prefix) {
        put(" xmlns:X=\"");
        const QByteArray uri = nsUri.toUtf8();
        escape(uri.constData(), uri.size());
        put('"');
    }
    m_open.append(start);
    m_tagPending = true;
    m_pendingEmpty = false;
}

// Writes the end tag of the innermost open element and forgets it.
void XmlWriter::closeTop()
{
    const qsizetype start = m_open.takeLast();
    put("</");
    put(m_names.constData() + start, m_names.size() - start);
    put('>');
    m_names.truncate(start);
}

void XmlWriter::writeStartElement(const QString& nsUri, QStringView name)
{
    openTag(nsUri, name);
}

void XmlWriter::writeEmptyElement(const QString& nsUri, QStringView name)
{
    openTag(nsUri, name);
    m_names.truncate(m_open.takeLast());
    m_pendingEmpty = true;
}

void XmlWriter::writeAttribute(const char* name, QStringView value)
{
    put(' ');
    put(name);
    put("=\"");
    const QByteArray v = value.toUtf8();
    escape(v.constData(), v.size());
    put('"');
}

void XmlWriter::writeEndElement()
{
    if (m_open.isEmpty())
        return;
    if (m_tagPending && !m_pendingEmpty) {
        put("/>");
        m_tagPending = false;
        m_names.truncate(m_open.takeLast());
        return;
    }
    closePendingTag();
    closeTop();
}

void XmlWriter::writeTextElement(const QString& nsUri, QStringView name, QStringView text)
{
    writeTextElement(nsUri, name, text.toUtf8());
}

void XmlWriter::writeTextElement(const QString& nsUri, QStringView name, const QByteArray& utf8)
{
    openTag(nsUri, name);
    closePendingTag();
    if (isValidUtf8(utf8)) {
        escape(utf8.constData(), utf8.size());
    } else {
        const QByteArray repaired = QString::fromUtf8(utf8).toUtf8(); // bad sequences become U+FFFD
        escape(repaired.constData(), repaired.size());
    }
    closeTop();
}

void XmlWriter::endDocument()
{
    while (!m_open.isEmpty())
        writeEndElement();
}

void XmlWriter::escape(const char* data, qsizetype size)
{
    qsizetype plain = 0;
    for (qsizetype i = 0; i < size; ++i) {
        const unsigned char c = static_cast<unsigned char>(data[i]);
        const char* replacement = nullptr;
        switch (c) {
        case '<': replacement = "&lt;"; break;
        case '>': replacement = "&gt;"; break;
        case '&': replacement = "&amp;"; break;
        case '"': replacement = "&quot;"; break;
        case '\r': replacement = "&#13;"; break;
        default:
            // Control characters other than tab and newline cannot appear in XML 1.0 at all.
            if (c < 0x20 && c != '\t' && c != '\n')
                replacement = "";
            break;
        }
        if (!replacement)
            continue;
        put(data + plain, i - plain);
        put(replacement);
        plain = i + 1;
    }
    put(data + plain, size - plain);
}

} // namespace nimbrel::publish
