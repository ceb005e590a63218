// Property lists over a real (private) session bus: sent by the proxy or by hand, received by the
// fake background application, and answered back.

#include "link/AppProtocolProxy.h"
#include "link/FakeAppPeer.h"
#include "link/WireCodec.h"
#include "platform/PlistValue.h"
#include "support/PlistCompare.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDateTime>
#include <QPoint>
#include <QTimeZone>
#include <gtest/gtest.h>

namespace {

// A D-Bus struct, a shape no property list has.
struct Pair
{
    int a = 0;
    int b = 0;
};

QDBusArgument& operator<<(QDBusArgument& argument, const Pair& pair)
{
    argument.beginStructure();
    argument << pair.a << pair.b;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, Pair& pair)
{
    argument.beginStructure();
    argument >> pair.a >> pair.b;
    argument.endStructure();
    return argument;
}

} // namespace

Q_DECLARE_METATYPE(Pair)

using namespace nimbrel;
using nimbrel::test::FakeAppPeer;
using nimbrel::test::identical;

namespace {

QString s(const char* text)
{
    return QString::fromUtf8(text);
}

// Every property-list type, nested in both kinds of container.
QVariantMap everyType()
{
    const QDateTime local(QDate(2009, 3, 14), QTime(15, 9, 26, 535), QTimeZone(3600 * 5 + 1800));
    const QVariantMap inner{
        {s("uid"), s("A1B2-C3")},
        {s("empty"), QVariantMap()},
        {s("list"), QVariantList{qint64(1), s("two"), QVariantList{true}, QVariantMap{{s("k"), 2.5}}}},
    };
    return {
        {s("bool"), false},
        {s("integer"), qint64(-9007199254740993)},
        {s("real"), -0.0},
        {s("string"), s("Kalender \u00e9\u00e8 \U0001F4C5")},
        {s("emptyString"), QString()},
        {s("date"), local},
        {s("data"), QByteArray("\0\x01\xff", 3)},
        {s("emptyArray"), QVariantList()},
        {s("dict"), inner},
        {s("array"), QVariantList{inner, local, QByteArray("x")}},
    };
}

QVariant nested(int levels)
{
    QVariant value = s("bottom");
    for (int i = 0; i < levels; ++i)
        value = QVariantMap{{s("next"), value}, {s("level"), qint64(levels - i)}};
    return value;
}

int depthOf(const QVariant& value)
{
    const QVariantMap map = value.toMap();
    return map.contains(s("next")) ? 1 + depthOf(map.value(s("next"))) : 0;
}

class WireCodec : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(peer.start()); }

    // Sends `argument` as is (no codec on the way out) and returns what the peer decoded.
    QVariant sendRaw(const QVariant& argument)
    {
        QDBusMessage call = QDBusMessage::createMethodCall(
            kAppProtocolService, kAppProtocolPath, kAppProtocolInterface, s("publishCalendarViaBonjour"));
        call << argument;
        peer.clearCalls();
        EXPECT_TRUE(QDBusConnection::sessionBus().send(call));
        if (!peer.waitForCall(s("publishCalendarViaBonjour")))
            return {};
        return peer.calls().constFirst().arguments.value(0);
    }

    FakeAppPeer peer;
    AppProtocolProxy proxy;
};

} // namespace

TEST_F(WireCodec, EveryTypeSurvivesBothDirections)
{
    const QVariant expected = plist::normalized(everyType());
    ASSERT_TRUE(expected.isValid());
    const QDateTime utc = expected.toMap().value(s("date")).toDateTime();
    EXPECT_EQ(utc.timeSpec(), Qt::UTC);
    EXPECT_EQ(utc.time(), QTime(9, 39, 26, 535));

    proxy.publishCalendarViaBonjour(everyType());
    ASSERT_TRUE(peer.waitForCall(s("publishCalendarViaBonjour")));
    const test::RecordedCall call = peer.calls().constFirst();
    ASSERT_EQ(call.arguments.size(), 1);
    EXPECT_TRUE(identical(call.arguments.constFirst(), expected));
    EXPECT_FALSE(call.replyExpected);

    peer.setBonjourInfo(everyType());
    bool ok = false;
    EXPECT_TRUE(identical(proxy.bonjourPublisherInfo(&ok), expected));
    EXPECT_TRUE(ok);

    const QVariantList list{everyType(), QVariantMap(), everyType()};
    peer.setListAnswer(s("calendarsPublishableViaBonjour"), list);
    EXPECT_TRUE(identical(proxy.calendarsPublishableViaBonjour(), plist::normalized(list)));
}

TEST_F(WireCodec, NullsAreDroppedAtEveryLevelBeforeSending)
{
    const QVariantMap withNulls{
        {s("null"), QVariant()},
        {s("nullptr"), QVariant::fromValue(nullptr)},
        {s("invalidDate"), QDateTime()},
        {s("kept"), qint64(1)},
        {s("list"), QVariantList{QVariant(), s("a"), QVariant(), QVariantMap{{s("x"), QVariant()}}}},
        {s("dict"), QVariantMap{{s("y"), QVariant()}, {s("z"), true}}},
    };
    const QVariantMap expected{
        {s("kept"), qint64(1)},
        {s("list"), QVariantList{s("a"), QVariantMap()}},
        {s("dict"), QVariantMap{{s("z"), true}}},
    };
    EXPECT_TRUE(identical(wire::toWire(withNulls), expected));
    EXPECT_FALSE(wire::toWire(QVariant()).isValid());

    // Sent raw, these nulls would abort inside libdbus; through the codec they simply vanish.
    proxy.subscribeTo(withNulls);
    ASSERT_TRUE(peer.waitForCall(s("subscribeTo")));
    EXPECT_TRUE(identical(peer.calls().constFirst().arguments.value(0), expected));
}

