#include "platform/QtRunLoop.h"
#include "platform/RunLoop.h"
#include "platform/VirtualRunLoop.h"
#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QStringList>
#include <QTimer>
#include <functional>
#include <gtest/gtest.h>
#include <memory>

using namespace nimbrel;

namespace {

// Collects the names of performs in the order they ran.
struct Log
{
    QStringList entries;
    RunLoop::Action add(const char* name)
    {
        return [this, name] { entries << QLatin1String(name); };
    }
    QString joined() const { return entries.join(QLatin1Char(' ')); }
};

int targetA;
int targetB;

// Runs a scenario on both implementations: in virtual time with a unit delay of one second, and on
// the Qt event loop with a unit of 10 ms. `drain` runs everything that is pending.
using Drain = std::function<void()>;
void onBothLoops(const std::function<void(RunLoop& loop, double unit, const Drain& drain)>& scenario)
{
    {
        SCOPED_TRACE("virtual time");
        VirtualRunLoop loop;
        scenario(loop, 1.0, [&] { loop.advance(100); });
    }
    {
        SCOPED_TRACE("Qt event loop");
        QtRunLoop loop;
        scenario(loop, 0.010,
                 [&] { EXPECT_TRUE(test::waitUntil([&] { return loop.pendingPerformCount() == 0; })); });
    }
    // Timers of performs that ran are deleted later; let that happen before leak checking.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

} // namespace

TEST(RunLoopTest, RunsByDueTimeWithTiesInRequestOrderNeverInlineAndNotForDestroyedTargets)
{
    onBothLoops([](RunLoop& loop, double unit, const Drain& drain) {
        Log log;
        auto gone = std::make_unique<QObject>();
        QObject alive;
        loop.performAfterDelay(&targetA, "late", 2 * unit, log.add("late"));
        loop.performAfterDelay(&targetA, "first", unit, log.add("tie1"));
        loop.performAfterDelay(&alive, "second", unit, log.add("tie2"));
        loop.performAfterDelay(gone.get(), "refresh", 0.0, log.add("gone"));
        loop.performAfterDelay(&targetA, "now", 0.0, log.add("now"));
        loop.performAfterDelay(&targetB, "negative", -3 * unit, log.add("negative"));
        loop.performAfterDelay(&alive, "cancelled", unit, log.add("cancelled"));
        loop.cancelPreviousPerformRequests(&alive, "cancelled"); // a QObject is keyed by its address
        gone.reset();
        EXPECT_TRUE(log.entries.isEmpty());
        EXPECT_EQ(loop.pendingPerformCount(&targetA), 3);
        drain();
        EXPECT_EQ(log.joined(), QStringLiteral("now negative tie1 tie2 late"));
    });
}

TEST(RunLoopTest, CancelsBySelectorOrAllForOneTargetAlsoFromInsideAPerform)
{
    onBothLoops([](RunLoop& loop, double unit, const Drain& drain) {
        Log log;
        loop.performAfterDelay(&targetA, "save", 0.0, log.add("save1"));
        loop.performAfterDelay(&targetA, "save", unit, log.add("save2"));
        loop.performAfterDelay(&targetA, "load", unit, log.add("load"));
        loop.performAfterDelay(&targetB, "save", unit, log.add("otherSave"));
        loop.performAfterDelay(&targetB, "load", unit, log.add("otherLoad"));
        loop.cancelPreviousPerformRequests(&targetA, "save");
        loop.cancelPreviousPerformRequests(&targetA, "nothing");
        EXPECT_EQ(loop.pendingPerformCount(&targetA), 1);
        EXPECT_EQ(loop.pendingPerformCount(&targetB), 2);
        drain();
        EXPECT_EQ(log.joined(), QStringLiteral("load otherSave otherLoad"));

        log.entries.clear();
        loop.performAfterDelay(&targetA, "first", unit, [&] {
            log.entries << QStringLiteral("first");
            loop.cancelPreviousPerformRequests(&targetA, "sameInstant");
            loop.cancelAllPerformRequests(&targetB);
            // The usual coalescing pattern, applied to itself while it runs.
            loop.cancelPreviousPerformRequests(&targetA, "first");
            loop.performAfterDelay(&targetA, "first", unit, log.add("again"));
        });
        loop.performAfterDelay(&targetA, "sameInstant", unit, log.add("sameInstant"));
        loop.performAfterDelay(&targetB, "later", 1.5 * unit, log.add("later"));
        loop.performAfterDelay(&targetB, "load", 1.5 * unit, log.add("laterLoad"));
        loop.performAfterDelay(&targetA, "survivor", unit, log.add("survivor"));
        drain();
        EXPECT_EQ(log.joined(), QStringLiteral("first survivor again"));
    });
}

TEST(VirtualRunLoopTest, ClockStandsAtEachDueTimeAndPerformsRequestedWhileAdvancingRunInOrder)
{
    VirtualRunLoop loop;
    QList<double> seen;
    loop.performAfterDelay(&targetA, "a", 2.0, [&] { seen << loop.now(); });
    loop.performAfterDelay(&targetA, "b", 1.5, [&] { seen << loop.now(); });
    EXPECT_EQ(loop.nextDueTime(), 1.5);
    EXPECT_EQ(loop.advance(1.0), 0);
    EXPECT_EQ(loop.advance(3.0), 2);
    EXPECT_EQ(seen, (QList<double>{1.5, 2.0}));
    EXPECT_EQ(loop.now(), 4.0);
    EXPECT_LT(loop.nextDueTime(), 0);

    // Due at the end of the window runs, whatever the steps: 0.1 added ten times is not exactly 1.0.
    VirtualRunLoop steps;
    int ran = 0;
    steps.performAfterDelay(&targetA, "tick", 1.0, [&] { ++ran; });
    for (int i = 0; i < 9; ++i)
        steps.advance(0.1);
    EXPECT_EQ(ran, 0);
    steps.advance(0.1);
    EXPECT_EQ(ran, 1);

    // Performs requested while advancing run in the same window, in order.
    Log log;
    loop.performAfterDelay(&targetA, "a", 1.0, [&] {
        log.entries << QStringLiteral("a");
        loop.performAfterDelay(&targetA, "same-instant", 0.0, log.add("same-instant"));
        loop.performAfterDelay(&targetA, "inside", 0.5, log.add("inside"));
        loop.performAfterDelay(&targetA, "outside", 5.0, log.add("outside"));
    });
    loop.performAfterDelay(&targetB, "tie", 1.0, log.add("tie"));
    loop.performAfterDelay(&targetB, "b", 2.0, log.add("b"));
    EXPECT_EQ(loop.advance(3.0), 5);
    EXPECT_EQ(log.joined(), QStringLiteral("a tie same-instant inside b"));
    EXPECT_EQ(loop.nextDueTime(), 10.0);
}

TEST(QtRunLoopTest, DestroyingTheLoopDropsItsPerformsAndScopedLoopsNest)
{
    bool ran = false, marker = false;
    QtRunLoop().performAfterDelay(&targetA, "never", 0.0, [&] { ran = true; }); // the loop is gone at once
    QTimer::singleShot(2, [&] { marker = true; });
    EXPECT_TRUE(test::waitUntil([&] { return marker; }));
    EXPECT_FALSE(ran);

    RunLoop& original = RunLoop::current();
    EXPECT_NE(dynamic_cast<QtRunLoop*>(&original), nullptr);
    VirtualRunLoop outer, inner;
    {
        ScopedRunLoop outerScope(outer);
        {
            ScopedRunLoop innerScope(inner);
            EXPECT_EQ(&RunLoop::current(), &inner);
        }
        EXPECT_EQ(&RunLoop::current(), &outer);
    }
    EXPECT_EQ(&RunLoop::current(), &original);
    RunLoop::setCurrent(&inner);
    EXPECT_EQ(&RunLoop::current(), &inner);
    RunLoop::setCurrent(nullptr);
    EXPECT_EQ(&RunLoop::current(), &original);
}
