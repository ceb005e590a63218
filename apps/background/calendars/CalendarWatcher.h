#pragma once

// Watches the calendar folders with inotify and says what changed, by name: one watch on the folder
// that holds the calendars root (so that a deleted and re-created root is noticed), one on the root,
// one per calendar folder (a folder watch also reports its files being written). Nothing is read
// here; the store reads what an event names.
//
// Watches are a per-user resource (fs.inotify.max_user_watches, shared with every program of the
// user): at most half of that limit is taken. A calendar beyond it is not watched (watchCalendar()
// is false) and the store checks it on its slower periodic rescan instead.

#include <QHash>
#include <QObject>
#include <QString>
#include <functional>
#include <memory>

class QSocketNotifier;

namespace nimbrel::background {

struct WatchEvent
{
    enum Kind
    {
        Everything, // the root came or went, or events were lost: look at everything
        Calendar,   // a calendar folder appeared, vanished or moved: `uid`
        Item,       // an item file was written, added, removed or renamed: `uid`, `name`
        Meta,       // displayname or color of `uid`
    };
    Kind kind = Everything;
    QString uid;
    QString name;
};

class CalendarWatcher : public QObject
{
    Q_OBJECT
public:
    using Sink = std::function<void(const WatchEvent&)>;

    explicit CalendarWatcher(Sink sink, QObject* parent = nullptr);
    ~CalendarWatcher() override;

    // Starts watching the root (and its parent). False when inotify cannot be used at all, or the root
    // cannot be watched (it is missing: its parent's watch reports it coming back).
    bool start(const QString& root);
    void stop();
    bool isRootWatched() const { return m_rootWatch >= 0; }
    // Tries again to watch the root (after it came back while it could not be watched).
    bool rearm() { return m_fd < 0 ? start(m_root) : armRoot(); }

    // False when the calendar cannot be watched (over the limit, or the folder is gone).
    bool watchCalendar(const QString& uid);
    void unwatchCalendar(const QString& uid);
    bool isWatched(const QString& uid) const { return m_watchOf.contains(uid); }
    int watchCount() const;

    // The most watches taken in all (default: half of fs.inotify.max_user_watches).
    void setWatchLimit(int limit) { m_limit = limit; }
    int watchLimit() const { return m_limit; }

private:
    void readEvents();
    void handle(int wd, quint32 mask, const QString& name);
    bool armRoot();
    void dropRoot();
    bool underLimit();

    Sink m_sink;
    QString m_root;
    QString m_rootName;
    int m_fd = -1;
    std::unique_ptr<QSocketNotifier> m_notifier;
    int m_parentWatch = -1;
    int m_rootWatch = -1;
    QHash<int, QString> m_uidOf; // calendar watches
    QHash<QString, int> m_watchOf;
    int m_limit = 0;
    bool m_limitLogged = false;
};

} // namespace nimbrel::background
