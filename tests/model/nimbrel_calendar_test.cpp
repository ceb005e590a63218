// The calendar row: leaf and source tree, ordering, identity, replacing the record and the requests
// that checkboxes and options sheets send to the link.

#include "model/CalendarLink.h"
#include "model/NimbrelCalendar.h"
#include "support/TestEnvironment.h"

#include <gtest/gtest.h>
#include <optional>
#include <tuple>

static void PrintTo(const QString& text, std::ostream* os)
{
    *os << text.toStdString();
}

namespace nimbrel {
namespace {

using nimbrel::test::s;

// A record from "key=value" words: true and false are booleans, whole numbers ints, anything else
// (without its quotes) a string.
QVariantMap rec(QAnyStringView text)
{
    QVariantMap map;
    for (const QString& word : text.toString().split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        const QString key = word.section(QLatin1Char('='), 0, 0), value = word.section(QLatin1Char('='), 1);
        bool isInt = false;
        const int number = value.toInt(&isInt);
        if (value == s("true") || value == s("false"))
            map.insert(key, value == s("true"));
        else
            map.insert(key, isInt ? QVariant(number) : QVariant(QString(value).remove(QLatin1Char('"'))));
    }
    return map;
}

QVariantMap with(QVariantMap map, const char* key, const QVariant& value)
{
    map.insert(s(key), value);
    return map;
}

QString titles(const CalendarList& list)
{
    QStringList result;
    for (const CalendarRef& calendar : list)
        result << calendar->title().toString();
    return result.join(QLatin1Char(' '));
}

// Every request as (request, record, inform flag when the request has one).
using Call = std::tuple<QString, QVariantMap, std::optional<bool>>;
struct RecordingLink : CalendarLink
{
    void publishViaBonjour(const QVariantMap& c, bool inform) override
    {
        add("publishViaBonjour", c, inform);
    }
    void subscribeTo(const QVariantMap& c, bool inform) override { add("subscribeTo", c, inform); }
    void publishToGoogle(const QVariantMap& c) override { add("publishToGoogle", c); }
    void setPublishOptions(const QVariantMap& c) override { add("setPublishOptions", c); }
    void setSubscribeOptions(const QVariantMap& c) override { add("setSubscribeOptions", c); }
    void add(const char* request, const QVariantMap& c, std::optional<bool> inform = {})
    {
        calls.append({s(request), c, inform});
    }
    QList<Call> calls;
};

// Every notice of one row, as "will title" / "did title", and the title the row held at that moment.
struct NoticeLog
{
    explicit NoticeLog(NimbrelCalendar& row)
        : observation(row.observe(QString(), [this, &row](const ChangeNotice& notice) {
              notices << (notice.phase == ChangePhase::Will ? s("will ") : s("did ")) + notice.key;
              titlesSeen << row.title().toString();
          }))
    {
    }
    QStringList notices, titlesSeen;
    Observation observation;
};

const QStringList kSixteenNotices = [] {
    QStringList notices;
    for (const char* phase : {"will ", "did "}) {
        for (const char* key : {"title", "publishedToBonjour", "publishedToGoogle", "publishOptions",
                                "subscribedTo", "subscribeOptions", "children", "childCount"})
            notices << s(phase) + s(key);
    }
    return notices;
}();

TEST(CalendarRecord, FlagsAndOrderReadOnlyNumbers)
{
    const std::tuple<QVariant, bool, qint64> rows[] = {
        {QVariant(), false, 0}, {true, true, 1},  {0, false, 0},   {qint64(3000000000), true, 3000000000},
        {0.5, true, 0},         {-2.9, true, -2}, {0.0, false, 0}, {s("1"), false, 0}};
    for (const auto& [value, flag, order] : rows) {
        SCOPED_TRACE(testing::Message() << value.typeName() << ' ' << value.toString().toStdString());
        EXPECT_EQ(boolValue(with({}, "order", value), s("order")), flag);
        EXPECT_EQ(NimbrelCalendar(with({}, "order", value), nullptr).sortOrder(), order);
    }
}

TEST(CalendarTree, LeafOrSourceByTheSourceFlag)
{
    const QVariantList two = {rec("title=x"), rec("title=y")};
    // Child count -1: a leaf, which keeps "calendars" in its record.
    const std::tuple<const char*, QVariant, int, bool> rows[] = {
        {"remoteURL=https://example.org/", two, -1, false},
        {"source=false", two, -1, false},
        {"source=\"true\"", two, -1, false},
        {"source=true", two, 2, false},
        {"source=1 remoteURL=https://example.org/", two, 2, true},
        {"source=true", QVariant(), 0, false},
        {"source=true", QVariantList(), 0, false},
        {"source=true", QVariantList{s("junk"), two[0]}, 1, false}, // a non-dictionary is left out
    };
    for (const auto& [record, calendars, childCount, remote] : rows) {
        SCOPED_TRACE(testing::Message() << record << ' ' << calendars.toList().size());
        const NimbrelCalendar calendar(with(rec(record), "calendars", calendars), nullptr);
        const bool leaf = childCount < 0;
        EXPECT_EQ(calendar.isLeaf(), leaf);
        EXPECT_EQ(calendar.children() == nullptr, leaf);
        EXPECT_EQ(calendar.childCount(), std::max(childCount, 0));
        EXPECT_EQ(calendar.dict().contains(s("calendars")), leaf);
        EXPECT_EQ(calendar.isRemoteServer(), remote);
    }
}

TEST(CalendarTree, NestedChildrenSortedByTitleShareTheLinkAndNewRowsAreExpanded)
{
    const QVariantMap inner =
        with(rec("title=gamma source=true"), "calendars", QVariantList{rec("title=z"), rec("title=M")});
    const QVariantList calendars = {rec("title=beta"), inner, rec("title=alpha uid=1"),
                                    rec("title=Alpha uid=2")};
    RecordingLink link;
    const auto source = NimbrelCalendar::create(with(rec("source=true"), "calendars", calendars), &link);

    ASSERT_EQ(titles(*source->children()), s("alpha Alpha beta gamma")); // equal titles keep their order
    const CalendarRef nested = source->children()->at(3);
    EXPECT_FALSE(nested->dict().contains(s("calendars")));
    EXPECT_EQ(titles(*nested->children()), s("M z"));
    nested->children()->at(0)->setPublishedToGoogle(true);
    ASSERT_EQ(link.calls.size(), 1);
    EXPECT_EQ(std::get<1>(link.calls[0]).value(s("title")), QVariant(s("M")));

    // New rows are expanded and unmarked; a new record changes neither.
    for (NimbrelCalendar* row : {source.get(), nested->children()->at(1).get()}) {
        EXPECT_TRUE(row->isExpanded() && !row->marked());
        row->setExpanded(false);
        row->setMark();
        row->setDict(rec("title=renamed"));
        EXPECT_TRUE(!row->isExpanded() && row->marked());
    }
}

TEST(CalendarOrdering, CompareByOrderThenTitleWithoutCaseAndSortIsStable)
{
    const std::tuple<const char*, const char*, int> rows[] = {
        {"order=1 title=alpha", "order=1 title=Beta", -1}, // same order: title without case
        {"order=2 title=Mail", "order=2 title=mail", 0},
        {"title=z", "order=1 title=a", -1}, // missing order is 0
        {"order=-1 title=z", "title=a", -1},
        {"order=2 title=b", "order=10 title=a", -1}, // numbers, not text
        {"order=1", "order=1 title=a", -1},          // a missing title sorts as the empty one
    };
    for (const auto& [a, b, sign] : rows) {
        SCOPED_TRACE(testing::Message() << a << " / " << b);
        const NimbrelCalendar first(rec(a), nullptr), second(rec(b), nullptr);
        const int forward = first.compare(second), reverse = second.compare(first);
        EXPECT_EQ((forward > 0) - (forward < 0), sign);
        EXPECT_EQ((reverse > 0) - (reverse < 0), -sign);
    }
    const NimbrelCalendar wide(with(rec("title=a"), "order", qint64(3000000000)), nullptr);
    EXPECT_GT(wide.compare(NimbrelCalendar(rec("order=1 title=b"), nullptr)), 0);

    CalendarList list;
    for (const char* record : {"order=2 title=delta", "order=1 title=Charlie", "title=bravo",
                               "order=1 title=CHARLIE", "order=2 title=alpha"})
        list << NimbrelCalendar::create(rec(record), nullptr);
    NimbrelCalendar::sortByCompare(list);
    EXPECT_EQ(titles(list), s("bravo Charlie CHARLIE alpha delta"));
}

TEST(CalendarIdentity, ReceiverDecidesBetweenUidAndTitle)
{
    const std::tuple<const char*, const char*, bool> rows[] = {{"uid=u title=A", "uid=u title=B", true},
                                                               {"uid=u title=A", "uid=v title=A", false},
                                                               {"uid=u title=A", "title=A", false},
                                                               {"title=A", "uid=u title=A", true},
                                                               {"title=A", "title=a", false},
                                                               {"order=1", "order=1", false}};
    for (const auto& [receiver, other, equal] : rows) {
        const NimbrelCalendar a(rec(receiver), nullptr), b(rec(other), nullptr);
        EXPECT_EQ(a.isEqualToCalendar(b), equal) << receiver << " / " << other;
    }
}

TEST(CalendarSetDict, AnnouncesTheEightKeysWillThenDidUnlessTheRecordIsEqual)
{
    // A source's fresh record lists calendars, its stored one never: never equal; its children stay.
    const QVariantMap server = with(rec("title=Old source=true"), "calendars", QVariantList{rec("title=x")});
    const QVariantMap old = rec("uid=u title=Old syncTime=5");
    const std::tuple<QVariantMap, QVariantMap, bool> rows[] = {
        {old, rec("uid=u title=New syncTime=5"), true},
        {old, rec("uid=u title=Old syncTime=6"), true},
        {old, rec("uid=u title=Old"), true},
        {old, old, false},
        {server, server, true},
        {server, with(server, "calendars", QVariantList()), true},
    };
    for (size_t i = 0; i < std::size(rows); ++i) {
        const auto& [before, after, announced] = rows[i];
        SCOPED_TRACE(testing::Message() << "row " << i);
        NimbrelCalendar calendar(before, nullptr);
        const CalendarList children = calendar.children() ? *calendar.children() : CalendarList();
        NoticeLog log(calendar);
        calendar.setDict(after);

        QVariantMap stored = after;
        stored.remove(s("calendars"));
        EXPECT_EQ(calendar.dict(), stored);
        EXPECT_EQ(calendar.children() ? *calendar.children() : CalendarList(), children);
        EXPECT_EQ(log.notices, announced ? kSixteenNotices : QStringList());
        // Will-notices see the old record, did-notices the new one.
        if (announced) {
            EXPECT_EQ(log.titlesSeen,
                      QStringList(8, s("Old")) + QStringList(8, stored.value(s("title")).toString()));
        }
    }
}

TEST(CalendarSetDict, LosingThePasswordFallsBackToWhatAnyoneIsGranted)
{
    const char* const on = "subscribedTo=true subscribePassword=pw";
    // current record, changes: password kept, readProtected, readOnly
    const std::tuple<const char*, const char*, bool, bool, bool> rows[] = {
        {on, "subscribedTo=false", false, false, true},
        {on, "subscribedTo=false readableByAnyone=false writableByAnyone=true", false, true, false},
        {on, "subscribePassword=", true, false, true},
        {on, "subscribePassword=other", true, true, false},
        {"subscribedTo=false", "subscribePassword=pw", true, true, false}, // nothing to forget
        // Subscribed without a password: the incoming one is dropped, the flags stay as sent.
        {"subscribedTo=true", "subscribedTo=false subscribePassword=pw", false, true, false},
    };
    for (const auto& [current, changes, passwordKept, readProtected, readOnly] : rows) {
        SCOPED_TRACE(testing::Message() << current << " + " << changes);
        const QString grants =
            s("readProtected=true readOnly=false readableByAnyone=true writableByAnyone=false ");
        NimbrelCalendar calendar(rec(grants + s(current)), nullptr);
        calendar.setDict(rec(grants + s(current) + QLatin1Char(' ') + s(changes)));
        EXPECT_EQ(calendar.dict().contains(s("subscribePassword")), passwordKept);
        EXPECT_EQ(calendar.dict().value(s("readProtected")), QVariant(readProtected));
        EXPECT_EQ(calendar.dict().value(s("readOnly")), QVariant(readOnly));
        EXPECT_EQ(calendar.dict().value(s("readOnly")).typeId(), QMetaType::Bool);
    }
}

class CalendarRequests : public ::testing::Test
{
protected:
    void TearDown() override { NimbrelCalendar::setAlternateKeySource({}); }
    RecordingLink link;
};

TEST_F(CalendarRequests, CheckboxesSendTheStoredRecordInformingUnlessAlternateIsDown)
{
    const std::tuple<void (NimbrelCalendar::*)(const QVariant&), const char*, const char*, bool> rows[] = {
        {&NimbrelCalendar::setPublishedToBonjour, "publishedToBonjour", "publishViaBonjour", true},
        {&NimbrelCalendar::setSubscribedTo, "subscribedTo", "subscribeTo", true},
        {&NimbrelCalendar::setPublishedToGoogle, "publishedToGoogle", "publishToGoogle", false},
    };
    for (const auto& [setter, key, request, informs] : rows) {
        for (const bool alternateDown : {false, true}) {
            SCOPED_TRACE(testing::Message() << request << (alternateDown ? " with Alternate" : ""));
            NimbrelCalendar::setAlternateKeySource([alternateDown] { return alternateDown; });
            link.calls.clear();
            NimbrelCalendar calendar(rec("uid=u subscribedTo=true subscribePassword=pw"), &link);
            NoticeLog log(calendar);

            (calendar.*setter)(0);

            EXPECT_EQ(log.notices, kSixteenNotices);
            EXPECT_EQ(calendar.dict().value(s(key)), QVariant(0));
            // Unsubscribing dropped the password: the link gets the stored record, not the one asked for.
            EXPECT_EQ(calendar.dict().contains(s("subscribePassword")), s(key) != s("subscribedTo"));
            const std::optional<bool> inform = informs ? std::optional(!alternateDown) : std::nullopt;
            EXPECT_EQ(link.calls, QList{Call(s(request), calendar.dict(), inform)});
        }
    }
    // The application's own keyboard: nothing is held in the offscreen test session.
    NimbrelCalendar::setAlternateKeySource({});
    link.calls.clear();
    NimbrelCalendar(rec("title=A"), &link).setPublishedToBonjour(true);
    ASSERT_EQ(link.calls.size(), 1);
    EXPECT_EQ(std::get<2>(link.calls[0]), std::optional<bool>(true));
}

TEST_F(CalendarRequests, AutoSwitchingAnnouncesOnlyItsKeyAndNeverInforms)
{
    NimbrelCalendar::setAlternateKeySource([] { return false; });
    const std::tuple<void (NimbrelCalendar::*)(), const char*, const char*> rows[] = {
        {&NimbrelCalendar::autoPublishToBonjour, "publishedToBonjour", "publishViaBonjour"},
        {&NimbrelCalendar::autoSubscribeTo, "subscribedTo", "subscribeTo"},
    };
    for (const auto& [action, key, request] : rows) {
        SCOPED_TRACE(request);
        link.calls.clear();
        NimbrelCalendar calendar(rec("title=A subscribePassword=pw"), &link);
        NoticeLog log(calendar);
        (calendar.*action)();
        (calendar.*action)(); // already on: nothing more happens
        EXPECT_EQ(log.notices, (QStringList{s("will ") + s(key), s("did ") + s(key)}));
        EXPECT_EQ(calendar.dict(), with(rec("title=A subscribePassword=pw"), key, true));
        EXPECT_EQ(link.calls, QList{Call(s(request), calendar.dict(), false)});
    }
}

TEST_F(CalendarRequests, OptionsSheetsHandTheCallersRecordOnUnchanged)
{
    const QVariantMap sheet = rec("title=A subscribedTo=false subscribePassword=old readPassword=r");
    for (const bool publish : {true, false}) {
        link.calls.clear();
        NimbrelCalendar calendar(rec("title=A subscribedTo=true subscribePassword=old"), &link);
        NoticeLog log(calendar);
        publish ? calendar.setPublishOptions(sheet) : calendar.setSubscribeOptions(sheet);

        const QString request = publish ? s("setPublishOptions") : s("setSubscribeOptions");
        EXPECT_EQ(link.calls, QList{Call(request, sheet, std::nullopt)});
        // What is stored went through the record rules.
        EXPECT_EQ(calendar.dict(),
                  rec("title=A subscribedTo=false readPassword=r readProtected=true readOnly=true"));
        EXPECT_EQ(log.notices, kSixteenNotices);
    }
    // A row without a link still stores every change.
    NimbrelCalendar calendar(rec("title=A"), nullptr);
    calendar.setPublishedToBonjour(true);
    calendar.autoSubscribeTo();
    calendar.setPublishOptions(rec("title=B"));
    EXPECT_EQ(calendar.title(), QVariant(s("B")));
}

// The row keeps its record flat; what it reads and how it compares must be the dictionary's own.
TEST(CalendarRecord, ReadsAndComparesAsTheDictionaryDoes)
{
    const QVariantMap base{{s("uid"), s("A")}, {s("order"), qint64(1)}, {s("readOnly"), true}};
    const auto with = [&base](const char* key, const QVariant& value) {
        QVariantMap changed = base;
        changed.insert(s(key), value);
        return changed;
    };
    const QVariantMap others[] = {
        base,
        with("order", 1),   // another integer type, equal by value as QVariant has it
        with("order", 1.0), // a real, equal by value too
        with("order", qint64(2)),
        with("readOnly", qint64(1)), // a boolean against a number
        with("uid", s("a")),
        with("uid", QVariant()), // a null value is still an entry
        with("extra", false),
        QVariantMap{{s("uid"), s("A")}},
        QVariantMap(),
    };
    for (const QVariantMap& other : others) {
        EXPECT_EQ(CalendarRecord(base) == CalendarRecord(other), base == other)
            << other.keys().join(u',').toStdString();
        EXPECT_EQ(CalendarRecord(other).toMap(), other);
    }
    CalendarRecord record(base);
    record.insert(s("b"), s("between"));
    record.insert(s("order"), qint64(3));
    record.remove(s("uid"));
    record.remove(s("absent"));
    QVariantMap expected = base;
    expected.insert(s("b"), s("between"));
    expected.insert(s("order"), qint64(3));
    expected.remove(s("uid"));
    EXPECT_EQ(record.toMap(), expected);
    EXPECT_TRUE(record == CalendarRecord(expected)) << "kept in key order";
    EXPECT_EQ(record.value(s("b")), QVariant(s("between")));
    EXPECT_FALSE(record.value(s("uid")).isValid());
}

} // namespace
} // namespace nimbrel
