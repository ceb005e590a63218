// Log paths, creation dates, pruning and the move of the main log to its dated name.
#include "logging/Log.h"
#include "logging/LogClock.h"
#include "logging/LogInternal.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace nimbrel {

namespace {

// Never destroyed, so that a line logged while the program ends still works.
QString& logNameStorage()
{
    static auto* name = new QString;
    return *name;
}

double gLogStartDate = std::numeric_limits<double>::quiet_NaN();

struct Timestamp
{
    long long seconds = 0;
    long long nanoseconds = 0;
    auto operator<=>(const Timestamp&) const = default;
};

struct FileDates
{
    std::optional<Timestamp> creation;
    std::optional<Timestamp> modification;
};

Timestamp timestamp(const struct statx_timestamp& t)
{
    return {t.tv_sec, t.tv_nsec};
}
Timestamp timestamp(const struct timespec& t)
{
    return {t.tv_sec, t.tv_nsec};
}

// Dates of `path` (relative to `directory`), links not followed. The creation date is the birth
// time where the file system keeps one, else the status-change time.
FileDates fileDates(int directory, const char* path)
{
    FileDates dates;
    struct statx sx = {};
    if (statx(directory, path, AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_CTIME | STATX_MTIME, &sx) == 0) {
        if (sx.stx_mask & STATX_BTIME)
            dates.creation = timestamp(sx.stx_btime);
        else if (sx.stx_mask & STATX_CTIME)
            dates.creation = timestamp(sx.stx_ctime);
        if (sx.stx_mask & STATX_MTIME)
            dates.modification = timestamp(sx.stx_mtime);
    } else if (errno == ENOSYS) {
        struct stat st = {};
        if (fstatat(directory, path, &st, AT_SYMLINK_NOFOLLOW) == 0) {
            dates.creation = timestamp(st.st_ctim);
            dates.modification = timestamp(st.st_mtim);
        }
    }
    return dates;
}

// Later creation first, then later modification; a date missing on either side decides nothing.
int compareDates(const FileDates& a, const FileDates& b)
{
    if (a.creation && b.creation && *a.creation != *b.creation)
        return *a.creation > *b.creation ? -1 : 1;
    if (a.modification && b.modification && *a.modification != *b.modification)
        return *a.modification > *b.modification ? -1 : 1;
    return 0;
}

bool hasLogExtension(std::string_view name)
{
    const size_t dot = name.rfind('.');
    return dot != std::string_view::npos && name.substr(dot + 1) == "log";
}

// Deletes the ".log" entries of `folder` beyond the `keepCount` youngest. Nothing else is touched.
void pruneLogs(const QByteArray& folder, long keepCount)
{
    DIR* directory = opendir(folder.constData());
    if (!directory)
        return;
    const int fd = dirfd(directory);
    struct Entry
    {
        std::string name;
        FileDates dates;
    };
    std::vector<Entry> entries;
    while (const dirent* e = readdir(directory)) {
        const std::string_view name = e->d_name;
        if (name == "." || name == "..")
            continue;
        entries.push_back({std::string(name), fileDates(fd, e->d_name)});
    }
    // Dates are read once, so the order the sort sees cannot change under it.
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry& a, const Entry& b) { return compareDates(a.dates, b.dates) < 0; });
    long count = 0;
    for (const Entry& entry : entries) {
        if (hasLogExtension(entry.name) && ++count > keepCount)
            unlinkat(fd, entry.name.c_str(), 0); // a failure leaves the file; nothing to do about it
    }
    closedir(directory);
}

bool pathExists(const QByteArray& path)
{
    struct stat st = {};
    return lstat(path.constData(), &st) == 0;
}

} // namespace

bool logdetail::isUsableLogName(const QString& name)
{
    return !name.isEmpty() && !name.contains(QLatin1Char('/')) && !name.contains(QChar(0)) &&
           name != QLatin1String(".") && name != QLatin1String("..");
}

QString userLibraryLogFolder()
{
    // Qt 6.4 has no location for state data: the variable is read as the XDG rules say.
    const QString state = qEnvironmentVariable("XDG_STATE_HOME");
    if (!state.isEmpty() && QDir::isAbsolutePath(state))
        return QDir::cleanPath(state);
    return QDir::cleanPath(QDir::homePath() + QLatin1String("/.local/state"));
}

QString logFilePath(const QString& name)
{
    return userLibraryLogFolder() + QLatin1Char('/') + name + QLatin1Char('/') + name + QLatin1String(".log");
}

QString filteredLogFilePath(const QString& name)
{
    return userLibraryLogFolder() + QLatin1Char('/') + name + QLatin1Char('/') + name +
           QLatin1String(".filteredlog");
}

int youngestFirst(const QString& a, const QString& b, const QString& folder)
{
    const QByteArray base = QFile::encodeName(folder) + '/';
    return compareDates(fileDates(AT_FDCWD, (base + QFile::encodeName(a)).constData()),
                        fileDates(AT_FDCWD, (base + QFile::encodeName(b)).constData()));
}

QString prepLogFilePath(const QString& name, long keepCount)
{
    if (!logdetail::isUsableLogName(name))
        return QString();
    const QString folder = userLibraryLogFolder() + QLatin1Char('/') + name;
    // Linux has no attribute to keep a folder out of backups, so creating it is all there is to do.
    if (!QFileInfo(folder).isDir() && !QDir().mkpath(folder))
        return QString();

    const QByteArray nativeFolder = QFile::encodeName(folder);
    pruneLogs(nativeFolder, keepCount);

    const QString path = folder + QLatin1Char('/') + name + QLatin1String(".log");
    const QByteArray nativePath = QFile::encodeName(path);
    if (pathExists(nativePath)) {
        const FileDates dates = fileDates(AT_FDCWD, nativePath.constData());
        long long date =
            dates.creation ? dates.creation->seconds : static_cast<long long>(logdetail::logNow());
        const QByteArray stem = nativeFolder + '/' + QFile::encodeName(name);
        // The first free dated name, one second later each time it is taken; when all are taken
        // the log stays where it is.
        for (long attempt = 0; attempt < keepCount; ++attempt, ++date) {
            const QByteArray candidate =
                stem + QByteArray::fromStdString(logdetail::rotatedLogNameDate(date)) + ".log";
            if (pathExists(candidate))
                continue;
            if (std::rename(nativePath.constData(), candidate.constData()) != 0)
                return QString();
            break;
        }
    }

    gLogKeepCount = keepCount;
    logNameStorage() = name;
    gLogStartDate = logdetail::logNow();
    gLogBytesWritten = 0;
    return path;
}

int ReopenStandardError(const QString& path)
{
    if (path.isEmpty())
        return ENOENT;
    const QByteArray nativePath = QFile::encodeName(path);
    // Tried first on a separate descriptor: a failed freopen would leave standard error closed.
    const int probe = open(nativePath.constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (probe < 0)
        return errno;
    close(probe);
    // glibc keeps descriptor 2 for the new file, so the programs we start write there too.
    if (!std::freopen(nativePath.constData(), "a", stderr))
        return errno != 0 ? errno : EIO;
    // Fully buffered: a line is not a system call each; LogFlush and urgent lines flush.
    static char buffer[65536];
    std::setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
    return 0;
}

QString logName()
{
    return logNameStorage();
}

double logStartDate()
{
    return gLogStartDate;
}

} // namespace nimbrel
