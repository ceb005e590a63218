#include "platform/QtRunLoop.h"
#include "platform/RunLoop.h"
#include "platform/VirtualRunLoop.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QObject>
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
};

int targetA;
int targetB;

QStringList names(std::initializer_list<const char*> list)
{
    QStringList result;
    for (const char* name : list)
        result << QLatin1String(name);
    return result;
}

} // namespace

// --- Virtual time
// -------------------------------------------------------------------------------------------------

TEST(VirtualRunLoopTest, RunsByDueTimeWithTiesInRequestOrder)
{
    VirtualRunLoop loop;
    Log log;
    loop.performAfterDelay(&targetA, "late", 2.0, log.add("late"));
    loop.performAfterDelay(&targetA, "first", 1.0, log.add("tie1"));
    loop.performAfterDelay(&targetB, "second", 1.0, log.add("tie2"));
    loop.performAfterDelay(&targetA, "now", 0.0, log.add("now"));
    loop.performAfterDelay(&targetA, "negative", -3.0, log.add("negative"));

    EXPECT_EQ(loop.nextDueTime(), 0.0);
    EXPECT_EQ(loop.advance(1.0), 4);
    EXPECT_EQ(log.entries, names({"now", "negative", "tie1", "tie2"}));
    EXPECT_EQ(loop.now(), 1.0);
    EXPECT_EQ(loop.pendingPerformCount(), 1);
    EXPECT_EQ(loop.nextDueTime(), 2.0);

    EXPECT_EQ(loop.advance(0.5), 0);
    EXPECT_EQ(loop.advance(0.5), 1);
    EXPECT_EQ(log.entries.last(), QLatin1String("late"));
    EXPECT_LT(loop.nextDueTime(), 0);
}

TEST(VirtualRunLoopTest, ClockStandsAtEachDueTimeAndEndsAtWindowEnd)
{
    VirtualRunLoop loop;
    QList<double> seen;
    loop.performAfterDelay(&targetA, "a", 3.0, [&] { seen << loop.now(); });
    loop.performAfterDelay(&targetA, "b", 1.5, [&] { seen << loop.now(); });
    loop.advance(5.0);
    EXPECT_EQ(seen, (QList<double>{1.5, 3.0}));
    EXPECT_EQ(loop.now(), 5.0);
}

TEST(VirtualRunLoopTest, PerformDueAtWindowEndRunsWhateverTheSteps)
{
    VirtualRunLoop loop;
    int ran = 0;
    loop.performAfterDelay(&targetA, "tick", 1.0, [&] { ++ran; });
    for (int i = 0; i < 9; ++i)
        loop.advance(0.1);
    EXPECT_EQ(ran, 0);
    loop.advance(0.1); // 0.1 added ten times is not exactly 1.0 in binary floating point
    EXPECT_EQ(ran, 1);
}

TEST(VirtualRunLoopTest, PerformsRequestedWhileAdvancingRunInTheSameWindowInOrder)
{
    VirtualRunLoop loop;
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
    EXPECT_EQ(log.entries, names({"a", "tie", "same-instant", "inside", "b"}));
    EXPECT_EQ(loop.nextDueTime(), 6.0);
}

TEST(VirtualRunLoopTest, RunPendingRunsDelayZeroChainsOnly)
{
    VirtualRunLoop loop;
    Log log;
    loop.performAfterDelay(&targetA, "later", 0.001, log.add("later"));
    loop.performAfterDelay(&targetA, "chain", 0.0, [&] {
        log.entries << QStringLiteral("one");
        loop.performAfterDelay(&targetA, "chain", 0.0, [&] {
            log.entries << QStringLiteral("two");
            loop.performAfterDelay(&targetA, "chain", 0.0, log.add("three"));
        });
    });
    EXPECT_EQ(loop.runPending(), 3);
    EXPECT_EQ(log.entries, names({"one", "two", "three"}));
    EXPECT_EQ(loop.now(), 0.0);
    EXPECT_EQ(loop.pendingPerformCount(), 1);
    EXPECT_EQ(loop.runPending(), 0);
}

