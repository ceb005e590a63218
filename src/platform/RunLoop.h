#pragma once

// Delayed performs on the main run loop: an action for a (target, selector) pair that runs after a
// delay unless it is cancelled first. Production runs them on the Qt event loop (QtRunLoop); tests
// drive a VirtualRunLoop by hand, so a 90-second time-out takes no wall time.

#include <QByteArray>
#include <QObject>
#include <functional>

namespace nimbrel {

class RunLoop
{
public:
    using Action = std::function<void()>;

    virtual ~RunLoop() = default;

    // Runs `action` once, `seconds` from now (0 = on the next pass of the loop). Performs due at the
    // same time run in the order they were requested. A negative delay counts as 0.
    virtual void performAfterDelay(const void* target, const QByteArray& selector, double seconds,
                                   Action action) = 0;

    // As above; the perform is also dropped if `target` is destroyed before it is due.
    void performAfterDelay(QObject* target, const QByteArray& selector, double seconds, Action action);

    // Cancels every pending perform of `selector` for `target`.
    virtual void cancelPreviousPerformRequests(const void* target, const QByteArray& selector) = 0;

    // Cancels every pending perform for `target`, whatever its selector.
    virtual void cancelAllPerformRequests(const void* target) = 0;

    // How many performs are pending for `target` (all targets when null); for diagnostics and tests.
    virtual int pendingPerformCount(const void* target = nullptr) const = 0;

    // The loop the program's objects use: a QtRunLoop unless a test installed another.
    static RunLoop& current();
    // Installs `loop` as the current loop (nullptr restores the Qt loop). The caller keeps ownership.
    static void setCurrent(RunLoop* loop);
};

// Installs a loop as RunLoop::current() for the lifetime of this object.
class ScopedRunLoop
{
public:
    explicit ScopedRunLoop(RunLoop& loop);
    ~ScopedRunLoop();
    ScopedRunLoop(const ScopedRunLoop&) = delete;
    ScopedRunLoop& operator=(const ScopedRunLoop&) = delete;

private:
    RunLoop* m_previous;
};

} // namespace nimbrel
