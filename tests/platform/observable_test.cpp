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

// Records one entry per notice, "<observer>:<Will|Did> <key>[ <+|-><object count>]", joined by '|'.
struct Recorder
{
    QStringList lines;
    QList<ChangeNotice> notices;
    ObserverFunction as(const char* name)
    {
        return [this, name](const ChangeNotice& n) {
            notices << n;
            lines << QLatin1String(name) + QLatin1String(n.phase == ChangePhase::Will ? ":Will " : ":Did ") +
                         n.key;
            if (n.mutation != SetMutation::None)
                lines.last() += QLatin1String(n.mutation == SetMutation::Union ? " +" : " -") +
                                QString::number(n.objects.size());
        };
    }
    QString joined() const { return lines.join(QLatin1Char('|')); }
};

const QString k = QStringLiteral("k");
const QString members = QStringLiteral("members");

} // namespace

TEST(ObservableTest, DeliversNoticesByKeyInOrderWithTheirContent)
{
    Item item, first, second;
    Recorder recorder;
    const Observation all = item.observe(QString(), recorder.as("all"));
    const Observation some = item.observe(members, recorder.as("members"));
    const Observation size = item.observe(QStringLiteral("size"), recorder.as("size"));
    EXPECT_EQ(item.observerCount(), 3);
    EXPECT_EQ(item.observerCount(members), 1);
    EXPECT_EQ(item.observerCount(QStringLiteral("other")), 0);

    item.willChangeValueForKey(members, SetMutation::Union, {&first, &second});
    item.didChangeValueForKey(members, SetMutation::Minus, {&second});
    item.willChangeValueForKey(members);
    item.didChangeValueForKey(QStringLiteral("other"));
    EXPECT_EQ(recorder.joined(),
              QStringLiteral("all:Will members +2|members:Will members +2|all:Did members -1|"
                             "members:Did members -1|all:Will members|members:Will members|"
                             "all:Did other"));
    EXPECT_EQ(recorder.notices[0].object, &item);
    EXPECT_EQ(recorder.notices[0].objects, (QList<Observable*>{&first, &second}));
    EXPECT_EQ(recorder.notices[2].objects, QList<Observable*>{&second});
}

TEST(ObservableTest, ObserversAddedOrRemovedDuringDeliveryTakeEffectAtOnce)
{
    Item item;
    Recorder recorder;
    Observation self, later;
    std::optional<Observation> added;
    const ObserverFunction firstRecord = recorder.as("first"), selfRecord = recorder.as("self");
    const Observation first = item.observe(QString(), [&](const ChangeNotice& notice) {
        firstRecord(notice);
        later.reset(); // a later observer must not hear even this notice
        if (!added)    // an added one hears from the next notice on
            added = item.observe(QString(), recorder.as("added"));
    });
    self = item.observe(QString(), [&](const ChangeNotice& notice) {
        selfRecord(notice);
        self.reset(); // removing itself while it runs
    });
    later = item.observe(QString(), recorder.as("later"));
    const Observation last = item.observe(QString(), recorder.as("last"));

    item.didChangeValueForKey(k);
    item.didChangeValueForKey(k);
    EXPECT_EQ(recorder.joined(),
              QStringLiteral("first:Did k|self:Did k|last:Did k|first:Did k|last:Did k|added:Did k"));
    EXPECT_EQ(item.observerCount(), 3);
}

TEST(ObservableTest, ObservationsOutliveTheirObservableAndMove)
{
    auto item = std::make_unique<Item>();
    Recorder recorder;
    Observation before = item->observe(QString(), recorder.as("before"));
    const Observation killer = item->observe(QString(), [&](const ChangeNotice&) { item.reset(); });
    const Observation after = item->observe(QString(), recorder.as("after"));
    item->didChangeValueForKey(k);
    EXPECT_EQ(item, nullptr);
    EXPECT_EQ(recorder.joined(), QStringLiteral("before:Did k")); // later observers are not called
    EXPECT_FALSE(before.isActive());
    EXPECT_FALSE(after.isActive());
    before.reset();

    // Moving an observation transfers it.
    Item other;
    int calls = 0;
    Observation original = other.observe(QString(), [&](const ChangeNotice&) { ++calls; });
    Observation moved(std::move(original));
    EXPECT_FALSE(original.isActive());
    original.reset(); // resetting the moved-from handle must not remove the observer
    other.didChangeValueForKey(k);
    EXPECT_EQ(calls, 1);

    Observation assigned = other.observe(QString(), [&](const ChangeNotice&) { calls += 10; });
    assigned = std::move(moved); // the assigned-over observation goes away, the moved one stays
    EXPECT_EQ(other.observerCount(), 1);
    other.didChangeValueForKey(k);
    EXPECT_EQ(calls, 2);
    assigned = Observation();
    EXPECT_EQ(other.observerCount(), 0);
}

TEST(ObservableTest, NestedNoticesAreDeliveredDepthFirst)
{
    Item item, dependent;
    Recorder recorder;
    // A change of "first" also changes the dependent "full" key, announced around it.
    const Observation relay = item.observe(QStringLiteral("first"), [&](const ChangeNotice& notice) {
        if (notice.phase == ChangePhase::Will)
            dependent.willChangeValueForKey(QStringLiteral("full"));
        else
            dependent.didChangeValueForKey(QStringLiteral("full"));
    });
    const Observation onItem = item.observe(QStringLiteral("first"), recorder.as("item"));
    const Observation onDependent = dependent.observe(QString(), recorder.as("dependent"));
    item.willChangeValueForKey(QStringLiteral("first"));
    item.didChangeValueForKey(QStringLiteral("first"));
    EXPECT_EQ(recorder.joined(),
              QStringLiteral("dependent:Will full|item:Will first|dependent:Did full|item:Did first"));

    // A nested notice on the same object removes an observer: the outer delivery skips it too.
    Observation victim;
    const Observation trigger =
        item.observe(k, [&](const ChangeNotice&) { item.didChangeValueForKey(members); });
    const Observation remover = item.observe(members, [&](const ChangeNotice&) { victim.reset(); });
    victim = item.observe(QString(), recorder.as("victim"));
    item.didChangeValueForKey(k);
    EXPECT_EQ(recorder.lines.size(), 4);
}
