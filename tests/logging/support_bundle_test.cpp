#include "logging/Log.h"
#include "logging/SupportBundle.h"
#include "logging/SupportBundlePrivate.h"
#include "platform/SystemVersion.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QProcess>
#include <QStandardPaths>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace nimbrel;

namespace {

struct Call
{
    QString program;
    QStringList arguments;
};

ProcessResult exited(int status, const QByteArray& out = {}, const QByteArray& err = {})
{
    return ProcessResult{true, false, status, out, err};
}

// Records every call; answers from a handler per program, else "not started".
class FakeRunner : public ProcessRunner
{
public:
    QHash<QString, std::function<ProcessResult(const QStringList&)>> handlers;
    QList<Call> calls;

    ProcessResult run(const QString& program, const QStringList& arguments,
                      const QProcessEnvironment&) override
    {
        calls.append({program, arguments});
        const auto handler = handlers.constFind(program);
        return handler == handlers.constEnd() ? ProcessResult{} : (*handler)(arguments);
    }
    QList<Call> callsTo(const QString& program) const
    {
        QList<Call> found;
        for (const Call& call : calls) {
            if (call.program == program)
                found.append(call);
        }
        return found;
    }
};

const QString kZip = QStringLiteral("/usr/bin/zip");
const QString kSh = QStringLiteral("/bin/sh");
const QString kMime = QStringLiteral("/usr/bin/xdg-mime");
const QString kJournal = QStringLiteral("/usr/bin/journalctl");
const QString kPkexec = QStringLiteral("/usr/bin/pkexec");
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
        QString::fromUtf8(unzip({QStringLiteral("-Z1"), zip})).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    names.sort();
    return names;
}

class SupportBundleTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        setProcessRunner(nullptr);
        real = &processRunner();
        setProcessRunner(&runner);
        setUrlOpener([this](const QString& url) {
            opened << url;
            return true;
        });
        runner.handlers[kMime] = [](const QStringList&) { return exited(0, "thunderbird.desktop\n"); };
        runner.handlers[kSh] = [](const QStringList&) { return exited(0); };
        runner.handlers[kZip] = [this](const QStringList& args) { return real->run(kZip, args); };

        logFolder = test::makeTempDir() + QStringLiteral("/Nimbrel");
        QDir().mkpath(logFolder + QStringLiteral("/older"));
        writeFile(logFolder + QStringLiteral("/Nimbrel.log"), "main\n");
        writeFile(logFolder + QStringLiteral("/Nimbrel.filteredlog"), "filtered\n");
        writeFile(logFolder + QStringLiteral("/older/Nimbrel-2024-01-01.log"), "old\n");
        zipPath = QDir::tempPath() + QStringLiteral("/Nimbrel.zip");
        QFile::remove(zipPath);
        desktop = QStandardPaths::writableLocation(QStandardPaths::DesktopLocation);
        QDir(desktop).removeRecursively();
        QDir().mkpath(desktop);

        // Log lines go to standard error: catch them in a file.
        stderrPath = test::makeTempDir() + QStringLiteral("/stderr.txt");
        fflush(stderr);
        savedStderr = dup(STDERR_FILENO);
        const int fd = open(QFile::encodeName(stderrPath).constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
    void TearDown() override
    {
        fflush(stderr);
        dup2(savedStderr, STDERR_FILENO);
        close(savedStderr);
        setProcessRunner(nullptr);
        setUrlOpener({});
        setSystemVersionSource(nullptr);
        SetLogLevel(2);
    }
    QString logged()
    {
        fflush(stderr);
        return QString::fromUtf8(readFile(stderrPath));
    }
    bool email(bool includeSystemLog = false, const QString& folder = {})
    {
        return emailLogFiles(folder.isEmpty() ? logFolder : folder, QStringLiteral("/opt/EmailLogScript.sh"),
                             kSubject, QStringLiteral("/unused.filteredlog"), includeSystemLog, kMailto);
    }

    FakeRunner runner;
    ProcessRunner* real = nullptr;
    QStringList opened;
    QString logFolder, zipPath, desktop, stderrPath;
    int savedStderr = -1;
};

