// Log paths, creation-date order, pruning, rotation and the logger fallback.
#include "LogTestSupport.h"

#include <QDateTime>
#include <ctime>
#include <optional>

namespace nimbrel::test {
namespace {

std::optional<long long> birthSeconds(const QString& path)
{
    struct statx sx = {};
    if (statx(AT_FDCWD, QFile::encodeName(path).constData(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &sx) != 0 ||
        !(sx.stx_mask & STATX_BTIME))
        return std::nullopt;
    return sx.stx_btime.tv_sec;
}

std::optional<std::pair<long long, long long>> birthTime(const QString& path)
{
    struct statx sx = {};
    if (statx(AT_FDCWD, QFile::encodeName(path).constData(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &sx) != 0 ||
        !(sx.stx_mask & STATX_BTIME))
        return std::nullopt;
    return std::pair<long long, long long>(sx.stx_btime.tv_sec, sx.stx_btime.tv_nsec);
}

void touch(const QString& path)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
}

void setModification(const QString& path, long long seconds)
{
    const struct timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(seconds), 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, AT_SYMLINK_NOFOLLOW), 0);
}

// The name a rotated log of `name` born at `seconds` gets.
QString datedName(const QString& name, long long seconds)
{
    const time_t t = static_cast<time_t>(seconds);
    struct tm local = {};
    localtime_r(&t, &local);
    char buffer[64];
    std::strftime(buffer, sizeof buffer, " %b %e, %H.%M.%S", &local);
    return name + QString::fromUtf8(buffer) + QLatin1String(".log");
}

QStringList entries(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden, QDir::Name);
}

using LogPaths = LogFixture;

TEST_F(LogPaths, FolderComesFromXdgStateHome)
{
    EXPECT_EQ(userLibraryLogFolder(), stateDir);
    EXPECT_EQ(logFilePath(QStringLiteral("App")), stateDir + QLatin1String("/App/App.log"));
    EXPECT_EQ(filteredLogFilePath(QStringLiteral("App")), stateDir + QLatin1String("/App/App.filteredlog"));
    const QString fallback = QDir::homePath() + QLatin1String("/.local/state");
    qputenv("XDG_STATE_HOME", "relative/state");
    EXPECT_EQ(userLibraryLogFolder(), fallback);
    qunsetenv("XDG_STATE_HOME");
    EXPECT_EQ(userLibraryLogFolder(), fallback);
}

TEST_F(LogPaths, PrepCreatesFolderAndRecordsTheLog)
{
    const QString state = stateDir + QLatin1String("/not/yet");
    qputenv("XDG_STATE_HOME", QFile::encodeName(state));
    logdetail::setLogClock([] { return 1234.5; });
    gLogBytesWritten = 99;
    const QString path = prepLogFilePath(QStringLiteral("App"), 4);
    EXPECT_EQ(path, state + QLatin1String("/App/App.log"));
    EXPECT_TRUE(QFileInfo(state + QLatin1String("/App")).isDir());
    EXPECT_FALSE(QFileInfo::exists(path));
    EXPECT_EQ(gLogKeepCount, 4);
    EXPECT_EQ(logName(), QStringLiteral("App"));
    EXPECT_EQ(logStartDate(), 1234.5);
    EXPECT_EQ(gLogBytesWritten, 0);

    for (const QString& bad : {QString(), QStringLiteral("a/b"), QStringLiteral("..")})
        EXPECT_TRUE(prepLogFilePath(bad, 2).isNull()) << bad.toStdString();
    EXPECT_EQ(logName(), QStringLiteral("App"));
    EXPECT_EQ(gLogKeepCount, 4);

    // A file where the state folder should be.
    touch(stateDir + QLatin1String("/file"));
    qputenv("XDG_STATE_HOME", QFile::encodeName(stateDir + QLatin1String("/file")));
    EXPECT_TRUE(prepLogFilePath(QStringLiteral("Other"), 2).isNull());
}

using CreationOrder = LogFixture;

TEST_F(CreationOrder, ModificationBreaksACreationTie)
{
    // Files made back to back share a birth time (the kernel stamps it from a coarse clock).
    const QString dir = makeTempDir();
    const QString a = dir + QLatin1String("/a"), b = dir + QLatin1String("/b");
    bool tie = false;
    for (int attempt = 0; attempt < 100 && !tie; ++attempt) {
        QFile::remove(a);
        QFile::remove(b);
        touch(a);
        touch(b);
        const auto ba = birthTime(a), bb = birthTime(b);
        if (!ba)
            GTEST_SKIP() << "no birth times on this file system";
        tie = ba == bb;
    }
    ASSERT_TRUE(tie);
    setModification(a, 2000000);
    setModification(b, 1000000);
    EXPECT_EQ(youngestFirst(QStringLiteral("a"), QStringLiteral("b"), dir), -1);
    EXPECT_EQ(youngestFirst(QStringLiteral("b"), QStringLiteral("a"), dir), 1);
    setModification(b, 2000000);
    EXPECT_EQ(youngestFirst(QStringLiteral("a"), QStringLiteral("b"), dir), 0);
}

