#include "platform/VirtualRunLoop.h"

#include <QtGlobal>
#include <algorithm>
#include <cmath>

namespace nimbrel {

namespace {

// Virtual times are kept on a microsecond grid, so that the same instant reached by different sums
// (ten steps of 0.1 s or one of 1 s) compares equal and a perform due at the end of a window runs.
double quantize(double seconds)
{
    return std::round(seconds * 1e6) / 1e6;
}

double sanitizedDelay(double seconds)
{
    return (std::isnan(seconds) || seconds < 0) ? 0.0 : seconds;
}

// Performs that keep requesting new ones at the same instant would never let the clock move on.
constexpr int MaxPerformsPerInstant = 100000;

} // namespace

void VirtualRunLoop::performAfterDelay(const void* target, const QByteArray& selector, double seconds,
                                       Action action)
{
    m_pending.push_back(
        {quantize(m_now + sanitizedDelay(seconds)), m_sequence++, target, selector, std::move(action)});
}

void VirtualRunLoop::cancelPreviousPerformRequests(const void* target, const QByteArray& selector)
{
    std::erase_if(m_pending, [&](const Pending& p) { return p.target == target && p.selector == selector; });
}

void VirtualRunLoop::cancelAllPerformRequests(const void* target)
{
    std::erase_if(m_pending, [&](const Pending& p) { return p.target == target; });
}

int VirtualRunLoop::pendingPerformCount(const void* target) const
{
    if (!target)
        return int(m_pending.size());
    return int(std::count_if(m_pending.begin(), m_pending.end(),
                             [&](const Pending& p) { return p.target == target; }));
}

int VirtualRunLoop::advance(double seconds)
{
    const double end = quantize(m_now + sanitizedDelay(seconds));
    int ran = 0;
    int ranThisInstant = 0;
    for (;;) {
        // Performs may request or cancel others, so look for the earliest afresh each time.
        auto next =
            std::min_element(m_pending.begin(), m_pending.end(), [](const Pending& a, const Pending& b) {
                return a.due < b.due || (a.due == b.due && a.sequence < b.sequence);
            });
        if (next == m_pending.end() || next->due > end)
            break;
        Pending perform = std::move(*next);
        m_pending.erase(next);

        if (perform.due > m_now) {
            m_now = perform.due;
            ranThisInstant = 0;
        }
        if (++ranThisInstant > MaxPerformsPerInstant)
            qFatal("VirtualRunLoop: more than %d performs at virtual time %f; a perform keeps requesting "
                   "itself without delay",
                   MaxPerformsPerInstant, m_now);
        ++ran;
        if (perform.action)
            perform.action();
    }
    m_now = std::max(m_now, end);
    return ran;
}

double VirtualRunLoop::nextDueTime() const
{
    double earliest = -1;
    for (const Pending& p : m_pending) {
        if (earliest < 0 || p.due < earliest)
            earliest = p.due;
    }
    return earliest;
}

} // namespace nimbrel
