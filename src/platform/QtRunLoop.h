#pragma once

#include "platform/RunLoop.h"

#include <QObject>
#include <list>

class QTimer;

namespace nimbrel {

// RunLoop on the Qt event loop: each perform is a single-shot precise QTimer.
class QtRunLoop : public RunLoop
{
public:
    QtRunLoop();
    ~QtRunLoop() override;

    using RunLoop::performAfterDelay;
    void performAfterDelay(const void* target, const QByteArray& selector, double seconds,
                           Action action) override;
    void cancelPreviousPerformRequests(const void* target, const QByteArray& selector) override;
    void cancelAllPerformRequests(const void* target) override;
    int pendingPerformCount(const void* target = nullptr) const override;

private:
    struct Pending;
    void fire(quint64 id);

    std::list<Pending*> m_pending;
    quint64 m_nextId = 1;
};

} // namespace nimbrel
