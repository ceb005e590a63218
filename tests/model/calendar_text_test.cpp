// The summary texts of a row: publishing access, subscription grants and filters, source state and
// the last-sync text with its day names.

#include "model/NimbrelCalendar.h"

#include <QLocale>
#include <QTimeZone>
#include <ctime>
#include <gtest/gtest.h>
#include <optional>

namespace nimbrel {
namespace {

using Entry = std::pair<const char*, QVariant>;

QVariantMap dict(std::initializer_list<Entry> entries = {})
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

QString str(const char* value)
{
    return QString::fromUtf8(value);
}

QDateTime local(int year, int month, int day, int hour, int minute)
{
    return QDateTime(QDate(year, month, day), QTime(hour, minute));
}

QDateTime utc(int year, int month, int day, int hour, int minute, int second = 0)
{
    return QDateTime(QDate(year, month, day), QTime(hour, minute, second), Qt::UTC);
}

const QLocale kEnglish(QLocale::English, QLocale::UnitedStates);

QString shortTime(const QDateTime& date)
{
    return kEnglish.toString(date.toLocalTime().time(), QLocale::ShortFormat);
}

QString shortDateTime(const QDateTime& date)
{
    return kEnglish.toString(date.toLocalTime(), QLocale::ShortFormat);
}

// English texts, a fixed "now" and a local zone ten hours behind UTC, so that local and UTC days differ
// for much of the day.
class CalendarTextTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        savedZone = qgetenv("TZ");
        qputenv("TZ", "XYZ10");
        tzset();
        QLocale::setDefault(kEnglish);
    }
    static void TearDownTestSuite()
    {
        qputenv("TZ", savedZone);
        tzset();
        QLocale::setDefault(QLocale::c());
    }
    void SetUp() override { setNow(local(2024, 3, 14, 9, 30)); }
    void TearDown() override { NimbrelCalendar::setCurrentTimeSource({}); }

    static void setNow(const QDateTime& now)
    {
        NimbrelCalendar::setCurrentTimeSource([now] { return now; });
    }

    static inline QByteArray savedZone;
};

TEST_F(CalendarTextTest, PublishOptionsByReadOnlyAndPasswords)
{
    struct Row
    {
        bool readOnly;
        const char* readPassword;
        const char* writePassword;
        const char* expected;
    };
    const Row rows[] = {
        {false, "", "", "everyone can read & write"},
        {false, "", "w", "everyone can read; write password"},
        {false, "r", "", "read password"},
        {false, "r", "w", "read password; write password"},
        {true, "", "", "everyone can read"},
        {true, "", "w", "everyone can read"},
        {true, "r", "", "read password"},
        {true, "r", "w", "read password"},
    };
    for (const Row& row : rows) {
        const NimbrelCalendar calendar(dict({{"publishedToBonjour", true},
                                             {"readOnly", row.readOnly},
                                             {"readPassword", text(row.readPassword)},
                                             {"writePassword", text(row.writePassword)}}),
                                       nullptr);
        EXPECT_EQ(calendar.publishOptions(), str(row.expected))
            << row.readOnly << " '" << row.readPassword << "' '" << row.writePassword << "'";
    }
    // Absent passwords count as none.
    EXPECT_EQ(NimbrelCalendar(dict({{"publishedToBonjour", 1}}), nullptr).publishOptions(),
              str("everyone can read & write"));
}

TEST_F(CalendarTextTest, UnpublishedCalendarHasEmptyPublishOptions)
{
    const NimbrelCalendar calendar(
        dict({{"publishedToBonjour", false}, {"readPassword", text("r")}, {"writePassword", text("w")}}),
        nullptr);
    const QString options = calendar.publishOptions();
    EXPECT_TRUE(options.isEmpty());
    EXPECT_FALSE(options.isNull());
}

