#include "platform/ProcessLookup.h"

#include "platform/Bundle.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <algorithm>
#include <climits>
#include <optional>
#include <unistd.h>
#include <vector>

namespace nimbrel {

namespace {

const QLatin1String kDeletedSuffix(" (deleted)");

// The real uid on the "Uid:" line of /proc/PID/status; nullopt when the process is gone or the line
// cannot be read.
std::optional<uid_t> realUid(const QString& pidFolder)
{
    QFile status(pidFolder + QStringLiteral("/status"));
    if (!status.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArrayList lines = status.readAll().split('\n');
    for (const QByteArray& line : lines) {
        if (!line.startsWith("Uid:"))
            continue;
        const QByteArrayList fields = line.mid(4).simplified().split(' ');
        bool ok = false;
        const qulonglong uid = fields.value(0).toULongLong(&ok);
        return ok ? std::optional<uid_t>(uid_t(uid)) : std::nullopt;
    }
    return std::nullopt;
}

// What /proc/PID/exe points to; empty when it cannot be read (another user's process, a kernel thread).
QString executableOf(const QString& pidFolder)
{
    const QByteArray link = QFile::encodeName(pidFolder + QStringLiteral("/exe"));
    char buffer[PATH_MAX];
    const ssize_t length = ::readlink(link.constData(), buffer, sizeof buffer);
    if (length <= 0 || size_t(length) >= sizeof buffer)
        return QString();
    return QFile::decodeName(QByteArray(buffer, int(length)));
}

} // namespace

QString bundleIdentifierForExecutable(const QString& executablePath)
{
    QString path = executablePath;
    if (path.endsWith(kDeletedSuffix))
        path.chop(kDeletedSuffix.size());
    if (path.isEmpty())
        return QString();
    const QFileInfo executable(path);
    const Bundle bundle(executable.absolutePath());
    if (!bundle.isValid())
        return QString();
    if (bundle.objectForInfoDictionaryKey(QStringLiteral("CFBundleExecutable")).toString() !=
        executable.fileName())
        return QString();
    return bundle.bundleIdentifier();
}

qint64 findProcessByBundleIdentifier(const QString& identifier)
{
    if (identifier.isEmpty())
        return 0;
    std::vector<qint64> pids;
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& entry : entries) {
        bool numeric = false;
        const qint64 pid = entry.toLongLong(&numeric);
        if (numeric && pid > 0)
            pids.push_back(pid);
    }
    std::sort(pids.begin(), pids.end());

    const uid_t me = ::getuid();
    QHash<QString, QString> identifiers; // executable → bundle identifier, read once per scan
    for (const qint64 pid : pids) {
        const QString folder = QStringLiteral("/proc/%1").arg(pid);
        if (realUid(folder) != me)
            continue;
        const QString executable = executableOf(folder);
        if (executable.isEmpty())
            continue;
        auto known = identifiers.constFind(executable);
        if (known == identifiers.constEnd())
            known = identifiers.insert(executable, bundleIdentifierForExecutable(executable));
        if (*known == identifier)
            return pid;
    }
    return 0;
}

} // namespace nimbrel
