#include "platform/Observable.h"

#include <QStringList>
#include <gtest/gtest.h>
#include <memory>
#include <optional>

using namespace nimbrel;

namespace {

class Item : public Observable
{
};

// One line per notice: "<observer>:<Will|Did> <key>[ <+|-> <object count>]".
QString describe(const QString& observer, const ChangeNotice& notice)
{
    QString line = observer + QLatin1Char(':') +
                   (notice.phase == ChangePhase::Will ? QStringLiteral("Will ") : QStringLiteral("Did ")) +
                   notice.key;
    if (notice.mutation != SetMutation::None)
        line += (notice.mutation == SetMutation::Union ? QStringLiteral(" +") : QStringLiteral(" -")) +
                QString::number(notice.objects.size());
    return line;
}

struct Recorder
{
    QStringList lines;
    ObserverFunction as(const QString& name)
    {
        return [this, name](const ChangeNotice& notice) { lines << describe(name, notice); };
    }
};

QStringList lines(std::initializer_list<const char*> list)
{
    QStringList result;
    for (const char* line : list)
        result << QLatin1String(line);
    return result;
}

} // namespace

TEST(ObservableTest, DeliversPlainAndSetNoticesInOrderWithTheirContent)
{
    Item owner;
    Item first;
    Item second;
    QList<ChangeNotice> seen;
    const Observation observation =
        owner.observe(QStringLiteral("members"), [&](const ChangeNotice& notice) { seen << notice; });

    owner.willChangeValueForKey(QStringLiteral("members"), SetMutation::Union, {&first, &second});
    owner.didChangeValueForKey(QStringLiteral("members"), SetMutation::Union, {&first, &second});
    owner.willChangeValueForKey(QStringLiteral("members"), SetMutation::Minus, {&second});
    owner.didChangeValueForKey(QStringLiteral("members"), SetMutation::Minus, {&second});
    owner.willChangeValueForKey(QStringLiteral("members"));
    owner.didChangeValueForKey(QStringLiteral("members"));

    ASSERT_EQ(seen.size(), 6);
    const ChangePhase phases[] = {ChangePhase::Will, ChangePhase::Did,  ChangePhase::Will,
                                  ChangePhase::Did,  ChangePhase::Will, ChangePhase::Did};
    const SetMutation mutations[] = {SetMutation::Union, SetMutation::Union, SetMutation::Minus,
                                     SetMutation::Minus, SetMutation::None,  SetMutation::None};
    const QList<Observable*> objects[] = {{&first, &second}, {&first, &second}, {&second}, {&second}, {}, {}};
    for (int i = 0; i < 6; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(seen[i].object, &owner);
        EXPECT_EQ(seen[i].key, QStringLiteral("members"));
        EXPECT_EQ(seen[i].phase, phases[i]);
        EXPECT_EQ(seen[i].mutation, mutations[i]);
        EXPECT_EQ(seen[i].objects, objects[i]);
    }
}

TEST(ObservableTest, FiltersByKeyAndEmptyKeyHearsEverything)
{
    Item item;
    Recorder recorder;
    const Observation all = item.observe(QString(), recorder.as(QStringLiteral("all")));
    const Observation name = item.observe(QStringLiteral("name"), recorder.as(QStringLiteral("name")));
    const Observation size = item.observe(QStringLiteral("size"), recorder.as(QStringLiteral("size")));
    EXPECT_EQ(item.observerCount(), 3);
    EXPECT_EQ(item.observerCount(QStringLiteral("name")), 1);
    EXPECT_EQ(item.observerCount(QStringLiteral("other")), 0);

    item.willChangeValueForKey(QStringLiteral("name"));
    item.didChangeValueForKey(QStringLiteral("name"));
    item.didChangeValueForKey(QStringLiteral("other"));
    EXPECT_EQ(recorder.lines,
              lines({"all:Will name", "name:Will name", "all:Did name", "name:Did name", "all:Did other"}));
}

TEST(ObservableTest, RemovingDuringDeliveryTakesEffectAtOnce)
{
    Item item;
    Recorder recorder;
    Observation self;
    Observation later;
    const Observation first = item.observe(QString(), [&](const ChangeNotice& notice) {
        recorder.lines << describe(QStringLiteral("first"), notice);
        later.reset(); // a later observer must not hear even this notice
    });
    self = item.observe(QString(), [&](const ChangeNotice& notice) {
        recorder.lines << describe(QStringLiteral("self"), notice);
        self.reset();
    });
    later = item.observe(QString(), recorder.as(QStringLiteral("later")));
    const Observation last = item.observe(QString(), recorder.as(QStringLiteral("last")));

    item.didChangeValueForKey(QStringLiteral("k"));
    item.didChangeValueForKey(QStringLiteral("k"));
    EXPECT_EQ(recorder.lines,
              lines({"first:Did k", "self:Did k", "last:Did k", "first:Did k", "last:Did k"}));
    EXPECT_EQ(item.observerCount(), 2);
}

