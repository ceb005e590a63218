// The support zip and its hand-over, the mail script, the privileged copy, the calendar-sync error scan.
#include "logging/Log.h"
#include "logging/SupportBundlePrivate.h"
#include "platform/SystemVersion.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QProcess>
#include <QStandardPaths>
#include <functional>
#include <gtest/gtest.h>
#include <unistd.h>

namespace nimbrel::test {
namespace {

ProcessResult exited(int status, const QByteArray& out = {}, const QByteArray& err = {})
{
    return ProcessResult{true, false, status, out, err};
}

// Records the arguments of every call by program; answers from a handler per program, else "not started".
struct FakeRunner : ProcessRunner
{
    QHash<QString, std::function<ProcessResult(const QStringList&)>> handlers;
    QHash<QString, QList<QStringList>> calls;
    ProcessResult run(const QString& program, const QStringList& arguments,
                      const QProcessEnvironment&) override
    {
        calls[program].append(arguments);
        return handlers.contains(program) ? handlers[program](arguments) : ProcessResult{};
    }
};

const QString kZip = QStringLiteral("/usr/bin/zip");
const QString kSh = QStringLiteral("/bin/sh");
const QString kMime = QStringLiteral("/usr/bin/xdg-mime");
const QString kJournal = QStringLiteral("/usr/bin/journalctl");
const QString kPkexec = QStringLiteral("/usr/bin/pkexec");
const QString kScript = QStringLiteral("/opt/EmailLogScript.sh");
const QString kSubject = QStringLiteral("Nimbrel logs (v1.0)");
const QString kMailto = QStringLiteral("mailto:help@example.com?subject=%@&body=Please%20attach%20%@.");
const QString kExpectedUrl = QStringLiteral(
    "mailto:help@example.com?subject=Nimbrel%20logs%20(v1.0)&body=Please%20attach%20Nimbrel.zip.");

void writeFile(const QString& path, const QByteArray& data)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(data);
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray numberedLines(int first, int last)
{
    QByteArray text;
    for (int i = first; i <= last; ++i)
        text += "line " + QByteArray::number(i) + '\n';
    return text;
}

QByteArray unzip(const QStringList& arguments)
{
    QProcess process;
    process.start(QStringLiteral("/usr/bin/unzip"), arguments);
    process.waitForFinished();
    return process.readAllStandardOutput();
}

QStringList zipEntries(const QString& zip)
{
    QStringList names =
        QString::fromUtf8(unzip({QStringLiteral("-Z1"), zip})).split(u'\n', Qt::SkipEmptyParts);
    names.sort();
    return names;
}

class SupportBundleTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        setProcessRunner(&runner);
        setUrlOpener([this](const QString& url) {
            opened << url;
            return true;
        });
        runner.handlers[kMime] = [](const QStringList&) { return exited(0, "thunderbird.desktop\n"); };
        runner.handlers[kSh] = [](const QStringList&) { return exited(0); };
        runner.handlers[kZip] = [this](const QStringList& args) { return real.run(kZip, args); };
        QDir().mkpath(logFolder + QStringLiteral("/older"));
        writeFile(logFolder + QStringLiteral("/Nimbrel.log"), "main\n");
        writeFile(logFolder + QStringLiteral("/Nimbrel.filteredlog"), "filtered\n");
        writeFile(logFolder + QStringLiteral("/older/Nimbrel-2024-01-01.log"), "old\n");
        QFile::remove(desktopZip);
        // Log lines go to standard error: catch them in a file.
        std::fflush(stderr);
        savedStderr = dup(STDERR_FILENO);
        ASSERT_EQ(ReopenStandardError(stderrPath), 0);
    }
    void TearDown() override
    {
        std::fflush(stderr);
        dup2(savedStderr, STDERR_FILENO);
        close(savedStderr);
        std::setvbuf(stderr, nullptr, _IONBF, 0);
        setProcessRunner(nullptr);
        setUrlOpener({});
        setSystemVersionSource(nullptr);
        SetLogLevel(2);
    }
    QString logged()
    {
        std::fflush(stderr);
        return QString::fromUtf8(readFile(stderrPath));
    }
    bool email(bool includeSystemLog = false, const QString& folder = {})
    {
        return emailLogFiles(folder.isEmpty() ? logFolder : folder, kScript, kSubject,
                             QStringLiteral("/unused.filteredlog"), includeSystemLog, kMailto);
    }