TEST_F(SupportBundleTest, DefaultRunnerReportsHowTheToolEnded)
{
    const ProcessResult missing = real->run(QStringLiteral("/nonexistent/tool"), {});
    EXPECT_FALSE(missing.started);

    QProcessEnvironment environment;
    environment.insert(QStringLiteral("ONLY"), QStringLiteral("this"));
    const ProcessResult ended = real->run(
        kSh, {QStringLiteral("-c"), QStringLiteral("echo \"$ONLY${HOME:-}\"; echo complaint >&2; exit 3")},
        environment);
    EXPECT_TRUE(ended.started && !ended.crashed);
    EXPECT_EQ(ended.exitStatus, 3);
    EXPECT_EQ(ended.standardOutput, "this\n");
    EXPECT_EQ(ended.standardError, "complaint\n");

    const ProcessResult killed = real->run(kSh, {QStringLiteral("-c"), QStringLiteral("kill -9 $$")});
    EXPECT_TRUE(killed.started && killed.crashed);
    EXPECT_EQ(supportbundle::describe(killed), QStringLiteral("crashed"));
}

// ---- The zip -----------------------------------------------------------------------------------------

TEST_F(SupportBundleTest, ZipReplacesAnOldOneAndHoldsTheLogsAtTopLevel)
{
    writeFile(zipPath, "not a zip from an earlier run");
    ASSERT_TRUE(email());

    const QList<Call> zip = runner.callsTo(kZip);
    ASSERT_EQ(zip.size(), 1);
    EXPECT_EQ(zip[0].arguments, (QStringList{QStringLiteral("-q"), QStringLiteral("-j"), QStringLiteral("-r"),
                                             zipPath, logFolder}));
    EXPECT_EQ(zipEntries(zipPath),
              (QStringList{QStringLiteral("Nimbrel-2024-01-01.log"), QStringLiteral("Nimbrel.filteredlog"),
                           QStringLiteral("Nimbrel.log")}));
    EXPECT_EQ(QFileInfo(zipPath).permissions() & (QFile::ReadOther | QFile::ReadGroup), QFile::Permissions());
    EXPECT_TRUE(runner.callsTo(kJournal).isEmpty());

    // The script gets subject and zip as arguments; on success nothing lands on the Desktop.
    const QList<Call> script = runner.callsTo(kSh);
    ASSERT_EQ(script.size(), 1);
    EXPECT_EQ(script[0].arguments,
              (QStringList{QStringLiteral("/opt/EmailLogScript.sh"), kSubject, zipPath}));
    EXPECT_TRUE(QDir(desktop).isEmpty());
    EXPECT_TRUE(opened.isEmpty());
}

TEST_F(SupportBundleTest, SystemLogFromTheJournalIsAddedWhenAsked)
{
    runner.handlers[kJournal] = [](const QStringList&) { return exited(0, "journal 1\njournal 2\n"); };
    ASSERT_TRUE(email(true));

    const QList<Call> journal = runner.callsTo(kJournal);
    ASSERT_EQ(journal.size(), 1);
    EXPECT_EQ(journal[0].arguments.join(QLatin1Char(' ')),
              QStringLiteral("--no-pager -q -o short-iso -n 10000"));
    EXPECT_EQ(runner.callsTo(kZip)[0].arguments.last(), QDir::tempPath() + QStringLiteral("/system.log"));
    EXPECT_TRUE(zipEntries(zipPath).contains(QStringLiteral("system.log")));
    EXPECT_EQ(unzip({QStringLiteral("-p"), zipPath, QStringLiteral("system.log")}), "journal 1\njournal 2\n");
}

