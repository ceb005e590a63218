#include "platform/PlistCodec.h"
#include "platform/PlistValue.h"
#include "support/PlistCompare.h"
#include "support/TestEnvironment.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QUrl>
#include <QVariantHash>
#include <gtest/gtest.h>
#include <limits>
#include <tuple>

using namespace nimbrel;
using plist::Type;
using test::identical;

namespace {

QVariant roundTrip(const QVariant& value)
{
    QString writeError;
    const std::optional<QByteArray> xml = plist::write(value, &writeError);
    EXPECT_TRUE(xml) << writeError.toStdString();
    plist::ParseError readError;
    const std::optional<QVariant> result = plist::read(xml.value_or(QByteArray()), &readError);
    EXPECT_TRUE(result) << readError.toString().toStdString() << "\n" << xml.value_or("").toStdString();
    return result.value_or(QVariant());
}

QDateTime utc(int y, int mo, int d, int h, int mi, int s, int ms = 0)
{
    return QDateTime(QDate(y, mo, d), QTime(h, mi, s, ms), Qt::UTC);
}

QByteArray wrap(const QByteArray& body)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + body + "\n</plist>\n";
}

QByteArray nestedArrays(int depth)
{
    return QByteArray("<array>").repeated(depth) + QByteArray("</array>").repeated(depth);
}

QVariant nestedLists(int depth)
{
    QVariant value = qint64(1);
    for (int i = 0; i < depth; ++i)
        value = QVariantList{value};
    return value;
}

constexpr qint64 kMin = std::numeric_limits<qint64>::min();
constexpr qint64 kMax = std::numeric_limits<qint64>::max();
constexpr double kInf = std::numeric_limits<double>::infinity();

} // namespace

TEST(PlistRoundTrip, EveryTypeSurvivesExactly)
{
    QByteArray allBytes;
    for (int i = 0; i < 256; ++i)
        allBytes.append(char(i));
    const QVariantMap inner{{QString(), QVariantList{}}, {QStringLiteral("cr\rkey "), QVariantMap{}}};
    const QVariantMap document{
        {QStringLiteral("calendars"),
         QVariantList{QVariantMap{{QStringLiteral("uid"), QStringLiteral("A-1")}, {QStringLiteral("n"), 7LL}},
                      QVariantList{QVariantList{2.5, QByteArray("xyz")}}, inner}},
        {QStringLiteral("when"), utc(2010, 6, 1, 12, 0, 0, 250)},
        {QStringLiteral("flag"), false}};
    QVariantList values;
    values << true << false << qint64(0) << qint64(-1) << kMax << kMin << 0.0 << -0.0 << 3.0 << 0.1 << 1.0 / 3
           << 1e300 << 5e-324 << std::numeric_limits<double>::max() << -2.5e-308 << 123456789012345678.0
           << kInf << -kInf << std::numeric_limits<double>::quiet_NaN() << QString() << QStringLiteral("a\rb")
           << QStringLiteral("\r\n\r") << QStringLiteral("  padded \n\t") << QStringLiteral("<&>]]>\"'")
           << QString::fromUtf8("\xc2\x85\xc2\x9f\xef\xb7\x90\xef\xbf\xbd\xf0\x9f\x98\x80")
           << QString::fromUcs4(U"\U0010FFFF\U0001FFFE") << utc(2001, 1, 1, 0, 0, 0)
           << utc(2024, 2, 29, 23, 59, 59, 1) << utc(1, 1, 1, 0, 0, 0) << utc(9999, 12, 31, 23, 59, 59, 999)
           << QByteArray() << QByteArray("\0", 1) << QByteArray(300, '\xff') << allBytes << document;
    for (const QVariant& value : values)
        EXPECT_TRUE(identical(roundTrip(value), value)) << value.toString().toStdString();

    // A date with an offset comes back as the same instant in UTC.
    const QDateTime local(QDate(2020, 3, 4), QTime(5, 6, 7), Qt::OffsetFromUTC, 5400);
    const QVariant back = roundTrip(local);
    EXPECT_EQ(back.toDateTime(), local);
    EXPECT_EQ(back.toDateTime().timeSpec(), Qt::UTC);
}

TEST(PlistWriter, ProducesTheUsualLayout)
{
    const QVariantMap document{
        {QStringLiteral("b"), QVariantList{qint64(1), QVariantMap{}, QVariantList{}, 2.0}},
        {QStringLiteral("a"), QStringLiteral("x\ry")},
        {QStringLiteral("c"), QByteArray("hi")},
        {QStringLiteral("d"), utc(2001, 1, 1, 0, 0, 0, 5)},
        {QStringLiteral("e"), true},
        {QStringLiteral("f"), QString()},
    };
    const QByteArray expected =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n<dict>\n"
        "\t<key>a</key>\n\t<string>x&#13;y</string>\n"
        "\t<key>b</key>\n\t<array>\n\t\t<integer>1</integer>\n\t\t<dict/>\n\t\t<array/>\n\t\t<real>2</real>\n"
        "\t</array>\n"
        "\t<key>c</key>\n\t<data>\n\taGk=\n\t</data>\n"
        "\t<key>d</key>\n\t<date>2001-01-01T00:00:00.005Z</date>\n"
        "\t<key>e</key>\n\t<true/>\n"
        "\t<key>f</key>\n\t<string></string>\n"
        "</dict>\n</plist>\n";
    EXPECT_EQ(plist::write(document).value_or(""), expected);
}