    FakeRunner runner;
    ProcessRunner& real = processRunner(); // the default: TearDown takes the fake out again
    // The zip the last call made (its path is the archiver's fourth argument).
    QString zipMade() const
    {
        return runner.calls.value(kZip).value(runner.calls.value(kZip).size() - 1).value(3);
    }

    static constexpr QFile::Permissions kOthers = QFile::ReadGroup | QFile::WriteGroup | QFile::ExeGroup |
                                                  QFile::ReadOther | QFile::WriteOther | QFile::ExeOther;
    QStringList opened;
    const QString logFolder = makeTempDir() + QStringLiteral("/Nimbrel");
    const QString desktopZip =
        QStandardPaths::writableLocation(QStandardPaths::DesktopLocation) + QStringLiteral("/Nimbrel.zip");
    const QString stderrPath = makeTempDir() + QStringLiteral("/stderr.txt");
    int savedStderr = -1;
};

// The zip, and the system log that goes into it, are made in a private folder under $XDG_RUNTIME_DIR,
// never at a fixed name in the shared temporary folder; the folder stays while the mail program may
// still read the zip, and goes with the next request.
TEST_F(SupportBundleTest, ZipHoldsTheLogsAtTopLevelInAPrivateFolderThatGoesAfterUse)
{
    const QString planted = QDir::tempPath() + QStringLiteral("/Nimbrel.zip");
    writeFile(planted, "planted by another user");
    ASSERT_TRUE(email());
    const QString zip = zipMade();
    const QFileInfo folder(QFileInfo(zip).path());
    EXPECT_EQ(QFileInfo(zip).fileName(), QStringLiteral("Nimbrel.zip"));
    EXPECT_EQ(folder.path(), qEnvironmentVariable("XDG_RUNTIME_DIR"));
    EXPECT_EQ(folder.permissions() & kOthers, QFile::Permissions());
    EXPECT_EQ(QFileInfo(zip).permissions() & kOthers, QFile::Permissions());
    EXPECT_EQ(readFile(planted), "planted by another user");
    EXPECT_EQ(zipEntries(zip),
              (QStringList{QStringLiteral("Nimbrel-2024-01-01.log"), QStringLiteral("Nimbrel.filteredlog"),
                           QStringLiteral("Nimbrel.log")}));
    EXPECT_EQ(runner.calls[kSh], (QList<QStringList>{{kScript, kSubject, zip}}));

    runner.handlers[kJournal] = [](const QStringList&) { return exited(0, "journal 1\njournal 2\n"); };
    ASSERT_TRUE(email(true));
    EXPECT_FALSE(QFileInfo::exists(folder.filePath())) << "the last request's folder goes with the next one";
    EXPECT_EQ(unzip({QStringLiteral("-p"), zipMade(), QStringLiteral("system.log")}),
              "journal 1\njournal 2\n");
    EXPECT_EQ(QDir(QFileInfo(zipMade()).path()).entryList(QDir::Files),
              QStringList{QStringLiteral("Nimbrel.zip")});

    const QByteArray runtime = qgetenv("XDG_RUNTIME_DIR");
    qunsetenv("XDG_RUNTIME_DIR");
    ASSERT_TRUE(email());
    qputenv("XDG_RUNTIME_DIR", runtime);
    EXPECT_EQ(QFileInfo(QFileInfo(zipMade()).path()).path(), QDir::tempPath());
}

