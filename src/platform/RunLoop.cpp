#include "platform/RunLoop.h"

#include "platform/QtRunLoop.h"

#include <QPointer>

namespace nimbrel {

namespace {
RunLoop* g_installed = nullptr;
} // namespace

void RunLoop::performAfterDelay(QObject* target, const QByteArray& selector, double seconds, Action action)
{
    // Keyed by the object's address like any other target; the guard drops the action when the object
    // has gone by the time it is due.
    QPointer<QObject> guard(target);
    performAfterDelay(static_cast<const void*>(target), selector, seconds,
                      [guard, action = std::move(action)] {
                          if (guard && action)
                              action();
                      });
}

RunLoop& RunLoop::current()
{
    if (g_installed)
        return *g_installed;
    static QtRunLoop qtLoop;
    return qtLoop;
}

void RunLoop::setCurrent(RunLoop* loop)
{
    g_installed = loop;
}

ScopedRunLoop::ScopedRunLoop(RunLoop& loop) : m_previous(g_installed)
{
    g_installed = &loop;
}

ScopedRunLoop::~ScopedRunLoop()
{
    g_installed = m_previous;
}

} // namespace nimbrel