TEST_F(CreationOrder, CreationDecidesBeforeModification)
{
    const QString dir = makeTempDir();
    const QString older = dir + QLatin1String("/older"), newer = dir + QLatin1String("/newer");
    touch(older);
    const auto born = birthTime(older);
    if (!born)
        GTEST_SKIP() << "no birth times on this file system";
    // Recreated until the coarse clock has moved on: a few milliseconds, no sleeping.
    for (int attempt = 0; attempt < 1000000 && (!birthTime(newer) || *birthTime(newer) <= *born); ++attempt) {
        QFile::remove(newer);
        touch(newer);
    }
    ASSERT_GT(*birthTime(newer), *born);
    setModification(newer, 1000000);
    setModification(older, 2000000);
    EXPECT_EQ(youngestFirst(QStringLiteral("newer"), QStringLiteral("older"), dir), -1);
    EXPECT_EQ(youngestFirst(QStringLiteral("older"), QStringLiteral("newer"), dir), 1);
    // A missing file has no dates: nothing is decided.
    EXPECT_EQ(youngestFirst(QStringLiteral("missing"), QStringLiteral("older"), dir), 0);
    EXPECT_EQ(youngestFirst(QStringLiteral("older"), QStringLiteral("missing"), dir), 0);
}

using Pruning = LogFixture;

TEST_F(Pruning, KeepsTheYoungestLogsAndNothingElseIsTouched)
{
    const QString folder = logFolder(QStringLiteral("Test"));
    ASSERT_TRUE(QDir().mkpath(folder));
    // Oldest first; modification times follow creation so a shared birth time cannot reorder them.
    const QStringList created = {
        QStringLiteral("a.log"),          QStringLiteral("notes.txt"),        QStringLiteral("b.log"),
        QStringLiteral("c.log"),          QStringLiteral("Test.filteredlog"), QStringLiteral("d.log"),
        QStringLiteral("archive.log.gz"), QStringLiteral("upper.LOG"),        QStringLiteral("Test.log")};
    const long long base = QDateTime::currentSecsSinceEpoch() - 1000;
    for (qsizetype i = 0; i < created.size(); ++i) {
        touch(folder + QLatin1Char('/') + created[i]);
        setModification(folder + QLatin1Char('/') + created[i], base + i);
    }
    const auto born = birthSeconds(folder + QLatin1String("/Test.log"));
    ASSERT_TRUE(born);

    EXPECT_EQ(prepLogFilePath(QStringLiteral("Test"), 3), folder + QLatin1String("/Test.log"));
    QStringList expected = {QStringLiteral("archive.log.gz"),
                            QStringLiteral("c.log"),
                            QStringLiteral("d.log"),
                            QStringLiteral("notes.txt"),
                            QStringLiteral("Test.filteredlog"),
                            QStringLiteral("upper.LOG"),
                            datedName(QStringLiteral("Test"), *born)};
    expected.sort();
    EXPECT_EQ(entries(folder), expected);
}

TEST_F(Pruning, DatedNameTakenMovesOnBySecondsUpToKeepCount)
{
    const QString folder = logFolder(QStringLiteral("Test"));
    ASSERT_TRUE(QDir().mkpath(folder));
    // Folders in the way survive pruning; made before the log and renamed, they stay older than it.
    const QString first = folder + QLatin1String("/first"), second = folder + QLatin1String("/second");
    ASSERT_TRUE(QDir().mkdir(first));
    ASSERT_TRUE(QDir().mkdir(second));
    touch(folder + QLatin1String("/Test.log"));
    const auto born = birthSeconds(folder + QLatin1String("/Test.log"));
    ASSERT_TRUE(born);
    const QString taken = folder + QLatin1Char('/') + datedName(QStringLiteral("Test"), *born);
    ASSERT_TRUE(QDir().rename(first, taken));
    setModification(taken, *born - 3600);

    EXPECT_FALSE(prepLogFilePath(QStringLiteral("Test"), 2).isNull());
    EXPECT_TRUE(QFileInfo(folder + QLatin1Char('/') + datedName(QStringLiteral("Test"), *born + 1)).isFile());
    EXPECT_FALSE(QFileInfo::exists(folder + QLatin1String("/Test.log")));

    // Every try taken: the log stays.
    touch(folder + QLatin1String("/Test.log"));
    const auto bornAgain = birthSeconds(folder + QLatin1String("/Test.log"));
    QDir().remove(folder + QLatin1Char('/') + datedName(QStringLiteral("Test"), *born + 1));
    QDir().rmdir(taken);
    ASSERT_TRUE(QDir().mkdir(first));
    const QStringList targets = {datedName(QStringLiteral("Test"), *bornAgain),
                                 datedName(QStringLiteral("Test"), *bornAgain + 1)};
    ASSERT_TRUE(QDir().rename(first, folder + QLatin1Char('/') + targets[0]));
    ASSERT_TRUE(QDir().rename(second, folder + QLatin1Char('/') + targets[1]));
    for (const QString& target : targets)
        setModification(folder + QLatin1Char('/') + target, *bornAgain - 3600);
    EXPECT_EQ(prepLogFilePath(QStringLiteral("Test"), 2), folder + QLatin1String("/Test.log"));
    EXPECT_TRUE(QFileInfo(folder + QLatin1String("/Test.log")).isFile());
    EXPECT_EQ(entries(folder).size(), 3);
}