TEST(PlistWriter, RefusesWhatXmlCannotCarry)
{
    const std::pair<QVariant, const char*> cases[] = {
        {QString(QChar(0)), "U+0000"},
        {QString(QChar(0x1b)), "U+001B"},
        {QString(QChar(0xfffe)), "U+FFFE"},
        {QVariantList{QString(QChar(0xd800)) + QStringLiteral("x")},
         "root[0]: a string holds U+D800 at position 0"},
        {QString(QChar(0xdc00)) + QChar(0xd800), "U+DC00"},
        {QVariantMap{{QStringLiteral("ok"), QVariantMap{{QStringLiteral("k\x01"), 1}}}},
         "root.ok: a key holds U+0001"},
        {QVariantMap{{QStringLiteral("when"), utc(9999, 12, 31, 23, 0, 0).addSecs(3600)}},
         "root.when: the date"},
        {QVariant(), "null value"},
    };
    for (const auto& [value, message] : cases) {
        QString error;
        EXPECT_FALSE(plist::write(value, &error)) << message;
        EXPECT_TRUE(error.contains(QLatin1String(message))) << error.toStdString();
    }
}

TEST(PlistReader, AcceptsTheLenientForms)
{
    const std::pair<const char*, QVariant> cases[] = {
        {"<integer> +42\n</integer>", qint64(42)},
        {"<integer>-0x8000000000000000</integer>", kMin},
        {"<integer>0X7FFFFFFFFFFFFFFF</integer>", kMax},
        {"<real> -0 </real>", -0.0},
        {"<real>INF</real>", kInf},
        {"<real>+Infinity</real>", kInf},
        {"<real>NaN</real>", std::numeric_limits<double>::quiet_NaN()},
        {"<date>2001-01-01T01:30:00+01:30</date>", utc(2001, 1, 1, 0, 0, 0)},
        {"<date> 2001-01-01T00:00:00.1239 </date>", utc(2001, 1, 1, 0, 0, 0, 123)},
        {"<date>2001-01-01T00:00:00</date>", utc(2001, 1, 1, 0, 0, 0)},
        {"<data> aG\n\tk= </data>", QByteArray("hi")},
        {"<string><![CDATA[<x>]]><!-- note -->&amp;&#13;</string>", QStringLiteral("<x>&\r")},
        {"<true>\n</true>", true},
        {"<dict><key>k</key><integer>1</integer><key>k</key><integer>2</integer></dict>",
         QVariantMap{{QStringLiteral("k"), qint64(2)}}},
    };
    for (const auto& [body, expected] : cases) {
        SCOPED_TRACE(body);
        // Inside <plist>, and as a bare root with a DOCTYPE and a comment around it.
        for (const QByteArray& xml :
             {wrap(body), "<!DOCTYPE plist SYSTEM \"x.dtd\"><!-- c -->" + QByteArray(body)}) {
            plist::ParseError error;
            const auto value = plist::read(xml, &error);
            ASSERT_TRUE(value) << error.toString().toStdString();
            EXPECT_TRUE(identical(*value, expected));
        }
    }
}