TEST(VirtualRunLoopTest, CancelBySelectorCancelsEveryRequestOfThatTargetOnly)
{
    VirtualRunLoop loop;
    Log log;
    loop.performAfterDelay(&targetA, "save", 1.0, log.add("save1"));
    loop.performAfterDelay(&targetA, "save", 2.0, log.add("save2"));
    loop.performAfterDelay(&targetA, "load", 1.0, log.add("load"));
    loop.performAfterDelay(&targetB, "save", 1.0, log.add("otherSave"));

    loop.cancelPreviousPerformRequests(&targetA, "save");
    EXPECT_EQ(loop.pendingPerformCount(&targetA), 1);
    EXPECT_EQ(loop.pendingPerformCount(&targetB), 1);
    loop.cancelPreviousPerformRequests(&targetA, "nothing"); // no such request: no effect
    EXPECT_EQ(loop.pendingPerformCount(), 2);

    loop.advance(5.0);
    EXPECT_EQ(log.entries, names({"load", "otherSave"}));
}

TEST(VirtualRunLoopTest, PerformCanCancelOthersDueAtTheSameInstantAndReschedule)
{
    VirtualRunLoop loop;
    Log log;
    loop.performAfterDelay(&targetA, "first", 1.0, [&] {
        log.entries << QStringLiteral("first");
        loop.cancelPreviousPerformRequests(&targetA, "sameInstant");
        loop.cancelAllPerformRequests(&targetB);
        // The usual coalescing pattern, applied to itself while it runs.
        loop.cancelPreviousPerformRequests(&targetA, "first");
        loop.performAfterDelay(&targetA, "first", 1.0, log.add("again"));
    });
    loop.performAfterDelay(&targetA, "sameInstant", 1.0, log.add("sameInstant"));
    loop.performAfterDelay(&targetB, "later", 1.5, log.add("later"));
    loop.performAfterDelay(&targetA, "survivor", 1.0, log.add("survivor"));

    EXPECT_EQ(loop.advance(2.0), 3);
    EXPECT_EQ(log.entries, names({"first", "survivor", "again"}));
}

TEST(VirtualRunLoopTest, QObjectTargetDestroyedBeforeDueDropsThePerform)
{
    VirtualRunLoop loop;
    Log log;
    auto gone = std::make_unique<QObject>();
    QObject alive;
    loop.performAfterDelay(gone.get(), "refresh", 1.0, log.add("gone"));
    loop.performAfterDelay(&alive, "refresh", 1.0, log.add("alive"));
    loop.performAfterDelay(&alive, "cancelled", 1.0, log.add("cancelled"));
    loop.cancelPreviousPerformRequests(&alive, "cancelled"); // keyed by the object's address
    gone.reset();
    loop.advance(1.0);
    EXPECT_EQ(log.entries, names({"alive"}));
    EXPECT_EQ(loop.pendingPerformCount(), 0);
}

TEST(RunLoopTest, ScopedRunLoopInstallsAndRestores)
{
    RunLoop& original = RunLoop::current();
    EXPECT_NE(dynamic_cast<QtRunLoop*>(&original), nullptr);
    {
        VirtualRunLoop outer;
        ScopedRunLoop outerScope(outer);
        EXPECT_EQ(&RunLoop::current(), &outer);
        {
            VirtualRunLoop inner;
            ScopedRunLoop innerScope(inner);
            EXPECT_EQ(&RunLoop::current(), &inner);
        }
        EXPECT_EQ(&RunLoop::current(), &outer);
    }
    EXPECT_EQ(&RunLoop::current(), &original);

    VirtualRunLoop installed;
    RunLoop::setCurrent(&installed);
    EXPECT_EQ(&RunLoop::current(), &installed);
    RunLoop::setCurrent(nullptr);
    EXPECT_EQ(&RunLoop::current(), &original);
}

// --- Qt event loop
// ------------------------------------------------------------------------------------------------

class QtRunLoopTest : public ::testing::Test
{
protected:
    // Spins the event loop until `done` holds or a generous safety time-out passes.
    static bool spinUntil(const std::function<bool()>& done)
    {
        QEventLoop eventLoop;
        QTimer poll;
        poll.setInterval(1);
        QObject::connect(&poll, &QTimer::timeout, &eventLoop, [&] {
            if (done())
                eventLoop.quit();
        });
        QTimer safety;
        safety.setSingleShot(true);
        QObject::connect(&safety, &QTimer::timeout, &eventLoop, &QEventLoop::quit);
        poll.start();
        safety.start(5000);
        eventLoop.exec();
        return done();
    }