TEST_F(SupportBundleTest, WithoutJournalTheSyslogIsCopiedAndCutToItsTail)
{
    if (QFileInfo(QStringLiteral("/var/log/syslog")).isReadable())
        GTEST_SKIP() << "/var/log/syslog is readable here: no privileged copy is asked for";
    runner.handlers[kJournal] = [](const QStringList&) { return exited(1); };
    runner.handlers[kPkexec] = [](const QStringList& args) {
        writeFile(args.value(5), numberedLines(1, 10005));
        return exited(0);
    };
    ASSERT_TRUE(email(true));
    const QString copy = QFileInfo(zipMade()).path() + QStringLiteral("/system_copy.log");
    EXPECT_EQ(runner.calls[kPkexec].value(0).mid(4), (QStringList{QStringLiteral("/var/log/syslog"), copy}));
    EXPECT_EQ(unzip({QStringLiteral("-p"), zipMade(), QStringLiteral("system.log")}),
              numberedLines(6, 10005));
    EXPECT_FALSE(QFile::exists(copy));
}

TEST_F(SupportBundleTest, ZipFailureIsLoggedWithItsStatus)
{
    runner.handlers[kZip] = [](const QStringList&) { return exited(12); };
    EXPECT_FALSE(email());
    EXPECT_TRUE(logged().contains(QStringLiteral("emailLogFiles: zip failed 12\n")));
    EXPECT_FALSE(QFileInfo::exists(QFileInfo(zipMade()).path()));
    EXPECT_FALSE(runner.calls.contains(kSh));
    EXPECT_TRUE(opened.isEmpty());
}

TEST_F(SupportBundleTest, ScriptFailureMovesTheZipToTheDesktopAndOpensTheMessage)
{
    QDir().mkpath(QFileInfo(desktopZip).path());
    writeFile(desktopZip, "stale");
    runner.handlers[kSh] = [](const QStringList&) {
        return exited(1, {}, "xdg-email: no method available\n");
    };
    ASSERT_TRUE(email());
    EXPECT_TRUE(logged().contains(QStringLiteral(
        "emailLogFiles: AppleScript failed exit status 1; stderr: xdg-email: no method available")));
    EXPECT_FALSE(QFileInfo::exists(QFileInfo(zipMade()).path()));
    EXPECT_EQ(zipEntries(desktopZip).size(), 3);
    EXPECT_EQ(opened, QStringList{kExpectedUrl});
}

TEST_F(SupportBundleTest, OnlyKnownAttachingMailProgramsGetTheScript)
{
    for (const auto& [answer, attaches] :
         std::vector<std::pair<ProcessResult, bool>>{{exited(0, "org.mozilla.Thunderbird.desktop\n"), true},
                                                     {exited(0, "org.kde.kmail2.desktop"), true},
                                                     {exited(0, "org.gnome.Geary.desktop\n"), false},
                                                     {exited(4, "thunderbird.desktop\n"), false},
                                                     {ProcessResult{}, false}}) {
        SCOPED_TRACE(answer.standardOutput.constData());
        runner.calls.clear();
        opened.clear();
        QFile::remove(desktopZip);
        runner.handlers[kMime] = [&](const QStringList&) { return answer; };
        ASSERT_TRUE(email(false, logFolder + QLatin1Char('/'))); // the separator does not change the name
        EXPECT_EQ(runner.calls.value(kSh).size(), attaches ? 1 : 0);
        // A successful script leaves nothing on the Desktop; else the zip goes there (the folder is made).
        EXPECT_EQ(opened, attaches ? QStringList() : QStringList{kExpectedUrl});
        EXPECT_EQ(QFile::exists(desktopZip), !attaches);
    }
}

