#include "platform/PlistCodec.h"
#include "platform/PlistValue.h"

#include <QDateTime>
#include <QObject>
#include <QStringList>
#include <QUrl>
#include <QVariantHash>
#include <QVariantList>
#include <QVariantMap>
#include <gtest/gtest.h>
#include <limits>

using namespace nimbrel;
using plist::Type;

namespace {

QVariant nestedLists(int depth)
{
    QVariant value = qint64(1);
    for (int i = 0; i < depth; ++i)
        value = QVariantList{value};
    return value;
}

} // namespace

TEST(PlistNormalized, IntegralTypesBecomeQint64)
{
    struct Case
    {
        QVariant in;
        qint64 expected;
    };
    const Case cases[] = {
        {QVariant(int(-5)), -5},
        {QVariant(uint(4000000000u)), 4000000000},
        {QVariant::fromValue(short(-7)), -7},
        {QVariant::fromValue(ushort(65535)), 65535},
        {QVariant::fromValue(char(-1)), char(-1)},
        {QVariant::fromValue(static_cast<signed char>(-128)), -128},
        {QVariant::fromValue(uchar(255)), 255},
        {QVariant::fromValue(long(-9)), -9},
        {QVariant::fromValue(ulong(std::numeric_limits<qint64>::max())), std::numeric_limits<qint64>::max()},
        {QVariant(qulonglong(42)), 42},
        {QVariant(std::numeric_limits<qint64>::min()), std::numeric_limits<qint64>::min()},
    };
    for (const Case& c : cases) {
        const QVariant out = plist::normalized(c.in);
        EXPECT_EQ(out.typeId(), QMetaType::LongLong) << c.in.typeName();
        EXPECT_EQ(out.toLongLong(), c.expected) << c.in.typeName();
        EXPECT_EQ(plist::typeOf(c.in), Type::Integer) << c.in.typeName();
    }
}

TEST(PlistNormalized, OtherConversions)
{
    const QVariant real = plist::normalized(QVariant(0.1f));
    EXPECT_EQ(real.typeId(), QMetaType::Double);
    EXPECT_EQ(real.toDouble(), double(0.1f));

    const QDateTime local(QDate(2021, 7, 1), QTime(9, 0), Qt::OffsetFromUTC, -4 * 3600);
    const QVariant date = plist::normalized(local);
    EXPECT_EQ(date.toDateTime().timeSpec(), Qt::UTC);
    EXPECT_EQ(date.toDateTime(), local);

    const QVariantHash hash{{QStringLiteral("names"), QStringList{QStringLiteral("a"), QStringLiteral("b")}},
                            {QStringLiteral("n"), 3}};
    const QVariant map = plist::normalized(hash);
    ASSERT_EQ(map.typeId(), QMetaType::QVariantMap);
    const QVariant names = map.toMap().value(QStringLiteral("names"));
    ASSERT_EQ(names.typeId(), QMetaType::QVariantList);
    EXPECT_EQ(names.toList().value(1).typeId(), QMetaType::QString);
    EXPECT_EQ(names.toList().value(1).toString(), QStringLiteral("b"));
    EXPECT_EQ(map.toMap().value(QStringLiteral("n")).typeId(), QMetaType::LongLong);

    // Canonical values pass through untouched.
    for (const QVariant& v :
         {QVariant(true), QVariant(2.5), QVariant(QStringLiteral("s")), QVariant(QByteArray("b"))}) {
        EXPECT_EQ(plist::normalized(v).typeId(), v.typeId());
        EXPECT_EQ(plist::normalized(v), v);
    }
}

TEST(PlistNormalized, RefusalsNameTheFirstBadPath)
{
    QObject object;
    const QVariantList calendars{QVariantMap{}, QVariantMap{},
                                 QVariantMap{{QStringLiteral("uid"), QDate(2020, 1, 1)}}};
    struct Case
    {
        QVariant value;
        const char* message;
    };
    const Case cases[] = {
        {QVariantMap{{QStringLiteral("calendars"), calendars}}, "root.calendars[2].uid: QDate values cannot"},
        {QVariantList{1, QUrl(QStringLiteral("https://example.com"))}, "root[1]: QUrl values"},
        {QVariantMap{{QStringLiteral("a.b"), QVariant()}}, "root[\"a.b\"]: a null value"},
        {QVariantHash{{QStringLiteral("o"), QVariant::fromValue(&object)}}, "root.o: QObject* values"},
        {QVariant(qulonglong(std::numeric_limits<qint64>::max()) + 1),
         "root: 9223372036854775808 does not fit in a signed 64-bit integer"},
        {QDateTime(), "root: an invalid date"},
        {QVariant(), "root: a null value"},
        {nestedLists(plist::kMaxDepth + 1), "nested deeper than 512 levels"},
    };
    for (const Case& c : cases) {
        QString error;
        EXPECT_FALSE(plist::normalized(c.value, &error).isValid()) << c.message;
        EXPECT_TRUE(error.contains(QLatin1String(c.message))) << error.toStdString();
    }
    QString error = QStringLiteral("stale");
    EXPECT_TRUE(plist::normalized(nestedLists(plist::kMaxDepth), &error).isValid());
    EXPECT_TRUE(error.isEmpty());
}

TEST(PlistType, ClassifiesTopLevelOnly)
{
    EXPECT_EQ(plist::typeOf(QVariantList{QVariant()}), Type::Array);
    EXPECT_EQ(plist::typeOf(QStringList{}), Type::Array);
    EXPECT_EQ(plist::typeOf(QVariantHash{}), Type::Dictionary);
    EXPECT_EQ(plist::typeOf(QVariant(qulonglong(1) << 63)), Type::Invalid);
    EXPECT_EQ(plist::typeOf(QDateTime()), Type::Invalid);
    EXPECT_EQ(plist::typeOf(QVariant()), Type::Invalid);
    EXPECT_EQ(plist::typeOf(QDate(2020, 1, 1)), Type::Invalid);
    EXPECT_EQ(plist::typeOf(1.5f), Type::Real);

    EXPECT_EQ(plist::typeName(Type::Dictionary), QStringLiteral("dict"));
    EXPECT_TRUE(plist::typeName(Type::Invalid).isEmpty());
    EXPECT_TRUE(plist::isNumber(Type::Integer) && plist::isNumber(Type::Real));
    EXPECT_FALSE(plist::isNumber(Type::String) || plist::isNumber(Type::Boolean));
}
