// The item model under the calendar tables and the outline: a reload or a source's children notices
// turn into row removals, moves and insertions that keep each remaining row's index (and with it the
// view's selection and expanded state); Qt's own model checker watches every step.

#include "model/CalendarMerge.h"
#include "pane/CalendarItemModel.h"
#include "support/TestEnvironment.h"

#include <QAbstractItemModelTester>
#include <QSignalSpy>
#include <gtest/gtest.h>

namespace nimbrel::test {
namespace {

CalendarRef row(QChar letter, const QVariantList& calendars = {})
{
    QVariantMap dictionary{{s("uid"), QString(letter)}, {s("title"), QString(letter)}};
    if (!calendars.isEmpty() || letter.isUpper())
        dictionary.insert(s("source"), letter.isUpper()), dictionary.insert(s("calendars"), calendars);
    return NimbrelCalendar::create(dictionary, nullptr);
}

struct Fixture
{
    explicit Fixture(bool tree)
        : model(
              owner, s("content"), [this] { return list; },
              {{[](const NimbrelCalendar& c) { return c.title().toString(); }}}, tree)
    {
    }
    void reload(const CalendarList& rows)
    {
        list = rows;
        owner.willChangeValueForKey(s("content"));
        owner.didChangeValueForKey(s("content"));
    }
    QString shown(const QModelIndex& parent = {}) const
    {
        QString titles;
        for (int r = 0; r < model.rowCount(parent); ++r)
            titles += model.index(r, 0, parent).data().toString();
        return titles;
    }
    Observable owner;
    CalendarList list;
    CalendarItemModel model;
    QAbstractItemModelTester tester{&model, QAbstractItemModelTester::FailureReportingMode::Fatal};
};

TEST(CalendarItemModel, AReloadKeepsEveryRemainingRowsIndex)
{
    const struct
    {
        const char *before, *after;
    } cases[] = {{"abc", "bcd"}, {"abc", "cab"}, {"abcd", ""}, {"", "ab"}, {"abcde", "ebdxa"}, {"ab", "ab"}};
    for (const auto& c : cases) {
        Fixture f(false);
        QHash<QChar, CalendarRef> rows;
        const auto rowsOf = [&rows](const char* letters) {
            CalendarList list;
            for (const char* l = letters; *l; ++l) {
                const QChar letter = QLatin1Char(*l);
                if (!rows.contains(letter))
                    rows.insert(letter, row(letter));
                list << rows.value(letter);
            }
            return list;
        };
        f.reload(rowsOf(c.before));
        QList<QPersistentModelIndex> kept;
        for (int r = 0; r < f.model.rowCount(); ++r)
            kept << QPersistentModelIndex(f.model.index(r, 0));
        QSignalSpy resets(&f.model, &QAbstractItemModel::modelReset);
        f.reload(rowsOf(c.after));
        EXPECT_EQ(f.shown(), s(c.after)) << c.before << " → " << c.after;
        EXPECT_EQ(resets.count(), 0);
        for (qsizetype i = 0; i < kept.size(); ++i) {
            const QChar letter = QLatin1Char(c.before[i]);
            const bool stays = QByteArray(c.after).contains(char(letter.unicode()));
            EXPECT_EQ(kept[i].isValid(), stays) << c.before << " → " << c.after << " " << letter.toLatin1();
            if (stays)
                EXPECT_EQ(f.model.calendarAt(kept[i]), rows.value(letter).get());
        }
    }
}

TEST(CalendarItemModel, ASourcesNoticesUpdateItsCalendarsAndARowsOwnRedrawsIt)
{
    Fixture f(true);
    const auto leaf = [](const char* title) {
        return QVariantMap{{s("uid"), s(title)}, {s("title"), s(title)}};
    };
    CalendarList shown{row(u'S', {leaf("a"), leaf("b"), leaf("c")})};
    f.reload(shown);
    const QModelIndex source = f.model.index(0, 0);
    ASSERT_EQ(f.shown(source), s("abc"));
    const QPersistentModelIndex b(f.model.index(1, 0, source));
    QSignalSpy changed(&f.model, &QAbstractItemModel::dataChanged);

    // The merge removes "a", inserts "d" and retitles "c": notices only, no reload of the top level.
    QVariantMap retitled = leaf("c");
    retitled.insert(s("title"), s("0"));
    setCalendarList(shown, {row(u'S', {leaf("b"), retitled, leaf("d")})}, nullptr);
    EXPECT_EQ(f.shown(source), s("0bd"));
    EXPECT_EQ(f.model.calendarAt(b)->title(), s("b"));
    bool redrewC = false;
    for (const QList<QVariant>& signal : changed)
        redrewC = redrewC || f.model.calendarAt(signal.at(0).toModelIndex())->uid() == s("c");
    EXPECT_TRUE(redrewC);
    EXPECT_EQ(f.model.indexPath(f.model.indexForPath({0, 2})), (QList<int>{0, 2}));
    EXPECT_FALSE(f.model.indexForPath({0, 3}).isValid());
}

} // namespace
} // namespace nimbrel::test
