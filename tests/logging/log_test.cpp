// The logging module: levels and lines, message formats, the filtered log, pruning and rotation.
#include "logging/Log.h"
#include "logging/LogClock.h"
#include "logging/LogInternal.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <climits>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace nimbrel::test {
namespace {

const QString kName = QStringLiteral("Test");

QStringList strings(std::initializer_list<const char*> items)
{
    QStringList list;
    for (const char* item : items)
        list << QString::fromUtf8(item);
    return list;
}

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The lines of `path` without their "<date> - " part.
QStringList messages(const QString& path)
{
    QStringList result;
    for (const QByteArray& line : contents(path).split('\n'))
        if (!line.isEmpty())
            result << QString::fromUtf8(line.mid(line.indexOf(" - ") + 3));
    return result;
}

QStringList entries(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden, QDir::Name);
}

void touch(const QString& path)
{
    ASSERT_TRUE(QFile(path).open(QIODevice::WriteOnly)) << path.toStdString();
}

void setModification(const QString& path, long long seconds)
{
    const struct timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(seconds), 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0), 0);
}

// The file system's birth time of `path` (seconds, nanoseconds), where it keeps one.
std::optional<std::pair<long long, long long>> birthTime(const QString& path)
{
    struct statx sx = {};
    if (statx(AT_FDCWD, QFile::encodeName(path).constData(), 0, STATX_BTIME, &sx) != 0 ||
        !(sx.stx_mask & STATX_BTIME))
        return std::nullopt;
    return std::pair<long long, long long>(sx.stx_btime.tv_sec, sx.stx_btime.tv_nsec);
}

// The name a rotated log born at `seconds` gets (the date part is pinned by the LogFormat test).
QString datedName(long long seconds)
{
    return kName + QString::fromStdString(logdetail::rotatedLogNameDate(seconds)) + QLatin1String(".log");
}

// Each test gets its own log folder and standard error back afterwards.
class LogTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        std::fflush(stderr);
        savedStandardError = dup(2);
        qputenv("XDG_STATE_HOME", QFile::encodeName(stateDir));
    }
    void TearDown() override
    {
        CloseFilteredLogFile();
        std::fflush(stderr);
        dup2(savedStandardError, 2);
        close(savedStandardError);
        std::setvbuf(stderr, nullptr, _IONBF, 0);
        logdetail::setLogClock({});
        logdetail::setLoggerPath({});
        gLogLevel = 2;
        gLogKeepCount = gLogBytesWritten = gFilteredLogBytes = 0;
        gLogDirty = gFilteredLogUpdateMode = false;
    }
    // Prepares the log of kName and sends standard error to it, as a host does at start.
    QString startLog()
    {
        const QString path = prepLogFilePath(kName, 5);
        EXPECT_EQ(ReopenStandardError(path), 0);
        return path;
    }
    QString state(const char* path) const { return stateDir + QLatin1Char('/') + QLatin1String(path); }

    const QString stateDir = makeTempDir();
    int savedStandardError = -1;
};

TEST_F(LogTest, LevelsDecideWhereALineGoesAndWhenItIsFlushedAndItsFormat)
{
    const QString main = startLog();
    OpenFilteredLogFile(kName, true, false);
    const QString filtered = filteredLogFilePath(kName);
    Log(1, "one");
    Log(2, "two");
    Log(10, "ten");
    EXPECT_EQ(contents(main) + contents(filtered), QByteArray()); // ordinary lines wait
    Log(12, "twelve");                                            // urgent: both files flushed at once
    EXPECT_EQ(messages(main), strings({"two", "ten", "twelve"}));
    EXPECT_EQ(messages(filtered), strings({"ten", "*** twelve"}));
    EXPECT_EQ(gLogBytesWritten, contents(main).size());
    EXPECT_EQ(gFilteredLogBytes, contents(filtered).size());

    Log(2, "flushed");
    LogFlush();
    EXPECT_EQ(messages(main).last(), QLatin1String("flushed"));
    SetLogLevel(1); // a low level flushes every line
    Log(1, "at once");
    EXPECT_EQ(messages(main).last(), QLatin1String("at once"));

    // The line: local date with milliseconds, " - ", the message.
    QFile(main).resize(0);
    qputenv("TZ", "UTC0");
    tzset();
    logdetail::setLogClock([] { return 1700000000.125; });
    Log(2, "%@|%@|%@", QStringLiteral("Zo\u00eb"), std::string("std"), "chars");
    logdetail::setLogClock([] { return 1700000061.0625; }); // milliseconds truncated
    Log(2, QStringLiteral("%d %ld %s %% no arguments: %d %s %@ %n %5.2f 100%"), 42, 7L, "x");
    LogFlush();
    qunsetenv("TZ");
    tzset();
    EXPECT_EQ(contents(main), "2023-11-14 22:13:20.125 - Zo\xc3\xab|std|chars\n"
                              "2023-11-14 22:14:21.062 - 42 7 x % no arguments: %d %s %@ %n %5.2f 100%\n");
}