TEST_F(SupportBundleTest, CopyAsksForRightsOnlyWhenNeededWithPathsAsArguments)
{
    const QString dir = makeTempDir();
    writeFile(dir + QStringLiteral("/source"), "new");
    writeFile(dir + QStringLiteral("/copy"), "old contents");
    EXPECT_TRUE(copyFileWithAuthentication(dir + QStringLiteral("/source"), dir + QStringLiteral("/copy")));
    EXPECT_EQ(readFile(dir + QStringLiteral("/copy")), "new");
    EXPECT_TRUE(runner.calls.isEmpty());

    const QString hostile = QStringLiteral("a \"b\" 'c' $(touch PWNED) `touch PWNED`\nd");
    const QString source = dir + QStringLiteral("/missing ") + hostile; // unreadable: it does not exist
    const QString destination = dir + QStringLiteral("/copy ") + hostile;
    const QString readable = dir + QStringLiteral("/readable ") + hostile;
    writeFile(readable, "syslog contents");
    // Runs the command as it stands (without the rights) on a readable stand-in for the source.
    runner.handlers[kPkexec] = [&](const QStringList& args) {
        QStringList shArgs = args.mid(1);
        shArgs[3] = readable;
        return real.run(args[0], shArgs);
    };
    const QString cwd = QDir::currentPath();
    QDir::setCurrent(dir);
    const bool copied = copyFileWithAuthentication(source, destination);
    QDir::setCurrent(cwd);
    EXPECT_TRUE(copied);
    const QString command =
        QStringLiteral("cp -f -- \"$1\" \"$2\" && chown %1:%2 \"$2\"").arg(getuid()).arg(getgid());
    EXPECT_EQ(runner.calls[kPkexec], (QList<QStringList>{{kSh, QStringLiteral("-c"), command,
                                                          QStringLiteral("sh"), source, destination}}));
    EXPECT_EQ(readFile(destination), "syslog contents");
    EXPECT_FALSE(QFile::exists(dir + QStringLiteral("/PWNED")));
}

// ---- Calendar-sync errors in the journal -----------------------------------------------------------

const QByteArray kOldError = " host sync[12]: [ICalExternalSync ]Error: second save failed";
const QByteArray kNewError = " host sync[12]: [ICalExternalSync ]NSException name:NSInvalidArgumentException "
                             "reason:can't execute statement";

// "Mar  4 09:26:53" for a time `secondsAgo` before now.
QByteArray syslogStamp(qint64 secondsAgo)
{
    const QDateTime t = QDateTime::currentDateTime().addSecs(-secondsAgo);
    return QLocale::c().toString(t, QStringLiteral("MMM")).toUtf8() + ' ' +
           QByteArray::number(t.date().day()).rightJustified(2, ' ') + ' ' +
           t.time().toString(QStringLiteral("HH:mm:ss")).toUtf8();
}

// The scan runs nothing before 10.5, picks its patterns by version, counts only lines newer than the
// date, and logs the last five matches at level 13, one line each.
TEST_F(SupportBundleTest, ICalScanPatternsByVersionNewerLinesOnlyTheLastFiveLogged)
{
    setSystemVersionSource(fixedSystemVersion(0x100411));
    EXPECT_FALSE(iCalErrorsInConsole({}));
    EXPECT_TRUE(runner.calls.isEmpty());

    const QDateTime now = QDateTime::currentDateTime();
    const QByteArray hourAgo = syslogStamp(3600), exception = " x: [ICalExternalSync ]NSException name:";
    const QByteArray isoHourAgo =
        now.addSecs(-3600).toOffsetFromUtc(now.offsetFromUtc()).toString(Qt::ISODateWithMs).toUtf8();
    QByteArray journal;
    runner.handlers[kJournal] = [&](const QStringList&) { return exited(0, journal); };
    // Version, journal line, how long before now `since` is (0: no date), whether it counts.
    for (const auto& [version, line, since, found] : std::vector<std::tuple<quint32, QByteArray, int, bool>>{
             {0x100502, hourAgo + kOldError, 0, true},
             {0x100503, hourAgo + kOldError, 0, false},
             {0x100502, hourAgo + kNewError, 0, true}, // the older set matches the exception by name alone
             {0x100508, hourAgo + exception + "NSInvalidArgumentException reason:other", 0, false},
             {0x100508, hourAgo + exception + "NSInvalidArgumentException reason:***", 0, true},
             {0x100500, hourAgo + exception + "ISyncInvalidRecordException", 0, true},
             {0x100508, hourAgo + kNewError, 7200, true},
             {0x100508, hourAgo + kNewError, 1800, false},
             {0x100508, isoHourAgo + kNewError, 1800, false}, // the ISO stamps of Debian's syslog
             {0x100508, "garbage" + kNewError, 7200, false},  // an unreadable stamp is never newer...
             {0x100508, "garbage" + kNewError, 0, true}}) {   // ...but counts when there is no date
        SCOPED_TRACE(line.constData());
        setSystemVersionSource(fixedSystemVersion(version));
        journal = line + '\n';
        EXPECT_EQ(iCalErrorsInConsole(since ? now.addSecs(-since) : QDateTime()), found);
    }

    journal = syslogStamp(60) + " host other[1]: unrelated\n";
    for (int i = 1; i <= 7; ++i)
        journal += syslogStamp(60) + kNewError + " #" + QByteArray::number(i) + '\n';
    SetLogLevel(14);
    const QString before = logged();
    EXPECT_TRUE(iCalErrorsInConsole({}));
    EXPECT_EQ(logged(), before);
    SetLogLevel(13);
    EXPECT_TRUE(iCalErrorsInConsole({}));
    const QString log = logged().mid(before.size());
    EXPECT_TRUE(log.contains(QStringLiteral("iCalExternalSync errors detected\n")));
    for (int i = 1; i <= 7; ++i)
        EXPECT_EQ(log.contains(QStringLiteral("statement #%1\n").arg(i)), i > 2) << i;
    EXPECT_FALSE(log.contains(QStringLiteral("unrelated")));
}