TEST_F(WireCodec, NonPlistValuesAreNormalisedOrDropped)
{
    const QVariantMap odd{
        {s("int"), 7},
        {s("uint"), 7u},
        {s("float"), 1.5f},
        {s("strings"), QStringList{s("a"), s("b")}},
        {s("hash"), QVariantHash{{s("h"), 1}}},
        {s("tooBig"), quint64(1) << 63},
        {s("point"), QPoint(1, 2)},
    };
    const QVariantMap expected{
        {s("int"), qint64(7)},
        {s("uint"), qint64(7)},
        {s("float"), 1.5},
        {s("strings"), QVariantList{s("a"), s("b")}},
        {s("hash"), QVariantMap{{s("h"), qint64(1)}}},
    };
    EXPECT_TRUE(identical(wire::toWire(odd), expected));
}

TEST_F(WireCodec, ShapesNoPropertyListHasAreDroppedOnReceipt)
{
    QDBusArgument pair; // (ii)
    pair.beginStructure();
    pair << 1 << 2;
    pair.endStructure();
    qDBusRegisterMetaType<Pair>();
    QDBusArgument pairs; // a(ii)
    pairs.beginArray(QMetaType::fromType<Pair>());
    pairs << Pair{1, 2} << Pair{3, 4};
    pairs.endArray();
    QDBusArgument stringMap; // a{ss}
    stringMap.beginMap(QMetaType::fromType<QString>(), QMetaType::fromType<QString>());
    stringMap.beginMapEntry();
    stringMap << s("k") << s("v");
    stringMap.endMapEntry();
    stringMap.endMap();

    const QVariantMap hostile{
        {s("struct"), QVariant::fromValue(pair)},
        {s("structs"), QVariant::fromValue(pairs)},
        {s("stringMap"), QVariant::fromValue(stringMap)},
        {s("path"), QVariant::fromValue(QDBusObjectPath(s("/a/b")))},
        {s("int32"), 5},
        {s("bytes"), QByteArray("ab")},
        {s("strings"), QStringList{s("x")}},
        {s("variantInVariant"),
         QVariant::fromValue(QDBusVariant(QVariant::fromValue(QDBusVariant(s("deep")))))},
        {s("list"), QVariantList{QVariant::fromValue(pair), s("kept")}},
    };
    const QVariantMap expected{
        {s("int32"), 5},
        {s("bytes"), QByteArray("ab")},
        {s("strings"), QVariantList{s("x")}},
        {s("variantInVariant"), s("deep")},
        {s("list"), QVariantList{s("kept")}},
    };
    EXPECT_TRUE(identical(sendRaw(hostile), expected));
}

TEST_F(WireCodec, DecodingTheSameArgumentTwiceGivesTheSameValue)
{
    peer.setBonjourInfo(everyType());
    const QDBusMessage reply = QDBusConnection::sessionBus().call(QDBusMessage::createMethodCall(
        kAppProtocolService, kAppProtocolPath, kAppProtocolInterface, s("bonjourPublisherInfo")));
    ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << qPrintable(reply.errorMessage());
    const QVariant first = wire::fromWire(reply.arguments().value(0));
    EXPECT_TRUE(identical(first, plist::normalized(everyType())));
    EXPECT_TRUE(identical(wire::fromWire(reply.arguments().value(0)), first));
}

TEST_F(WireCodec, NestingIsCutWhereTheBusWouldRefuseIt)
{
    // The bus drops a connection that sends containers nested deeper than 64 (a dictionary level
    // costs three, an array level two): the codec keeps exactly what fits.
    EXPECT_EQ(depthOf(sendRaw(wire::toWire(nested(21)))), 21);
    EXPECT_EQ(depthOf(sendRaw(wire::toWire(nested(200)))), 21);

    // Inside the top dictionary (three levels), 30 arrays and the bytes' own array fill all 64.
    const auto listDepth = [this](int levels) {
        QVariant value = QByteArray("b");
        for (int i = 0; i < levels; ++i)
            value = QVariantList{value};
        QVariant received = sendRaw(wire::toWire(QVariantMap{{s("l"), value}})).toMap().value(s("l"));
        int depth = 0;
        for (; received.typeId() == QMetaType::QVariantList; ++depth)
            received = received.toList().value(0);
        return std::make_pair(depth, received.typeId() == QMetaType::QByteArray);
    };
    EXPECT_EQ(listDepth(30), std::make_pair(30, true));
    EXPECT_EQ(listDepth(31), std::make_pair(31, false)); // the innermost array arrives empty
    EXPECT_EQ(listDepth(40), std::make_pair(31, false));

    // Still connected: the cut values never reached the bus.
    EXPECT_TRUE(identical(sendRaw(wire::toWire(everyType())), plist::normalized(everyType())));
}