// Text from outside (a network name, a calendar title, the log operation's message) can never write a
// line of its own into either log, and one huge message cannot push the filtered log over its limit.
TEST_F(LogTest, AMessageIsAlwaysOneLineOfAtMost8KiB)
{
    const QString main = startLog();
    OpenFilteredLogFile(kName, false, false);
    const std::pair<std::string, std::string> cases[] = {
        {"x\n2009-01-01 00:00:00.000 - *** forged", "x\\n2009-01-01 00:00:00.000 - *** forged"},
        {"\x1b[2J\x1b[31mred\r\tbell\a\x7f", "\\x1B[2J\\x1B[31mred\\x0D\\x09bell\\x07\\x7F"},
        {"csi \xc2\x9b"
         "31m nbsp\xc2\xa0",
         "csi \\xC2\\x9B31m nbsp\xc2\xa0"}, // C1 controls too, not U+00A0
        {"caf\xc3\xa9 \xf0\x9f\x93\x85", "caf\xc3\xa9 \xf0\x9f\x93\x85"},
        {"broken \xc3\nline \xe2\x82", "broken \xc3\\nline \xe2\x82"}, // no newline hides in bad UTF-8
    };
    for (const auto& [message, expected] : cases)
        Log(10, "%@", message);
    LogFlush();
    QStringList lines;
    for (const auto& [message, expected] : cases)
        lines << QString::fromUtf8(expected);
    EXPECT_EQ(messages(main), lines);
    EXPECT_EQ(messages(filteredLogFilePath(kName)), lines);

    // Long messages are cut at a character, never inside one or inside an escape, and say how much
    // is missing; a 10 MiB one leaves the filtered log well under its limit.
    const std::string huge(10 << 20, 'a');
    const std::pair<std::string, std::string> cut[] = {
        {std::string(8191, 'a') + "\xc3\xa9" + "b", std::string(8191, 'a') + " [\xe2\x80\xa6 3 more bytes]"},
        {std::string(8190, 'a') + "\n\n", std::string(8190, 'a') + "\\n [\xe2\x80\xa6 1 more bytes]"},
        {std::string(8192, 'a'), std::string(8192, 'a')},
        {huge, std::string(8192, 'a') + " [\xe2\x80\xa6 10477568 more bytes]"},
    };
    QFile(main).resize(0);
    QFile(filteredLogFilePath(kName)).resize(0);
    gFilteredLogBytes = 0;
    for (const auto& [message, expected] : cut) {
        Log(10, "%@", message);
        LogFlush();
        EXPECT_EQ(messages(main).last().toStdString(), expected);
    }
    EXPECT_EQ(messages(filteredLogFilePath(kName)).size(), 4) << "the filtered log was not emptied";
}

