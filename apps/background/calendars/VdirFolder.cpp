#include "VdirFolder.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSaveFile>
#include <QUuid>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nimbrel::background {

namespace {

const char kDisplayName[] = "displayname";
const char kColor[] = "color";
constexpr qint64 kMaxMetaFileSize = 4096;

QByteArray native(const QString& path)
{
    return QFile::encodeName(path);
}

QString errorText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

ItemStamp stampOf(const struct stat& st)
{
    return {qint64(st.st_size), qint64(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec,
            qint64(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec, qint64(st.st_ino)};
}

// A name that survives the round trip through QString (not every byte sequence is UTF-8).
std::optional<QString> decodedName(const char* name)
{
    const QString decoded = QFile::decodeName(name);
    if (QFile::encodeName(decoded) != QByteArray(name))
        return std::nullopt;
    return decoded;
}

QString readSmallFile(int dirFd, const char* name)
{
    const int fd = ::openat(dirFd, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return {};
    char buffer[kMaxMetaFileSize];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    ::close(fd);
    return n > 0 ? QString::fromUtf8(buffer, n) : QString();
}

bool writeSmallFile(const QString& path, const QString& text, QString* error)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text.toUtf8() + '\n') < 0 || !file.commit()) {
        *error = QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
        return false;
    }
    return true;
}

bool syncFolder(const QString& folder)
{
    const int fd = ::open(native(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool ok = ::fsync(fd) == 0;
    ::close(fd);
    return ok;
}

} // namespace

bool isItemName(const QString& name)
{
    if (name.size() < 5 || name.startsWith(QLatin1Char('.')) ||
        !name.endsWith(QLatin1String(".ics"), Qt::CaseInsensitive) || native(name).size() > 255)
        return false;
    for (const QChar c : name) {
        if (c == QLatin1Char('/') || c.unicode() < 0x20 || c.unicode() == 0x7f)
            return false;
    }
    return true;
}

namespace {

QString validColor(const QString& text)
{
    static const QRegularExpression pattern(QStringLiteral("^#[0-9A-Fa-f]{6}([0-9A-Fa-f]{2})?$"));
    const QString color = text.trimmed();
    return pattern.match(color).hasMatch() ? color : QString();
}

QString firstLine(const QString& text)
{
    return text.section(QLatin1Char('\n'), 0, 0).trimmed();
}

} // namespace

FolderListing readFolderMeta(const QString& folder)
{
    FolderListing listing;
    const int fd = ::open(native(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return listing;
    listing.exists = true;
    listing.title = firstLine(readSmallFile(fd, kDisplayName));
    listing.color = validColor(readSmallFile(fd, kColor));
    ::close(fd);
    return listing;
}

FolderListing readFolder(const QString& folder)
{
    FolderListing listing;
    DIR* dir = ::opendir(native(folder).constData());
    if (!dir)
        return listing;
    listing.exists = true;
    const int fd = ::dirfd(dir);
    while (const dirent* entry = ::readdir(dir)) {
        const char* name = entry->d_name;
        if (name[0] == '.')
            continue;
        if (std::strcmp(name, kDisplayName) == 0) {
            listing.title = firstLine(readSmallFile(fd, name));
            continue;
        }
        if (std::strcmp(name, kColor) == 0) {
            listing.color = validColor(readSmallFile(fd, name));
            continue;
        }
        const std::optional<QString> decoded = decodedName(name);
        struct stat st = {};
        if (!decoded || !isItemName(*decoded) || ::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(st.st_mode))
            continue;
        listing.items.insert(*decoded, stampOf(st));
    }
    ::closedir(dir);
    return listing;
}

QStringList calendarFolderNames(const QString& root)
{
    QStringList names;
    DIR* dir = ::opendir(native(root).constData());
    if (!dir)
        return names;
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        bool isFolder = entry->d_type == DT_DIR;
        if (entry->d_type == DT_UNKNOWN) {
            struct stat st = {};
            isFolder =
                ::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
        }
        if (const std::optional<QString> name = decodedName(entry->d_name); isFolder && name)
            names << *name;
    }
    ::closedir(dir);
    return names;
}

bool hasCalendarFolder(const QString& root)
{
    // Stops at the first: with thousands of calendars this runs on every start.
    DIR* dir = ::opendir(native(root).constData());
    if (!dir)
        return false;
    bool found = false;
    while (const dirent* entry = ::readdir(dir)) {
        struct stat st = {};
        if (entry->d_name[0] != '.' &&
            ::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode)) {
            found = true;
            break;
        }
    }
    ::closedir(dir);
    return found;
}

QString contentTag(const QByteArray& content)
{
    return QString::fromLatin1(
        QCryptographicHash::hash(content, QCryptographicHash::Sha256).left(16).toHex());
}

std::optional<QByteArray> readItemFile(const QString& path, ItemStamp* stamp)
{
    const int fd = ::open(native(path).constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return std::nullopt;
    struct stat st = {};
    std::optional<QByteArray> content;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size <= kMaxItemBytes) {
        QByteArray data(qsizetype(st.st_size), Qt::Uninitialized);
        qsizetype done = 0;
        // The size can lie (a file growing meanwhile): read what is there, never past the limit.
        while (true) {
            if (done == data.size()) {
                if (data.size() >= kMaxItemBytes)
                    break;
                data.resize(std::min<qsizetype>(data.size() + 65536, kMaxItemBytes));
            }
            const ssize_t n = ::read(fd, data.data() + done, size_t(data.size() - done));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                if (n == 0)
                    content = data.left(done);
                break;
            }
            done += n;
        }
        if (content && stamp && ::fstat(fd, &st) == 0)
            *stamp = stampOf(st);
    }
    ::close(fd);
    return content;
}

FileWrite writeItemFile(const QString& folder, const QString& name, const QByteArray& content,
                        bool mustNotExist, ItemStamp* stamp, QString* error)
{
    const QString target = folder + QLatin1Char('/') + name;
    const QString temporary =
        folder + QStringLiteral("/.%1.%2.tmp").arg(name, QUuid::createUuid().toString(QUuid::Id128).left(12));
    const int fd = ::open(native(temporary).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        *error = QStringLiteral("cannot create %1: %2").arg(temporary, errorText(errno));
        return FileWrite::Failed;
    }
    auto fail = [&](const QString& what) {
        *error = QStringLiteral("%1 %2: %3").arg(what, temporary, errorText(errno));
        ::close(fd);
        ::unlink(native(temporary).constData());
        return FileWrite::Failed;
    };
    for (qsizetype done = 0; done < content.size();) {
        const ssize_t n = ::write(fd, content.constData() + done, size_t(content.size() - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return fail(QStringLiteral("cannot write"));
        done += n;
    }
    if (::fsync(fd) != 0)
        return fail(QStringLiteral("cannot flush"));
    const QByteArray from = native(temporary);
    const QByteArray to = native(target);
    int renamed = mustNotExist
                      ? ::renameat2(AT_FDCWD, from.constData(), AT_FDCWD, to.constData(), RENAME_NOREPLACE)
                      : ::rename(from.constData(), to.constData());
    if (renamed != 0 && mustNotExist && errno == EINVAL) {
        // A file system without RENAME_NOREPLACE: a hard link refuses an existing name just as well.
        renamed = ::link(from.constData(), to.constData());
        if (renamed == 0)
            ::unlink(from.constData());
    }
    if (renamed != 0) {
        if (errno == EEXIST) {
            ::close(fd);
            ::unlink(from.constData());
            return FileWrite::Exists;
        }
        return fail(QStringLiteral("cannot rename to %1").arg(target));
    }
    struct stat st = {};
    if (stamp && ::fstat(fd, &st) == 0)
        *stamp = stampOf(st);
    ::close(fd);
    syncFolder(folder); // the rename itself on disk before the change is recorded
    return FileWrite::Written;
}

bool createDefaultCalendars(const QString& root, QString* error)
{
    if (hasCalendarFolder(root))
        return false;
    if (!QDir().mkpath(root)) {
        *error = QStringLiteral("cannot create %1").arg(root);
        return false;
    }
    const std::pair<const char*, const char*> defaults[] = {{"Home", "#1E88E5"}, {"Work", "#E53935"}};
    for (const auto& [title, color] : defaults) {
        const QString folder =
            root + QLatin1Char('/') + QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
        if (::mkdir(native(folder).constData(), 0700) != 0) {
            *error = QStringLiteral("cannot create %1: %2").arg(folder, errorText(errno));
            return false;
        }
        if (!writeSmallFile(folder + QLatin1Char('/') + QLatin1String(kDisplayName), QLatin1String(title),
                            error) ||
            !writeSmallFile(folder + QLatin1Char('/') + QLatin1String(kColor), QLatin1String(color), error))
            return false;
    }
    return true;
}

} // namespace nimbrel::background
