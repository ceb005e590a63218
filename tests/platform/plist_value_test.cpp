#include "platform/PlistCodec.h"
#include "platform/PlistValue.h"
#include "support/PlistCompare.h"

#include <QObject>
#include <QStringList>
#include <QUrl>
#include <QVariantHash>
#include <gtest/gtest.h>
#include <limits>

using namespace nimbrel;
using plist::Type;
using test::identical;

namespace {

QVariant nestedLists(int depth)
{
    QVariant value = qint64(1);
    for (int i = 0; i < depth; ++i)
        value = QVariantList{value};
    return value;
}

constexpr qint64 kMax = std::numeric_limits<qint64>::max();

} // namespace

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
        {QVariant::fromValue(short(-7)), qint64(-7)},
        {QVariant::fromValue(ushort(65535)), qint64(65535)},
        {QVariant::fromValue(char(-1)), qint64(char(-1))},
        {QVariant::fromValue(static_cast<signed char>(-128)), qint64(-128)},
        {QVariant::fromValue(uchar(255)), qint64(255)},
        {QVariant::fromValue(long(-9)), qint64(-9)},
        {QVariant::fromValue(ulong(kMax)), kMax},
        {qulonglong(42), qint64(42)},
        {std::numeric_limits<qint64>::min(), std::numeric_limits<qint64>::min()},
        {0.1f, double(0.1f)},
        {local, local.toUTC()},
        {hash, map},
        {true, true},
        {2.5, 2.5},
        {QStringLiteral("s"), QStringLiteral("s")},
        {QByteArray("b"), QByteArray("b")},
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
