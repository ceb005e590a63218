// Property lists over a private session bus: sent through the codec or raw, decoded by the fake
// background application, and answered back.

#include "link/AppProtocolProxy.h"
#include "logging/Log.h"
#include "platform/PlistValue.h"
#include "protocol/WireCodec.h"
#include "support/FakeAppPeer.h"
#include "support/PlistCompare.h"
#include "support/TestEnvironment.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDateTime>
#include <QPoint>
#include <QRect>
#include <QTimeZone>
#include <gtest/gtest.h>
#include <limits>

using namespace nimbrel;
using nimbrel::test::identical;

namespace {

using nimbrel::test::s;

// Every property-list type, nested in both kinds of container.
QVariantMap everyType()
{
    const QDateTime local(QDate(2009, 3, 14), QTime(15, 9, 26, 535), QTimeZone(3600 * 5 + 1800));
    const QVariantMap inner{
        {s("uid"), s("A1B2-C3")},
        {s("empty"), QVariantMap()},
        {s("list"), QVariantList{qint64(1), s("two"), QVariantList{true}, QVariantMap{{s("k"), 2.5}}}}};
    return {{s("bool"), false},
            {s("integer"), qint64(-9007199254740993)},
            {s("real"), -0.0},
            {s("string"), s("Kalender \u00e9\u00e8 \U0001F4C5")},
            {s("emptyString"), QString()},
            {s("date"), local},
            {s("data"), QByteArray("\0\x01\xff", 3)},
            {s("emptyArray"), QVariantList()},
            {s("dict"), inner},
            {s("array"), QVariantList{inner, local, QByteArray("x")}}};
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

    test::FakeAppPeer peer;
};

} // namespace

TEST_F(WireCodec, EveryTypeSurvivesBothDirections)
{
    const QVariant expected = plist::normalized(everyType());
    EXPECT_TRUE(identical(sendRaw(wire::toWire(everyType())), expected));

    // The same reply argument decodes to the same value twice (reading must not consume it).
    peer.setBonjourInfo(everyType());
    const QDBusMessage reply = QDBusConnection::sessionBus().call(QDBusMessage::createMethodCall(
        kAppProtocolService, kAppProtocolPath, kAppProtocolInterface, s("bonjourPublisherInfo")));
    ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << qPrintable(reply.errorMessage());
    EXPECT_TRUE(identical(wire::fromWire(reply.arguments().value(0)), expected));
    EXPECT_TRUE(identical(wire::fromWire(reply.arguments().value(0)), expected));
}

TEST_F(WireCodec, NullsAndShapesNoPropertyListHasAreDroppedEitherWay)
{
    // Before sending: a null would abort inside libdbus, the rest cannot be carried.
    const QVariantMap sent{{s("null"), QVariant()},
                           {s("nullptr"), QVariant::fromValue(nullptr)},
                           {s("invalidDate"), QDateTime()},
                           {s("tooBig"), quint64(1) << 63},
                           {s("point"), QPoint(1, 2)},
                           {s("int"), 7},
                           {s("strings"), QStringList{s("a"), s("b")}},
                           {s("hash"), QVariantHash{{s("h"), QVariant()}, {s("k"), 1}}},
                           {s("list"), QVariantList{QVariant(), s("a"), QVariantMap{{s("x"), QVariant()}}}}};
    const QVariantMap expected{{s("int"), qint64(7)},
                               {s("strings"), QVariantList{s("a"), s("b")}},
                               {s("hash"), QVariantMap{{s("k"), qint64(1)}}},
                               {s("list"), QVariantList{s("a"), QVariantMap()}}};
    EXPECT_TRUE(identical(wire::toWire(sent), expected));
    EXPECT_FALSE(wire::toWire(QVariant()).isValid());
    EXPECT_TRUE(identical(sendRaw(wire::toWire(QVariant(sent))), expected));

    // On receipt: D-Bus shapes no property list has are dropped, never a crash.
    const QVariantMap hostile{{s("struct"), QPoint(1, 2)}, // (ii)
                              {s("path"), QVariant::fromValue(QDBusObjectPath(s("/a/b")))},
                              {s("int32"), 5},
                              {s("strings"), QStringList{s("x")}},
                              {s("variantInVariant"), QVariant::fromValue(QDBusVariant(
                                                          QVariant::fromValue(QDBusVariant(s("deep")))))},
                              {s("list"), QVariantList{QRect(1, 2, 3, 4), s("kept")}}};
    const QVariantMap kept{{s("int32"), 5},
                           {s("strings"), QVariantList{s("x")}},
                           {s("variantInVariant"), s("deep")},
                           {s("list"), QVariantList{s("kept")}}};
    EXPECT_TRUE(identical(sendRaw(hostile), kept));
}