TEST_F(SupportBundleTest, WithoutJournalTheSyslogIsCopiedAndCutToItsTail)
{
    if (QFileInfo(QStringLiteral("/var/log/syslog")).isReadable())
        GTEST_SKIP() << "/var/log/syslog is readable here: no privileged copy is asked for";
    runner.handlers[kJournal] = [](const QStringList&) { return exited(1); };
    runner.handlers[kPkexec] = [](const QStringList& args) {
        QFile copy(args.value(5));
        if (!copy.open(QIODevice::WriteOnly))
            return exited(1);
        copy.write(numberedLines(1, 10005));
        return exited(0);
    };
    ASSERT_TRUE(email(true));

    const QList<Call> pkexec = runner.callsTo(kPkexec);
    ASSERT_EQ(pkexec.size(), 1);
    EXPECT_EQ(pkexec[0].arguments.mid(4),
              (QStringList{QStringLiteral("/var/log/syslog"),
                           QDir::tempPath() + QStringLiteral("/system_copy.log")}));
    EXPECT_EQ(unzip({QStringLiteral("-p"), zipPath, QStringLiteral("system.log")}), numberedLines(6, 10005));
    EXPECT_FALSE(QFile::exists(QDir::tempPath() + QStringLiteral("/system_copy.log")));

    // Neither source: the zip simply goes without the system log.
    runner.handlers[kPkexec] = [](const QStringList&) { return exited(126); };
    ASSERT_TRUE(email(true));
    EXPECT_EQ(runner.callsTo(kZip).last().arguments.size(), 5);
    EXPECT_FALSE(zipEntries(zipPath).contains(QStringLiteral("system.log")));
}

TEST_F(SupportBundleTest, ZipFailureIsLoggedWithItsStatus)
{
    runner.handlers[kZip] = [](const QStringList&) { return exited(12); };
    EXPECT_FALSE(email());
    EXPECT_TRUE(logged().contains(QStringLiteral("emailLogFiles: zip failed 12\n")));
    runner.handlers.remove(kZip); // not started
    EXPECT_FALSE(email());
    EXPECT_TRUE(logged().contains(QStringLiteral("emailLogFiles: zip failed -1\n")));
    EXPECT_TRUE(runner.callsTo(kSh).isEmpty());
    EXPECT_TRUE(opened.isEmpty());
}

TEST_F(SupportBundleTest, KeepLastLinesActsLikeTail)
{
    const QString dir = test::makeTempDir();
    const struct
    {
        QByteArray input;
        qsizetype count;
        QByteArray expected;
    } cases[] = {
        {numberedLines(1, 10005), 10000, numberedLines(6, 10005)},
        {"a\nb\nc", 2, "b\nc"},
        {"a\nb\n", 5, "a\nb\n"},
        {"\n\n\n", 2, "\n\n"},
        {"", 3, ""},
    };
    int n = 0;
    for (const auto& c : cases) {
        const QString in = dir + QStringLiteral("/in%1").arg(n),
                      out = dir + QStringLiteral("/out%1").arg(n++);
        writeFile(in, c.input);
        ASSERT_TRUE(supportbundle::keepLastLines(in, out, c.count));
        EXPECT_EQ(readFile(out), c.expected) << "case " << n;
    }
}

// ---- Handing the zip over ----------------------------------------------------------------------------

TEST_F(SupportBundleTest, ScriptFailureMovesTheZipToTheDesktopAndOpensTheMessage)
{
    writeFile(desktop + QStringLiteral("/Nimbrel.zip"), "stale");
    runner.handlers[kSh] = [](const QStringList&) {
        return exited(1, {}, "xdg-email: no method available\n");
    };
    ASSERT_TRUE(email());

    EXPECT_TRUE(logged().contains(QStringLiteral(
        "emailLogFiles: AppleScript failed exit status 1; stderr: xdg-email: no method available")));
    EXPECT_FALSE(QFile::exists(zipPath));
    EXPECT_EQ(zipEntries(desktop + QStringLiteral("/Nimbrel.zip")).size(), 3);
    EXPECT_EQ(opened, QStringList{kExpectedUrl});
}

