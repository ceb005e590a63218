// The outline's column and cells, the link-like label and the greying transformers.

#include "cells/ClickableTextField.h"
#include "cells/SourceButtonCell.h"
#include "cells/SourceTableColumn.h"
#include "cells/SourceTextFieldCell.h"
#include "cells/ValueTransformers.h"
#include "support/TestEnvironment.h"

#include <QApplication>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPalette>
#include <QStandardItemModel>
#include <QTreeView>
#include <gtest/gtest.h>

namespace nimbrel::test {
namespace {

class CellsTest : public ::testing::Test
{
protected:
    CellsTest()
    {
        auto* source = new QStandardItem(s("Office server"));
        auto* calendar = new QStandardItem(s("Team"));
        calendar->setCheckState(Qt::Unchecked);
        source->appendRow(calendar);
        model.appendRow(source);
        view.setModel(&model);
        view.resize(400, 200);
        view.expandAll();
        leaf = model.index(0, 0, model.index(0, 0));
    }

    QStyleOptionViewItem optionFor(const QModelIndex& index)
    {
        QStyleOptionViewItem option;
        option.initFrom(&view);
        option.widget = &view;
        option.rect = view.visualRect(index);
        return option;
    }

    // Press at `press`, release at `release` (offsets from the row's top left); true when it toggled.
    bool click(SourceButtonCell& cell, QPoint press, QPoint release)
    {
        int toggles = 0;
        cell.setAction([&toggles](const QModelIndex&) { ++toggles; });
        const QStyleOptionViewItem option = optionFor(leaf);
        const QPointF at = option.rect.topLeft() + press, to = option.rect.topLeft() + release;
        QMouseEvent down(QEvent::MouseButtonPress, at, at, Qt::LeftButton, Qt::LeftButton, Qt::NoModifier);
        QMouseEvent up(QEvent::MouseButtonRelease, to, to, Qt::LeftButton, Qt::NoButton, Qt::NoModifier);
        cell.editorEvent(&down, &model, option, leaf);
        cell.editorEvent(&up, &model, option, leaf);
        return toggles == 1;
    }

    QStandardItemModel model;
    QTreeView view;
    QModelIndex leaf;
};

TEST_F(CellsTest, ColumnPicksTheCellByLevel)
{
    SourceTableColumn column;
    auto* sourceCell = new SourceTextFieldCell;
    auto* leafCell = new SourceButtonCell;
    column.setSourceCell(sourceCell, leafCell);
    EXPECT_EQ(column.dataCellForRow(model.index(0, 0)), sourceCell);
    EXPECT_EQ(column.dataCellForRow(leaf), leafCell);
    EXPECT_EQ(sourceCell->parent(), &column); // kept alive by the column
}

TEST_F(CellsTest, CheckboxTogglesOnlyOnAClickInsideItsBox)
{
    SourceButtonCell cell;
    const QRect box = cell.boxRect(optionFor(leaf), leaf).translated(-optionFor(leaf).rect.topLeft());
    const QPoint inside = box.center();
    const QPoint right(optionFor(leaf).rect.width() - 3, inside.y());
    ASSERT_FALSE(box.contains(right));
    const struct
    {
        const char* name;
        QPoint press, release;
        bool toggles;
    } cases[] = {{"inside", inside, inside, true},
                 {"right of the title", right, right, false},
                 {"dragged out", inside, right, false},
                 {"dragged in", right, inside, false}};
    for (const auto& c : cases)
        EXPECT_EQ(click(cell, c.press, c.release), c.toggles) << c.name;

    model.itemFromIndex(leaf)->setEnabled(false); // a calendar that cannot be subscribed to
    EXPECT_FALSE(click(cell, inside, inside));
    model.itemFromIndex(leaf)->setEnabled(true);
    cell.setEditable(false);
    EXPECT_FALSE(click(cell, inside, inside));
    cell.setEditable(true);

    int toggles = 0;
    cell.setAction([&toggles](const QModelIndex&) { ++toggles; });
    QKeyEvent space(QEvent::KeyPress, Qt::Key_Space, Qt::NoModifier, s(" "));
    cell.editorEvent(&space, &model, optionFor(leaf), leaf);
    EXPECT_EQ(toggles, 1);
    cell.setPlaceholderString(s("ignored")); // accepted, changes nothing
}

TEST_F(CellsTest, SourceHeadingSitsOnTheBottomAndIsCutAtTheTail)
{
    SourceTextFieldCell cell;
    const QRect frame(10, 20, 200, 30);
    const QRect text = cell.textRect(frame, s("OFFICE"));
    EXPECT_EQ(text.x(), 14);
    EXPECT_EQ(text.bottom(), frame.bottom());
    const QString longName = s("A VERY LONG SERVER NAME THAT DOES NOT FIT INTO THE COLUMN AT ALL");
    const QString cut = cell.elidedText(longName, 120);
    EXPECT_TRUE(cut.endsWith(QChar(0x2026)));
    EXPECT_TRUE(longName.startsWith(cut.chopped(1)));
    EXPECT_FALSE(cell.elidedText(s("TWO\nLINES"), 500).contains(u'\n'));
}

TEST(Transformers, GreyTheTextByBooleanAndLeaveNullAlone)
{
    GrayIfYesTransformer yes;
    GrayIfNoTransformer no;
    const QColor normal = QApplication::palette().color(QPalette::Active, QPalette::Text);
    const QColor grey = QApplication::palette().color(QPalette::Disabled, QPalette::Text);
    ASSERT_NE(normal, grey);
    const struct
    {
        QVariant value;
        QVariant ifYes, ifNo;
    } cases[] = {
        {true, grey, normal}, {false, normal, grey}, {1, grey, normal}, {QVariant(), QVariant(), QVariant()}};
    for (const auto& c : cases) {
        EXPECT_EQ(yes.transformedValue(c.value), c.ifYes) << c.value.toString().toStdString();
        EXPECT_EQ(no.transformedValue(c.value), c.ifNo) << c.value.toString().toStdString();
    }
}

TEST(ClickableTextField, ActsOnMouseDownWithAPointingHand)
{
    ClickableTextField field(s("www.example.org"));
    EXPECT_EQ(field.cursor().shape(), Qt::PointingHandCursor);
    QList<ClickableTextField*> senders;
    QObject::connect(&field, &ClickableTextField::action,
                     [&senders](ClickableTextField* f) { senders << f; });
    const QPointF at(3, 3);
    QMouseEvent down(QEvent::MouseButtonPress, at, at, Qt::LeftButton, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&field, &down);
    EXPECT_EQ(senders, QList<ClickableTextField*>{&field});
    QMouseEvent up(QEvent::MouseButtonRelease, at, at, Qt::LeftButton, Qt::NoButton, Qt::NoModifier);
    QApplication::sendEvent(&field, &up);
    EXPECT_EQ(senders.size(), 1);
}

} // namespace
} // namespace nimbrel::test