TEST_F(WireCodec, NestingIsCutWhereTheBusWouldRefuseIt)
{
    // The bus drops a connection that sends containers nested deeper than 64 (a dictionary level
    // costs three, an array level two, bytes one): the codec keeps exactly what fits. Returns how
    // many levels arrived inside the top dictionary and whether the bytes at the bottom did.
    const auto received = [this](int levels, bool arrays) {
        QVariant value = QByteArray("b");
        for (int i = 0; i < levels; ++i)
            value = arrays ? QVariant(QVariantList{value}) : QVariant(QVariantMap{{s("n"), value}});
        QVariant r = sendRaw(wire::toWire(QVariantMap{{s("n"), value}})).toMap().value(s("n"));
        int depth = 0;
        for (; r.typeId() == QMetaType::QVariantList || r.typeId() == QMetaType::QVariantMap; ++depth)
            r = arrays ? r.toList().value(0) : r.toMap().value(s("n"));
        return std::make_pair(depth, r.typeId() == QMetaType::QByteArray);
    };
    EXPECT_EQ(received(30, true), std::make_pair(30, true));
    EXPECT_EQ(received(31, true), std::make_pair(31, false)); // the innermost array arrives empty
    EXPECT_EQ(received(40, true), std::make_pair(31, false));
    EXPECT_EQ(received(20, false), std::make_pair(20, true));
    EXPECT_EQ(received(21, false), std::make_pair(21, false));
    EXPECT_EQ(received(200, false), std::make_pair(21, false));

    // Still connected: the cut values never reached the bus.
    EXPECT_TRUE(identical(sendRaw(wire::toWire(everyType())), plist::normalized(everyType())));
}

// Calendar lists travel as one CBOR byte array: every property-list value survives, in a reply too.
TEST_F(WireCodec, ListsSurviveAsOneByteArray)
{
    const QVariantList list{everyType(),
                            QVariantMap{{s("nan"), qQNaN()},
                                        {s("extremes"), QVariantList{std::numeric_limits<qint64>::min(),
                                                                     std::numeric_limits<qint64>::max()}},
                                        {s("wholeSecond"), QDateTime::fromSecsSinceEpoch(-86400, Qt::UTC)}},
                            QVariantList(), s("not every element is a dictionary")};
    const QVariant expected = plist::normalized(list);
    EXPECT_TRUE(identical(wire::decodeList(wire::encodeList(list)).value_or(QVariantList()), expected));

    ASSERT_TRUE(peer.start());
    peer.setListAnswer(s("sourceListOfGoogleCalendars"), list);
    EXPECT_TRUE(
        identical(AppProtocolProxy().sourceListOfGoogleCalendars().value_or(QVariantList()), expected));

    // What no property list holds is left out, a dictionary's key with its value.
    SetLogLevel(14);
    const QVariantList dropped{QVariant(), QPoint(1, 2),
                               QVariantMap{{s("null"), QVariant()}, {s("point"), QPoint()}, {s("kept"), 1}}};
    EXPECT_TRUE(identical(wire::decodeList(wire::encodeList(dropped)).value_or(QVariantList()),
                          QVariantList{QVariantMap{{s("kept"), qint64(1)}}}));
    SetLogLevel(2);
}

// An answer is untrusted: anything but a list of property-list values refuses the whole answer with a
// reason, and no length or nesting in it makes the reader allocate, recurse or read beyond the bytes.
TEST(WireList, HostileAnswersAreRefusedWithAReason)
{
    const QByteArray deep = QByteArray(33, '\x81') + '\x01', deepOk = QByteArray(32, '\x81') + '\x01';
    const QByteArray tags = '\x81' + QByteArray(100000, '\xc1') + '\x01';
    const std::pair<QByteArray, const char*> refused[] = {
        {"", "not a list"},
        {QByteArray::fromHex("a0"), "not a list"},
        {QByteArray::fromHex("81"), "ends early"},
        {QByteArray::fromHex("9bffffffffffffffff"), "ends early"}, // 2^64 - 1 elements announced
        {QByteArray::fromHex("bb7fffffffffffffff"), "not a list"},
        {QByteArray::fromHex("817a7fffffff61"), "ends early"},       // a text of 2 GiB announced
        {QByteArray::fromHex("81f6"), "no property list holds"},     // null
        {QByteArray::fromHex("81f7"), "no property list holds"},     // undefined
        {QByteArray::fromHex("81c24100"), "no property list holds"}, // a bignum
        {QByteArray::fromHex("81a10102"), "not text"},
        {QByteArray::fromHex("811b8000000000000000"), "no property list holds"},   // 2^63
        {QByteArray::fromHex("813b8000000000000000"), "no property list holds"},   // -2^63 - 1
        {QByteArray::fromHex("81c11b0000ffffffffffff"), "no property list holds"}, // a date out of range
        {QByteArray::fromHex("8000"), "bytes after"},
        {QByteArray::fromHex("81ff"), "stray break"},
        {QByteArray::fromHex("817f4161ff"), "malformed string"},
        {QByteArray::fromHex("81fc"), "malformed item"},
        {deep, "no property list holds"},
        {tags, "no property list holds"},
    };
    for (const auto& [bytes, reason] : refused) {
        QString error;
        EXPECT_FALSE(wire::decodeList(bytes, &error)) << bytes.toHex().constData();
        EXPECT_TRUE(error.contains(QLatin1String(reason)))
            << bytes.toHex().constData() << " " << qPrintable(error);
    }
    const std::pair<QByteArray, QVariantList> accepted[] = {
        {QByteArray::fromHex("9fff"), {}},
        {QByteArray::fromHex("813b7fffffffffffffff"), {std::numeric_limits<qint64>::min()}},
        {QByteArray::fromHex("817f61616162ff"), {s("ab")}}, // a text in chunks
        {QByteArray::fromHex("81f93c00"), {1.0}},           // half precision
        {QByteArray::fromHex("81c1fb41d954fc40000000"),
         {QDateTime::fromMSecsSinceEpoch(1700000000000, Qt::UTC)}},
    };
    for (const auto& [bytes, expected] : accepted) {
        EXPECT_TRUE(identical(wire::decodeList(bytes).value_or(QVariantList{s("refused")}), expected))
            << bytes.toHex().constData();
    }
    EXPECT_TRUE(wire::decodeList(deepOk).has_value());
}
