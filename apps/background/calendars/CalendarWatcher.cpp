#include "CalendarWatcher.h"

#include "VdirFolder.h"
#include "logging/Log.h"

#include <QFile>
#include <QFileInfo>
#include <QSocketNotifier>
#include <cerrno>
#include <cstring>
#include <sys/inotify.h>
#include <unistd.h>

namespace nimbrel::background {

namespace {

constexpr quint32 kParentMask = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_ONLYDIR;
constexpr quint32 kRootMask =
    IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr quint32 kCalendarMask = IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                  IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr int kFallbackUserLimit = 8192;

int userWatchLimit()
{
    QFile file(QStringLiteral("/proc/sys/fs/inotify/max_user_watches"));
    bool ok = false;
    const int limit = file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().toInt(&ok) : 0;
    return ok && limit > 0 ? limit : kFallbackUserLimit;
}

} // namespace

CalendarWatcher::CalendarWatcher(Sink sink, QObject* parent)
    : QObject(parent), m_sink(std::move(sink)), m_limit(userWatchLimit() / 2)
{
}

CalendarWatcher::~CalendarWatcher()
{
    stop();
}

int CalendarWatcher::watchCount() const
{
    return int(m_uidOf.size()) + (m_parentWatch >= 0) + (m_rootWatch >= 0);
}

bool CalendarWatcher::start(const QString& root)
{
    stop();
    m_root = root;
    m_rootName = QFileInfo(root).fileName();
    m_fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_fd < 0) {
        Log(13, "CalendarWatcher: inotify is not available (%@): the calendars are checked periodically",
            QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    m_notifier = std::make_unique<QSocketNotifier>(m_fd, QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &CalendarWatcher::readEvents);
    const QByteArray parent = QFile::encodeName(QFileInfo(root).absolutePath());
    if (underLimit())
        m_parentWatch = ::inotify_add_watch(m_fd, parent.constData(), kParentMask);
    return armRoot();
}

void CalendarWatcher::stop()
{
    m_notifier.reset();
    if (m_fd >= 0)
        ::close(m_fd); // drops every watch
    m_fd = -1;
    m_parentWatch = -1;
    m_rootWatch = -1;
    m_uidOf.clear();
    m_watchOf.clear();
}

bool CalendarWatcher::underLimit()
{
    if (watchCount() < m_limit)
        return true;
    if (!m_limitLogged) {
        m_limitLogged = true;
        Log(10,
            "CalendarWatcher: the limit of %d inotify watches is reached (fs.inotify.max_user_watches is "
            "%d); "
            "calendars beyond it are checked periodically",
            m_limit, userWatchLimit());
    }
    return false;
}

bool CalendarWatcher::armRoot()
{
    if (m_fd < 0 || m_rootWatch >= 0 || !underLimit())
        return m_rootWatch >= 0;
    m_rootWatch = ::inotify_add_watch(m_fd, QFile::encodeName(m_root).constData(), kRootMask);
    return m_rootWatch >= 0;
}

// The root went away or moved: its watches follow the moved folder, so they are given up.
void CalendarWatcher::dropRoot()
{
    for (auto it = m_uidOf.cbegin(); it != m_uidOf.cend(); ++it)
        ::inotify_rm_watch(m_fd, it.key());
    m_uidOf.clear();
    m_watchOf.clear();
    if (m_rootWatch >= 0)
        ::inotify_rm_watch(m_fd, m_rootWatch);
    m_rootWatch = -1;
}

bool CalendarWatcher::watchCalendar(const QString& uid)
{
    if (m_fd < 0 || m_rootWatch < 0)
        return false;
    if (m_watchOf.contains(uid))
        return true;
    if (!underLimit())
        return false;
    const QString path = m_root + QLatin1Char('/') + uid;
    const int wd = ::inotify_add_watch(m_fd, QFile::encodeName(path).constData(), kCalendarMask);
    if (wd < 0) {
        if (errno == ENOSPC) {
            m_limit = watchCount(); // other programs took the rest
            underLimit();
        }
        return false;
    }
    // A folder renamed within the root keeps its watch: the old name lets go of it.
    if (const QString previous = m_uidOf.value(wd); !previous.isEmpty())
        m_watchOf.remove(previous);
    m_uidOf.insert(wd, uid);
    m_watchOf.insert(uid, wd);
    return true;
}

void CalendarWatcher::unwatchCalendar(const QString& uid)
{
    const int wd = m_watchOf.value(uid, -1);
    if (wd < 0)
        return;
    ::inotify_rm_watch(m_fd, wd);
    m_uidOf.remove(wd);
    m_watchOf.remove(uid);
}

void CalendarWatcher::readEvents()
{
    alignas(inotify_event) char buffer[64 * 1024];
    while (m_fd >= 0) {
        const ssize_t n = ::read(m_fd, buffer, sizeof buffer);
        if (n <= 0)
            break;
        for (ssize_t offset = 0; offset < n;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
            offset += ssize_t(sizeof(inotify_event) + event->len);
            handle(event->wd, event->mask, event->len ? QFile::decodeName(event->name) : QString());
        }
    }
}

void CalendarWatcher::handle(int wd, quint32 mask, const QString& name)
{
    if (mask & IN_Q_OVERFLOW) {
        m_sink({WatchEvent::Everything, {}, {}});
        return;
    }
    if (wd == m_parentWatch) {
        if (name != m_rootName)
            return;
        if (mask & (IN_CREATE | IN_MOVED_TO))
            armRoot(); // the root is back (a restore, a sync tool that rewrote it)
        m_sink({WatchEvent::Everything, {}, {}});
        return;
    }
    if (wd == m_rootWatch) {
        if (mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
            dropRoot();
            m_sink({WatchEvent::Everything, {}, {}});
        } else if ((mask & IN_ISDIR) && !name.startsWith(QLatin1Char('.'))) {
            m_sink({WatchEvent::Calendar, name, {}});
        }
        return;
    }
    const QString uid = m_uidOf.value(wd);
    if (uid.isEmpty())
        return;
    if (mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) {
        if (mask & IN_MOVE_SELF)
            ::inotify_rm_watch(m_fd, wd); // it would follow the folder to its new name
        m_uidOf.remove(wd);
        m_watchOf.remove(uid);
        m_sink({WatchEvent::Calendar, uid, {}});
    } else if (name == QLatin1String("displayname") || name == QLatin1String("color")) {
        m_sink({WatchEvent::Meta, uid, {}});
    } else if (!(mask & IN_ISDIR) && isItemName(name)) {
        m_sink({WatchEvent::Item, uid, name});
    }
}

} // namespace nimbrel::background
