#include "platform/QtRunLoop.h"

#include <QTimer>
#include <algorithm>
#include <cmath>
#include <limits>

namespace nimbrel {

struct QtRunLoop::Pending
{
    quint64 id;
    const void* target;
    QByteArray selector;
    Action action;
    QTimer* timer;
};

namespace {

int toMilliseconds(double seconds)
{
    if (std::isnan(seconds) || seconds <= 0)
        return 0;
    const double ms = std::round(seconds * 1000.0);
    return ms >= double(std::numeric_limits<int>::max()) ? std::numeric_limits<int>::max() : int(ms);
}

} // namespace

QtRunLoop::QtRunLoop() = default;

QtRunLoop::~QtRunLoop()
{
    for (Pending* pending : m_pending) {
        delete pending->timer;
        delete pending;
    }
}

void QtRunLoop::performAfterDelay(const void* target, const QByteArray& selector, double seconds,
                                  Action action)
{
    const quint64 id = m_nextId++;
    auto* timer = new QTimer;
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer);
    QObject::connect(timer, &QTimer::timeout, timer, [this, id] { fire(id); });
    m_pending.push_back(new Pending{id, target, selector, std::move(action), timer});
    timer->start(toMilliseconds(seconds));
}

void QtRunLoop::fire(quint64 id)
{
    const auto it =
        std::find_if(m_pending.begin(), m_pending.end(), [id](Pending* p) { return p->id == id; });
    if (it == m_pending.end())
        return;
    Pending* pending = *it;
    m_pending.erase(it);
    // This timer is emitting right now, so it can only be deleted later. Every timer still listed is
    // idle and can be deleted at once when its perform is cancelled, even from inside this action.
    pending->timer->deleteLater();
    const Action action = std::move(pending->action);
    delete pending;
    if (action)
        action();
}

void QtRunLoop::cancelPreviousPerformRequests(const void* target, const QByteArray& selector)
{
    std::erase_if(m_pending, [&](Pending* p) {
        if (p->target != target || p->selector != selector)
            return false;
        delete p->timer;
        delete p;
        return true;
    });
}

void QtRunLoop::cancelAllPerformRequests(const void* target)
{
    std::erase_if(m_pending, [&](Pending* p) {
        if (p->target != target)
            return false;
        delete p->timer;
        delete p;
        return true;
    });
}

int QtRunLoop::pendingPerformCount(const void* target) const
{
    if (!target)
        return int(m_pending.size());
    return int(
        std::count_if(m_pending.begin(), m_pending.end(), [&](Pending* p) { return p->target == target; }));
}

} // namespace nimbrel