TEST_F(CalendarTextTest, SubscriptionRowSummary)
{
    struct Row
    {
        const char* name;
        QVariantMap record;
        const char* expected;
    };
    const Row rows[] = {
        {"not subscribed", dict({{"readProtected", true}, {"filterReminders", true}}), "    "},
        {"read & write", dict({{"subscribedTo", true}}), "    read & write"},
        {"read only", dict({{"subscribedTo", true}, {"readOnly", true}}), "    read"},
        {"password wins over read only",
         dict({{"subscribedTo", true}, {"readProtected", 1}, {"readOnly", true}}), "    password required"},
        {"protected, no reminders, no attachments",
         dict({{"subscribedTo", true},
               {"readProtected", true},
               {"filterReminders", true},
               {"filterToDos", false},
               {"filterAttachments", true}}),
         "    password required, no reminders, no attachments"},
        {"every filter in order",
         dict({{"subscribedTo", true},
               {"filterAttachments", true},
               {"filterToDos", true},
               {"filterReminders", true}}),
         "    read & write, no reminders, no to dos, no attachments"},
        // Source keys mean nothing on a calendar row.
        {"leaf ignores source state", dict({{"subscribedTo", true}, {"offline", true}, {"version", true}}),
         "    read & write"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(NimbrelCalendar(row.record, nullptr).subscribeOptions(), str(row.expected)) << row.name;
}

TEST_F(CalendarTextTest, SourceRowSummaryFirstRuleThatHolds)
{
    const QDateTime syncedToday = local(2024, 3, 14, 8, 5);
    struct Row
    {
        const char* name;
        QVariantMap record;
        QString expected;
    };
    const Row rows[] = {
        {"incompatible version wins", dict({{"version", true}, {"offline", true}, {"syncTime", syncedToday}}),
         str("incompatible version")},
        {"offline with sync time", dict({{"offline", true}, {"syncTime", syncedToday}}),
         str("offline - synced today ") + shortTime(syncedToday)},
        {"offline, never synced", dict({{"offline", true}}), str("unable to connect")},
        {"online with sync time", dict({{"syncTime", syncedToday}}), str("online")},
        {"online, never synced", dict(), str("connecting")},
        {"noon on the first day is no sync", dict({{"syncTime", utc(1970, 1, 1, 12, 0)}}), str("connecting")},
        {"a string is no sync time", dict({{"syncTime", text("2024-03-14T08:05:00")}}), str("connecting")},
    };
    for (const Row& row : rows) {
        QVariantMap record = row.record;
        record.insert(str("source"), true);
        record.insert(str("calendars"),
                      QVariantList{dict({{"title", text("child")}, {"subscribedTo", true}})});
        EXPECT_EQ(NimbrelCalendar(record, nullptr).subscribeOptions(), row.expected) << row.name;
    }
}

TEST_F(CalendarTextTest, OfflineSourceShowsTheLocalTime)
{
    // 18:05 UTC is 08:05 in the test's zone.
    const NimbrelCalendar source(
        dict({{"source", true}, {"offline", true}, {"syncTime", utc(2024, 3, 14, 18, 5)}}), nullptr);
    const QString summary = source.subscribeOptions();
    EXPECT_TRUE(summary.startsWith(str("offline - synced today "))) << qPrintable(summary);
    EXPECT_TRUE(summary.contains(str("8:05"))) << qPrintable(summary);
}

TEST_F(CalendarTextTest, LastSyncNamesTheLocalDay)
{
    struct Row
    {
        const char* name;
        QDateTime now;
        QDateTime date;
        bool online;
        const char* prefix;
        bool withDate;
    };
    const QDateTime morning = local(2024, 3, 14, 9, 30);
    const Row rows[] = {
        {"today", morning, local(2024, 3, 14, 8, 5), true, "synced today ", false},
        {"start of today", morning, local(2024, 3, 14, 0, 0), true, "synced today ", false},
        {"later today", morning, local(2024, 3, 14, 23, 59), true, "synced today ", false},
        {"yesterday", morning, local(2024, 3, 13, 9, 30), true, "synced yesterday ", false},
        {"two minutes ago, across midnight", local(2024, 3, 14, 0, 1), local(2024, 3, 13, 23, 59), true,
         "synced yesterday ", false},
        {"23 hours ago is yesterday", local(2024, 3, 14, 0, 30), local(2024, 3, 13, 1, 30), true,
         "synced yesterday ", false},
        {"two days ago", morning, local(2024, 3, 12, 23, 59), true, "synced ", true},
        {"a year ago", morning, local(2023, 3, 14, 9, 30), true, "synced ", true},
        {"tomorrow (clock skew)", morning, local(2024, 3, 15, 0, 0), true, "synced ", true},
        {"across a month end", local(2024, 3, 1, 10, 0), local(2024, 2, 29, 10, 0), true, "synced yesterday ",
         false},
        // Local day, not UTC day: 08:00 and 20:00 here are on different UTC days.
        {"same local day, different UTC day", local(2024, 3, 14, 20, 0), utc(2024, 3, 14, 18, 0), true,
         "synced today ", false},
        {"offline today", morning, local(2024, 3, 14, 8, 5), false, "offline - synced today ", false},
        {"offline yesterday", morning, local(2024, 3, 13, 8, 5), false, "offline - synced yesterday ", false},
        {"offline older", morning, local(2024, 3, 1, 8, 5), false, "offline - synced ", true},
    };
    for (const Row& row : rows) {
        setNow(row.now);
        const QString when = row.withDate ? shortDateTime(row.date) : shortTime(row.date);
        EXPECT_EQ(NimbrelCalendar::lastSyncStringForDate(row.date, row.online), str(row.prefix) + when)
            << row.name;
    }
}

TEST_F(CalendarTextTest, LastSyncAsStringFirstRuleThatHolds)
{
    const QDateTime syncedToday = local(2024, 3, 14, 8, 5);
    const QString todayText = str("synced today ") + shortTime(syncedToday);
    struct Row
    {
        const char* name;
        QVariantMap record;
        std::optional<QString> expected; // nullopt: nothing to say (a null string)
    };
    const Row rows[] = {
        {"error wins, also offline",
         dict({{"syncError", text("token expired")},
               {"offline", true},
               {"running", true},
               {"syncTime", syncedToday}}),
         str("error - token expired")},
        {"error before the first sync", dict({{"syncError", text("no account")}}), str("error - no account")},
        {"never synced", dict(), std::nullopt},
        {"running before the first sync", dict({{"running", true}}), std::nullopt},
        {"noon on the first day is no sync", dict({{"running", true}, {"syncTime", utc(1970, 1, 1, 12, 0)}}),
         std::nullopt},
        {"offline wins over running", dict({{"offline", true}, {"running", true}, {"syncTime", syncedToday}}),
         str("offline - ") + todayText},
        {"running after a sync", dict({{"running", true}, {"syncTime", syncedToday}}),
         str("synchronizing...")},
        {"idle after a sync", dict({{"syncTime", syncedToday}}), todayText},
    };
    for (const Row& row : rows) {
        const QString result = NimbrelCalendar(row.record, nullptr).lastSyncAsString();
        if (row.expected)
            EXPECT_EQ(result, *row.expected) << row.name;
        else
            EXPECT_TRUE(result.isNull()) << row.name << ": " << qPrintable(result);
    }
}

TEST_F(CalendarTextTest, SyncTimeCountsOnlyAfterTheFirstDay)
{
    struct Row
    {
        const char* name;
        QVariant syncTime;
        bool usable;
    };
    const Row rows[] = {
        {"absent", QVariant(), false},
        {"epoch", utc(1970, 1, 1, 0, 0), false},
        {"noon on the first day", utc(1970, 1, 1, 12, 0), false},
        {"exactly one day", utc(1970, 1, 2, 0, 0), false},
        {"one day and a second", utc(1970, 1, 2, 0, 0, 1), true},
        {"before the epoch", utc(1969, 12, 31, 0, 0), false},
        {"invalid date", QDateTime(), false},
        {"recent", utc(2024, 3, 14, 8, 5), true},
        {"a number", 1710403500, false},
    };
    for (const Row& row : rows) {
        QVariantMap record;
        if (row.syncTime.isValid())
            record.insert(str("syncTime"), row.syncTime);
        const std::optional<QDateTime> time = NimbrelCalendar(record, nullptr).usableSyncTime();
        EXPECT_EQ(time.has_value(), row.usable) << row.name;
        if (time) {
            EXPECT_EQ(*time, row.syncTime.toDateTime()) << row.name;
        }
    }
}

} // namespace
} // namespace nimbrel
