// The summary texts of a row: publishing access, subscription grants and filters, source state and
// the last-sync text with its day names.

#include "model/NimbrelCalendar.h"
#include "support/TestEnvironment.h"

#include <QLocale>
#include <ctime>
#include <gtest/gtest.h>
#include <tuple>

static void PrintTo(const QString& text, std::ostream* os)
{
    *os << text.toStdString();
}

namespace nimbrel {
namespace {

using nimbrel::test::s;

// An ISO date and time: local without a zone, UTC with a Z.
QDateTime at(const char* iso)
{
    return QDateTime::fromString(s(iso), Qt::ISODate);
}

// A record from "key=value" words: true and false are booleans, ISO dates and times dates, anything
// else a string.
QVariantMap rec(const char* text)
{
    QVariantMap map;
    for (const QString& word : s(text).split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        const QString value = word.section(QLatin1Char('='), 1);
        const QDateTime date = QDateTime::fromString(value, Qt::ISODate);
        map.insert(word.section(QLatin1Char('='), 0, 0),
                   value == s("true") || value == s("false")
                       ? QVariant(value == s("true"))
                       : (date.isValid() ? QVariant(date) : QVariant(value)));
    }
    return map;
}

const QLocale kEnglish(QLocale::English, QLocale::UnitedStates);

// What the texts show of a time: the local clock time, or the local date and time.
QString shown(const char* iso, bool withDate = false)
{
    return withDate ? kEnglish.toString(at(iso).toLocalTime(), QLocale::ShortFormat)
                    : kEnglish.toString(at(iso).toLocalTime().time(), QLocale::ShortFormat);
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
    void SetUp() override { setNow("2024-03-14T09:30"); }
    void TearDown() override { NimbrelCalendar::setCurrentTimeSource({}); }
    static void setNow(const char* iso)
    {
        NimbrelCalendar::setCurrentTimeSource([now = at(iso)] { return now; });
    }
    static inline QByteArray savedZone;
};

TEST_F(CalendarTextTest, PublishOptionsByReadOnlyAndPasswords)
{
    const std::tuple<const char*, const char*> rows[] = {
        {"readOnly=false readPassword= writePassword=", "everyone can read & write"},
        {"readOnly=false readPassword= writePassword=w", "everyone can read; write password"},
        {"readOnly=false readPassword=r writePassword=", "read password"},
        {"readOnly=false readPassword=r writePassword=w", "read password; write password"},
        {"readOnly=true readPassword= writePassword=", "everyone can read"},
        {"readOnly=true readPassword= writePassword=w", "everyone can read"},
        {"readOnly=true readPassword=r writePassword=", "read password"},
        {"readOnly=true readPassword=r writePassword=w", "read password"},
        {"", "everyone can read & write"}, // absent passwords count as none
    };
    for (const auto& [record, expected] : rows) {
        SCOPED_TRACE(record);
        QVariantMap map = rec(record);
        map.insert(s("publishedToBonjour"), 1);
        EXPECT_EQ(NimbrelCalendar(map, nullptr).publishOptions(), s(expected));
        // Not published: an empty text, not a null one.
        map.insert(s("publishedToBonjour"), false);
        const QString unpublished = NimbrelCalendar(map, nullptr).publishOptions();
        EXPECT_TRUE(unpublished.isEmpty() && !unpublished.isNull());
    }
}

TEST_F(CalendarTextTest, SubscribeOptionsOfACalendarOrOfASource)
{
    // 18:05 UTC is 08:05 here: the local time is shown.
    const QString offline = s("offline - synced today ") + shown("2024-03-14T08:05");
    const std::tuple<const char*, QString> rows[] = {
        {"readProtected=true filterReminders=true", s("    ")}, // not subscribed
        {"subscribedTo=true", s("    read & write")},
        {"subscribedTo=true readOnly=true", s("    read")},
        {"subscribedTo=true readProtected=true readOnly=true", s("    password required")},
        {"subscribedTo=true readProtected=true filterReminders=true filterToDos=false filterAttachments=true",
         s("    password required, no reminders, no attachments")},
        {"subscribedTo=true filterAttachments=true filterToDos=true filterReminders=true",
         s("    read & write, no reminders, no to dos, no attachments")},
        {"subscribedTo=true offline=true version=true",
         s("    read & write")}, // source keys mean nothing here
        // A source: the first rule that holds.
        {"source=true version=true offline=true syncTime=2024-03-14T18:05Z", s("incompatible version")},
        {"source=true offline=true syncTime=2024-03-14T18:05Z", offline},
        {"source=true offline=true", s("unable to connect")},
        {"source=true syncTime=2024-03-14T18:05Z", s("online")},
        {"source=true subscribedTo=true", s("connecting")},
    };
    for (const auto& [record, expected] : rows)
        EXPECT_EQ(NimbrelCalendar(rec(record), nullptr).subscribeOptions(), expected) << record;
}

TEST_F(CalendarTextTest, LastSyncNamesTheLocalDay)
{
    // now, sync time, online: the text before the time, whether the date is shown (now is 09:30 when empty)
    const std::tuple<const char*, const char*, bool, const char*, bool> rows[] = {
        {"", "2024-03-14T08:05", true, "synced today ", false},
        {"", "2024-03-14T23:59", true, "synced today ", false},
        {"", "2024-03-13T09:30", true, "synced yesterday ", false},
        {"2024-03-14T00:01", "2024-03-13T23:59", true, "synced yesterday ", false},
        {"2024-03-01T10:00", "2024-02-29T10:00", true, "synced yesterday ", false}, // across a month end
        {"", "2024-03-12T23:59", true, "synced ", true},
        {"", "2023-03-14T09:30", true, "synced ", true},
        {"", "2024-03-15T00:00", true, "synced ", true}, // a clock running ahead
        // Local day, not UTC day: 08:00 and 20:00 here are on different UTC days.
        {"2024-03-14T20:00", "2024-03-14T18:00Z", true, "synced today ", false},
        {"", "2024-03-14T08:05", false, "offline - synced today ", false},
        {"", "2024-03-13T08:05", false, "offline - synced yesterday ", false},
        {"", "2024-03-01T08:05", false, "offline - synced ", true},
    };
    for (const auto& [now, date, online, prefix, withDate] : rows) {
        setNow(*now ? now : "2024-03-14T09:30");
        EXPECT_EQ(NimbrelCalendar::lastSyncStringForDate(at(date), online), s(prefix) + shown(date, withDate))
            << now << " " << date;
    }
}

TEST_F(CalendarTextTest, LastSyncAsStringFirstRuleThatHolds)
{
    const QString today = s("synced today ") + shown("2024-03-14T08:05");
    const std::tuple<const char*, QString> rows[] = {
        {"syncError=expired offline=true running=true syncTime=2024-03-14T08:05", s("error - expired")},
        {"syncError=account", s("error - account")},
        {"", QString()},             // a null text: nothing to say
        {"running=true", QString()}, // not before the first sync
        {"offline=true running=true syncTime=2024-03-14T08:05", s("offline - ") + today},
        {"running=true syncTime=2024-03-14T08:05", s("synchronizing...")},
        {"syncTime=2024-03-14T08:05", today},
    };
    for (const auto& [record, expected] : rows) {
        const QString text = NimbrelCalendar(rec(record), nullptr).lastSyncAsString();
        EXPECT_EQ(text, expected) << record;
        EXPECT_EQ(text.isNull(), expected.isNull()) << record;
    }
}

TEST_F(CalendarTextTest, SyncTimeCountsOnlyAfterTheFirstDay)
{
    const std::tuple<QVariant, bool> rows[] = {
        {QVariant(), false},
        {at("1970-01-01T12:00Z"), false},
        {at("1970-01-02T00:00Z"), false}, // exactly one day
        {at("1970-01-02T00:00:01Z"), true},
        {at("1969-12-31T00:00Z"), false},
        {QDateTime(), false},
        {1710403500, false},
        {s("2024-03-14T08:05:00"), false},
    };
    for (const auto& [time, usable] : rows) {
        const NimbrelCalendar calendar(QVariantMap{{s("syncTime"), time}}, nullptr);
        EXPECT_EQ(calendar.usableSyncTime(), usable ? std::optional(time.toDateTime()) : std::nullopt)
            << qPrintable(time.toString());
    }
}

} // namespace
} // namespace nimbrel