TEST_F(SupportBundleTest, OnlyKnownAttachingMailProgramsGetTheScript)
{
    const struct
    {
        ProcessResult answer;
        bool attaches;
    } cases[] = {
        {exited(0, "org.mozilla.Thunderbird.desktop\n"), true},
        {exited(0, "org.kde.kmail2.desktop"), true},
        {exited(0, "sylpheed.desktop\n"), true},
        {exited(0, "org.gnome.Geary.desktop\n"), false},
        {exited(0, "\n"), false},
        {exited(4, "thunderbird.desktop\n"), false},
        {ProcessResult{}, false},
    };
    for (const auto& c : cases) {
        runner.calls.clear();
        opened.clear();
        runner.handlers[kMime] = [&](const QStringList&) { return c.answer; };
        // A trailing separator does not change the zip's name.
        ASSERT_TRUE(email(false, logFolder + QLatin1Char('/')));
        EXPECT_EQ(runner.callsTo(kSh).size(), c.attaches ? 1 : 0) << c.answer.standardOutput.constData();
        EXPECT_EQ(opened, c.attaches ? QStringList() : QStringList{kExpectedUrl});
        EXPECT_EQ(QFile::exists(desktop + QStringLiteral("/Nimbrel.zip")), !c.attaches);
    }
    EXPECT_EQ(runner.callsTo(kMime)[0].arguments,
              (QStringList{QStringLiteral("query"), QStringLiteral("default"),
                           QStringLiteral("x-scheme-handler/mailto")}));
}

TEST_F(SupportBundleTest, DesktopFolderProblems)
{
    runner.handlers[kMime] = [](const QStringList&) { return exited(0, "geary.desktop"); };
    // A missing Desktop folder is created.
    QDir(desktop).removeRecursively();
    EXPECT_TRUE(email());
    EXPECT_TRUE(QFile::exists(desktop + QStringLiteral("/Nimbrel.zip")));

    // Something that cannot be replaced in the way: the move fails and no message is prepared.
    QFile::remove(desktop + QStringLiteral("/Nimbrel.zip"));
    QDir().mkpath(desktop + QStringLiteral("/Nimbrel.zip/keep"));
    opened.clear();
    EXPECT_FALSE(email());
    EXPECT_TRUE(logged().contains(QStringLiteral("emailLogFiles: move Nimbrel.zip to desktop failed\n")));
    EXPECT_TRUE(opened.isEmpty());
}