    void TearDown() override
    {
        // Timers of performs that ran are deleted later; let that happen before leak checking.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    QtRunLoop loop;
    Log log;
};

TEST_F(QtRunLoopTest, DelayZeroRunsOnTheNextPassNotInline)
{
    loop.performAfterDelay(&targetA, "now", 0.0, log.add("now"));
    EXPECT_TRUE(log.entries.isEmpty());
    EXPECT_EQ(loop.pendingPerformCount(), 1);
    EXPECT_TRUE(spinUntil([&] { return loop.pendingPerformCount() == 0; }));
    EXPECT_EQ(log.entries, names({"now"}));
}

TEST_F(QtRunLoopTest, RunsByDueTimeWithTiesInRequestOrder)
{
    loop.performAfterDelay(&targetA, "c", 0.020, log.add("c"));
    loop.performAfterDelay(&targetA, "b1", 0.010, log.add("b1"));
    loop.performAfterDelay(&targetB, "b2", 0.010, log.add("b2"));
    loop.performAfterDelay(&targetA, "a1", 0.0, log.add("a1"));
    loop.performAfterDelay(&targetB, "a2", 0.0, log.add("a2"));
    EXPECT_EQ(loop.pendingPerformCount(&targetA), 3);
    EXPECT_TRUE(spinUntil([&] { return loop.pendingPerformCount() == 0; }));
    EXPECT_EQ(log.entries, names({"a1", "a2", "b1", "b2", "c"}));
}

TEST_F(QtRunLoopTest, CancelRemovesEveryMatchingRequest)
{
    loop.performAfterDelay(&targetA, "save", 0.0, log.add("save1"));
    loop.performAfterDelay(&targetA, "save", 0.005, log.add("save2"));
    loop.performAfterDelay(&targetA, "load", 0.005, log.add("load"));
    loop.performAfterDelay(&targetB, "save", 0.005, log.add("otherSave"));
    loop.performAfterDelay(&targetB, "load", 0.005, log.add("otherLoad"));
    loop.cancelPreviousPerformRequests(&targetA, "save");
    loop.cancelAllPerformRequests(&targetB);
    EXPECT_EQ(loop.pendingPerformCount(), 1);
    EXPECT_TRUE(spinUntil([&] { return loop.pendingPerformCount() == 0; }));
    loop.performAfterDelay(&targetA, "marker", 0.010, log.add("marker"));
    EXPECT_TRUE(spinUntil([&] { return loop.pendingPerformCount() == 0; }));
    EXPECT_EQ(log.entries, names({"load", "marker"}));
}

TEST_F(QtRunLoopTest, PerformCanCancelAndRequestOthers)
{
    loop.performAfterDelay(&targetA, "first", 0.005, [&] {
        log.entries << QStringLiteral("first");
        loop.cancelPreviousPerformRequests(&targetA, "sameTime");
        loop.cancelAllPerformRequests(&targetB);
        loop.cancelPreviousPerformRequests(&targetA, "first");
        loop.performAfterDelay(&targetA, "first", 0.0, log.add("again"));
    });
    loop.performAfterDelay(&targetA, "sameTime", 0.005, log.add("sameTime"));
    loop.performAfterDelay(&targetB, "later", 0.010, log.add("later"));
    EXPECT_TRUE(spinUntil([&] { return log.entries.size() >= 2 && loop.pendingPerformCount() == 0; }));
    EXPECT_EQ(log.entries, names({"first", "again"}));
}

TEST_F(QtRunLoopTest, QObjectTargetDestroyedBeforeDueDropsThePerform)
{
    auto gone = std::make_unique<QObject>();
    loop.performAfterDelay(gone.get(), "refresh", 0.0, log.add("gone"));
    loop.performAfterDelay(&targetA, "marker", 0.002, log.add("marker"));
    gone.reset();
    EXPECT_TRUE(spinUntil([&] { return loop.pendingPerformCount() == 0; }));
    EXPECT_EQ(log.entries, names({"marker"}));
}

TEST_F(QtRunLoopTest, DestroyingTheLoopDropsPendingPerforms)
{
    bool ran = false;
    {
        QtRunLoop shortLived;
        shortLived.performAfterDelay(&targetA, "never", 0.0, [&] { ran = true; });
    }
    loop.performAfterDelay(&targetA, "marker", 0.002, log.add("marker"));
    EXPECT_TRUE(spinUntil([&] { return loop.pendingPerformCount() == 0; }));
    EXPECT_FALSE(ran);
}