TEST(ObservableTest, ObserverAddedDuringDeliveryHearsFromTheNextNotice)
{
    Item item;
    Recorder recorder;
    std::optional<Observation> added;
    const Observation adder = item.observe(QString(), [&](const ChangeNotice&) {
        if (!added)
            added = item.observe(QString(), recorder.as(QStringLiteral("added")));
    });
    item.willChangeValueForKey(QStringLiteral("k"));
    EXPECT_TRUE(recorder.lines.isEmpty());
    item.didChangeValueForKey(QStringLiteral("k"));
    EXPECT_EQ(recorder.lines, lines({"added:Did k"}));
}

TEST(ObservableTest, ObserverCanDestroyTheObservableAndLaterObserversAreNotCalled)
{
    auto item = std::make_unique<Item>();
    Recorder recorder;
    const Observation before = item->observe(QString(), recorder.as(QStringLiteral("before")));
    const Observation killer = item->observe(QString(), [&](const ChangeNotice&) { item.reset(); });
    const Observation after = item->observe(QString(), recorder.as(QStringLiteral("after")));

    item->didChangeValueForKey(QStringLiteral("k"));
    EXPECT_EQ(item, nullptr);
    EXPECT_EQ(recorder.lines, lines({"before:Did k"}));
    EXPECT_FALSE(before.isActive());
    EXPECT_FALSE(after.isActive());
}

TEST(ObservableTest, ObserverCanDestroyItsOwnObservationAndState)
{
    // The observer's owner (holding the observation) is deleted by the observer's own call.
    struct Watcher
    {
        Observation observation;
    };
    Item item;
    auto watcher = std::make_unique<Watcher>();
    int calls = 0;
    watcher->observation = item.observe(QString(), [&](const ChangeNotice&) {
        ++calls;
        watcher.reset();
    });
    item.didChangeValueForKey(QStringLiteral("k"));
    item.didChangeValueForKey(QStringLiteral("k"));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(item.observerCount(), 0);
}

TEST(ObservableTest, ObservationOutlivingTheObservableIsHarmless)
{
    Observation observation;
    EXPECT_FALSE(observation.isActive());
    {
        Item item;
        observation = item.observe(QString(), [](const ChangeNotice&) {});
        EXPECT_TRUE(observation.isActive());
    }
    EXPECT_FALSE(observation.isActive());
    observation.reset();
    EXPECT_FALSE(observation.isActive());
}

TEST(ObservableTest, MovingAnObservationTransfersIt)
{
    Item item;
    int calls = 0;
    Observation original = item.observe(QString(), [&](const ChangeNotice&) { ++calls; });
    Observation moved(std::move(original));
    EXPECT_FALSE(original.isActive());
    EXPECT_TRUE(moved.isActive());
    original.reset(); // resetting the moved-from handle must not remove the observer
    item.didChangeValueForKey(QStringLiteral("k"));
    EXPECT_EQ(calls, 1);

    Observation other = item.observe(QString(), [&](const ChangeNotice&) { calls += 10; });
    other = std::move(moved); // the assigned-over observation goes away, the moved one stays
    EXPECT_EQ(item.observerCount(), 1);
    item.didChangeValueForKey(QStringLiteral("k"));
    EXPECT_EQ(calls, 2);

    other = Observation();
    EXPECT_EQ(item.observerCount(), 0);
}

TEST(ObservableTest, NestedNoticesAreDeliveredDepthFirst)
{
    Item item;
    Item dependent;
    Recorder recorder;
    // A change of "first" also changes the dependent "full" key, announced around it.
    const Observation relay = item.observe(QStringLiteral("first"), [&](const ChangeNotice& notice) {
        if (notice.phase == ChangePhase::Will)
            dependent.willChangeValueForKey(QStringLiteral("full"));
        else
            dependent.didChangeValueForKey(QStringLiteral("full"));
    });
    const Observation onItem = item.observe(QString(), recorder.as(QStringLiteral("item")));
    const Observation onDependent = dependent.observe(QString(), recorder.as(QStringLiteral("dependent")));

    item.willChangeValueForKey(QStringLiteral("first"));
    item.didChangeValueForKey(QStringLiteral("first"));
    EXPECT_EQ(recorder.lines,
              lines({"dependent:Will full", "item:Will first", "dependent:Did full", "item:Did first"}));
}

TEST(ObservableTest, NestedNoticeOnTheSameObjectSkipsObserversRemovedInside)
{
    Item item;
    Recorder recorder;
    Observation victim;
    const Observation trigger = item.observe(
        QStringLiteral("a"), [&](const ChangeNotice&) { item.didChangeValueForKey(QStringLiteral("b")); });
    const Observation remover =
        item.observe(QStringLiteral("b"), [&](const ChangeNotice&) { victim.reset(); });
    victim = item.observe(QString(), recorder.as(QStringLiteral("victim")));

    item.didChangeValueForKey(QStringLiteral("a"));
    EXPECT_TRUE(recorder.lines.isEmpty());
}
