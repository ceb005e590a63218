#include "pane/ItemViews.h"

#include <QAbstractItemView>
#include <QEvent>
#include <QItemSelectionModel>
#include <QKeyEvent>
#include <QTreeView>

namespace nimbrel {

QModelIndex firstSelectedIndex(const QAbstractItemView* view)
{
    if (!view || !view->selectionModel())
        return QModelIndex();
    // Single selection: any selected cell names the row.
    const QModelIndexList selected = view->selectionModel()->selectedIndexes();
    return selected.isEmpty() ? QModelIndex() : selected.first().siblingAtColumn(0);
}

int selectionIndex(const QAbstractItemView* view)
{
    const QModelIndex first = firstSelectedIndex(view);
    return first.isValid() ? first.row() : -1;
}

void setSelectionIndex(QAbstractItemView* view, int row)
{
    if (!view || !view->model() || !view->selectionModel())
        return;
    const QModelIndex index = view->model()->index(row, 0);
    if (!index.isValid()) {
        view->selectionModel()->clearSelection();
        return;
    }
    view->selectionModel()->setCurrentIndex(index,
                                            QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
}

QList<int> selectionIndexPath(const QAbstractItemView* view)
{
    QList<int> path;
    for (QModelIndex at = firstSelectedIndex(view); at.isValid(); at = at.parent())
        path.prepend(at.row());
    return path;
}

void setSelectionIndexPath(QAbstractItemView* view, const QList<int>& path)
{
    if (!view || !view->model() || !view->selectionModel())
        return;
    QModelIndex at;
    for (int row : path) {
        at = view->model()->index(row, 0, at);
        if (!at.isValid())
            break;
    }
    if (!at.isValid()) {
        view->selectionModel()->clearSelection();
        return;
    }
    view->selectionModel()->setCurrentIndex(at,
                                            QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
}

// ---- Laid-out rows ------------------------------------------------------------------------------

namespace {

// Rows laid out for `parent`'s children, each with its own expanded children.
int laidOutRows(const QTreeView* view, const QModelIndex& parent)
{
    const QAbstractItemModel* model = view->model();
    const int count = model->rowCount(parent);
    int rows = count;
    for (int r = 0; r < count; ++r) {
        const QModelIndex child = model->index(r, 0, parent);
        if (view->isExpanded(child) && model->hasChildren(child))
            rows += laidOutRows(view, child);
    }
    return rows;
}

// The row number of `index` as laid out; -1 when a collapsed ancestor hides it.
int laidOutRowOf(const QTreeView* view, const QModelIndex& index)
{
    if (!index.isValid())
        return -1;
    const QModelIndex parent = index.parent();
    int row = 0;
    if (parent.isValid()) {
        if (!view->isExpanded(parent))
            return -1;
        const int parentRow = laidOutRowOf(view, parent);
        if (parentRow < 0)
            return -1;
        row = parentRow + 1;
    }
    const QAbstractItemModel* model = view->model();
    for (int r = 0; r < index.row(); ++r) {
        const QModelIndex sibling = model->index(r, 0, parent);
        row += 1 + (view->isExpanded(sibling) ? laidOutRows(view, sibling) : 0);
    }
    return row;
}

// The index laid out at row `row` below `parent`, counting from `row` 0 at its first child.
QModelIndex laidOutIndex(const QTreeView* view, const QModelIndex& parent, int row)
{
    const QAbstractItemModel* model = view->model();
    const int count = model->rowCount(parent);
    for (int r = 0; r < count && row >= 0; ++r) {
        const QModelIndex child = model->index(r, 0, parent);
        if (row == 0)
            return child;
        --row;
        if (!view->isExpanded(child))
            continue;
        const int below = laidOutRows(view, child);
        if (row < below)
            return laidOutIndex(view, child, row);
        row -= below;
    }
    return QModelIndex();
}

} // namespace

int outlineRowCount(const QTreeView* view)
{
    return view && view->model() ? laidOutRows(view, QModelIndex()) : 0;
}

int lastVisibleRow(const QTreeView* view)
{
    if (!view || !view->model())
        return -1;
    const QRect visible = view->viewport()->rect();
    const QModelIndex bottom = view->indexAt(QPoint(visible.left() + 1, visible.bottom()));
    if (bottom.isValid())
        return laidOutRowOf(view, bottom);
    // The rows end above the bottom of the viewport: the last one is visible, if there is any.
    return outlineRowCount(view) - 1;
}

void scrollRowToVisible(QTreeView* view, int row)
{
    if (!view || !view->model() || row < 0)
        return;
    const QModelIndex index = laidOutIndex(view, QModelIndex(), row);
    if (index.isValid())
        view->scrollTo(index, QAbstractItemView::EnsureVisible);
}

// ---- Keys ---------------------------------------------------------------------------------------

namespace {

class RowKeys : public QObject
{
public:
    RowKeys(QAbstractItemView* view, std::function<void()> open,
            std::function<void(const QModelIndex&)> toggle)
        : QObject(view), m_view(view), m_open(std::move(open)), m_toggle(std::move(toggle))
    {
    }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (watched != m_view || event->type() != QEvent::KeyPress)
            return false;
        const auto* key = static_cast<QKeyEvent*>(event);
        const QModelIndex current = m_view->currentIndex();
        if (!current.isValid() || key->modifiers() & ~Qt::KeypadModifier)
            return false;
        if ((key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter) && m_open) {
            m_open();
            return true;
        }
        if (key->key() == Qt::Key_Space && m_toggle) {
            m_toggle(current);
            return true;
        }
        return false;
    }

private:
    QAbstractItemView* m_view;
    std::function<void()> m_open;
    std::function<void(const QModelIndex&)> m_toggle;
};

} // namespace

void handleRowKeys(QAbstractItemView* view, std::function<void()> open,
                   std::function<void(const QModelIndex&)> toggle)
{
    if (view)
        view->installEventFilter(new RowKeys(view, std::move(open), std::move(toggle)));
}

} // namespace nimbrel