TEST(PlistReader, RefusesBadInputWithMessageAndLine)
{
    const std::tuple<QByteArray, const char*, qint64> cases[] = {
        // line 0: only checked to be set
        {"", "malformed XML", 0},
        {"<plist><dict>\n<key>a</key><string>x</dict></plist>", "malformed XML", 2},
        {wrap("<dict>\n<foo/></dict>"), "<foo> inside <dict> must follow a <key>", 4},
        {wrap("<array>\n<foo/></array>"), "unknown element <foo>", 4},
        {wrap("<dict>\n<key>a</key>\n<key>b</key><true/></dict>"), "<key> \"a\" has no value", 4},
        {wrap("<dict><key>a</key><true/>\n<key>last</key>\n</dict>"), "<key> \"last\" has no value", 4},
        {wrap("<array><true/>\nstray<false/></array>"), "text \"stray\" outside of a value", 0},
        {wrap("<key>a</key>"), "<key> outside of a <dict>", 3},
        {wrap("\n\n<integer>9223372036854775808</integer>"), "overflows 64 bits", 5},
        {wrap("<integer>0x10000000000000000</integer>"), "overflows 64 bits", 0},
        {wrap("<integer>12a</integer>"), "is not a number", 0},
        {wrap("<integer>1.5</integer>"), "is not a number", 0},
        {wrap("<real>1,5</real>"), "<real> \"1,5\"", 0},
        {wrap("<real>1e400</real>"), "<real>", 0},
        {wrap("<date>2001-02-30T00:00:00Z</date>"), "<date> \"2001-02-30T00:00:00Z\" is not a date", 3},
        {wrap("<date>2001-01-01T00:00:00Zjunk</date>"), "is not a date", 0},
        {wrap("<date>0001-01-01T00:00:00+01:00</date>"), "outside the years 1 to 9999", 0},
        {wrap("<data>aGk=!</data>"), "<data> is not valid base64", 0},
        {wrap("<string>a<b/></string>"), "<string> cannot contain <b>", 0},
        {wrap("<true>yes</true>"), "<true> must be empty", 3},
        {"<plist version=\"1.0\">\n</plist>", "<plist> is empty", 1},
        {wrap("<true/>\n<false/>"), "<plist> holds more than one value", 4},
        {wrap("<array><plist/></array>"), "unknown element <plist>", 0},
        {wrap("<string>&ext;</string>"), "malformed XML", 0},
        {wrap("<true/>") + "<true/>", "malformed XML", 0},
        {"<!DOCTYPE plist [<!ENTITY x SYSTEM \"file:///etc/hostname\">]><string>&x;</string>",
         "declares XML entities", 0},
    };
    for (const auto& [xml, message, line] : cases) {
        SCOPED_TRACE(xml.toStdString());
        plist::ParseError error;
        EXPECT_FALSE(plist::read(xml, &error));
        EXPECT_TRUE(error.message.contains(QLatin1String(message))) << error.message.toStdString();
        EXPECT_GT(error.line, 0);
        if (line) {
            EXPECT_EQ(error.line, line) << error.message.toStdString();
        }
        EXPECT_EQ(error.toString(), QStringLiteral("line %1: ").arg(error.line) + error.message);
    }
    EXPECT_EQ((plist::ParseError{QStringLiteral("bad")}.toString()), QStringLiteral("bad"));
}

TEST(PlistDepth, FiveHundredTwelveContainersAreTheLimit)
{
    const auto value = plist::read(wrap(nestedArrays(plist::kMaxDepth)));
    ASSERT_TRUE(value);
    const QByteArray dicts = QByteArray("<dict><key>k</key>").repeated(plist::kMaxDepth - 1) + "<array/>" +
                             QByteArray("</dict>").repeated(plist::kMaxDepth - 1);
    EXPECT_TRUE(plist::read(wrap(dicts)));

    plist::ParseError error;
    EXPECT_FALSE(plist::read(wrap(nestedArrays(plist::kMaxDepth + 1)), &error));
    EXPECT_TRUE(error.message.contains(QLatin1String("deeper than 512"))) << error.message.toStdString();
    // A runaway document stops at the limit rather than exhausting the stack.
    EXPECT_FALSE(plist::read(wrap(nestedArrays(200000))));

    // The writer draws the line at the same place, so it never writes what the reader refuses.
    EXPECT_TRUE(identical(roundTrip(*value), *value));
    QString writeError;
    EXPECT_FALSE(plist::write(QVariantList{*value}, &writeError));
    EXPECT_TRUE(writeError.contains(QLatin1String("deeper than 512"))) << writeError.toStdString();
}

TEST(PlistFiles, ReadWriteAndRefusals)
{
    const QDir dir(test::makeTempDir());
    const QString path = dir.filePath(QStringLiteral("prefs.plist"));
    const QVariantMap document{{QStringLiteral("k"), QStringLiteral("v")}};
    QString error;
    ASSERT_TRUE(plist::writeFile(path, document, &error)) << error.toStdString();
    EXPECT_TRUE(plist::writeFile(path, QVariantList{qint64(1)}, &error)) << "replacing an existing file";
    EXPECT_EQ(dir.entryList(QDir::Files), QStringList{QStringLiteral("prefs.plist")}); // no temporary left
    const auto back = plist::readFile(path);
    ASSERT_TRUE(back);
    EXPECT_TRUE(identical(*back, QVariantList{qint64(1)}));

    EXPECT_FALSE(plist::writeFile(path, QVariant(), &error));
    EXPECT_TRUE(plist::readFile(path)) << "a refused value leaves the old file alone";
    EXPECT_FALSE(plist::writeFile(dir.filePath(QStringLiteral("missing/x.plist")), document, &error));
    EXPECT_TRUE(error.contains(QLatin1String("missing/x.plist"))) << error.toStdString();

    plist::ParseError parseError;
    EXPECT_FALSE(plist::readFile(dir.filePath(QStringLiteral("absent.plist")), &parseError));
    EXPECT_EQ(parseError.line, 0);
    EXPECT_TRUE(parseError.toString().startsWith(QLatin1String("cannot open")))
        << parseError.toString().toStdString();

    // Larger than 64 MiB is refused unread (sparse file: nothing is really written); exactly at the
    // limit the file is read, and refused only because zero bytes are not XML.
    const QString huge = dir.filePath(QStringLiteral("huge.plist"));
    ASSERT_TRUE(QFile(huge).open(QIODevice::WriteOnly));
    ASSERT_TRUE(QFile::resize(huge, plist::kMaxFileSize + 1));
    EXPECT_FALSE(plist::readFile(huge, &parseError));
    EXPECT_TRUE(parseError.message.contains(QLatin1String("larger than 64 MiB")))
        << qPrintable(parseError.message);
    ASSERT_TRUE(QFile::resize(huge, plist::kMaxFileSize));
    EXPECT_FALSE(plist::readFile(huge, &parseError));
    EXPECT_TRUE(parseError.message.contains(QLatin1String("malformed XML")))
        << qPrintable(parseError.message);
}

