// Calendar backups: merged components, one VTIMEZONE per TZID, hostile titles.

#include "BackgroundTestSupport.h"
#include "calendars/CalendarBackup.h"

using namespace nimbrel::background;
using namespace nimbrel::background::test;

namespace {

const QByteArray kBerlin =
    "BEGIN:VTIMEZONE\r\nTZID:Europe/Berlin\r\nBEGIN:STANDARD\r\nDTSTART:19701025T030000\r\n"
    "TZOFFSETFROM:+0200\r\nTZOFFSETTO:+0100\r\nEND:STANDARD\r\nEND:VTIMEZONE\r\n";

QByteArray calendarFile(const QByteArray& body)
{
    return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Someone//Else//EN\r\nX-WR-CALNAME:Old\r\n" + body +
           "END:VCALENDAR\r\n";
}

QByteArray event(const char* uid, const QByteArray& extra = {})
{
    return "BEGIN:VEVENT\r\nUID:" + QByteArray(uid) + "\r\nDTSTART;TZID=Europe/Berlin:20240101T100000\r\n" +
           extra + "END:VEVENT\r\n";
}

int countOf(const QByteArray& text, const QByteArray& line)
{
    return int(text.count("\r\n" + line + "\r\n"));
}

TEST(CalendarBackupTest, MergesComponentsWritesEachTimezoneOnceAndLeavesOutWhatNeverEnds)
{
    const QString dir = makeTempDir();
    QStringList files;
    for (const char* name : {"a", "b", "c", "cut", "gone"})
        files << dir + QLatin1Char('/') + s(name) + s(".ics");
    // A folded description and an alarm inside an event must come through untouched.
    writeFile(files[0],
              calendarFile(kBerlin + event("e1", "DESCRIPTION:a long\r\n  folded line\r\nBEGIN:VALARM\r\n"
                                                 "ACTION:DISPLAY\r\nEND:VALARM\r\n")));
    writeFile(files[1], calendarFile(kBerlin + event("e2")).replace("\r\n", "\n")); // LF only
    writeFile(
        files[2],
        calendarFile("BEGIN:VTODO\r\nUID:t1\r\nEND:VTODO\r\nBEGIN:VJOURNAL\r\nUID:j1\r\nEND:VJOURNAL\r\n"
                     "BEGIN:VFREEBUSY\r\nUID:f1\r\nEND:VFREEBUSY\r\n"));
    writeFile(files[3], "BEGIN:VCALENDAR\r\n" + event("ok") + "BEGIN:VEVENT\r\nUID:cut\r\n");

    const MergedCalendar merged = mergeCalendarFiles(s("Home"), files);
    const QByteArray& text = merged.text;
    EXPECT_EQ(merged.unreadable, QStringList{files[4]});
    EXPECT_EQ(merged.malformed.size(), 1);
    EXPECT_TRUE(text.startsWith("BEGIN:VCALENDAR\r\nVERSION:2.0\r\n"));
    EXPECT_TRUE(text.endsWith("\r\nEND:VCALENDAR\r\n"));
    EXPECT_EQ(countOf(text, "BEGIN:VCALENDAR"), 0); // only the first line
    const std::pair<const char*, int> counts[] = {{"BEGIN:VTIMEZONE", 1}, {"BEGIN:VEVENT", 3},
                                                  {"BEGIN:VTODO", 1},     {"BEGIN:VJOURNAL", 1},
                                                  {"BEGIN:VFREEBUSY", 0}, {"BEGIN:VALARM", 1}};
    for (const auto& [line, count] : counts)
        EXPECT_EQ(countOf(text, line), count) << line;
    EXPECT_FALSE(text.contains("UID:cut"));
    EXPECT_TRUE(text.contains("DESCRIPTION:a long\r\n  folded line\r\n"));
    EXPECT_TRUE(text.contains("X-WR-CALNAME:Home\r\n"));
    EXPECT_FALSE(text.contains("X-WR-CALNAME:Old"));
    EXPECT_LT(text.indexOf("BEGIN:VTIMEZONE"), text.indexOf("BEGIN:VEVENT")); // zones before their users
    EXPECT_FALSE(text.contains("\n\n"));
}

TEST(CalendarBackupTest, HostileTitlesStayOneLineAndOneFileName)
{
    const QDateTime when(QDate(2024, 3, 9), QTime(7, 5, 3));
    const struct
    {
        const char* name;
        QString title;
        QString fileStart; // how the file name begins
    } cases[] = {
        {"plain", s("Home"), s("Home 2024-03-09 07.05.03.ics")},
        {"path", s("../../etc/passwd"), s("_.._etc_passwd 2024")},
        {"hidden", s(".profile"), s("profile 2024")},
        {"empty", QString(), s("Calendar 2024")},
        {"only dots", s(".."), s("Calendar 2024")},
        {"control characters", s("a\nb\tc"), s("a_b_c 2024")},
        {"injection", s("Evil\r\nBEGIN:VEVENT\r\nUID:x;y,z\\"), s("Evil__BEGIN_VEVENT__UID_x;y,z_ 2024")},
        {"very long, multi-byte", QString(300, QChar(0x00E9)), QString(100, QChar(0x00E9)) + s(" 2024")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const QString name = backupFileName(c.title, when);
        EXPECT_TRUE(name.startsWith(c.fileStart)) << name.toStdString();
        EXPECT_TRUE(name.endsWith(s(" 2024-03-09 07.05.03.ics")));
        EXPECT_FALSE(name.contains(QLatin1Char('/')));
        EXPECT_LE(name.toUtf8().size(), 255);

        const QByteArray text = mergeCalendarFiles(c.title, {}).text;
        EXPECT_EQ(countOf(text, "BEGIN:VEVENT"), 0) << text.toStdString();
        // Everything from the name to the end is the one (possibly folded) property.
        const qsizetype nameLine = text.indexOf("X-WR-CALNAME:");
        const QList<QByteArray> lines =
            text.mid(nameLine, text.indexOf("\r\nEND:VCALENDAR") - nameLine).split('\n');
        for (qsizetype i = 0; i < lines.size(); ++i) {
            EXPECT_TRUE(i == 0 || lines[i].startsWith(' ')) << text.toStdString();
            EXPECT_LE(lines[i].size(), 76); // 75 octets and the CR
        }
    }
    EXPECT_TRUE(mergeCalendarFiles(s("a;b,c\\d"), {}).text.contains("X-WR-CALNAME:a\\;b\\,c\\\\d\r\n"));
}

} // namespace
