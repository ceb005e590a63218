#pragma once

// What the pane asks of its tables and its outline, in the terms its controllers use: the selection
// as a row index or an index path, the rows of an outline as they are laid out one under the other
// (expanded sources with their calendars), and the keyboard's way to a row's actions.

#include <QList>
#include <functional>

class QAbstractItemView;
class QModelIndex;
class QTreeView;

namespace nimbrel {

// The first selected row of a table; -1 when nothing is selected.
int selectionIndex(const QAbstractItemView* view);
// Selects that row alone (or nothing when it does not exist).
void setSelectionIndex(QAbstractItemView* view, int row);
// The first selected row of an outline as an index path; empty when nothing is selected.
QList<int> selectionIndexPath(const QAbstractItemView* view);
QModelIndex firstSelectedIndex(const QAbstractItemView* view);
// Selects the row at `path` alone; an empty or missing path clears the selection.
void setSelectionIndexPath(QAbstractItemView* view, const QList<int>& path);

// Rows of an outline counted as laid out: a collapsed source hides its calendars.
int outlineRowCount(const QTreeView* view);
// The last row at least partly visible in the outline's viewport; -1 when it shows no row.
int lastVisibleRow(const QTreeView* view);
// Scrolls as little as needed to show the row with that number.
void scrollRowToVisible(QTreeView* view, int row);

// Return or Enter on a row runs `open` (the keyboard's double click); Space on a row runs `toggle`
// when given (for tables whose checkbox is not the current cell).
void handleRowKeys(QAbstractItemView* view, std::function<void()> open,
                   std::function<void(const QModelIndex&)> toggle = {});

} // namespace nimbrel