TEST(PlistNormalized, ConvertsToTheCanonicalTypes)
{
    const QDateTime local(QDate(2021, 7, 1), QTime(9, 0), Qt::OffsetFromUTC, -4 * 3600);
    const QVariantHash hash{{QStringLiteral("names"), QStringList{QStringLiteral("a"), QStringLiteral("b")}},
                            {QStringLiteral("n"), 3}};
    const QVariantMap map{{QStringLiteral("names"), QVariantList{QStringLiteral("a"), QStringLiteral("b")}},
                          {QStringLiteral("n"), qint64(3)}};
    const std::pair<QVariant, QVariant> cases[] = {
        {int(-5), qint64(-5)},
        {uint(4000000000u), qint64(4000000000)},
        {QVariant::fromValue(char(-1)), qint64(char(-1))},
        {QVariant::fromValue(uchar(255)), qint64(255)},
        {QVariant::fromValue(ulong(kMax)), kMax},
        {qulonglong(42), qint64(42)},
        {std::numeric_limits<qint64>::min(), std::numeric_limits<qint64>::min()},
        {0.1f, double(0.1f)},
        {local, local.toUTC()},
        {hash, map},
    };
    for (const auto& [in, expected] : cases) {
        EXPECT_TRUE(identical(plist::normalized(in), expected)) << in.typeName();
        EXPECT_EQ(plist::typeOf(in), plist::typeOf(expected)) << in.typeName();
    }
}

TEST(PlistNormalized, RefusalsNameTheFirstBadPath)
{
    QObject object;
    const QVariantList calendars{QVariantMap{}, QVariantMap{},
                                 QVariantMap{{QStringLiteral("uid"), QDate(2020, 1, 1)}}};
    const std::pair<QVariant, const char*> cases[] = {
        {QVariantMap{{QStringLiteral("calendars"), calendars}}, "root.calendars[2].uid: QDate values cannot"},
        {QVariantList{1, QUrl(QStringLiteral("https://example.com"))}, "root[1]: QUrl values"},
        {QVariantMap{{QStringLiteral("a.b"), QVariant()}}, "root[\"a.b\"]: a null value"},
        {QVariantHash{{QStringLiteral("o"), QVariant::fromValue(&object)}}, "root.o: QObject* values"},
        {qulonglong(kMax) + 1, "root: 9223372036854775808 does not fit in a signed 64-bit integer"},
        {QDateTime(), "root: an invalid date"},
        {QVariant(), "root: a null value"},
        {nestedLists(plist::kMaxDepth + 1), "nested deeper than 512 levels"},
    };
    for (const auto& [value, message] : cases) {
        QString error;
        EXPECT_FALSE(plist::normalized(value, &error).isValid()) << message;
        EXPECT_TRUE(error.contains(QLatin1String(message))) << error.toStdString();
    }
    QString error = QStringLiteral("stale");
    EXPECT_TRUE(plist::normalized(nestedLists(plist::kMaxDepth), &error).isValid());
    EXPECT_TRUE(error.isEmpty());
}

TEST(PlistType, ClassifiesTopLevelOnly)
{
    const std::pair<QVariant, Type> cases[] = {
        {QVariantList{QVariant()}, Type::Array},
        {QStringList{}, Type::Array},
        {QVariantHash{}, Type::Dictionary},
        {1.5f, Type::Real},
        {qulonglong(1) << 63, Type::Invalid},
        {QDateTime(), Type::Invalid},
        {QVariant(), Type::Invalid},
        {QDate(2020, 1, 1), Type::Invalid},
    };
    for (const auto& [value, type] : cases)
        EXPECT_EQ(plist::typeOf(value), type) << value.typeName();
}