TEST(LogFormat, DirectivesArgumentsThatDoNotFitAndRotatedNameDate)
{
    using A = std::vector<LogArgument>;
    const std::vector<std::tuple<const char*, A, std::string>> cases = {
        {"%i|%u|%llu", A{-3LL, 4ULL, ULLONG_MAX}, "-3|4|18446744073709551615"},
        {"%5d|%-5d|%05.1f|%+d", A{42LL, 42LL, 3.14159, 5LL}, "   42|42   |003.1|+5"},
        {"%x %X %o %#x", A{255LL, 255ULL, 8LL, 16LL}, "ff FF 10 0x10"},
        {"%*d|%-*s|%.*s", A{4LL, 7LL, 3LL, std::string("ab"), 2LL, std::string("abcdef")}, "   7|ab |ab"},
        {"%*d", A{-4LL, 7LL}, "7   "},
        {"%hhd %hu", A{300LL, 70000LL}, "44 4464"},
        {"%.3s|%6@|%-4@|", A{std::string("abcdef"), std::string("r"), std::string("l")}, "abc|     r|l   |"},
        {"%c%c%lc", A{65LL, 66LL, 0x20ACLL}, "AB\xE2\x82\xAC"},
        {"%@ %@ %@ %s", A{3.5, 12LL, 18ULL, -1LL}, "3.5 12 18 -1"},
        {"%d|%f", A{std::string("text"), std::string("more")}, "text|more"},
        {"%.2f %g %e", A{2LL, 0.5, 1500.0}, "2.00 0.5 1.500000e+03"},
        {"%d", A{1e300}, "9223372036854775807"},
        {"%p", A{static_cast<const void*>(nullptr)}, "(nil)"},
        // No argument left, or none that fits: written as it stands.
        {"100% sure %d %s %@ %5.2f %-*d %", A{}, "100% sure %d %s %@ %5.2f %-*d %"},
        {"%d and %d", A{1LL}, "1 and %d"},
        {"%*d", A{5LL}, "%*d"},
        {"%n %d", A{5LL}, "%n 5"},                  // never a write through an argument
        {"%y %hq %lv %5", A{1LL}, "%y %hq %lv %5"}, // unknown conversions use no argument
        {"%%d", A{1LL}, "%d"},
    };
    const auto format = [](const char* text, const A& arguments) {
        std::string out;
        logdetail::appendFormatted(out, text, arguments);
        return out;
    };
    for (const auto& [f, arguments, expected] : cases)
        EXPECT_EQ(format(f, arguments), expected) << f;
    EXPECT_EQ(format("%999999999999d", A{1LL}).size(), 65535u); // huge fields are capped
    EXPECT_EQ(format("%.99999999f", A{1.0}).size(), 65537u);
    EXPECT_EQ(format("%*s", A{LLONG_MIN, std::string("x")}).size(), 65535u);
    qputenv("TZ", "UTC0"); // the date a rotated log's name gets
    tzset();
    EXPECT_EQ(logdetail::rotatedLogNameDate(1709544413), " Mar  4, 09.26.53");
    EXPECT_EQ(logdetail::rotatedLogNameDate(1700000000), " Nov 14, 22.13.20");
    qunsetenv("TZ");
    tzset();
}

TEST_F(LogTest, FilteredLogClearedAboveTheLimitAndLogFlushIdleWithoutNewLines)
{
    const QString main = startLog();
    const QString path = filteredLogFilePath(kName);
    for (const bool updateMode : {true, false}) {
        SCOPED_TRACE(updateMode ? "update mode" : "write mode");
        OpenFilteredLogFile(kName, updateMode, false);
        EXPECT_EQ(gFilteredLogBytes, contents(path).size()); // appending: counted from the end
        Log(10, "old line");
        gFilteredLogBytes = kLogRotateBytes; // at the limit: kept
        LogFlush();
        EXPECT_EQ(messages(path).last(), QLatin1String("old line"));

        Log(10, "old line");
        gFilteredLogBytes = kLogRotateBytes + 1;
        LogFlush();
        LogFlush(); // the clearing made the log dirty: this flushes "Log cleared" in update mode
        ASSERT_TRUE(FilteredLogFileIsOpen());
        EXPECT_EQ(gFilteredLogUpdateMode, updateMode);
        EXPECT_EQ(messages(path), strings({"Log cleared"}));
        EXPECT_EQ(gFilteredLogBytes, contents(path).size());
        Log(10, "next"); // update mode keeps ordinary lines until LogFlush
        EXPECT_EQ(messages(path).size(), updateMode ? 1 : 2);
    }
    EXPECT_TRUE(messages(main).contains(QLatin1String("Clearing Test.filteredlog")));

    // Both limits passed, but no line since the last flush: LogFlush does nothing.
    LogFlush();
    const QByteArray before = contents(main) + contents(path);
    const double start = logStartDate();
    logdetail::setLogClock([start] { return start + 3 * 86400.0; });
    gLogBytesWritten = gFilteredLogBytes = kLogRotateBytes * 2;
    LogFlush();
    EXPECT_EQ(contents(main) + contents(path), before);
}