// ---- The mail script as installed in the pane bundle, run against a stand-in xdg-email -------------

class EmailLogScriptTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        writeFile(zip, "zip");
        // Writes its arguments, NUL-separated, to `record` and exits with $STATUS.
        writeFile(bin + QStringLiteral("/xdg-email"),
                  "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\0' \"$a\"; done > '" + record.toUtf8() +
                      "'\nexit \"$STATUS\"\n");
        QFile::setPermissions(bin + QStringLiteral("/xdg-email"), QFile::ReadOwner | QFile::ExeOwner);
    }
    // Runs the script with only `bin` on the PATH; a negative status leaves the stand-in out of it.
    int runScript(const QStringList& arguments, int status = 0)
    {
        QFile::remove(record);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PATH"), status < 0 ? work : bin);
        environment.insert(QStringLiteral("STATUS"), QString::number(status));
        const ProcessResult result = processRunner().run(kSh, QStringList{script} + arguments, environment);
        errors = QString::fromUtf8(result.standardError);
        return result.started && !result.crashed ? result.exitStatus : -1;
    }

    const QString script = paneBundlePath() + QStringLiteral("/Resources/EmailLogScript.sh");
    const QString work = makeTempDir(), bin = makeTempDir(), record = work + QStringLiteral("/args");
    const QString zip = work + QStringLiteral("/my \"zip\" 'x' $(y).zip");
    QString errors;
};

TEST_F(EmailLogScriptTest, HostileArgumentsArriveVerbatimAndExitCodesTell)
{
    EXPECT_TRUE(QFileInfo(script).isExecutable());
    const QString pwned = work + QStringLiteral("/PWNED");
    const QString subject =
        QStringLiteral("a \"b\" $(touch %1) `touch %1` ; rm -rf /tmp/q\n-x %s \\n").arg(pwned);
    EXPECT_EQ(runScript({subject, zip}), 0);
    EXPECT_EQ(QString::fromUtf8(readFile(record)).split(QChar(0), Qt::SkipEmptyParts),
              (QStringList{QStringLiteral("--subject"), subject, QStringLiteral("--attach"), zip}));
    EXPECT_FALSE(QFile::exists(pwned));

    const QString missing = work + QStringLiteral("/missing.zip");
    for (const auto& [arguments, status, expected, complaint] :
         std::vector<std::tuple<QStringList, int, int, const char*>>{
             {{subject, zip}, 3, 3, ""}, // the mailer's own status
             {{subject}, 0, 64, "usage"},
             {{subject, zip, subject}, 0, 64, "usage"},
             {{subject, missing}, 0, 66, "missing.zip"},
             {{subject, zip}, -1, 2, "xdg-email not found"}}) {
        SCOPED_TRACE(complaint);
        EXPECT_EQ(runScript(arguments, status), expected);
        EXPECT_TRUE(errors.contains(QLatin1String(complaint)));
        EXPECT_EQ(QFile::exists(record), expected == 3); // the mailer runs only on a good call
    }
}

} // namespace
} // namespace nimbrel::test