using Rotation = LogFixture;

TEST_F(Rotation, BySizeOnlyWhenStrictlyAboveTheLimit)
{
    const QString arguments = installFakeLogger();
    const QString main = startLog(QStringLiteral("Test"));
    const QString folder = logFolder(QStringLiteral("Test"));
    Log(2, "first");
    gLogBytesWritten = kLogRotateBytes;
    LogFlush();
    EXPECT_EQ(entries(folder), QStringList{QStringLiteral("Test.log")});

    Log(2, "second");
    gLogBytesWritten = kLogRotateBytes + 1;
    const auto born = birthSeconds(main);
    ASSERT_TRUE(born);
    LogFlush();
    const QString rotated = folder + QLatin1Char('/') + datedName(QStringLiteral("Test"), *born);
    EXPECT_EQ(messages(rotated), (QStringList{QStringLiteral("first"), QStringLiteral("second"),
                                              QStringLiteral("Rotating Test log file")}));
    LogFlush();
    EXPECT_EQ(messages(main), QStringList{QStringLiteral("Test log file rotated")});
    EXPECT_EQ(gLogBytesWritten, contents(main).size());
    EXPECT_FALSE(QFileInfo::exists(arguments));
}

TEST_F(Rotation, TwiceWithinOneSecond)
{
    const QString main = startLog(QStringLiteral("Test"));
    const QString folder = logFolder(QStringLiteral("Test"));
    QStringList expected = {QStringLiteral("Test.log")};
    for (int round = 0; round < 2; ++round) {
        const auto born = birthSeconds(main);
        ASSERT_TRUE(born);
        QString dated = datedName(QStringLiteral("Test"), *born);
        if (expected.contains(dated)) // born in the same second as the log rotated before it
            dated = datedName(QStringLiteral("Test"), *born + 1);
        expected << dated;
        Log(2, "line");
        gLogBytesWritten = kLogRotateBytes + 1;
        LogFlush();
    }
    expected.sort();
    EXPECT_EQ(entries(folder), expected);
}

TEST_F(Rotation, ByAgeWithTheClock)
{
    double now = 1700000000.0;
    logdetail::setLogClock([&now] { return now; });
    const QString main = startLog(QStringLiteral("Test"));
    EXPECT_EQ(logStartDate(), now);
    now += 86400.0;
    Log(2, "a day");
    LogFlush();
    EXPECT_EQ(entries(logFolder(QStringLiteral("Test"))).size(), 1);

    now += 0.5;
    Log(2, "a day and a bit");
    LogFlush();
    EXPECT_EQ(entries(logFolder(QStringLiteral("Test"))).size(), 2);
    EXPECT_EQ(logStartDate(), now);
    LogFlush();
    EXPECT_EQ(messages(main), QStringList{QStringLiteral("Test log file rotated")});
}

TEST_F(Rotation, ReopenFailureReportsThroughLoggerWithNameAsOneArgument)
{
    const QString arguments = installFakeLogger();
    const QString name = QStringLiteral("it's \"$(touch pwned)\" `touch pwned`; $HOME\nnext");
    ASSERT_FALSE(prepLogFilePath(name, 0).isNull());
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
    EXPECT_TRUE(contents(capture).endsWith(" - " + (name + QLatin1String(" log file rotated\n")).toUtf8()));
    EXPECT_FALSE(QFileInfo::exists(QStringLiteral("pwned")));
}

} // namespace
} // namespace nimbrel::test