TEST_F(LogTest, YoungestFirstComparesCreationThenModification)
{
    const QString dir = makeTempDir();
    const QString a = dir + QLatin1String("/a"), b = dir + QLatin1String("/b");
    // Files made back to back share a birth time (the kernel stamps it from a coarse clock).
    bool tie = false;
    for (int attempt = 0; attempt < 100 && !tie; ++attempt) {
        QFile::remove(a);
        QFile::remove(b);
        touch(a);
        touch(b);
        if (!birthTime(a))
            GTEST_SKIP() << "no birth times on this file system";
        tie = birthTime(a) == birthTime(b);
    }
    ASSERT_TRUE(tie);
    setModification(a, 2000000);
    setModification(b, 1000000);
    EXPECT_EQ(youngestFirst(QStringLiteral("a"), QStringLiteral("b"), dir), -1);
    EXPECT_EQ(youngestFirst(QStringLiteral("b"), QStringLiteral("a"), dir), 1);
    setModification(b, 2000000);
    EXPECT_EQ(youngestFirst(QStringLiteral("a"), QStringLiteral("b"), dir), 0);

    // A later creation wins over an earlier modification. Made again until the clock moved on.
    for (int attempt = 0; attempt < 1000000 && *birthTime(b) <= *birthTime(a); ++attempt) {
        QFile::remove(b);
        touch(b);
    }
    ASSERT_GT(*birthTime(b), *birthTime(a));
    setModification(b, 1000000);
    EXPECT_EQ(youngestFirst(QStringLiteral("b"), QStringLiteral("a"), dir), -1);
    EXPECT_EQ(youngestFirst(QStringLiteral("a"), QStringLiteral("b"), dir), 1);
    EXPECT_EQ(youngestFirst(QStringLiteral("missing"), QStringLiteral("a"), dir),
              0); // no dates: nothing decided
}

TEST_F(LogTest, PruningKeepsTheYoungestLogsAndNothingElse)
{
    const QString folder = state("Test");
    ASSERT_TRUE(QDir().mkpath(folder));
    // Oldest first; modification times follow creation so a shared birth time cannot reorder them.
    const QStringList created = strings({"a.log", "notes.txt", "b.log", "c.log", "Test.filteredlog", "d.log",
                                         "archive.log.gz", "upper.LOG", "Test.log"});
    for (qsizetype i = 0; i < created.size(); ++i) {
        touch(folder + QLatin1Char('/') + created[i]);
        setModification(folder + QLatin1Char('/') + created[i], 1000000 + i);
    }
    const auto born = birthTime(state("Test/Test.log"));
    ASSERT_TRUE(born);
    EXPECT_EQ(prepLogFilePath(kName, 3), state("Test/Test.log"));
    QStringList expected =
        strings({"archive.log.gz", "c.log", "d.log", "notes.txt", "Test.filteredlog", "upper.LOG"}) +
        QStringList{datedName(born->first)};
    expected.sort();
    EXPECT_EQ(entries(folder), expected);
}

