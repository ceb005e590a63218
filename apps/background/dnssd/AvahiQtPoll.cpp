#include "AvahiQtPoll.h"

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>
#include <algorithm>
#include <memory>
#include <sys/time.h>

// Avahi's opaque types, defined here.
struct AvahiWatch : QObject
{
    AvahiWatch(int fd, AvahiWatchEvent events, AvahiWatchCallback callback, void* userdata)
        : m_fd(fd)
        , m_callback(callback)
        , m_userdata(userdata)
    {
        setEvents(events);
    }

    void setEvents(AvahiWatchEvent events)
    {
        auto make = [&](QSocketNotifier::Type type, bool wanted, std::unique_ptr<QSocketNotifier>& notifier,
                        AvahiWatchEvent event) {
            if (!wanted) {
                drop(notifier);
                return;
            }
            if (!notifier) {
                notifier = std::make_unique<QSocketNotifier>(m_fd, type);
                QObject::connect(notifier.get(), &QSocketNotifier::activated, this, [this, event] { fire(event); });
            }
            notifier->setEnabled(true);
        };
        make(QSocketNotifier::Read, events & AVAHI_WATCH_IN, m_read, AVAHI_WATCH_IN);
        make(QSocketNotifier::Write, events & AVAHI_WATCH_OUT, m_write, AVAHI_WATCH_OUT);
        m_events = events;
    }

    // A notifier may be dropped from inside its own signal: disable it now, delete it later.
    static void drop(std::unique_ptr<QSocketNotifier>& notifier)
    {
        if (!notifier)
            return;
        notifier->setEnabled(false);
        notifier.release()->deleteLater();
    }

    void fire(AvahiWatchEvent event)
    {
        m_revents = event;
        if (m_callback)
            m_callback(this, m_fd, event, m_userdata); // may free or update this watch
    }

    int m_fd;
    AvahiWatchEvent m_events = AvahiWatchEvent(0);
    AvahiWatchEvent m_revents = AvahiWatchEvent(0);
    AvahiWatchCallback m_callback;
    void* m_userdata;
    std::unique_ptr<QSocketNotifier> m_read;
    std::unique_ptr<QSocketNotifier> m_write;
};

struct AvahiTimeout : QObject
{
    AvahiTimeout(const struct timeval* tv, AvahiTimeoutCallback callback, void* userdata)
        : m_callback(callback)
        , m_userdata(userdata)
    {
        m_timer.setSingleShot(true);
        QObject::connect(&m_timer, &QTimer::timeout, this, [this] {
            if (m_callback)
                m_callback(this, m_userdata);
        });
        update(tv);
    }

    void update(const struct timeval* tv)
    {
        m_timer.stop();
        if (!tv)
            return;
        // tv is an absolute time on the wall clock.
        timeval now{};
        gettimeofday(&now, nullptr);
        const long long ms = (tv->tv_sec - now.tv_sec) * 1000LL + (tv->tv_usec - now.tv_usec) / 1000;
        m_timer.start(int(std::clamp<long long>(ms, 0, 24LL * 3600 * 1000)));
    }

    QTimer m_timer;
    AvahiTimeoutCallback m_callback;
    void* m_userdata;
};

namespace nimbrel::dnssd {

namespace {

AvahiWatch* watchNew(const AvahiPoll*, int fd, AvahiWatchEvent events, AvahiWatchCallback callback, void* userdata)
{
    return new AvahiWatch(fd, events, callback, userdata);
}

void watchUpdate(AvahiWatch* w, AvahiWatchEvent events)
{
    w->setEvents(events);
}

AvahiWatchEvent watchGetEvents(AvahiWatch* w)
{
    return w->m_revents;
}

// Freed from inside its own callback at times: the notifiers go at once, the object on the next pass.
void watchFree(AvahiWatch* w)
{
    AvahiWatch::drop(w->m_read);
    AvahiWatch::drop(w->m_write);
    w->m_callback = nullptr;
    w->deleteLater();
}

AvahiTimeout* timeoutNew(const AvahiPoll*, const struct timeval* tv, AvahiTimeoutCallback callback, void* userdata)
{
    return new AvahiTimeout(tv, callback, userdata);
}

void timeoutUpdate(AvahiTimeout* t, const struct timeval* tv)
{
    t->update(tv);
}

void timeoutFree(AvahiTimeout* t)
{
    t->m_timer.stop();
    t->m_callback = nullptr;
    t->deleteLater();
}

} // namespace

const AvahiPoll* qtAvahiPoll()
{
    static const AvahiPoll poll = {nullptr,     watchNew,   watchUpdate,   watchGetEvents,
                                   watchFree,   timeoutNew, timeoutUpdate, timeoutFree};
    return &poll;
}

} // namespace nimbrel::dnssd
