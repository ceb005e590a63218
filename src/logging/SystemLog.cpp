// The system journal: its tail for the support zip, the privileged copy used when the classic
// syslog file cannot be read, and the scan for known calendar-sync errors.

#include "logging/Log.h"
#include "logging/SupportBundlePrivate.h"
#include "platform/SystemVersion.h"

#include <QBuffer>
#include <QFile>
#include <QFileInfo>
#include <deque>
#include <fcntl.h>
#include <unistd.h>

namespace nimbrel {

namespace {

const QString kJournalctl = QStringLiteral("/usr/bin/journalctl");
const QString kSyslog = QStringLiteral("/var/log/syslog");
constexpr int kErrorLinesKept = 5;

// Matched as fixed strings; any one of a set is enough.
const QList<QByteArray> kErrorsBefore10_5_3 = {
    "[ICalExternalSync ]NSException name:ISyncInvalidRecordException",
    "[ICalExternalSync ]NSException name:NSInvalidArgumentException",
    "[ICalExternalSync ]Error: second save failed",
};
const QList<QByteArray> kErrorsFrom10_5_3 = {
    "[ICalExternalSync ]NSException name:NSInvalidArgumentException reason:***",
    "[ICalExternalSync ]NSException name:NSInvalidArgumentException reason:can't execute statement",
    "[ICalExternalSync ]NSException name:NSInvalidArgumentException "
    "reason:[ISyncConcreteSession clientAcceptedChangesForRecordWithIdentifier",
};

// The last `kErrorLinesKept` lines of `input` holding any of `patterns`, each followed by "\n".
QByteArray lastMatchingLines(QIODevice& input, const QList<QByteArray>& patterns)
{
    std::deque<QByteArray> kept;
    while (!input.atEnd()) {
        QByteArray line = input.readLine();
        if (line.endsWith('\n'))
            line.chop(1);
        for (const QByteArray& pattern : patterns) {
            if (line.contains(pattern)) {
                kept.push_back(line);
                if (kept.size() > kErrorLinesKept)
                    kept.pop_front();
                break;
            }
        }
    }
    QByteArray text;
    for (const QByteArray& line : kept)
        text += line + '\n';
    return text;
}

// A syslog stamp ("Mar  4 09:26:53" or "Mar 04 09:26:53", English month) in local time. It carries
// no year: the current one, or the previous one when that would put it more than a day ahead.
// Debian's rsyslog writes ISO 8601 stamps instead; those are taken as well.
QDateTime parseStamp(const QString& text)
{
    static const QStringList months = {
        QStringLiteral("Jan"), QStringLiteral("Feb"), QStringLiteral("Mar"), QStringLiteral("Apr"),
        QStringLiteral("May"), QStringLiteral("Jun"), QStringLiteral("Jul"), QStringLiteral("Aug"),
        QStringLiteral("Sep"), QStringLiteral("Oct"), QStringLiteral("Nov"), QStringLiteral("Dec"),
    };
    const qsizetype month = months.indexOf(text.left(3)) + 1;
    if (month == 0 || text.size() < 15 || text.at(3) != QLatin1Char(' ') || text.at(6) != QLatin1Char(' '))
        return QDateTime::fromString(text.section(QLatin1Char(' '), 0, 0), Qt::ISODateWithMs);
    bool dayOk = false;
    const int day = text.mid(4, 2).trimmed().toInt(&dayOk);
    const QTime time = QTime::fromString(text.mid(7, 8), QStringLiteral("HH:mm:ss"));
    if (!dayOk || !time.isValid())
        return {};
    const QDateTime now = QDateTime::currentDateTime();
    for (const int year : {now.date().year(), now.date().year() - 1}) {
        const QDate date(year, int(month), day);
        if (!date.isValid())
            continue; // 29 February outside a leap year
        const QDateTime stamp(date, time);
        if (stamp <= now.addDays(1))
            return stamp;
    }
    return {};
}

} // namespace

namespace supportbundle {

bool writePrivateFile(const QString& path, const char* data, qsizetype size)
{
    const int fd = ::open(QFile::encodeName(path).constData(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    QFile file;
    bool ok = file.open(fd, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle);
    if (!ok)
        ::close(fd);
    ok = ok && file.write(data, size) == size;
    file.close();
    ok = ok && file.error() == QFileDevice::NoError;
    if (!ok)
        QFile::remove(path);
    return ok;
}

bool keepLastLines(const QString& source, const QString& destination, qsizetype count)
{
    QFile input(source);
    if (!input.open(QIODevice::ReadOnly))
        return false;
    qsizetype size = input.size();
    const char* data = "";
    QByteArray contents;
    if (size > 0) {
        if (uchar* mapped = input.map(0, size)) {
            data = reinterpret_cast<const char*>(mapped);
        } else {
            contents = input.readAll();
            data = contents.constData();
            size = contents.size();
        }
    }
    // Walk back over `count` line ends; the last line's own terminator does not count.
    qsizetype start = count > 0 ? 0 : size;
    qsizetype i = size > 0 && data[size - 1] == '\n' ? size - 1 : size;
    qsizetype lineEnds = 0;
    while (count > 0 && i > 0) {
        --i;
        if (data[i] == '\n' && ++lineEnds == count) {
            start = i + 1;
            break;
        }
    }
    return writePrivateFile(destination, data + start, size - start);
}

QString writeSystemLogTail(const QString& folder)
{
    const QString systemLog = folder + QStringLiteral("/system.log");
    QFile::remove(systemLog);

    // The journal holds what this user may read; no rights are asked for.
    const ProcessResult journal = processRunner().run(
        kJournalctl, {QStringLiteral("--no-pager"), QStringLiteral("-q"), QStringLiteral("-o"),
                      QStringLiteral("short-iso"), QStringLiteral("-n"), QString::number(kSystemLogLines)});
    if (succeeded(journal)) {
        const QByteArray& text = journal.standardOutput;
        return writePrivateFile(systemLog, text.constData(), text.size()) ? systemLog : QString();
    }

    // No journal: the classic syslog file, copied with administrator rights when needed.
    const QString copy = folder + QStringLiteral("/system_copy.log");
    if (!copyFileWithAuthentication(kSyslog, copy))
        return {};
    const bool kept = keepLastLines(copy, systemLog, kSystemLogLines);
    QFile::remove(copy);
    return kept ? systemLog : QString();
}

} // namespace supportbundle

bool copyFileWithAuthentication(const QString& source, const QString& destination)
{
    QFile input(source);
    if (QFileInfo(source).isReadable() && input.open(QIODevice::ReadOnly)) {
        input.close();
        QFile::remove(destination);
        const bool copied = QFile::copy(source, destination);
        if (!copied)
            Log(5, "copyFileWithAuthentication: copy of %@ failed", source);
        return copied;
    }

    // The destination is created first, as a private file of the user: the privileged copy then
    // writes into a file the user owns instead of following whatever else could be put at its name.
    QFile::remove(destination);
    if (!supportbundle::writePrivateFile(destination, "", 0)) {
        Log(5, "copyFileWithAuthentication: cannot create %@", destination);
        return false;
    }
    // Only the caller's ids are formatted into the command; the paths arrive as positional
    // parameters (pkexec clears the environment, so nothing could be passed that way).
    const QString command = QStringLiteral("cp -f -- \"$1\" \"$2\" && chown %1:%2 \"$2\"")
                                .arg(static_cast<qulonglong>(::getuid()))
                                .arg(static_cast<qulonglong>(::getgid()));
    const ProcessResult result = processRunner().run(QStringLiteral("/usr/bin/pkexec"),
                                                     {QStringLiteral("/bin/sh"), QStringLiteral("-c"),
                                                      command, QStringLiteral("sh"), source, destination});
    if (supportbundle::succeeded(result))
        return true;
    // 126 and 127 are a dismissed or failed authentication.
    Log(5, "copyFileWithAuthentication: privileged copy of %@ failed: %@", source,
        supportbundle::describe(result));
    QFile::remove(destination);
    return false;
}

bool iCalErrorsInConsole(const QDateTime& since)
{
    const quint32 version = getSystemVersion();
    if (version <= kSystemVersion10_5OrLater)
        return false;
    const QList<QByteArray>& patterns =
        version < kSystemVersionBefore10_5_3 ? kErrorsBefore10_5_3 : kErrorsFrom10_5_3;

    QByteArray matches;
    ProcessResult journal =
        processRunner().run(kJournalctl, {QStringLiteral("--no-pager"), QStringLiteral("-q"),
                                          QStringLiteral("-o"), QStringLiteral("short")});
    if (supportbundle::succeeded(journal)) {
        QBuffer buffer(&journal.standardOutput);
        buffer.open(QIODevice::ReadOnly);
        matches = lastMatchingLines(buffer, patterns);
    } else {
        QFile syslog(kSyslog);
        if (syslog.open(QIODevice::ReadOnly))
            matches = lastMatchingLines(syslog, patterns);
    }
    if (matches.isEmpty())
        return false;

    const QString text = QString::fromUtf8(matches);
    // A stamp that cannot be read is not newer than a given date: only the undated scan reports it.
    const QDateTime stamp = parseStamp(text.section(QLatin1Char('\n'), 0, 0));
    if (since.isValid() && (!stamp.isValid() || stamp <= since))
        return false;

    Log(13, "iCalExternalSync errors detected");
    // One line of the log per line found (a message is always one line); each is its own format.
    for (const QString& line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        Log(13, line);
    return true;
}

} // namespace nimbrel