TEST_F(LogTest, RotationBySizeAndAgeOnlyAboveTheLimits)
{
    double now = 1700000000.0;
    logdetail::setLogClock([&now] { return now; });
    const QString main = startLog();
    const QString folder = state("Test/");
    const auto rotateBySize = [](const char* line, long bytes) {
        Log(2, line);
        gLogBytesWritten = bytes;
        LogFlush();
    };
    rotateBySize("first", kLogRotateBytes);
    EXPECT_EQ(entries(folder), strings({"Test.log"}));
    const auto born = birthTime(main);
    ASSERT_TRUE(born);
    rotateBySize("second", kLogRotateBytes + 1);
    const QString rotated = datedName(born->first); // named from its birth, not from the clock
    EXPECT_EQ(messages(folder + rotated), strings({"first", "second", "Rotating Test log file"}));
    LogFlush();
    EXPECT_EQ(messages(main), strings({"Test log file rotated"}));
    EXPECT_EQ(gLogBytesWritten, contents(main).size());

    // The second log's dated name is taken (by the first, or planted when it was born a second
    // later): it moves on to the next second.
    const auto bornAgain = birthTime(main);
    ASSERT_TRUE(bornAgain);
    if (datedName(bornAgain->first) != rotated) {
        ASSERT_TRUE(QDir().mkdir(folder + datedName(bornAgain->first)));
    }
    rotateBySize("third", kLogRotateBytes + 1);
    EXPECT_EQ(messages(folder + datedName(bornAgain->first + 1)),
              strings({"Test log file rotated", "third", "Rotating Test log file"}));
    EXPECT_EQ(messages(folder + rotated).size(), 3);

    const qsizetype count = entries(folder).size();
    now += 86400.0; // exactly a day: kept
    rotateBySize("a day", 0);
    EXPECT_EQ(entries(folder).size(), count);
    now += 0.5;
    rotateBySize("a day and a bit", 0);
    EXPECT_EQ(entries(folder).size(), count + 1);
    EXPECT_EQ(logStartDate(), now);
}

TEST_F(LogTest, BadNamesRefusedAndReopenFailureReportedWithTheNameAsOneArgument)
{
    // A stand-in for the system logger that writes its arguments, NUL-terminated, to a file.
    const QString logger = makeTempDir() + QLatin1String("/logger"),
                  arguments = logger + QLatin1String(".out");
    {
        QFile script(logger);
        ASSERT_TRUE(script.open(QIODevice::WriteOnly));
        script.write("#!/bin/sh\nfor a in \"$@\"; do printf '%s\\0' \"$a\"; done > '" + arguments.toUtf8() +
                     "'\n");
        script.setPermissions(QFile::ReadOwner | QFile::ExeOwner);
    }
    logdetail::setLoggerPath(QFile::encodeName(logger).toStdString());
    for (const QString& bad : {QString(), QStringLiteral("a/b"), QStringLiteral("..")})
        EXPECT_TRUE(prepLogFilePath(bad, 2).isNull()) << bad.toStdString();
    const QString name = QStringLiteral("it's \"$(touch pwned)\" `touch pwned`; $HOME\nnext");
    ASSERT_EQ(prepLogFilePath(name, 0), state("") + name + QLatin1Char('/') + name + QLatin1String(".log"));
    const QString capture = makeTempDir() + QLatin1String("/capture.log");
    ASSERT_EQ(ReopenStandardError(capture), 0);
    // A folder where the log should be: it cannot be pruned or moved (keep count 0), nor reopened.
    ASSERT_TRUE(QDir().mkdir(logFilePath(name)));

    Log(2, "line");
    gLogBytesWritten = kLogRotateBytes + 1;
    LogFlush();
    LogFlush();
    EXPECT_EQ(contents(arguments),
              (name + QStringLiteral(" could not reopen stderr (%1)").arg(EISDIR)).toUtf8() + '\0');
    const QString escaped = QString(name).replace(QLatin1Char('\n'), QLatin1String("\\n"));
    EXPECT_TRUE(
        contents(capture).endsWith(" - " + (escaped + QLatin1String(" log file rotated\n")).toUtf8()));
    EXPECT_FALSE(QFileInfo::exists(QStringLiteral("pwned")));
}

} // namespace
} // namespace nimbrel::test
