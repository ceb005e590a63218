// Lines, levels, flushing and the filtered log.
#include "LogTestSupport.h"

#include <QRegularExpression>
#include <cstdlib>
#include <ctime>

namespace nimbrel::test {
namespace {

using LogLines = LogFixture;

TEST_F(LogLines, LevelsDecideWhereALineGoes)
{
    const QString main = startLog(QStringLiteral("Test"));
    OpenFilteredLogFile(QStringLiteral("Test"), true, false);
    ASSERT_TRUE(FilteredLogFileIsOpen());
    const QString filtered = filteredLogFilePath(QStringLiteral("Test"));

    Log(1, "one");
    EXPECT_FALSE(gLogDirty);
    EXPECT_EQ(gLogBytesWritten, 0);
    Log(2, "two");
    Log(10, "ten");
    EXPECT_TRUE(gLogDirty);
    // Level 12 is urgent: both files hold everything so far without LogFlush.
    Log(12, "twelve");
    EXPECT_EQ(messages(main),
              (QStringList{QStringLiteral("two"), QStringLiteral("ten"), QStringLiteral("twelve")}));
    EXPECT_EQ(messages(filtered), (QStringList{QStringLiteral("ten"), QStringLiteral("*** twelve")}));
    EXPECT_EQ(gLogBytesWritten, contents(main).size());
    EXPECT_EQ(gFilteredLogBytes, contents(filtered).size());
}

TEST_F(LogLines, OrdinaryLinesWaitForLogFlush)
{
    const QString main = startLog(QStringLiteral("Test"));
    Log(2, "buffered");
    EXPECT_TRUE(contents(main).isEmpty());
    LogFlush();
    EXPECT_FALSE(gLogDirty);
    EXPECT_EQ(messages(main), QStringList{QStringLiteral("buffered")});
}

TEST_F(LogLines, LowLogLevelFlushesEveryLine)
{
    const QString main = startLog(QStringLiteral("Test"));
    SetLogLevel(1);
    Log(1, "first");
    EXPECT_EQ(messages(main), QStringList{QStringLiteral("first")});
    SetLogLevel(0);
    Log(0, "second");
    EXPECT_EQ(messages(main).size(), 2);
}

TEST_F(LogLines, LineIsLocalDateWithMillisecondsAndMessage)
{
    const QString main = startLog(QStringLiteral("Test"));
    Log(2, "real %@", "clock");
    LogFlush();
    static const QRegularExpression pattern(
        QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} - real clock\\n$"));
    EXPECT_TRUE(pattern.match(QString::fromUtf8(contents(main))).hasMatch()) << contents(main).constData();

    qputenv("TZ", "UTC0");
    tzset();
    logdetail::setLogClock([] { return 1700000000.125; });
    Log(2, "fixed");
    logdetail::setLogClock([] { return 1700000061.0625; }); // another second, milliseconds truncated
    Log(2, "later");
    LogFlush();
    qunsetenv("TZ");
    tzset();
    const QList<QByteArray> lines = contents(main).split('\n');
    ASSERT_GE(lines.size(), 3);
    EXPECT_EQ(lines[1], "2023-11-14 22:13:20.125 - fixed");
    EXPECT_EQ(lines[2], "2023-11-14 22:14:21.062 - later");
}

TEST_F(LogLines, StringArgumentsOfEveryKind)
{
    const QString main = startLog(QStringLiteral("Test"));
    Log(2, "%@|%@|%@", QStringLiteral("Zo\u00eb"), std::string("std"), "chars");
    Log(2, QStringLiteral("%d %ld %s %%"), 42, 7L, "x");
    Log(2, "no arguments: %d %s %@ %n %5.2f 100%");
    LogFlush();
    EXPECT_EQ(messages(main), (QStringList{QStringLiteral("Zo\u00eb|std|chars"), QStringLiteral("42 7 x %"),
                                           QStringLiteral("no arguments: %d %s %@ %n %5.2f 100%")}));
}

using FilteredLog = LogFixture;

TEST_F(FilteredLog, OpeningModesSetSizeAndKeepStateOnFailure)
{
    startLog(QStringLiteral("Test"));
    const QString path = filteredLogFilePath(QStringLiteral("Test"));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("12345");
    file.close();

    OpenFilteredLogFile(QStringLiteral("Test"), false, false);
    EXPECT_EQ(gFilteredLogBytes, 5);
    EXPECT_FALSE(gFilteredLogUpdateMode);
    Log(10, "appended");
    EXPECT_TRUE(contents(path).startsWith("12345"));
    EXPECT_EQ(gFilteredLogBytes, contents(path).size());

    OpenFilteredLogFile(QStringLiteral("Test"), true, true);
    EXPECT_EQ(gFilteredLogBytes, 0);
    EXPECT_TRUE(gFilteredLogUpdateMode);
    EXPECT_TRUE(contents(path).isEmpty());

    gFilteredLogBytes = 77;
    OpenFilteredLogFile(QStringLiteral("NoFolder"), false, false);
    EXPECT_FALSE(FilteredLogFileIsOpen());
    EXPECT_EQ(gFilteredLogBytes, 77);
    EXPECT_TRUE(gFilteredLogUpdateMode);
    OpenFilteredLogFile(QString(), false, false);
    EXPECT_FALSE(FilteredLogFileIsOpen());
}

TEST_F(FilteredLog, ClearedAboveLimitAndReopenedInSameMode)
{
    const QString main = startLog(QStringLiteral("Test"));
    const QString path = filteredLogFilePath(QStringLiteral("Test"));
    for (const bool updateMode : {true, false}) {
        OpenFilteredLogFile(QStringLiteral("Test"), updateMode, false);
        Log(10, "old line");
        gFilteredLogBytes = kLogRotateBytes; // at the limit: kept
        LogFlush();
        EXPECT_EQ(messages(path).last(), QStringLiteral("old line"));

        Log(10, "old line");
        gFilteredLogBytes = kLogRotateBytes + 1;
        LogFlush();
        LogFlush(); // the clearing lines made the log dirty: this flushes "Log cleared" in update mode
        ASSERT_TRUE(FilteredLogFileIsOpen());
        EXPECT_EQ(gFilteredLogUpdateMode, updateMode);
        EXPECT_EQ(messages(path), QStringList{QStringLiteral("Log cleared")});
        EXPECT_EQ(gFilteredLogBytes, contents(path).size());

        // Update mode is what keeps ordinary lines buffered until LogFlush.
        Log(10, "next");
        EXPECT_EQ(messages(path).size(), updateMode ? 1 : 2);
        LogFlush();
        EXPECT_EQ(messages(path).size(), 2);
    }
    EXPECT_TRUE(messages(main).contains(QStringLiteral("Clearing Test.filteredlog")));
}

TEST_F(FilteredLog, NothingWrittenMeansLogFlushDoesNothing)
{
    const QString main = startLog(QStringLiteral("Test"));
    OpenFilteredLogFile(QStringLiteral("Test"), true, false);
    Log(10, "kept");
    LogFlush();

    // Both limits passed, but no line since the last flush.
    const double start = logStartDate();
    logdetail::setLogClock([start] { return start + 3 * 86400.0; });
    gLogBytesWritten = kLogRotateBytes * 2;
    gFilteredLogBytes = kLogRotateBytes * 2;
    LogFlush();
    EXPECT_EQ(messages(main), QStringList{QStringLiteral("kept")});
    EXPECT_EQ(messages(filteredLogFilePath(QStringLiteral("Test"))), QStringList{QStringLiteral("kept")});
    EXPECT_EQ(QDir(logFolder(QStringLiteral("Test"))).entryList(QDir::Files).size(), 2);
    EXPECT_EQ(gLogBytesWritten, kLogRotateBytes * 2);
    EXPECT_EQ(logStartDate(), start);
}

} // namespace
} // namespace nimbrel::test
