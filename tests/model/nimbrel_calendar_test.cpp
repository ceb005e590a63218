// The calendar row: leaf and source tree, ordering, identity, replacing the record and the requests
// that checkboxes and options sheets send to the link.

#include "model/CalendarLink.h"
#include "model/NimbrelCalendar.h"

#include <gtest/gtest.h>
#include <optional>
#include <utility>

namespace nimbrel {
namespace {

using Entry = std::pair<const char*, QVariant>;

QVariantMap dict(std::initializer_list<Entry> entries)
{
    QVariantMap map;
    for (const auto& [key, value] : entries)
        map.insert(QString::fromLatin1(key), value);
    return map;
}

QVariant text(const char* value)
{
    return QString::fromUtf8(value);
}

QString key(const char* name)
{
    return QString::fromLatin1(name);
}

QStringList titles(const CalendarList& list)
{
    QStringList result;
    for (const CalendarRef& calendar : list)
        result << calendar->title().toString();
    return result;
}

struct Call
{
    QString request;
    QVariantMap calendar;
    std::optional<bool> inform;
};

class RecordingLink : public CalendarLink
{
public:
    void publishViaBonjour(const QVariantMap& calendar, bool inform) override
    {
        calls.append({QStringLiteral("publishViaBonjour"), calendar, inform});
    }
    void subscribeTo(const QVariantMap& calendar, bool inform) override
    {
        calls.append({QStringLiteral("subscribeTo"), calendar, inform});
    }
    void publishToGoogle(const QVariantMap& calendar) override
    {
        calls.append({QStringLiteral("publishToGoogle"), calendar, std::nullopt});
    }
    void setPublishOptions(const QVariantMap& calendar) override
    {
        calls.append({QStringLiteral("setPublishOptions"), calendar, std::nullopt});
    }
    void setSubscribeOptions(const QVariantMap& calendar) override
    {
        calls.append({QStringLiteral("setSubscribeOptions"), calendar, std::nullopt});
    }

    QList<Call> calls;
};

// Every notice of one row, as "will title" / "did title", with the title the row held at that moment.
struct NoticeLog
{
    explicit NoticeLog(NimbrelCalendar& calendar)
        : observation(calendar.observe(QString(), [this, &calendar](const ChangeNotice& notice) {
              const QString phase =
                  notice.phase == ChangePhase::Will ? QStringLiteral("will ") : QStringLiteral("did ");
              notices << phase + notice.key;
              titlesSeen << calendar.title().toString();
          }))
    {
    }

    QStringList notices;
    QStringList titlesSeen;
    Observation observation;
};

const QStringList kRecordKeys = {key("title"),          key("publishedToBonjour"), key("publishedToGoogle"),
                                 key("publishOptions"), key("subscribedTo"),       key("subscribeOptions"),
                                 key("children"),       key("childCount")};

QStringList sixteenNotices()
{
    QStringList notices;
    for (const QString& k : kRecordKeys)
        notices << QStringLiteral("will ") + k;
    for (const QString& k : kRecordKeys)
        notices << QStringLiteral("did ") + k;
    return notices;
}

class CalendarTest : public ::testing::Test
{
protected:
    void TearDown() override { NimbrelCalendar::setAlternateKeySource({}); }