// The real script, the real zip and a stand-in xdg-email that records what it was given.
TEST_F(SupportBundleTest, RealScriptHandsOverSubjectAndZipVerbatim)
{
    const QString bin = test::makeTempDir(), record = test::makeTempDir() + QStringLiteral("/args");
    writeFile(bin + QStringLiteral("/xdg-email"),
              "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\0' \"$a\"; done > '" + record.toUtf8() + "'\n");
    QFile::setPermissions(bin + QStringLiteral("/xdg-email"),
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QByteArray oldPath = qgetenv("PATH");
    qputenv("PATH", QFile::encodeName(bin) + ":/usr/bin:/bin");
    runner.handlers[kSh] = [this](const QStringList& args) { return real->run(kSh, args); };
    const QString cwd = QDir::currentPath();
    QDir::setCurrent(test::makeTempDir());

    const QString subject = QStringLiteral("a \"b\" $(touch PWNED) `touch PWNED` ; rm -rf /tmp/q\n'x'");
    const bool sent =
        emailLogFiles(logFolder, test::paneBundlePath() + QStringLiteral("/Resources/EmailLogScript.sh"),
                      subject, {}, false, kMailto);
    const bool pwned = QFile::exists(QStringLiteral("PWNED"));
    QDir::setCurrent(cwd);
    qputenv("PATH", oldPath);

    EXPECT_TRUE(sent);
    EXPECT_FALSE(pwned);
    EXPECT_EQ(QString::fromUtf8(readFile(record)).split(QChar(0), Qt::SkipEmptyParts),
              (QStringList{QStringLiteral("--subject"), subject, QStringLiteral("--attach"), zipPath}));
    EXPECT_TRUE(opened.isEmpty());
}

// ---- The privileged copy -----------------------------------------------------------------------------

TEST_F(SupportBundleTest, ReadableSourceIsCopiedWithoutAskingForRights)
{
    const QString dir = test::makeTempDir();
    writeFile(dir + QStringLiteral("/source"), "new");
    writeFile(dir + QStringLiteral("/copy"), "old contents");
    EXPECT_TRUE(copyFileWithAuthentication(dir + QStringLiteral("/source"), dir + QStringLiteral("/copy")));
    EXPECT_EQ(readFile(dir + QStringLiteral("/copy")), "new");
    EXPECT_TRUE(runner.calls.isEmpty());
}

TEST_F(SupportBundleTest, PrivilegedCopyPassesHostilePathsAsArguments)
{
    const QString dir = test::makeTempDir();
    const QString hostile = QStringLiteral("a \"b\" 'c' $(touch PWNED) `touch PWNED`\nd");
    const QString source = dir + QStringLiteral("/missing ") + hostile; // unreadable: it does not exist
    const QString destination = dir + QStringLiteral("/copy ") + hostile;
    const QString readable = dir + QStringLiteral("/readable ") + hostile;
    writeFile(readable, "syslog contents");

    // Runs the command as it stands (without the rights) on a readable stand-in for the source.
    runner.handlers[kPkexec] = [&](const QStringList& args) {
        QStringList shArgs = args.mid(1);
        shArgs[3] = readable;
        return real->run(args[0], shArgs);
    };
    const QString cwd = QDir::currentPath();
    QDir::setCurrent(dir);
    const bool copied = copyFileWithAuthentication(source, destination);
    QDir::setCurrent(cwd);

    EXPECT_TRUE(copied);
    ASSERT_EQ(runner.calls.size(), 1);
    EXPECT_EQ(runner.calls[0].program, kPkexec);
    const QString command =
        QStringLiteral("cp -f -- \"$1\" \"$2\" && chown %1:%2 \"$2\"").arg(getuid()).arg(getgid());
    EXPECT_EQ(runner.calls[0].arguments, (QStringList{QStringLiteral("/bin/sh"), QStringLiteral("-c"),
                                                      command, QStringLiteral("sh"), source, destination}));
    EXPECT_EQ(readFile(destination), "syslog contents");
    EXPECT_FALSE(QFile::exists(dir + QStringLiteral("/PWNED")));
}

TEST_F(SupportBundleTest, PrivilegedCopyFailures)
{
    const QString dir = test::makeTempDir();
    const QString destination = dir + QStringLiteral("/copy");
    for (const ProcessResult& answer : {exited(126), exited(127), exited(1), ProcessResult{}}) {
        runner.handlers[kPkexec] = [&](const QStringList&) { return answer; };
        EXPECT_FALSE(copyFileWithAuthentication(dir + QStringLiteral("/missing"), destination));
        EXPECT_FALSE(QFile::exists(destination));
    }

    // A link planted at the destination is never followed by the privileged copy.
    writeFile(dir + QStringLiteral("/victim"), "precious");
    QFile::link(dir + QStringLiteral("/victim"), destination);
    runner.handlers[kPkexec] = [](const QStringList& args) {
        QFile out(args[5]);
        out.open(QIODevice::WriteOnly);
        out.write("overwritten");
        return exited(0);
    };
    EXPECT_TRUE(copyFileWithAuthentication(dir + QStringLiteral("/missing"), destination));
    EXPECT_EQ(readFile(dir + QStringLiteral("/victim")), "precious");
    EXPECT_FALSE(QFileInfo(destination).isSymLink());
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

TEST_F(SupportBundleTest, ICalScanNeedsTenFive)
{
    setSystemVersionSource(fixedSystemVersion(0x100411));
    EXPECT_FALSE(iCalErrorsInConsole({}));
    EXPECT_TRUE(runner.calls.isEmpty());
}

TEST_F(SupportBundleTest, ICalScanLogsTheLastFiveMatchesAtLevel13)
{
    setSystemVersionSource(fixedSystemVersion(0x100508));
    QByteArray journal = syslogStamp(60) + " host other[1]: unrelated\n";
    for (int i = 1; i <= 7; ++i)
        journal += syslogStamp(60) + kNewError + " #" + QByteArray::number(i) + '\n';
    runner.handlers[kJournal] = [&](const QStringList&) { return exited(0, journal); };

    SetLogLevel(14);
    EXPECT_TRUE(iCalErrorsInConsole({}));
    EXPECT_TRUE(logged().isEmpty());
    SetLogLevel(13);
    EXPECT_TRUE(iCalErrorsInConsole({}));
    const QString log = logged();
    EXPECT_TRUE(log.contains(QStringLiteral("iCalExternalSync errors detected\n")));
    for (int i = 1; i <= 7; ++i)
        EXPECT_EQ(log.contains(QStringLiteral("statement #%1\n").arg(i)), i > 2) << i;
    EXPECT_FALSE(log.contains(QStringLiteral("unrelated")));
    EXPECT_EQ(runner.callsTo(kJournal)[0].arguments.join(QLatin1Char(' ')),
              QStringLiteral("--no-pager -q -o short"));

    journal = "Mar  4 09:26:53 host other[1]: nothing of interest\n";
    runner.calls.clear();
    EXPECT_FALSE(iCalErrorsInConsole({}));
    EXPECT_EQ(runner.calls.size(), 1);
    EXPECT_FALSE(logged().contains(QStringLiteral("nothing")));
}

TEST_F(SupportBundleTest, ICalScanPatternsFollowTheVersion)
{
    QByteArray journal;
    runner.handlers[kJournal] = [&](const QStringList&) { return exited(0, journal); };
    const struct
    {
        quint32 version;
        QByteArray line;
        bool found;
    } cases[] = {
        {0x100502, kOldError, true},
        {0x100503, kOldError, false},
        {0x100502, kNewError, true}, // the older set matches the exception by name alone
        {0x100508, kNewError, true},
        {0x100508, " x: [ICalExternalSync ]NSException name:NSInvalidArgumentException reason:other", false},
        {0x100508, " x: [ICalExternalSync ]NSException name:NSInvalidArgumentException reason:***", true},
        {0x100500, " x: [ICalExternalSync ]NSException name:ISyncInvalidRecordException", true},
        {0x100500, " x: ICalExternalSync NSException name:ISyncInvalidRecordException", false},
    };
    for (const auto& c : cases) {
        setSystemVersionSource(fixedSystemVersion(c.version));
        journal = syslogStamp(60) + c.line + '\n';
        EXPECT_EQ(iCalErrorsInConsole({}), c.found) << std::hex << c.version << c.line.constData();
    }
}

TEST_F(SupportBundleTest, ICalScanReportsOnlyErrorsNewerThanTheDate)
{
    setSystemVersionSource(fixedSystemVersion(0x100508));
    const QDateTime now = QDateTime::currentDateTime();
    QByteArray journal = syslogStamp(3600) + kNewError + '\n';
    runner.handlers[kJournal] = [&](const QStringList&) { return exited(0, journal); };
    EXPECT_TRUE(iCalErrorsInConsole(now.addSecs(-7200)));
    EXPECT_FALSE(iCalErrorsInConsole(now.addSecs(-1800)));

    // The ISO stamps of Debian's syslog are read as well.
    journal = now.addSecs(-3600).toOffsetFromUtc(now.offsetFromUtc()).toString(Qt::ISODateWithMs).toUtf8() +
              kNewError + '\n';
    EXPECT_TRUE(iCalErrorsInConsole(now.addSecs(-7200)));
    EXPECT_FALSE(iCalErrorsInConsole(now.addSecs(-1800)));

    // An unreadable stamp is never newer than a date, but is reported when there is none.
    journal = "garbage" + kNewError + '\n';
    EXPECT_FALSE(iCalErrorsInConsole(now.addSecs(-7200)));
    EXPECT_TRUE(iCalErrorsInConsole({}));
}

} // namespace
