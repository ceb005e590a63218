#pragma once

#include "platform/RunLoop.h"

#include <vector>

namespace nimbrel {

// RunLoop in virtual time for tests: nothing runs until the test advances the clock.
class VirtualRunLoop : public RunLoop
{
public:
    using RunLoop::performAfterDelay;
    void performAfterDelay(const void* target, const QByteArray& selector, double seconds,
                           Action action) override;
    void cancelPreviousPerformRequests(const void* target, const QByteArray& selector) override;
    void cancelAllPerformRequests(const void* target) override;
    int pendingPerformCount(const void* target = nullptr) const override;

    // Seconds of virtual time since the loop was made.
    double now() const { return m_now; }

    // Moves the clock forward by `seconds`, running every perform that falls due on the way in order
    // of due time (ties in request order), including performs requested by the performs it runs.
    // The clock stands at each perform's due time while it runs. Returns how many performs ran.
    int advance(double seconds);

    // Runs what is due now (delay-0 performs and anything overdue): advance(0).
    int runPending() { return advance(0); }

    // Due time of the earliest pending perform, or a negative number when none is pending.
    double nextDueTime() const;

private:
    struct Pending
    {
        double due;
        quint64 sequence;
        const void* target;
        QByteArray selector;
        Action action;
    };

    double m_now = 0;
    quint64 m_sequence = 0;
    std::vector<Pending> m_pending;
};

} // namespace nimbrel