    RecordingLink link;
};

// ---------------------------------------------------------------------------------------------------
// Record readers

TEST(CalendarRecord, BoolValueReadsOnlyBooleansAndNumbers)
{
    struct Row
    {
        const char* name;
        QVariant value;
        bool expected;
    };
    const Row rows[] = {
        {"absent", QVariant(), false},
        {"true", true, true},
        {"false", false, false},
        {"one", 1, true},
        {"zero", 0, false},
        {"large unsigned", QVariant::fromValue(quint64(1) << 40), true},
        {"half", 0.5, true},
        {"zero double", 0.0, false},
        {"string true", text("true"), false},
        {"string 1", text("1"), false},
        {"list", QVariantList{1}, false},
    };
    for (const Row& row : rows) {
        QVariantMap map;
        if (row.value.isValid())
            map.insert(key("flag"), row.value);
        EXPECT_EQ(boolValue(map, key("flag")), row.expected) << row.name;
    }
}

TEST(CalendarRecord, SortOrderIsTheIntegerOfOrder)
{
    struct Row
    {
        const char* name;
        QVariant order;
        qint64 expected;
    };
    const Row rows[] = {
        {"absent", QVariant(), 0},
        {"positive", 5, 5},
        {"negative", -3, -3},
        {"beyond 32 bits", QVariant::fromValue(qint64(3000000000)), 3000000000},
        {"fraction cut", 2.9, 2},
        {"negative fraction cut", -2.9, -2},
        {"string is no number", text("7"), 0},
    };
    for (const Row& row : rows) {
        QVariantMap map = dict({{"title", text("A")}});
        if (row.order.isValid())
            map.insert(key("order"), row.order);
        EXPECT_EQ(NimbrelCalendar(map, nullptr).sortOrder(), row.expected) << row.name;
    }
}

TEST(CalendarRecord, FlagReadersReturnTheStoredNumber)
{
    const NimbrelCalendar calendar(
        dict({{"uid", text("u1")}, {"publishedToBonjour", 1}, {"subscribedTo", 0}, {"offline", true}}),
        nullptr);
    EXPECT_EQ(calendar.publishedToBonjour(), QVariant(1));
    EXPECT_EQ(calendar.publishedToBonjour().typeId(), QMetaType::Int);
    EXPECT_EQ(calendar.subscribedTo(), QVariant(0));
    EXPECT_FALSE(calendar.publishedToGoogle().isValid());
    EXPECT_FALSE(calendar.subscribable().isValid());
    EXPECT_FALSE(calendar.title().isValid());
    EXPECT_TRUE(calendar.isOffline());
}

// ---------------------------------------------------------------------------------------------------
// Tree

TEST(CalendarTree, LeafOrSourceByTheSourceFlag)
{
    const QVariantList two = {dict({{"title", text("x")}}), dict({{"title", text("y")}})};
    struct Row
    {
        const char* name;
        QVariantMap record;
        bool leaf;
        int childCount;
        bool calendarsKept;
    };
    const Row rows[] = {
        {"no source key, with calendars", dict({{"calendars", two}}), true, 0, true},
        {"source false, with calendars", dict({{"source", false}, {"calendars", two}}), true, 0, true},
        {"source as string", dict({{"source", text("true")}, {"calendars", two}}), true, 0, true},
        {"source with calendars", dict({{"source", true}, {"calendars", two}}), false, 2, false},
        {"source as number", dict({{"source", 1}, {"calendars", two}}), false, 2, false},
        {"source with empty calendars", dict({{"source", true}, {"calendars", QVariantList()}}), false, 0,
         false},
        {"source without calendars", dict({{"source", true}}), false, 0, false},
        {"non-dictionary elements left out",
         dict({{"source", true}, {"calendars", QVariantList{text("junk"), dict({{"title", text("x")}})}}}),
         false, 1, false},
    };
    for (const Row& row : rows) {
        const NimbrelCalendar calendar(row.record, nullptr);
        EXPECT_EQ(calendar.isLeaf(), row.leaf) << row.name;
        EXPECT_EQ(calendar.children() == nullptr, row.leaf) << row.name;
        EXPECT_EQ(calendar.childCount(), row.childCount) << row.name;
        EXPECT_EQ(calendar.dict().contains(key("calendars")), row.calendarsKept) << row.name;
    }
}

TEST(CalendarTree, ChildrenAreSortedByTitleAndBuiltRecursively)
{
    const QVariantMap inner =
        dict({{"title", text("gamma")},
              {"source", true},
              {"calendars", QVariantList{dict({{"title", text("z")}}), dict({{"title", text("M")}})}}});
    const QVariantMap outer =
        dict({{"title", text("server")},
              {"source", true},
              {"calendars", QVariantList{dict({{"title", text("beta")}}), inner,
                                         dict({{"uid", text("1")}, {"title", text("alpha")}}),
                                         dict({{"uid", text("2")}, {"title", text("Alpha")}})}}});
    RecordingLink link;
    const auto source = NimbrelCalendar::create(outer, &link);

    ASSERT_EQ(source->childCount(), 4);
    // Titles equal without case keep the array order.
    EXPECT_EQ(titles(*source->children()),
              (QStringList{key("alpha"), key("Alpha"), key("beta"), key("gamma")}));
    EXPECT_EQ(source->children()->at(0)->uid(), text("1"));

    const CalendarRef nested = source->children()->at(3);
    EXPECT_FALSE(nested->isLeaf());
    EXPECT_FALSE(nested->dict().contains(key("calendars")));
    EXPECT_EQ(titles(*nested->children()), (QStringList{key("M"), key("z")}));

    // Children talk to the same link.
    nested->children()->at(0)->setPublishedToGoogle(true);
    ASSERT_EQ(link.calls.size(), 1);
    EXPECT_EQ(link.calls[0].calendar.value(key("title")), text("M"));
}

TEST(CalendarTree, NewRowIsExpandedAndUnmarkedAndKeepsThatAcrossRecords)
{
    for (const QVariantMap& record : {dict({{"title", text("leaf")}}), dict({{"source", true}})}) {
        NimbrelCalendar calendar(record, nullptr);
        EXPECT_TRUE(calendar.isExpanded());
        EXPECT_FALSE(calendar.marked());

        calendar.setExpanded(false);
        calendar.setMark();
        calendar.setDict(dict({{"title", text("renamed")}}));
        EXPECT_FALSE(calendar.isExpanded());
        EXPECT_TRUE(calendar.marked());
        calendar.clearMark();
        EXPECT_FALSE(calendar.marked());
    }
}

TEST(CalendarTree, RemoteServerIsASourceWithRemoteUrl)
{
    const QVariant url = text("https://calendars.example.org/");
    EXPECT_TRUE(NimbrelCalendar(dict({{"source", true}, {"remoteURL", url}}), nullptr).isRemoteServer());
    EXPECT_FALSE(NimbrelCalendar(dict({{"source", true}}), nullptr).isRemoteServer());
    EXPECT_FALSE(NimbrelCalendar(dict({{"remoteURL", url}}), nullptr).isRemoteServer());
}

// ---------------------------------------------------------------------------------------------------
// Ordering and identity

QVariantMap ordered(const char* title, std::optional<qint64> order)
{
    QVariantMap map = dict({{"title", text(title)}});
    if (order)
        map.insert(key("order"), *order);
    return map;
}

TEST(CalendarOrdering, CompareByOrderThenTitleWithoutCase)
{
    struct Row
    {
        const char* name;
        QVariantMap a;
        QVariantMap b;
        int sign;
    };
    const Row rows[] = {
        {"same order, title without case", ordered("alpha", 1), ordered("Beta", 1), -1},
        {"same order, reversed", ordered("Beta", 1), ordered("alpha", 1), 1},
        {"same order, titles equal without case", ordered("Mail", 2), ordered("mail", 2), 0},
        {"missing order is 0, before a positive one", ordered("z", std::nullopt), ordered("a", 1), -1},
        {"negative before missing", ordered("z", -1), ordered("a", std::nullopt), -1},
        {"orders compare as numbers", ordered("b", 2), ordered("a", 10), -1},
        {"orders beyond 32 bits", ordered("a", 3000000000), ordered("b", 1), 1},
        {"missing title sorts as empty", dict({{"order", 1}}), ordered("a", 1), -1},
    };
    for (const Row& row : rows) {
        const NimbrelCalendar a(row.a, nullptr);
        const NimbrelCalendar b(row.b, nullptr);
        const int result = a.compare(b);
        EXPECT_EQ((result > 0) - (result < 0), row.sign) << row.name;
        const int reverse = b.compare(a);
        EXPECT_EQ((reverse > 0) - (reverse < 0), -row.sign) << row.name;
    }
}

TEST(CalendarOrdering, ListSortsAreStable)
{
    CalendarList list;
    for (const QVariantMap& record :
         {ordered("delta", 2), ordered("Charlie", 1), ordered("bravo", std::nullopt), ordered("CHARLIE", 1),
          ordered("alpha", 2)})
        list << NimbrelCalendar::create(record, nullptr);

    CalendarList byCompare = list;
    NimbrelCalendar::sortByCompare(byCompare);
    EXPECT_EQ(titles(byCompare),
              (QStringList{key("bravo"), key("Charlie"), key("CHARLIE"), key("alpha"), key("delta")}));

    CalendarList byTitle = list;
    NimbrelCalendar::sortByTitle(byTitle);
    EXPECT_EQ(titles(byTitle),
              (QStringList{key("alpha"), key("bravo"), key("Charlie"), key("CHARLIE"), key("delta")}));
}

TEST(CalendarIdentity, ReceiverDecidesBetweenUidAndTitle)
{
    struct Row
    {
        const char* name;
        QVariantMap receiver;
        QVariantMap other;
        bool equal;
    };
    const Row rows[] = {
        {"same uid, other titles", dict({{"uid", text("u")}, {"title", text("A")}}),
         dict({{"uid", text("u")}, {"title", text("B")}}), true},
        {"other uid, same title", dict({{"uid", text("u")}, {"title", text("A")}}),
         dict({{"uid", text("v")}, {"title", text("A")}}), false},
        {"uid against none, same title", dict({{"uid", text("u")}, {"title", text("A")}}),
         dict({{"title", text("A")}}), false},
        {"no uid against uid, same title", dict({{"title", text("A")}}),
         dict({{"uid", text("u")}, {"title", text("A")}}), true},
        {"titles only, equal", dict({{"title", text("A")}}), dict({{"title", text("A")}}), true},
        {"titles compare with case", dict({{"title", text("A")}}), dict({{"title", text("a")}}), false},
        {"no uid and no title", dict({{"order", 1}}), dict({{"order", 1}}), false},
    };
    for (const Row& row : rows) {
        const NimbrelCalendar receiver(row.receiver, nullptr);
        const NimbrelCalendar other(row.other, nullptr);
        EXPECT_EQ(receiver.isEqualToCalendar(other), row.equal) << row.name;
    }
}

// ---------------------------------------------------------------------------------------------------
// Replacing the record

TEST(CalendarSetDict, AnyDifferenceAnnouncesAllEightKeysWillThenDid)
{
    const QVariantMap before = dict({{"uid", text("u")}, {"title", text("Old")}, {"syncTime", 5}});
    struct Row
    {
        const char* name;
        QVariantMap after;
        QString titleAfter;
    };
    const Row rows[] = {
        {"title changed", dict({{"uid", text("u")}, {"title", text("New")}, {"syncTime", 5}}), key("New")},
        {"unbound key changed", dict({{"uid", text("u")}, {"title", text("Old")}, {"syncTime", 6}}),
         key("Old")},
        {"key removed", dict({{"uid", text("u")}, {"title", text("Old")}}), key("Old")},
    };
    for (const Row& row : rows) {
        NimbrelCalendar calendar(before, nullptr);
        NoticeLog log(calendar);
        calendar.setDict(row.after);
        EXPECT_EQ(log.notices, sixteenNotices()) << row.name;
        EXPECT_EQ(calendar.dict(), row.after) << row.name;
        // Will-notices see the old record, did-notices the new one.
        ASSERT_EQ(log.titlesSeen.size(), 16) << row.name;
        EXPECT_EQ(log.titlesSeen.first(), key("Old")) << row.name;
        EXPECT_EQ(log.titlesSeen.at(7), key("Old")) << row.name;
        EXPECT_EQ(log.titlesSeen.at(8), row.titleAfter) << row.name;
    }
}

TEST(CalendarSetDict, EqualRecordSendsNothing)
{
    const QVariantMap record = dict({{"uid", text("u")}, {"title", text("A")}, {"publishedToBonjour", true}});
    NimbrelCalendar calendar(record, nullptr);
    NoticeLog log(calendar);
    calendar.setDict(record);
    EXPECT_TRUE(log.notices.isEmpty());
}

TEST(CalendarSetDict, SourceRecordIsNeverEqualAndKeepsItsChildren)
{
    const QVariantMap record = dict({{"title", text("server")},
                                     {"source", true},
                                     {"calendars", QVariantList{dict({{"title", text("x")}})}}});
    NimbrelCalendar source(record, nullptr);
    const CalendarRef child = source.children()->at(0);
    NoticeLog log(source);

    QVariantMap fresh = record;
    fresh.insert(key("calendars"), QVariantList{dict({{"title", text("y")}}), dict({{"title", text("z")}})});
    source.setDict(fresh);

    EXPECT_EQ(log.notices, sixteenNotices());
    EXPECT_FALSE(source.dict().contains(key("calendars")));
    ASSERT_EQ(source.childCount(), 1);
    EXPECT_EQ(source.children()->at(0), child);
}

TEST(CalendarSetDict, LosingThePasswordFallsBackToWhatAnyoneIsGranted)
{
    const QVariantMap subscribed = dict({{"title", text("A")},
                                         {"subscribedTo", true},
                                         {"subscribePassword", text("secret")},
                                         {"readProtected", true},
                                         {"readOnly", false},
                                         {"readableByAnyone", true},
                                         {"writableByAnyone", false}});
    QVariantMap unsubscribed = subscribed;
    unsubscribed.insert(key("subscribedTo"), false);
    QVariantMap passwordCleared = subscribed;
    passwordCleared.insert(key("subscribePassword"), text(""));
    QVariantMap nothingGranted = unsubscribed;
    nothingGranted.insert(key("readableByAnyone"), false);
    nothingGranted.insert(key("writableByAnyone"), true);
    QVariantMap otherPassword = subscribed;
    otherPassword.insert(key("subscribePassword"), text("other"));
    QVariantMap subscribedNoPassword = subscribed;
    subscribedNoPassword.remove(key("subscribePassword"));
    QVariantMap neverSubscribed = unsubscribed;
    neverSubscribed.remove(key("subscribePassword"));

    struct Row
    {
        const char* name;
        QVariantMap current;
        QVariantMap incoming;
        bool passwordKept;
        bool readProtected;
        bool readOnly;
    };
    const Row rows[] = {
        {"unsubscribing", subscribed, unsubscribed, false, false, true},
        {"unsubscribing, nothing granted", subscribed, nothingGranted, false, true, false},
        {"password cleared while subscribed", subscribed, passwordCleared, true, false, true},
        {"password changed", subscribed, otherPassword, true, true, false},
        // Never subscribed: nothing to forget.
        {"not subscribed before", neverSubscribed, unsubscribed, true, true, false},
        // Subscribed without a password: the incoming one is dropped, the flags stay as sent.
        {"subscribed without password", subscribedNoPassword, unsubscribed, false, true, false},
    };
    for (const Row& row : rows) {
        NimbrelCalendar calendar(row.current, nullptr);
        calendar.setDict(row.incoming);
        const QVariantMap& stored = calendar.dict();
        EXPECT_EQ(stored.contains(key("subscribePassword")), row.passwordKept) << row.name;
        EXPECT_EQ(stored.value(key("readProtected")).toBool(), row.readProtected) << row.name;
        EXPECT_EQ(stored.value(key("readOnly")).toBool(), row.readOnly) << row.name;
        EXPECT_EQ(stored.value(key("readProtected")).typeId(), QMetaType::Bool) << row.name;
    }
}

// ---------------------------------------------------------------------------------------------------
// Requests to the link

TEST_F(CalendarTest, CheckboxesSendTheNewRecordWithInformByTheAlternateKey)
{
    using Setter = void (NimbrelCalendar::*)(const QVariant&);
    struct Row
    {
        const char* name;
        Setter setter;
        const char* key;
        const char* request;
        bool alternateDown;
        std::optional<bool> inform;
    };
    const Row rows[] = {
        {"publish", &NimbrelCalendar::setPublishedToBonjour, "publishedToBonjour", "publishViaBonjour", false,
         true},
        {"publish with Alternate", &NimbrelCalendar::setPublishedToBonjour, "publishedToBonjour",
         "publishViaBonjour", true, false},
        {"subscribe", &NimbrelCalendar::setSubscribedTo, "subscribedTo", "subscribeTo", false, true},
        {"subscribe with Alternate", &NimbrelCalendar::setSubscribedTo, "subscribedTo", "subscribeTo", true,
         false},
        {"google", &NimbrelCalendar::setPublishedToGoogle, "publishedToGoogle", "publishToGoogle", false,
         std::nullopt},
        {"google with Alternate", &NimbrelCalendar::setPublishedToGoogle, "publishedToGoogle",
         "publishToGoogle", true, std::nullopt},
    };
    for (const Row& row : rows) {
        int keyboardAsked = 0;
        NimbrelCalendar::setAlternateKeySource([&] {
            ++keyboardAsked;
            return row.alternateDown;
        });
        link.calls.clear();
        NimbrelCalendar calendar(dict({{"uid", text("u")}, {"title", text("A")}}), &link);
        NoticeLog log(calendar);

        (calendar.*row.setter)(1);

        EXPECT_EQ(log.notices, sixteenNotices()) << row.name;
        EXPECT_EQ(calendar.dict().value(key(row.key)), QVariant(1)) << row.name;
        ASSERT_EQ(link.calls.size(), 1) << row.name;
        EXPECT_EQ(link.calls[0].request, key(row.request)) << row.name;
        EXPECT_EQ(link.calls[0].calendar, calendar.dict()) << row.name;
        EXPECT_EQ(link.calls[0].inform, row.inform) << row.name;
        // The Google checkbox does not look at the keyboard.
        EXPECT_EQ(keyboardAsked, row.inform.has_value() ? 1 : 0) << row.name;
    }
}

TEST_F(CalendarTest, UnsubscribingSendsTheRecordWithoutThePassword)
{
    NimbrelCalendar calendar(
        dict({{"title", text("A")}, {"subscribedTo", true}, {"subscribePassword", text("pw")}}), &link);
    calendar.setSubscribedTo(false);
    ASSERT_EQ(link.calls.size(), 1);
    EXPECT_FALSE(link.calls[0].calendar.contains(key("subscribePassword")));
    EXPECT_EQ(link.calls[0].calendar.value(key("readProtected")), QVariant(true));
}

TEST_F(CalendarTest, KeyboardWithoutAlternateInformsThePane)
{
    // The application's own keyboard state: nothing is held in the offscreen test session.
    NimbrelCalendar calendar(dict({{"title", text("A")}}), &link);
    calendar.setPublishedToBonjour(true);
    ASSERT_EQ(link.calls.size(), 1);
    EXPECT_EQ(link.calls[0].inform, std::optional<bool>(true));
}

TEST_F(CalendarTest, AutoSwitchingAnnouncesOnlyItsKeyAndNeverInforms)
{
    using Action = void (NimbrelCalendar::*)();
    struct Row
    {
        const char* name;
        Action action;
        const char* key;
        const char* request;
    };
    const Row rows[] = {
        {"publish", &NimbrelCalendar::autoPublishToBonjour, "publishedToBonjour", "publishViaBonjour"},
        {"subscribe", &NimbrelCalendar::autoSubscribeTo, "subscribedTo", "subscribeTo"},
    };
    NimbrelCalendar::setAlternateKeySource([] { return false; });
    for (const Row& row : rows) {
        link.calls.clear();
        NimbrelCalendar calendar(dict({{"title", text("A")}, {"subscribePassword", text("pw")}}), &link);
        NoticeLog log(calendar);

        (calendar.*row.action)();
        EXPECT_EQ(log.notices, (QStringList{QStringLiteral("will ") + key(row.key),
                                            QStringLiteral("did ") + key(row.key)}))
            << row.name;
        EXPECT_TRUE(boolValue(calendar.dict(), key(row.key))) << row.name;
        EXPECT_EQ(calendar.dict().value(key("subscribePassword")), text("pw")) << row.name;
        ASSERT_EQ(link.calls.size(), 1) << row.name;
        EXPECT_EQ(link.calls[0].request, key(row.request)) << row.name;
        EXPECT_EQ(link.calls[0].calendar, calendar.dict()) << row.name;
        EXPECT_EQ(link.calls[0].inform, std::optional<bool>(false)) << row.name;

        // Already on: nothing more happens.
        log.notices.clear();
        (calendar.*row.action)();
        EXPECT_TRUE(log.notices.isEmpty()) << row.name;
        EXPECT_EQ(link.calls.size(), 1) << row.name;
    }
}

TEST_F(CalendarTest, OptionsSheetsHandTheCallersRecordOnUnchanged)
{
    using Action = void (NimbrelCalendar::*)(const QVariantMap&);
    struct Row
    {
        const char* name;
        Action action;
        const char* request;
    };
    const Row rows[] = {
        {"publish options", &NimbrelCalendar::setPublishOptions, "setPublishOptions"},
        {"subscribe options", &NimbrelCalendar::setSubscribeOptions, "setSubscribeOptions"},
    };
    for (const Row& row : rows) {
        link.calls.clear();
        NimbrelCalendar calendar(
            dict({{"title", text("A")}, {"subscribedTo", true}, {"subscribePassword", text("old")}}), &link);
        NoticeLog log(calendar);
        const QVariantMap sheet = dict({{"title", text("A")},
                                        {"subscribedTo", false},
                                        {"subscribePassword", text("old")},
                                        {"readPassword", text("r")},
                                        {"writePassword", text("w")}});
        (calendar.*row.action)(sheet);

        ASSERT_EQ(link.calls.size(), 1) << row.name;
        EXPECT_EQ(link.calls[0].request, key(row.request)) << row.name;
        EXPECT_EQ(link.calls[0].calendar, sheet) << row.name;
        // What is stored went through the record rules.
        EXPECT_FALSE(calendar.dict().contains(key("subscribePassword"))) << row.name;
        EXPECT_EQ(calendar.dict().value(key("readPassword")), text("r")) << row.name;
        EXPECT_EQ(log.notices, sixteenNotices()) << row.name;
    }
}

TEST_F(CalendarTest, RowWithoutLinkStillStoresChanges)
{
    NimbrelCalendar calendar(dict({{"title", text("A")}}), nullptr);
    calendar.setPublishedToBonjour(true);
    calendar.autoSubscribeTo();
    calendar.setPublishOptions(dict({{"title", text("B")}}));
    EXPECT_EQ(calendar.title(), text("B"));
}

} // namespace
} // namespace nimbrel
